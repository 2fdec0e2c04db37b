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

namespace {

QByteArray textLine(const QByteArray& text) {
    return R"(data: {"type":"text","text":")" + text + "\"}\n";
}

// Everything after the answer: the timing line with its two figures.
const QRegularExpression timingLine(
    QStringLiteral(R"(^\n\n\[first text after (\d+\.\d\d)s, done after (\d+\.\d\d)s\]\n$)"));

}  // namespace

class CommandLineTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void argumentRule_data();
    void argumentRule();

    void streamedAnswer();
    void piecesAreFlushedAsTheyArrive();
    void emptyStream();
    void serverErrorMidStream();
    void refusedRequest();
    void noToken();
    void profileTextsGoWithTheQuestion_data();
    void profileTextsGoWithTheQuestion();
    void tokenFileUsedWithoutSessionBus();
    void silentSecretServiceGivesUpWithinBound();
    void desktopStartsWithoutTestArguments();

private:
    QProcessEnvironment environment() const;

    std::unique_ptr<TestHome> home_;
    std::unique_ptr<TestHttpServer> server_;
};

void CommandLineTest::init() {
    home_ = std::make_unique<TestHome>();
    server_ = std::make_unique<TestHttpServer>();
    QVERIFY(server_->listen());
    home_->environment().set("TALLOWIND_SERVER", server_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_TOKEN", "cli-token");
}

void CommandLineTest::cleanup() {
    server_.reset();
    home_.reset();
}

QProcessEnvironment CommandLineTest::environment() const {
    return QProcessEnvironment::systemEnvironment();
}

void CommandLineTest::argumentRule_data() {
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<int>("test");  // -1: the desktop application
    QTest::addColumn<QString>("argument");
    const int answer = int(CLI::Test::answer);
    const int speech = int(CLI::Test::speech);
    QTest::newRow("no arguments") << QStringList{"tallowind"} << -1 << "";
    QTest::newRow("flag alone") << QStringList{"tallowind", "--test-answer"} << -1 << "";
    QTest::newRow("answer") << QStringList{"tallowind", "--test-answer", "Why us?"} << answer << "Why us?";
    QTest::newRow("further arguments ignored")
        << QStringList{"tallowind", "--test-answer", "Tell me about yourself", "extra"} << answer
        << "Tell me about yourself";
    QTest::newRow("speech") << QStringList{"tallowind", "--test-stt", "a.wav"} << speech << "a.wav";
    QTest::newRow("other letter case") << QStringList{"tallowind", "--TEST-ANSWER", "q"} << -1 << "";
    QTest::newRow("flag second") << QStringList{"tallowind", "--verbose", "--test-answer", "q"} << -1 << "";
    QTest::newRow("empty question") << QStringList{"tallowind", "--test-answer", ""} << answer << "";
}

void CommandLineTest::argumentRule() {
    QFETCH(QStringList, arguments);
    QFETCH(int, test);
    QFETCH(QString, argument);
    const auto request = CLI::requestedTest(arguments);
    QCOMPARE(request.has_value(), test >= 0);
    if (request) {
        QCOMPARE(int(request->test), test);
        QCOMPARE(request->argument, argument);
    }
}

void CommandLineTest::streamedAnswer() {
    server_->respondWith(TestHttpServer::Response::stream({{textLine("Hello"), 0},
                                                           {": comment\n", 10},
                                                           {textLine(", I am Ada."), 10},
                                                           {"data: {\"type\":\"done\"}\n", 0}}));
    const auto result = runTallowind({"--test-answer", "Tell me about yourself"}, 20'000, environment());
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.err.isEmpty());
    QVERIFY(result.out.startsWith("Hello, I am Ada.\n\n["));
    const auto match = timingLine.match(QString::fromUtf8(result.out.mid(16)));
    QVERIFY2(match.hasMatch(), result.out.constData());
    QVERIFY(match.captured(1).toDouble() <= match.captured(2).toDouble());
    QCOMPARE(server_->received().size(), 1);
    QCOMPARE(QJsonDocument::fromJson(server_->received().first().body).object().value("question").toString(),
             QStringLiteral("Tell me about yourself"));
}

void CommandLineTest::piecesAreFlushedAsTheyArrive() {
    server_->respondWith(
        TestHttpServer::Response::stream({{textLine("first"), 0}, {textLine(" second"), 1500}}));
    QProcess process;
    process.start(tallowindBinary(), {"--test-answer", "q"});
    // The first piece is readable long before the server sends the second.
    QByteArray out;
    connect(&process, &QProcess::readyReadStandardOutput, this,
            [&] { out += process.readAllStandardOutput(); });
    QTRY_COMPARE_WITH_TIMEOUT(out, QByteArray("first"), 1200);
    QCOMPARE(process.state(), QProcess::Running);
    QTRY_COMPARE_WITH_TIMEOUT(process.state(), QProcess::NotRunning, 10'000);
    QCOMPARE(process.exitCode(), 0);
    QVERIFY(out.startsWith("first second\n\n[first text after "));
}

void CommandLineTest::emptyStream() {
    server_->respondWith(TestHttpServer::Response::stream({{"\n\nevent: end\n", 0}}));
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.err.isEmpty());
    const auto match = timingLine.match(QString::fromUtf8(result.out));
    QVERIFY2(match.hasMatch(), result.out.constData());
    QCOMPARE(match.captured(1), QStringLiteral("0.00"));
}

void CommandLineTest::serverErrorMidStream() {
    server_->respondWith(TestHttpServer::Response::stream(
        {{textLine("Partial "), 0},
         {"data: {\"type\":\"error\",\"message\":\"The model stopped.\"}\n", 10},
         {textLine("never"), 10}}));
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.out, QByteArray("Partial "));
    QCOMPARE(result.err, QByteArray("error: The model stopped.\n"));
}

