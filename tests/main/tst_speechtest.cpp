#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <sndfile.h>

#include <cmath>
#include <vector>

namespace {

const QString reconnecting = QStringLiteral(u"Reconnecting to speech service\u2026");
constexpr int silenceChunks = 20;

QString results(const QString& transcript, bool isFinal, bool speechFinal) {
    return QStringLiteral(
               R"({"type":"Results","is_final":%2,"speech_final":%3,"channel":{"alternatives":[{"transcript":"%1"}]}})")
        .arg(transcript, isFinal ? "true" : "false", speechFinal ? "true" : "false");
}

// A WAV file of a 440 Hz tone; false if it could not be written.
bool writeTone(const QString& path, int sampleRate, int channels, int frames) {
    SF_INFO info{};
    info.samplerate = sampleRate;
    info.channels = channels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_16;
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    if (!file) {
        return false;
    }
    std::vector<float> samples(static_cast<size_t>(frames * channels));
    for (size_t i = 0; i < samples.size(); ++i) {
        samples[i] = 0.5f * float(std::sin(2 * M_PI * 440 * double(i / size_t(channels)) / sampleRate));
    }
    const bool written = sf_writef_float(file, samples.data(), frames) == frames;
    return sf_close(file) == 0 && written;
}

}  // namespace

// The speech test as a process, against a loopback backend that hands out speech tokens and a
// loopback speech service.
class SpeechTestCommand : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void fileIsStreamedAs16kHzThenSilence_data();
    void fileIsStreamedAs16kHzThenSilence();
    void onlyFinalTextAndUtteranceEndsArePrinted();
    void aLostConnectionEndsTheTest();
    void failuresBeforeConnectingAreReported_data();
    void failuresBeforeConnectingAreReported();

private:
    std::unique_ptr<QTemporaryDir> files_;
    std::unique_ptr<TestHome> home_;
    std::unique_ptr<TestHttpServer> backend_;
    std::unique_ptr<TestWebSocketServer> service_;
};

void SpeechTestCommand::init() {
    files_ = std::make_unique<QTemporaryDir>();
    home_ = std::make_unique<TestHome>();
    backend_ = std::make_unique<TestHttpServer>();
    service_ = std::make_unique<TestWebSocketServer>();
    QVERIFY(backend_->listen());
    QVERIFY(service_->listen());
    backend_->respondWith(TestHttpServer::Response::json(200, R"({"token":"stt-abc"})"));
    home_->environment().set("TALLOWIND_SERVER", backend_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_STT_URL", service_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_TOKEN", "cli-token");
}

void SpeechTestCommand::cleanup() {
    service_.reset();
    backend_.reset();
    home_.reset();
    files_.reset();
}

void SpeechTestCommand::fileIsStreamedAs16kHzThenSilence_data() {
    QTest::addColumn<int>("sampleRate");
    QTest::addColumn<int>("channels");
    QTest::addColumn<int>("frames");
    QTest::addColumn<int>("chunks");  // of a tenth of a second each

    QTest::newRow("44.1 kHz stereo, half a second and a bit") << 44100 << 2 << 22050 + 100 << 6;
    QTest::newRow("an empty file") << 16000 << 1 << 0 << 0;
}

void SpeechTestCommand::fileIsStreamedAs16kHzThenSilence() {
    QFETCH(int, sampleRate);
    QFETCH(int, channels);
    QFETCH(int, frames);
    QFETCH(int, chunks);

    const QString path = files_->filePath(QStringLiteral("audio.wav"));
    QVERIFY(writeTone(path, sampleRate, channels, frames));
    QElapsedTimer clock;
    clock.start();
    const ProcessResult result = runTallowind({"--test-stt", path});
    const qint64 elapsed = clock.elapsed();

    QCOMPARE(result.err, QByteArray());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QByteArray("[connected]\n"));
    // 1.5 s before the audio, 50 ms after every chunk, 3 s after the silence.
    QVERIFY2(elapsed >= 5500 + 50 * chunks, qPrintable(QString::number(elapsed)));

    QCOMPARE(backend_->received().value(0).target, QByteArray("/stt-token"));
    QCOMPARE(service_->connections().size(), 1);
    const auto& connection = service_->connections().first();
    QCOMPARE(connection.header("authorization"), QByteArray("Bearer stt-abc"));

    // The stream is stopped properly before the process ends.
    QTRY_VERIFY(!connection.open);
    QCOMPARE(connection.closeCode, std::optional<int>(1000));
    QCOMPARE(connection.texts().last(), QStringLiteral(R"({"type":"CloseStream"})"));

    // The file as 16 kHz mono 16-bit audio, a tenth of a second per message, then the silence.
    const QList<QByteArray> binaries = connection.binaries();
    QVERIFY(binaries.size() >= silenceChunks);
    const QList<QByteArray> audio = binaries.first(binaries.size() - silenceChunks);
    QCOMPARE(binaries.last(silenceChunks), QList<QByteArray>(silenceChunks, QByteArray(3200, '\0')));
    QVERIFY2(audio.size() <= chunks && audio.size() >= chunks - 1, qPrintable(QString::number(audio.size())));
    qsizetype audioBytes = 0;
    for (qsizetype i = 0; i < audio.size(); ++i) {
        audioBytes += audio[i].size();
        QVERIFY(audio[i] != QByteArray(audio[i].size(), '\0'));
        if (i > 0 && i + 1 < audio.size()) {
            // The resampler's look-ahead makes the sizes wander a little around a tenth of a second.
            QVERIFY2(std::abs(audio[i].size() - 3200) <= 320, qPrintable(QString::number(audio[i].size())));
        }
    }
    const qsizetype expectedBytes = qsizetype(frames) * 32000 / sampleRate;
    // Less the resampler's look-ahead, which stays behind at the end.
    QVERIFY2(audioBytes <= expectedBytes && audioBytes >= expectedBytes * 85 / 100,
             qPrintable(QStringLiteral("%1 of %2 bytes").arg(audioBytes).arg(expectedBytes)));
}

