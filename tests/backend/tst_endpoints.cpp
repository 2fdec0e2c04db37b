#include "backendclient.h"
#include "config.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QFile>
#include <QTest>

using namespace Qt::StringLiterals;

class EndpointsTest : public QObject {
    Q_OBJECT

private slots:
    void serverAddressSkipsUnusableSources() {
        using Config::resolveServerURL;
        QCOMPARE(resolveServerURL(u"not a url"_s, "https://b.test/base"), QUrl("https://b.test/base"));
        QCOMPARE(resolveServerURL(std::nullopt, "__TALLOWIND_SERVER_URL__"), QUrl("http://localhost:8787"));
        QCOMPARE(Config::resolveAppVersion(u"__VERSION__"_s), u"0.0.0"_s);
        QCOMPARE(Config::resolveAppVersion(u"1.4.2"_s), u"1.4.2"_s);
    }

    void endpointsSendTheirRequestAndReadTheReply_data() {
        QTest::addColumn<QByteArray>("endpoint");
        QTest::addColumn<int>("status");  // 0: the body is cut off; -1: nothing listens
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("result");
        QTest::addColumn<QByteArray>("sent");   // method, target, authorization and body; empty: nothing
        QTest::addColumn<QString>("kept");      // the stored token afterwards
        QTest::addColumn<QByteArray>("token");  // "stored", "none", "env=VALUE" beside it, or "file=BYTES"
        const auto row = [](const char* name, const char* endpoint, int status, const char* body,
                            const QString& result, const QByteArray& sent, const char* kept = "stored",
                            const char* token = "stored") {
            QTest::newRow(name) << QByteArray(endpoint) << status << QByteArray(body) << result << sent
                                << QString::fromUtf8(kept) << QByteArray(token);
        };
        const QString unreadable = "failed: Tallowind's server sent an answer that couldn't be read: ";
        const QString signedOut = "failed: Please sign in again.";
        const QString unreachable = "failed: Can't reach Tallowind. Check your internet connection.";
        const QByteArray start = R"(POST /base/auth/start  {"email":"ada@example.test"})";
        const QByteArray verify = R"(POST /base/auth/verify  {"code":"123456","email":"ada@example.test"})";
        const QByteArray me = "GET /base/me Bearer stored ";
        const char* account = R"({"email":"a@b.test","minutesUsed":3,"minutesLimit":600})";
        row("sign-in code", "start", 200, R"({"devCode":"042917"})", "ok: 042917", start);
        row("sign-in code not a string", "start", 200, R"({"devCode":42917})", "ok: (none)", start);
        row("refusal with a reason", "start", 429, R"({"error":"Wait."})", "failed: Wait.", start);
        row("verify stores the new token", "verify", 200, R"({"token":"new","email":"a@b.test"})",
            "ok: a@b.test", verify, "new");
        row("verify reply without email", "verify", 200, R"({"token":"t"})",
            unreadable + "\"email\" is missing.", verify);
        row("body cut off", "verify", 0, "{\"tok", unreachable, verify);
        row("nothing listens", "account", -1, "", unreachable, "");
        row("environment token beats the stored one", "account", 200, account, "ok: a@b.test 3/600",
            "GET /base/me Bearer tok-1 ", "stored", "env=tok-1");
        row("empty environment token", "account", 200, account, "ok: a@b.test 3/600", "GET /base/me Bearer ",
            "stored", "env=");
        row("no token at all", "account", 200, account, signedOut, "", "", "none");
        row("token file read as UTF-8", "account", 200, account, "ok: a@b.test 3/600",
            "GET /base/me Bearer t0k\xc3\xa9n ", "t0k\xc3\xa9n", "file=t0k\xc3\xa9n");
        row("token file not UTF-8", "account", 200, account, signedOut, "", "", "file=\xff\xfez");
        row("unauthorized forgets the stored token", "account", 401, R"({"error":"Unknown token."})",
            signedOut, "GET /base/me Bearer tok-1 ", "", "env=tok-1");
        row("server error page", "account", 500, "<html>",
            "failed: Tallowind's server returned an error (500).", me);
        row("minutes as 6e2 and beyond 53 bits", "account", 200,
            R"({"email":"a","minutesUsed":6e2,"minutesLimit":9007199254740993})",
            "ok: a 600/9007199254740993", me);
        row("fractional minutes", "account", 200, R"({"email":"a","minutesUsed":12.5,"minutesLimit":6})",
            unreadable + "\"minutesUsed\" is not a whole number.", me);
        row("reply not JSON", "account", 200, "<html>", unreadable + "not JSON (illegal value at offset 1).",
            me);
        row("speech token", "speech token", 200, R"({"token":"dg.abc","ttl":30})", "ok: dg.abc",
            "GET /base/stt-token Bearer stored ");
        row("sign out forgets the token though refused", "sign out", 500, "boom",
            "ok: ", "POST /base/auth/signout Bearer stored ", "");
        row("sign out with nobody listening", "sign out", -1, "", "ok: ", "", "");
        row("usage", "usage 12.5", 500, "", "sent", R"(POST /base/usage Bearer stored {"sttSeconds":12.5})");
        row("usage below one second", "usage 0.99", 200, "", "sent", "");
        row("usage not a number", "usage nan", 200, "", "sent", "");
    }

