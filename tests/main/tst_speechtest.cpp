#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <sndfile.h>

#include <cmath>
#include <vector>

namespace {

QString results(const QString& transcript, bool isFinal, bool speechFinal) {
    return QStringLiteral(
               R"({"type":"Results","is_final":%2,"speech_final":%3,"channel":{"alternatives":[{"transcript":"%1"}]}})")
        .arg(transcript, isFinal ? "true" : "false", speechFinal ? "true" : "false");
}

// A WAV file of a 440 Hz tone; false if it could not be written.
bool writeTone(const QString& path, int sampleRate, int channels, int frames) {
    SF_INFO info{0, sampleRate, channels, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    std::vector<float> samples(static_cast<size_t>(frames * channels));
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = 0.5f * float(std::sin(2 * M_PI * 440 * double(i / size_t(channels)) / sampleRate));
    }
    return file && sf_writef_float(file, samples.data(), frames) == frames && sf_close(file) == 0;
}

}  // namespace

// The speech test as a process, against a loopback backend that hands out speech tokens and a loopback
// speech service.
class SpeechTestCommand : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void speechTestPrintsWhatTheServiceRecognised_data();
    void speechTestPrintsWhatTheServiceRecognised();
    void fileIsStreamedAs16kHzThenSilenceAndTheStreamClosed();

private:
    std::unique_ptr<TestHome> home_;
    std::unique_ptr<TestHttpServer> backend_;
    std::unique_ptr<TestWebSocketServer> service_;
    QString path_;  // the audio file
};

void SpeechTestCommand::init() {
    home_ = std::make_unique<TestHome>();
    backend_ = std::make_unique<TestHttpServer>();
    service_ = std::make_unique<TestWebSocketServer>();
    QVERIFY(backend_->listen() && service_->listen());
    backend_->respondWith(TestHttpServer::Response::json(200, R"({"token":"stt-abc"})"));
    home_->environment().set("TALLOWIND_SERVER", backend_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_STT_URL", service_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_TOKEN", "cli-token");
    path_ = home_->path() + QStringLiteral("/input.wav");
}

void SpeechTestCommand::cleanup() {
    service_.reset();
    backend_.reset();
    home_.reset();
}

void SpeechTestCommand::speechTestPrintsWhatTheServiceRecognised_data() {
    QTest::addColumn<QByteArray>("setup");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");  // when empty, the error goes to standard error, naming the file
    QTest::newRow("only final text and utterance ends are printed")
        << QByteArray("greeting") << 0
        << QByteArray("[connected]\nFINAL: Hello there.\nfinal: and more\n[utterance end]\n");
    QTest::newRow("a lost connection ends the test")
        << QByteArray("drop") << 0
        << QByteArray("[connected]\n[error] Reconnecting to speech service\xe2\x80\xa6\n");
    QTest::newRow("not signed in") << QByteArray("signed out") << 0
                                   << QByteArray("[error] Please sign in again.\n");
    QTest::newRow("the server refuses the token")
        << QByteArray("refused") << 0 << QByteArray("[error] No minutes left this month.\n");
    QTest::newRow("missing file") << QByteArray("no file") << 1 << QByteArray();
    QTest::newRow("not audio") << QByteArray("text file") << 1 << QByteArray();
}

void SpeechTestCommand::speechTestPrintsWhatTheServiceRecognised() {
    QFETCH(QByteArray, setup);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);
    service_->setGreeting({results("hello", false, false), results("  Hello there.  ", true, true),
                           results("and more", true, false), results("", true, true),
                           R"({"type":"SpeechStarted"})", R"({"type":"UtteranceEnd","last_word_end":2.1})",
                           results("   ", true, false)});
    if (setup == "drop") {
        service_->setGreeting({});
        connect(service_.get(), &TestWebSocketServer::frameReceived, service_.get(),
                [this](int connection) { service_->drop(connection); });
    } else if (setup == "signed out") {
        home_->environment().unset("TALLOWIND_TOKEN");
    } else if (setup == "refused") {
        backend_->respondWith(
            TestHttpServer::Response::json(403, R"({"error":"No minutes left this month."})"));
    }
    if (setup == "text file") {
        QFile text(path_);
        QVERIFY(text.open(QIODevice::WriteOnly) && text.write("Just some text, not a sound.\n") > 0);
    } else if (setup != "no file") {
        QVERIFY(writeTone(path_, 16000, 1, 1600));
    }
    QElapsedTimer clock;
    clock.start();
    const ProcessResult result = runTallowind({"--test-stt", path_});
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.out, out);
    if (out.isEmpty()) {
        QVERIFY2(result.err.startsWith("error: ") && result.err.contains(path_.toUtf8()),
                 result.err.constData());
        // An unreadable file is found out before anything goes over the network.
        QVERIFY(backend_->received().isEmpty());
    } else {
        QCOMPARE(result.err, QByteArray());
    }
    QCOMPARE(service_->connections().size(), out.contains("[connected]") ? 1 : 0);
    // A failure ends the test long before its schedule would.
    QVERIFY2(setup != "drop" || clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
}

void SpeechTestCommand::fileIsStreamedAs16kHzThenSilenceAndTheStreamClosed() {
    const int chunks = 6;  // of a tenth of a second: half a second and a bit of 44.1 kHz stereo
    const int frames = 22050 + 100;
    QVERIFY(writeTone(path_, 44100, 2, frames));
    QElapsedTimer clock;
    clock.start();
    const ProcessResult result = runTallowind({"--test-stt", path_});
    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QByteArray("[connected]\n"));
    // 1.5 s before the audio, 50 ms after every chunk and each of 20 of silence, 3 s for the last results.
    QVERIFY2(clock.elapsed() >= 5500 + 50 * chunks, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(backend_->received().value(0).target, QByteArray("/stt-token"));
    QCOMPARE(service_->connections().size(), 1);
    const auto& connection = service_->connections().first();
    QCOMPARE(connection.header("authorization"), QByteArray("Bearer stt-abc"));
    QTRY_VERIFY(!connection.open);
    QCOMPARE(connection.closeCode, std::optional<int>(1000));
    QCOMPARE(connection.texts().last(), QStringLiteral(R"({"type":"CloseStream"})"));
    // A tenth of a second per message, then the silence; the resampler's look-ahead may hold one back.
    const QList<QByteArray> binaries = connection.binaries();
    QVERIFY(binaries.size() >= 20);
    QCOMPARE(binaries.last(20), QList<QByteArray>(20, QByteArray(3200, '\0')));
    const QList<QByteArray> audio = binaries.first(binaries.size() - 20);
    QVERIFY2(audio.size() <= chunks && audio.size() >= chunks - 1, qPrintable(QString::number(audio.size())));
}

QTEST_GUILESS_MAIN(SpeechTestCommand)
#include "tst_speechtest.moc"