void SpeechTestCommand::onlyFinalTextAndUtteranceEndsArePrinted() {
    service_->setGreeting({
        results("hello", false, false),
        results("  Hello there.  ", true, true),
        results("and more", true, false),
        results("", true, true),
        R"({"type":"SpeechStarted"})",
        R"({"type":"UtteranceEnd","last_word_end":2.1})",
        results("   ", true, false),
    });
    const QString path = files_->filePath(QStringLiteral("short.wav"));
    QVERIFY(writeTone(path, 16000, 1, 1600));
    const ProcessResult result = runTallowind({"--test-stt", path});

    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QByteArray("[connected]\nFINAL: Hello there.\nfinal: and more\n[utterance end]\n"));
    QCOMPARE(result.err, QByteArray());
}

void SpeechTestCommand::aLostConnectionEndsTheTest() {
    connect(service_.get(), &TestWebSocketServer::frameReceived, service_.get(),
            [this](int connection) { service_->drop(connection); });
    const QString path = files_->filePath(QStringLiteral("tone.wav"));
    QVERIFY(writeTone(path, 16000, 1, 16000));
    QElapsedTimer clock;
    clock.start();
    const ProcessResult result = runTallowind({"--test-stt", path});

    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, ("[connected]\n[error] " + reconnecting + "\n").toUtf8());
    // It ends with the failure, long before the schedule would have ended it.
    QVERIFY2(clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(service_->connections().size(), 1);
}

void SpeechTestCommand::failuresBeforeConnectingAreReported_data() {
    QTest::addColumn<QByteArray>("file");  // "tone": a good file; empty: no file at all
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QByteArray>("out");  // when empty, the error goes to standard error, naming the file

    const QByteArray tone("tone");
    const QByteArray none;
    QTest::newRow("not signed in") << tone << false << 200 << none << 0
                                   << QByteArray("[error] Please sign in again.\n");
    QTest::newRow("the server refuses the token")
        << tone << true << 403 << QByteArray(R"({"error":"No minutes left this month."})") << 0
        << QByteArray("[error] No minutes left this month.\n");
    QTest::newRow("missing file") << none << true << 200 << none << 1 << none;
    QTest::newRow("not audio") << QByteArray("Just some text, not a sound.\n") << true << 200 << none << 1
                               << none;
}

void SpeechTestCommand::failuresBeforeConnectingAreReported() {
    QFETCH(QByteArray, file);
    QFETCH(bool, signedIn);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(int, exitCode);
    QFETCH(QByteArray, out);

    if (!signedIn) {
        home_->environment().unset("TALLOWIND_TOKEN");
    }
    backend_->respondWith(TestHttpServer::Response::json(status, body));
    const QString path = files_->filePath(QStringLiteral("input.wav"));
    if (file == "tone") {
        QVERIFY(writeTone(path, 16000, 1, 16000));
    } else if (!file.isEmpty()) {
        QFile text(path);
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write(file);
    }
    const ProcessResult result = runTallowind({"--test-stt", path});

    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.out, out);
    if (out.isEmpty()) {
        QVERIFY2(result.err.startsWith("error: ") && result.err.endsWith('\n'), result.err.constData());
        QVERIFY2(result.err.contains(path.toUtf8()), result.err.constData());
        // An unreadable file is found out before anything goes over the network.
        QVERIFY(backend_->received().isEmpty());
    } else {
        QCOMPARE(result.err, QByteArray());
    }
    QVERIFY(service_->connections().isEmpty());
}

QTEST_GUILESS_MAIN(SpeechTestCommand)
#include "tst_speechtest.moc"