    void endpointsSendTheirRequestAndReadTheReply() {
        QFETCH(QByteArray, endpoint);
        QFETCH(QByteArray, token);
        QFETCH(int, status);
        QFETCH(QByteArray, body);
        QFETCH(QString, result);
        QFETCH(QByteArray, sent);
        QFETCH(QString, kept);
        TestHome home;
        TestHttpServer server;
        QVERIFY(server.listen());
        QUrl url = server.url();
        if (status < 0) {
            TestHttpServer closed;
            QVERIFY(closed.listen());
            url = closed.url();
        }
        auto response = TestHttpServer::Response::json(status ? status : 200, body);
        response.streamed = response.drop = status == 0;
        server.respondWith(response);
        home.environment().set("TALLOWIND_SERVER", url.toString().toUtf8() + "/base/");
        if (token != "none")
            Keychain::save(u"stored"_s);
        QFile file(Keychain::tokenFilePath());
        if (token.startsWith("file="))
            QVERIFY(file.open(QIODevice::WriteOnly) && file.write(token.mid(5)) > 0 && file.flush());
        if (token.startsWith("env="))
            home.environment().set("TALLOWIND_TOKEN", token.mid(4));

        BackendClient client;
        std::optional<QString> outcome;
        const auto report = [&outcome](auto show) {
            return [&outcome, show](const auto& result) {
                outcome =
                    result ? "ok: " + show(result.value()) : "failed: " + result.failure().description();
            };
        };
        const auto same = [](const QString& text) { return text; };
        if (endpoint == "start") {
            client.startLogin(u"ada@example.test"_s,
                              report([](auto code) { return code.value_or(u"(none)"_s); }));
        } else if (endpoint == "verify") {
            client.verifyLogin(u"ada@example.test"_s, u"123456"_s, report(same));
        } else if (endpoint == "sign out") {
            client.signOut(report([](Done) { return QString(); }));
        } else if (endpoint == "account") {
            client.account(report([](const Account& a) {
                return u"%1 %2/%3"_s.arg(a.email).arg(a.minutesUsed).arg(a.minutesLimit);
            }));
        } else if (endpoint == "speech token") {
            client.speechToken(report(same));
        } else {
            client.reportUsage(endpoint.mid(6).toDouble());
            QTest::qWait(200);  // for a request that must not come
            outcome = u"sent"_s;
        }
        QTRY_VERIFY(outcome);
        QCOMPARE(*outcome, result);
        // Usage has no answer to wait for: on a busy machine its request and outcome may come later.
        QTRY_COMPARE(server.received().size(), sent.isEmpty() ? 0 : 1);
        for (const auto& received : server.received()) {
            QCOMPARE(received.method + ' ' + received.target + ' ' + received.header("authorization") + ' ' +
                         received.body,
                     sent);
            QCOMPARE(received.header("content-type"), QByteArray("application/json"));
            QCOMPARE(received.header("user-agent"), "Tallowind/" + Config::appVersion().toUtf8());
        }
        QTRY_COMPARE(Keychain::load().value_or(QString()), kept);
        QVERIFY(!file.exists() || (file.permissions() & ~(QFileDevice::ReadUser | QFileDevice::WriteUser)) ==
                                      (QFileDevice::ReadOwner | QFileDevice::WriteOwner));
    }

    void keychainUsesOnlyTheChosenStore_data() {
        QTest::addColumn<QByteArray>("choice");
        QTest::addColumn<bool>("inSecretService");
        QTest::newRow("file forced") << QByteArray("file") << false;
        QTest::newRow("secret service forced") << QByteArray("secret-service") << true;
        QTest::newRow("automatic with a Secret Service") << QByteArray() << true;
    }

    void keychainUsesOnlyTheChosenStore() {
        QFETCH(QByteArray, choice);
        QFETCH(bool, inSecretService);
        if (!qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS"))
            QSKIP("needs a session bus with a Secret Service (the test command starts one)");
        // How many items the Secret Service holds for the program, as an outside tool sees them.
        const auto secretItems = [] {
            QProcess tool;
            tool.start(u"secret-tool"_s,
                       {"search", "--all", "server", "app.tallowind.Tallowind", "user", "session-token"});
            tool.waitForFinished(5000);
            return ("\n" + tool.readAllStandardOutput() + tool.readAllStandardError()).count("\n[/");
        };
        TestHome home;
        if (choice.isEmpty())
            home.environment().unset("TALLOWIND_TOKEN_STORE");
        else
            home.environment().set("TALLOWIND_TOKEN_STORE", choice);
        Keychain::save(u"kept"_s);
        Keychain::save(u"replaced \u2713"_s);
        QCOMPARE(Keychain::load(), std::optional(u"replaced \u2713"_s));
        QCOMPARE(QFile::exists(Keychain::tokenFilePath()), !inSecretService);
        QCOMPARE(secretItems(), inSecretService ? 1 : 0);
        Keychain::remove();
        QCOMPARE(Keychain::load(), std::nullopt);
        QCOMPARE(secretItems(), 0);
    }
};

QTEST_GUILESS_MAIN(EndpointsTest)
#include "tst_endpoints.moc"
