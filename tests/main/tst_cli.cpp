#include "appsettings.h"
#include "cli.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "tokenstore.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
#include <QLocalSocket>
#include <QRegularExpression>
#include <QTest>

Q_DECLARE_METATYPE(TestHttpServer::Response)

namespace {

QByteArray textLine(const QByteArray& text) {
    return R"(data: {"type":"text","text":")" + text + "\"}\n";
}

}  // namespace

class CommandLineTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void testFlagMustBeTheFirstArgument_data();
    void testFlagMustBeTheFirstArgument();
    void answerTestPrintsTheAnswerOrTheError_data();
    void answerTestPrintsTheAnswerOrTheError();
    void answerPiecesAreFlushedAsTheyArrive();
    void profileTextsGoWithTheQuestion_data();
    void profileTextsGoWithTheQuestion();
    void tokenFileUsedWithoutSessionBus();
    void silentSecretServiceGivesUpWithinBound();
    void desktopStartsWithoutTestArguments();

private:
    std::unique_ptr<TestHome> home_;
    std::unique_ptr<TestHttpServer> server_;
};

void CommandLineTest::init() {
    home_ = std::make_unique<TestHome>();
    server_ = std::make_unique<TestHttpServer>();
    QVERIFY(server_->listen());
    server_->respondWith(TestHttpServer::Response::stream({{textLine("ok"), 0}}));
    home_->environment().set("TALLOWIND_SERVER", server_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_TOKEN", "cli-token");
}

void CommandLineTest::cleanup() {
    server_.reset();
    home_.reset();
}

void CommandLineTest::testFlagMustBeTheFirstArgument_data() {
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("test");  // -1: the desktop application
    QTest::addColumn<QString>("argument");
    QTest::newRow("flag alone") << QStringList{"tallowind", "--test-answer"} << -1 << "";
    QTest::newRow("further arguments ignored")
        << QStringList{"tallowind", "--test-answer", "", "extra"} << int(CLI::Test::answer) << "";
    QTest::newRow("speech") << QStringList{"tallowind", "--test-stt", "a.wav"} << int(CLI::Test::speech)
                            << "a.wav";
    QTest::newRow("other letter case") << QStringList{"tallowind", "--TEST-ANSWER", "q"} << -1 << "";
    QTest::newRow("flag second") << QStringList{"tallowind", "--verbose", "--test-answer", "q"} << -1 << "";
}

void CommandLineTest::testFlagMustBeTheFirstArgument() {
    QFETCH(QStringList, arguments);
    QFETCH(int, test);
    QFETCH(QString, argument);
    const auto request = CLI::requestedTest(arguments);
    QCOMPARE(request ? int(request->test) : -1, test);
    QCOMPARE(request ? request->argument : QString(), argument);
}

void CommandLineTest::answerTestPrintsTheAnswerOrTheError_data() {
    QTest::addColumn<bool>("signedIn");
    QTest::addColumn<TestHttpServer::Response>("response");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("out");  // a pattern
    QTest::addColumn<QByteArray>("err");
    using R = TestHttpServer::Response;
    const QString timing = QStringLiteral(R"(\n\n\[first text after %1s, done after \d+\.\d\ds\]\n)");
    QTest::newRow("streamed answer") << true
                                     << R::stream({{textLine("Hello"), 0},
                                                   {": c\n", 10},
                                                   {textLine(", I am Ada."), 10},
                                                   {"data: {\"type\":\"done\"}\n", 0}})
                                     << 0 << "Hello, I am Ada." + timing.arg(R"(\d+\.\d\d)") << QByteArray();
    QTest::newRow("nothing streamed")
        << true << R::stream({{"\n\nevent: end\n", 0}}) << 0 << timing.arg("0.00") << QByteArray();
    QTest::newRow("error mid-stream")
        << true
        << R::stream({{textLine("Partial "), 0},
                      {"data: {\"type\":\"error\",\"message\":\"The model stopped.\"}\n", 10},
                      {textLine("never"), 10}})
        << 1 << "Partial " << QByteArray("error: The model stopped.\n");
    QTest::newRow("refused") << true << R::json(500, "oops") << 1 << ""
                             << QByteArray("error: Tallowind's server returned an error (500).\n");
    QTest::newRow("not signed in") << false << R::json(200, "") << 1 << ""
                                   << QByteArray("error: Please sign in again.\n");
}

void CommandLineTest::answerTestPrintsTheAnswerOrTheError() {
    QFETCH(bool, signedIn);
    QFETCH(TestHttpServer::Response, response);
    QFETCH(int, exitCode);
    QFETCH(QString, out);
    QFETCH(QByteArray, err);
    if (!signedIn) {
        home_->environment().unset("TALLOWIND_TOKEN");
    }
    server_->respondWith(response);
    const auto result = runTallowind({"--test-answer", "Tell me about yourself"});
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.err, err);
    QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out)).match(result.out).hasMatch(),
             result.out.constData());
    QCOMPARE(server_->received().size(), signedIn ? 1 : 0);
    if (signedIn) {
        QCOMPARE(QJsonDocument::fromJson(server_->received().first().body)["question"].toString(),
                 QStringLiteral("Tell me about yourself"));
    }
}

