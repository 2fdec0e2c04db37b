#include "appsettings.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "tokenstore.h"

#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocalServer>
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
    void answerTestPrintsTheAnswerOrTheError_data();
    void answerTestPrintsTheAnswerOrTheError();
};

void CommandLineTest::answerTestPrintsTheAnswerOrTheError_data() {
    QTest::addColumn<QStringList>("arguments");
    QTest::addColumn<QByteArray>("setup");
    QTest::addColumn<TestHttpServer::Response>("response");
    QTest::addColumn<int>("exitCode");  // -1: still running, the desktop program
    QTest::addColumn<QString>("out");   // a pattern
    QTest::addColumn<QByteArray>("err");
    QTest::addColumn<QString>("resume");  // what the question went with; empty: nothing was asked
    using R = TestHttpServer::Response;
    const QStringList ask{"--test-answer", "Tell me about yourself"};
    const R ok = R::stream({{textLine("ok"), 0}});
    const QString timing = QStringLiteral(R"(\n\n\[first text after %1s, done after \d+\.\d\ds\]\n)");
    const QString answered = "ok" + timing.arg(R"(\d+\.\d\d)");
    QTest::newRow("streamed answer")
        << ask << QByteArray("signed in")
        << R::stream({{textLine("Hello"), 0}, {": c\n", 10}, {textLine(", I am Ada."), 10}}) << 0
        << "Hello, I am Ada." + timing.arg(R"(\d+\.\d\d)") << QByteArray() << "Stored resume";
    QTest::newRow("error mid-stream")
        << ask << QByteArray("signed in")
        << R::stream({{textLine("Partial "), 0},
                      {"data: {\"type\":\"error\",\"message\":\"The model stopped.\"}\n", 10},
                      {textLine("never"), 10}})
        << 1 << "Partial " << QByteArray("error: The model stopped.\n") << "Stored resume";
    QTest::newRow("refused") << ask << QByteArray("signed in") << R::json(500, "oops") << 1 << ""
                             << QByteArray("error: Tallowind's server returned an error (500).\n")
                             << "Stored resume";
    QTest::newRow("not signed in") << ask << QByteArray("signed out") << ok << 1 << ""
                                   << QByteArray("error: Please sign in again.\n") << "";
    QTest::newRow("resume file") << ask << QByteArray("resume file") << ok << 0 << answered << QByteArray()
                                 << "Resume from file\n";
    QTest::newRow("token file used without a session bus")
        << ask << QByteArray("token file") << ok << 0 << answered << QByteArray() << "Stored resume";
    QTest::newRow("silent Secret Service gives up within its bound")
        << ask << QByteArray("silent bus") << ok << 1 << "" << QByteArray("error: Please sign in again.\n")
        << "";
    QTest::newRow("flag alone starts the desktop program")
        << QStringList{"--test-answer"} << QByteArray("signed in") << ok << -1 << "" << QByteArray() << "";
}

void CommandLineTest::answerTestPrintsTheAnswerOrTheError() {
    QFETCH(QStringList, arguments);
    QFETCH(QByteArray, setup);
    QFETCH(TestHttpServer::Response, response);
    QFETCH(int, exitCode);
    QFETCH(QString, out);
    QFETCH(QByteArray, err);
    QFETCH(QString, resume);
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    server.respondWith(response);
    home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
    home.environment().set("TALLOWIND_TOKEN", "cli-token");
    {
        AppSettings settings(AppSettings::defaultPath());
        settings.setResume(QStringLiteral("Stored resume"));
        settings.setJobDescription(QStringLiteral("Platform team"));
    }
    QFile file(home.path() + "/resume.txt");
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("Resume from file\n") > 0);
    file.close();
    QLocalServer silent;  // a bus that accepts connections and never says a word
    if (setup == "resume file" || setup == "unreadable resume file") {
        home.environment().set("TALLOWIND_RESUME",
                               file.fileName().toUtf8() + (setup == "resume file" ? "" : "x"));
    } else if (setup != "signed in") {
        home.environment().unset("TALLOWIND_TOKEN");
        home.environment().unset("DISPLAY");
    }
    if (setup == "token file") {
        home.environment().unset("TALLOWIND_TOKEN_STORE");
        home.environment().set("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/tallowind-test-bus");
        QVERIFY(makeFileTokenStore(Keychain::tokenFilePath())->save(QStringLiteral("cli-token")) ==
                TokenStore::Availability::answered);
    } else if (setup == "silent bus") {
        QVERIFY(silent.listen(home.path() + "/silent-bus"));
        home.environment().set("TALLOWIND_TOKEN_STORE", "secret-service");
        home.environment().set("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + silent.fullServerName()).toUtf8());
    }
    QElapsedTimer clock;
    clock.start();
    const auto result = runTallowind(arguments, exitCode < 0 ? 1500 : 20'000);
    QCOMPARE(result.exitCode, exitCode);
    QVERIFY2(exitCode < 0 || result.err == err, result.err.constData());  // the desktop program may warn
    QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out)).match(result.out).hasMatch(),
             result.out.constData());
    // Three seconds for the token lookup, plus start-up and the bounded wait at exit.
    QVERIFY2(clock.elapsed() < 8000, QByteArray::number(clock.elapsed()).constData());
    QList<TestHttpServer::Received> asked;  // the desktop program may look for a release, but asks nothing
    for (const auto& request : server.received()) {
        QVERIFY2(request.target == "/answer" || exitCode < 0, request.target.constData());
        if (request.target == "/answer") {
            asked.append(request);
        }
    }
    QCOMPARE(asked.size(), resume.isEmpty() ? 0 : 1);
    for (const auto& request : asked) {
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(request.header("authorization"), QByteArray("Bearer cli-token"));
        QCOMPARE(body.value("question").toString(), arguments.value(1));
        QCOMPARE(body.value("resume").toString(), resume);
        QCOMPARE(body.value("jobDescription").toString(), QStringLiteral("Platform team"));
    }
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_cli.moc"