void CommandLineTest::refusedRequest() {
    server_->respondWith(TestHttpServer::Response::json(500, "oops"));
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.out.isEmpty());
    QCOMPARE(result.err, QByteArray("error: Tallowind's server returned an error (500).\n"));
}

void CommandLineTest::noToken() {
    home_->environment().unset("TALLOWIND_TOKEN");
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 1);
    QVERIFY(result.out.isEmpty());
    QCOMPARE(result.err, QByteArray("error: Please sign in again.\n"));
    QVERIFY(server_->received().isEmpty());
}

void CommandLineTest::profileTextsGoWithTheQuestion_data() {
    QTest::addColumn<QString>("resumeFile");  // "-": unset; "missing": a path that cannot be read
    QTest::addColumn<QString>("expectedResume");
    QTest::newRow("stored resume") << "-"
                                   << "Stored resume";
    QTest::newRow("resume file") << "file"
                                 << "Resume from file\n";
    QTest::newRow("unreadable resume file") << "missing"
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
    if (resumeFile == "file") {
        QFile file(home_->path() + "/resume.txt");
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("Resume from file\n");
        home_->environment().set("TALLOWIND_RESUME", file.fileName().toUtf8());
    } else if (resumeFile == "missing") {
        home_->environment().set("TALLOWIND_RESUME", (home_->path() + "/no/such/resume.pdf").toUtf8());
    }
    server_->respondWith(TestHttpServer::Response::stream({{textLine("ok"), 0}}));
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 0);
    QVERIFY(result.err.isEmpty());
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
    server_->respondWith(TestHttpServer::Response::stream({{textLine("ok"), 0}}));
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(server_->received().value(0).header("authorization"), QByteArray("Bearer from-file"));
}

void CommandLineTest::silentSecretServiceGivesUpWithinBound() {
    // A bus that accepts connections and never says a word.
    QLocalServer silent;
    QLocalServer::removeServer(home_->path() + "/silent-bus");
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
    const auto result = runTallowind({"--test-answer", "q"}, 20'000, environment());
    QCOMPARE(result.exitCode, 1);
    QCOMPARE(result.err, QByteArray("error: Please sign in again.\n"));
    // Three seconds for the lookup, plus start-up and the bounded wait at exit.
    QVERIFY2(clock.elapsed() < 8000, QByteArray::number(clock.elapsed()).constData());
    QVERIFY(server_->received().isEmpty());
}

void CommandLineTest::desktopStartsWithoutTestArguments() {
    QProcessEnvironment desktop = environment();
    desktop.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("offscreen"));
    QProcess process;
    process.setProcessEnvironment(desktop);
    process.start(tallowindBinary(), {"--test-answer"});
    QVERIFY(process.waitForStarted());
    // The desktop application keeps running with no window; a test would have ended by now.
    QTest::qWait(1500);
    QCOMPARE(process.state(), QProcess::Running);
    QVERIFY(server_->received().isEmpty());
    process.terminate();
    QVERIFY(process.waitForFinished(5000));
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_cli.moc"
