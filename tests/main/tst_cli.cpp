// The program's test commands as a process, against a loopback backend and speech service.

#include "appsettings.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLocalServer>
#include <QRegularExpression>
#include <QTest>

#include <sndfile.h>

#include <cmath>

static QString results(const QString& transcript, bool isFinal, bool speechFinal) {
    return QStringLiteral(
               R"({"type":"Results","is_final":%2,"speech_final":%3,"channel":{"alternatives":[{"transcript":"%1"}]}})")
        .arg(transcript, isFinal ? "true" : "false", speechFinal ? "true" : "false");
}

// Half a second and a bit of a 440 Hz tone, 44.1 kHz stereo, as a WAV file; false if it could not be written.
static bool writeTone(const QString& path) {
    const int frames = 22050 + 100;
    SF_INFO info{0, 44100, 2, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0};
    SNDFILE* file = sf_open(QFile::encodeName(path).constData(), SFM_WRITE, &info);
    QList<float> samples(frames * 2);
    for (qsizetype i = 0; i < samples.size(); ++i) {
        samples[i] = 0.5f * float(std::sin(2 * M_PI * 440 * double(i / 2) / 44100));
    }
    return file && sf_writef_float(file, samples.data(), frames) == frames && sf_close(file) == 0;
}

Q_DECLARE_METATYPE(TestHttpServer::Response)

class CommandLineTest : public QObject {
    Q_OBJECT

    std::optional<TestHome> home_;
    std::optional<TestHttpServer> backend_;
    QElapsedTimer clock_;

    ScopedEnvironment& environment() { return home_->environment(); }

private slots:
    void init() {
        home_.emplace();
        backend_.emplace();
        QVERIFY(backend_->listen());
        environment().set("TALLOWIND_SERVER", backend_->url().toString().toUtf8());
        clock_.start();
    }

    void answerTestPrintsTheAnswerOrTheError_data() {
        QTest::addColumn<QByteArray>("setup");
        QTest::addColumn<TestHttpServer::Response>("response");
        QTest::addColumn<QString>("out");        // a pattern
        QTest::addColumn<QByteArray>("err");     // an error ends the test with 1
        QTest::addColumn<QByteArray>("resume");  // as JSON, what the question went with; empty: not asked
        using R = TestHttpServer::Response;
        const auto line = [](const QByteArray& t) {
            return "data: {\"type\":\"text\",\"text\":\"" + t + "\"}\n";
        };
        const R ok = R::stream({{line("ok"), 0}});
        const QString timing =
            QStringLiteral(R"(\n\n\[first text after \d+\.\d\ds, done after \d+\.\d\ds\]\n)");
        const QByteArray signedOut = "error: Please sign in again.\n";
        QTest::newRow("streamed answer with the resume from a file")
            << QByteArray("signed in")
            << R::stream({{line("Hello"), 0}, {": c\n", 10}, {line(", I am Ada."), 10}})
            << "Hello, I am Ada." + timing << QByteArray() << QByteArray(R"(Resume from file\n)");
        QTest::newRow("not signed in") << QByteArray("signed out") << ok << "" << signedOut << QByteArray();
        QTest::newRow("token file used without a session bus, stored resume")
            << QByteArray("token file") << ok << "ok" + timing << QByteArray() << QByteArray("Stored resume");
        QTest::newRow("silent Secret Service gives up within its bound")
            << QByteArray("silent bus") << ok << "" << signedOut << QByteArray();
        QTest::newRow("flag alone starts the desktop program")
            << QByteArray("desktop") << ok << "" << QByteArray() << QByteArray();
    }

