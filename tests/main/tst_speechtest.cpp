#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QFile>
#include <QTest>

#include <sndfile.h>

#include <cmath>

namespace {

QString results(const QString& transcript, bool isFinal, bool speechFinal) {
    return QStringLiteral(
               R"({"type":"Results","is_final":%2,"speech_final":%3,"channel":{"alternatives":[{"transcript":"%1"}]}})")
        .arg(transcript, isFinal ? "true" : "false", speechFinal ? "true" : "false");
}

// Half a second and a bit of a 440 Hz tone, 44.1 kHz stereo, as a WAV file; false if it could not be written.
bool writeTone(const QString& path) {
    const int frames = 22050 + 100;
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    QList<float> samples(frames * 2);
    for (qsizetype i = 0; i < samples.size(); ++i) {
        samples[i] = 0.5f * float(std::sin(2 * M_PI * 440 * double(i / 2) / 44100));
    }
    return file && sf_writef_float(file, samples.data(), frames) == frames && sf_close(file) == 0;
}

}  // namespace

// The speech test as a process, against a loopback backend and speech service.
class SpeechTestCommand : public QObject {
    Q_OBJECT

private slots:
    void speechTestPrintsWhatTheServiceRecognised_data();
    void speechTestPrintsWhatTheServiceRecognised();
};

void SpeechTestCommand::speechTestPrintsWhatTheServiceRecognised_data() {
    QTest::addColumn<QByteArray>("setup");
    QTest::addColumn<QByteArray>("out");  // empty: the file is refused on standard error
    QTest::newRow("file streamed as 16 kHz, then silence; only final text and utterance ends printed")
        << QByteArray("greeting")
        << QByteArray("[connected]\nFINAL: Hello there.\nfinal: and more\n[utterance end]\n");
    QTest::newRow("a lost connection ends the test")
        << QByteArray("drop")
        << QByteArray("[connected]\n[error] Reconnecting to speech service\xe2\x80\xa6\n");
    QTest::newRow("not audio") << QByteArray("not audio") << QByteArray();
}

void SpeechTestCommand::speechTestPrintsWhatTheServiceRecognised() {
    QFETCH(QByteArray, setup);
    QFETCH(QByteArray, out);
    TestHome home;
    TestHttpServer backend;
    TestWebSocketServer service;
    QVERIFY(backend.listen() && service.listen());
    backend.respondWith(TestHttpServer::Response::json(200, R"({"token":"stt-abc"})"));
    home.environment().set("TALLOWIND_SERVER", backend.url().toString().toUtf8());
    home.environment().set("TALLOWIND_STT_URL", service.url().toString().toUtf8());
    home.environment().set("TALLOWIND_TOKEN", "cli-token");
    const QString path = home.path() + QStringLiteral("/input.wav");
    if (setup == "drop") {
        connect(&service, &TestWebSocketServer::frameReceived, &service,
                [&service](int connection) { service.drop(connection); });
    } else {
        service.setGreeting({results("hello", false, false), results("  Hello there.  ", true, true),
                             results("and more", true, false), results("", true, true),
                             R"({"type":"SpeechStarted"})", R"({"type":"UtteranceEnd","last_word_end":2.1})",
                             results("   ", true, false)});
    }
    // The test program itself stands for a file that is not audio.
    const QString file = setup == "not audio" ? QCoreApplication::applicationFilePath() : path;
    QVERIFY(writeTone(path));
    QElapsedTimer clock;
    clock.start();
    const ProcessResult result = runTallowind({"--test-stt", file});
    QCOMPARE(result.exitCode, out.isEmpty() ? 1 : 0);
    QCOMPARE(result.out, out);
    QVERIFY2(out.isEmpty() ? result.err.startsWith("error: ") && result.err.contains(QFile::encodeName(file))
                           : result.err.isEmpty(),
             result.err.constData());
    // An unreadable file is found out before anything goes over the network.
    QVERIFY(!out.isEmpty() || backend.received().isEmpty());
    QCOMPARE(service.connections().size(), out.contains("[connected]") ? 1 : 0);
    // A failure ends the test long before its schedule would.
    QVERIFY2(setup != "drop" || clock.elapsed() < 5000, qPrintable(QString::number(clock.elapsed())));
    if (setup != "greeting") {
        return;
    }
    // 1.5 s before the audio, 50 ms after each of 6 chunks and 20 of silence, 3 s for the last results.
    QVERIFY2(clock.elapsed() >= 5800, qPrintable(QString::number(clock.elapsed())));
    QCOMPARE(backend.received().value(0).target, QByteArray("/stt-token"));
    const auto& connection = service.connections().first();
    QCOMPARE(connection.header("authorization"), QByteArray("Bearer stt-abc"));
    QTRY_VERIFY(!connection.open);
    QCOMPARE(connection.closeCode, std::optional<int>(1000));
    QCOMPARE(connection.texts().last(), QStringLiteral(R"({"type":"CloseStream"})"));
    // A tenth of a second per message, then the silence; the resampler's look-ahead may hold one back.
    const QList<QByteArray> binaries = connection.binaries();
    QCOMPARE(binaries.last(20), QList<QByteArray>(20, QByteArray(3200, '\0')));
    QVERIFY2(binaries.size() == 26 || binaries.size() == 25, qPrintable(QString::number(binaries.size())));
}

QTEST_GUILESS_MAIN(SpeechTestCommand)
#include "tst_speechtest.moc"