void CommandLineTest::answerPiecesAreFlushedAsTheyArrive() {
    server_->respondWith(
        TestHttpServer::Response::stream({{textLine("first"), 0}, {textLine(" second"), 1500}}));
    QProcess process;
    process.start(tallowindBinary(), {"--test-answer", "q"});
    QByteArray out;
    connect(&process, &QProcess::readyReadStandardOutput, this,
            [&] { out += process.readAllStandardOutput(); });
    // The first piece is readable long before the server sends the second.
    QTRY_COMPARE_WITH_TIMEOUT(out, QByteArray("first"), 1200);
    QCOMPARE(process.state(), QProcess::Running);
    QTRY_COMPARE_WITH_TIMEOUT(process.state(), QProcess::NotRunning, 10'000);
    QCOMPARE(process.exitCode(), 0);
    QVERIFY(out.startsWith("first second\n\n[first text after "));
}

void CommandLineTest::profileTextsGoWithTheQuestion_data() {
    QTest::addColumn<QString>("resumeFile");  // empty: unset
    QTest::addColumn<QString>("expectedResume");
    QTest::newRow("stored resume") << ""
                                   << "Stored resume";
    QTest::newRow("resume file") << "resume.txt"
                                 << "Resume from file\n";
    QTest::newRow("unreadable resume file") << "no/such/resume.pdf"
                                            << "Stored resume";
}

void CommandLineTest::profileTextsGoWithTheQuestion() {
    QFETCH(QString, resumeFile);
    QFETCH(QString, expectedResume);
    {
        AppSettings settings(AppSettings::defaultPath());
        settings.setResume(QStringLiteral("Stored resume"));
        settings.setJobDescription(QStringLiteral("Platform team"));
        settings.setExtraInstructions(QStringLiteral("Mention Rust."));
    }
    QFile file(home_->path() + "/resume.txt");
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("Resume from file\n") > 0);
    file.close();
    if (!resumeFile.isEmpty()) {
        home_->environment().set("TALLOWIND_RESUME", (home_->path() + '/' + resumeFile).toUtf8());
    }
    QCOMPARE(runTallowind({"--test-answer", "q"}).exitCode, 0);
    const QJsonObject body = QJsonDocument::fromJson(server_->received().value(0).body).object();
    QCOMPARE(body.value("resume").toString(), expectedResume);
    QCOMPARE(body.value("jobDescription").toString(), QStringLiteral("Platform team"));
    QCOMPARE(body.value("extraInstructions").toString(), QStringLiteral("Mention Rust."));
    QCOMPARE(body.value("transcript").toArray().size(), 0);
}

void CommandLineTest::tokenFileUsedWithoutSessionBus() {
    home_->environment().unset("TALLOWIND_TOKEN");
    home_->environment().unset("TALLOWIND_TOKEN_STORE");
    home_->environment().set("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/tallowind-test-bus");
    home_->environment().unset("DISPLAY");
    QVERIFY(makeFileTokenStore(Keychain::tokenFilePath())->save(QStringLiteral("from-file")) ==
            TokenStore::Availability::answered);
    QCOMPARE(runTallowind({"--test-answer", "q"}).exitCode, 0);
    QCOMPARE(server_->received().value(0).header("authorization"), QByteArray("Bearer from-file"));
}

void CommandLineTest::silentSecretServiceGivesUpWithinBound() {
    // A bus that accepts connections and never says a word.
    QLocalServer silent;
    QVERIFY(silent.listen(home_->path() + "/silent-bus"));
    QList<QLocalSocket*> held;
    connect(&silent, &QLocalServer::newConnection, this, [&] {
        while (QLocalSocket* socket = silent.nextPendingConnection()) {
            held.append(socket);
        }
    });
    home_->environment().unset("TALLOWIND_TOKEN");
    home_->environment().set("TALLOWIND_TOKEN_STORE", "secret-service");
    home_->environment().set("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + silent.fullServerName()).toUtf8());
    home_->environment().unset("DISPLAY");
    QElapsedTimer clock;
    clock.start();
    const auto result = runTallowind({"--test-answer", "q"});
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QByteArray("error: Please sign in again.\n"));
    // Three seconds for the lookup, plus start-up and the bounded wait at exit.
    QVERIFY2(clock.elapsed() < 8000, QByteArray::number(clock.elapsed()).constData());
    QVERIFY(server_->received().isEmpty());
}

void CommandLineTest::desktopStartsWithoutTestArguments() {
    QProcessEnvironment desktop = QProcessEnvironment::systemEnvironment();
    desktop.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    QProcess process;
    process.setProcessEnvironment(desktop);
    process.start(tallowindBinary(), {"--test-answer"});
    QVERIFY(process.waitForStarted());
    // The desktop application keeps running with no window; a test would have ended by now.
    QTest::qWait(1500);
    QCOMPARE(process.state(), QProcess::Running);
    // The desktop program may ask for a release at start, but it asks no question on its own.
    for (const auto& request : server_->received()) {
        QVERIFY2(!request.target.startsWith("/answer"), request.target.constData());
    }
    process.terminate();
    QVERIFY(process.waitForFinished(5000));
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_cli.moc"