    void answerTestPrintsTheAnswerOrTheError() {
        QFETCH(QByteArray, setup);
        QFETCH(TestHttpServer::Response, response);
        QFETCH(QString, out);
        QFETCH(QByteArray, err);
        QFETCH(QByteArray, resume);
        const int exitCode = setup == "desktop" ? -1 : err.isEmpty() ? 0 : 1;  // -1: still running
        backend_->respondWith(response);
        {
            AppSettings settings(AppSettings::defaultPath());
            settings.setResume(QStringLiteral("Stored resume"));
            settings.setJobDescription(QStringLiteral("Platform team"));
        }
        QLocalServer silent;  // a bus that accepts connections and never says a word
        QVERIFY(silent.listen(home_->path() + "/silent-bus"));
        QFile file(home_->path() + "/resume.txt");
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("Resume from file\n") > 0 && file.flush());
        if (setup == "signed in" || setup == "desktop") {
            environment().set("TALLOWIND_TOKEN", "cli-token");
            environment().set("TALLOWIND_RESUME", QFile::encodeName(file.fileName()));
        } else if (setup == "token file") {
            Keychain::save(QStringLiteral("cli-token"));
            environment().unset("TALLOWIND_TOKEN_STORE");
            environment().unset("DISPLAY");
            environment().set("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/tallowind-test-bus");
        } else if (setup == "silent bus") {
            environment().set("TALLOWIND_TOKEN_STORE", "secret-service");
            environment().set("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + silent.fullServerName()).toUtf8());
        }
        const QStringList arguments{"--test-answer", "Tell me about yourself"};
        const auto result =
            runTallowind(exitCode < 0 ? arguments.first(1) : arguments, exitCode < 0 ? 1500 : 20'000);
        QCOMPARE(result.exitCode, exitCode);
        QVERIFY2(exitCode < 0 || result.err == err, result.err.constData());  // the desktop program may warn
        QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out)).match(result.out).hasMatch(),
                 result.out.constData());
        // Three seconds for the token lookup, plus start-up and the bounded wait at exit.
        QVERIFY2(clock_.elapsed() < 8000, QByteArray::number(clock_.elapsed()).constData());
        QList<TestHttpServer::Received> asked = backend_->received();
        asked.removeIf([](const auto& request) { return request.target != "/answer"; });
        // The desktop program may look for a release, but asks nothing.
        QVERIFY(exitCode < 0 || asked.size() == backend_->received().size());
        QCOMPARE(asked.size(), resume.isEmpty() ? 0 : 1);
        for (const auto& request : asked) {
            QCOMPARE(request.header("authorization"), QByteArray("Bearer cli-token"));
            QCOMPARE(request.body, R"({"extraInstructions":"","jobDescription":"Platform team",)"
                                   R"("question":"Tell me about yourself","resume":")" +
                                       resume + R"(","transcript":[]})");
        }
    }

    void speechTestPrintsWhatTheServiceRecognised_data() {
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

    void speechTestPrintsWhatTheServiceRecognised() {
        QFETCH(QByteArray, setup);
        QFETCH(QByteArray, out);
        TestWebSocketServer service;
        QVERIFY(service.listen());
        backend_->respondWith(TestHttpServer::Response::json(200, R"({"token":"stt-abc"})"));
        environment().set("TALLOWIND_STT_URL", service.url().toString().toUtf8());
        environment().set("TALLOWIND_TOKEN", "cli-token");
        if (setup == "drop") {
            connect(&service, &TestWebSocketServer::frameReceived, &service,
                    [&service](int connection) { service.drop(connection); });
        } else {
            service.setGreeting(
                {results("hello", false, false), results("  Hello there.  ", true, true),
                 results("and more", true, false), results("", true, true), R"({"type":"SpeechStarted"})",
                 R"({"type":"UtteranceEnd","last_word_end":2.1})", results("   ", true, false)});
        }
        // The test program itself stands for a file that is not audio.
        const QString path = home_->path() + QStringLiteral("/input.wav");
        const QString file = setup == "not audio" ? QCoreApplication::applicationFilePath() : path;
        QVERIFY(writeTone(path));
        const ProcessResult result = runTallowind({"--test-stt", file});
        QCOMPARE(result.exitCode, out.isEmpty() ? 1 : 0);
        QCOMPARE(result.out, out);
        QVERIFY2(out.isEmpty()
                     ? result.err.startsWith("error: ") && result.err.contains(QFile::encodeName(file))
                     : result.err.isEmpty(),
                 result.err.constData());
        // An unreadable file is found out before anything goes over the network.
        QVERIFY(!out.isEmpty() || backend_->received().isEmpty());
        QCOMPARE(service.connections().size(), out.contains("[connected]") ? 1 : 0);
        // A failure ends the test long before its schedule would.
        QVERIFY2(setup != "drop" || clock_.elapsed() < 5000, qPrintable(QString::number(clock_.elapsed())));
        if (setup != "greeting") {
            return;
        }
        // 1.5 s before the audio, 50 ms after each of 6 chunks and 20 of silence, 3 s for the last results.
        QVERIFY2(clock_.elapsed() >= 5800, qPrintable(QString::number(clock_.elapsed())));
        QCOMPARE(backend_->received().value(0).target, QByteArray("/stt-token"));
        const auto& connection = service.connections().first();
        QCOMPARE(connection.header("authorization"), QByteArray("Bearer stt-abc"));
        QTRY_VERIFY(!connection.open);
        QCOMPARE(connection.closeCode, std::optional<int>(1000));
        QCOMPARE(connection.texts().last(), QStringLiteral(R"({"type":"CloseStream"})"));
        // A tenth of a second per message, then the silence; the resampler's look-ahead may hold one back.
        const QList<QByteArray> binaries = connection.binaries();
        QCOMPARE(binaries.last(20), QList<QByteArray>(20, QByteArray(3200, '\0')));
        QVERIFY2(binaries.size() == 26 || binaries.size() == 25,
                 qPrintable(QString::number(binaries.size())));
    }
};

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_cli.moc"
