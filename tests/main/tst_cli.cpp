#include "appsettings.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QElapsedTimer>
#include <QFile>
#include <QLocalServer>
#include <QRegularExpression>
#include <QTest>

Q_DECLARE_METATYPE(TestHttpServer::Response)

class CommandLineTest : public QObject {
    Q_OBJECT

private slots:
    void answerTestPrintsTheAnswerOrTheError_data();
    void answerTestPrintsTheAnswerOrTheError();
};

void CommandLineTest::answerTestPrintsTheAnswerOrTheError_data() {
    QTest::addColumn<QByteArray>("setup");
    QTest::addColumn<TestHttpServer::Response>("response");
    QTest::addColumn<QString>("out");        // a pattern
    QTest::addColumn<QByteArray>("err");     // an error ends the test with 1
    QTest::addColumn<QByteArray>("resume");  // as JSON, what the question went with; empty: not asked
    using R = TestHttpServer::Response;
    const auto line = [](const QByteArray& t) { return R"(data: {"type":"text","text":")" + t + "\"}\n"; };
    const R ok = R::stream({{line("ok"), 0}});
    const QString timing = QStringLiteral(R"(\n\n\[first text after \d+\.\d\ds, done after \d+\.\d\ds\]\n)");
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

void CommandLineTest::answerTestPrintsTheAnswerOrTheError() {
    QFETCH(QByteArray, setup);
    QFETCH(TestHttpServer::Response, response);
    QFETCH(QString, out);
    QFETCH(QByteArray, err);
    QFETCH(QByteArray, resume);
    const int exitCode = setup == "desktop" ? -1 : err.isEmpty() ? 0 : 1;  // -1: still running
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    server.respondWith(response);
    home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
    {
        AppSettings settings(AppSettings::defaultPath());
        settings.setResume(QStringLiteral("Stored resume"));
        settings.setJobDescription(QStringLiteral("Platform team"));
    }
    QLocalServer silent;  // a bus that accepts connections and never says a word
    QVERIFY(silent.listen(home.path() + "/silent-bus"));
    QFile file(home.path() + "/resume.txt");
    QVERIFY(file.open(QIODevice::WriteOnly) && file.write("Resume from file\n") > 0 && file.flush());
    if (setup == "signed in" || setup == "desktop") {
        home.environment().set("TALLOWIND_TOKEN", "cli-token");
        home.environment().set("TALLOWIND_RESUME", QFile::encodeName(file.fileName()));
    } else if (setup == "token file") {
        Keychain::save(QStringLiteral("cli-token"));
        home.environment().unset("TALLOWIND_TOKEN_STORE");
        home.environment().unset("DISPLAY");
        home.environment().set("DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/tallowind-test-bus");
    } else if (setup == "silent bus") {
        home.environment().set("TALLOWIND_TOKEN_STORE", "secret-service");
        home.environment().set("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + silent.fullServerName()).toUtf8());
    }
    QElapsedTimer clock;
    clock.start();
    const QStringList arguments{"--test-answer", "Tell me about yourself"};
    const auto result =
        runTallowind(exitCode < 0 ? arguments.first(1) : arguments, exitCode < 0 ? 1500 : 20'000);
    QCOMPARE(result.exitCode, exitCode);
    QVERIFY2(exitCode < 0 || result.err == err, result.err.constData());  // the desktop program may warn
    QVERIFY2(QRegularExpression(QRegularExpression::anchoredPattern(out)).match(result.out).hasMatch(),
             result.out.constData());
    // Three seconds for the token lookup, plus start-up and the bounded wait at exit.
    QVERIFY2(clock.elapsed() < 8000, QByteArray::number(clock.elapsed()).constData());
    QList<TestHttpServer::Received> asked = server.received();
    asked.removeIf([](const auto& request) { return request.target != "/answer"; });
    // The desktop program may look for a release, but asks nothing.
    QVERIFY(exitCode < 0 || asked.size() == server.received().size());
    QCOMPARE(asked.size(), resume.isEmpty() ? 0 : 1);
    for (const auto& request : asked) {
        QCOMPARE(request.header("authorization"), QByteArray("Bearer cli-token"));
        QCOMPARE(request.body, R"({"extraInstructions":"","jobDescription":"Platform team",)"
                               R"("question":"Tell me about yourself","resume":")" +
                                   resume + R"(","transcript":[]})");
    }
}

QTEST_GUILESS_MAIN(CommandLineTest)
#include "tst_cli.moc"
