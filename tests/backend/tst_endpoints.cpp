#include "backendclient.h"
#include "config.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QTest>

class EndpointsTest : public QObject {
    Q_OBJECT

private slots:
    void serverAddressPicksTheFirstUsableSource_data();
    void serverAddressPicksTheFirstUsableSource();
    void endpointsSendTheirRequestAndReadTheReply_data();
    void endpointsSendTheirRequestAndReadTheReply();
};

void EndpointsTest::serverAddressPicksTheFirstUsableSource_data() {
    QTest::addColumn<QVariant>("environment");  // invalid: unset
    QTest::addColumn<QString>("compiledIn");
    QTest::addColumn<QString>("expected");
    QTest::newRow("nothing configured") << QVariant() << ""
                                        << "http://localhost:8787";
    QTest::newRow("environment wins") << QVariant("https://api.test/v2") << "https://b.test"
                                      << "https://api.test/v2";
    QTest::newRow("empty environment") << QVariant("") << "https://b.test/base"
                                       << "https://b.test/base";
    QTest::newRow("malformed environment") << QVariant("not a url") << ""
                                           << "http://localhost:8787";
    QTest::newRow("placeholder") << QVariant() << "__TALLOWIND_SERVER_URL__"
                                 << "http://localhost:8787";
}

void EndpointsTest::serverAddressPicksTheFirstUsableSource() {
    QFETCH(QVariant, environment);
    QFETCH(QString, compiledIn);
    QFETCH(QString, expected);
    const auto env = environment.isValid() ? std::optional(environment.toString()) : std::nullopt;
    QCOMPARE(Config::resolveServerURL(env, compiledIn).toString(), expected);
    QCOMPARE(Config::resolveAppVersion(QStringLiteral("__VERSION__")), QStringLiteral("0.0.0"));
    QCOMPARE(Config::resolveAppVersion(QStringLiteral("1.4.2")), QStringLiteral("1.4.2"));
}

void EndpointsTest::endpointsSendTheirRequestAndReadTheReply_data() {
    QTest::addColumn<QByteArray>("endpoint");
    QTest::addColumn<QByteArray>("token");  // "stored", "none", or "env=VALUE" beside the stored one
    QTest::addColumn<int>("status");        // 0: the body is cut off; -1: nothing listens
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("result");
    QTest::addColumn<QByteArray>("sent");  // method, target, authorization and body; empty: nothing
    QTest::addColumn<QString>("kept");     // the stored token afterwards
    const auto row = [](const char* name, const char* endpoint, const char* token, int status,
                        const char* body, const QString& result, const QByteArray& sent, const char* kept) {
        QTest::newRow(name) << QByteArray(endpoint) << QByteArray(token) << status << QByteArray(body)
                            << result << sent << QString::fromUtf8(kept);
    };
    const QString unreadable =
        QStringLiteral("failed: Tallowind's server sent an answer that couldn't be read: ");
    const QString generic = QStringLiteral("failed: Tallowind's server returned an error (%1).");
    const QString signedOut = QStringLiteral("failed: Please sign in again.");
    const QString unreachable =
        QStringLiteral("failed: Can't reach Tallowind. Check your internet connection.");
    const QByteArray start = R"(POST /base/auth/start  {"email":"ada@example.test"})";
    const QByteArray verify = R"(POST /base/auth/verify  {"code":"123456","email":"ada@example.test"})";
    const QByteArray me = "GET /base/me Bearer stored ";
    const char* account = R"({"email":"a@b.test","minutesUsed":3,"minutesLimit":600})";
    row("sign-in code", "start", "stored", 200, R"({"devCode":"042917"})", "ok: 042917", start, "stored");
    row("sign-in code not a string", "start", "stored", 200, R"({"devCode":42917})", "ok: (none)", start,
        "stored");
    row("refusal with a reason", "start", "stored", 429, R"({"error":"Wait."})", "failed: Wait.", start,
        "stored");
    row("verify stores the new token", "verify", "stored", 200, R"({"token":"new","email":"a@b.test"})",
        "ok: a@b.test", verify, "new");
    row("verify reply without email", "verify", "stored", 200, R"({"token":"t"})",
        unreadable + "\"email\" is missing.", verify, "stored");
    row("verify unauthorized", "verify", "stored", 401, R"({"error":"x"})", signedOut, verify, "");
    row("body cut off", "verify", "stored", 0, R"({"tok)", unreachable, verify, "stored");
    row("nothing listens", "account", "stored", -1, "", unreachable, "", "stored");
    row("account with the stored token", "account", "stored", 200, account, "ok: a@b.test 3/600", me,
        "stored");
    row("environment token beats the stored one", "account", "env=tok-1", 200, account, "ok: a@b.test 3/600",
        "GET /base/me Bearer tok-1 ", "stored");
    row("empty environment token", "account", "env=", 200, account, "ok: a@b.test 3/600",
        "GET /base/me Bearer ", "stored");
    row("no token at all", "account", "none", 200, account, signedOut, "", "");
    row("unauthorized forgets the stored token", "account", "env=tok-1", 401, R"({"error":"Unknown token."})",
        signedOut, "GET /base/me Bearer tok-1 ", "");
    row("server error page", "account", "stored", 500, "<html>", generic.arg(500), me, "stored");
    row("minutes as 12.0 and 6e2", "account", "stored", 200,
        R"({"email":"a@b.test","minutesUsed":12.0,"minutesLimit":6e2})", "ok: a@b.test 12/600", me, "stored");
    row("minutes beyond 32 bits", "account", "stored", 200,
        R"({"email":"a","minutesUsed":4294967296,"minutesLimit":9007199254740993})",
        "ok: a 4294967296/9007199254740993", me, "stored");
    row("fractional minutes", "account", "stored", 200,
        R"({"email":"a","minutesUsed":12.5,"minutesLimit":6})",
        unreadable + "\"minutesUsed\" is not a whole number.", me, "stored");
    row("reply not JSON", "account", "stored", 200, "<html>",
        unreadable + "not JSON (illegal value at offset 1).", me, "stored");
    row("speech token", "speech token", "stored", 200, R"({"token":"dg.abc","ttl":30})", "ok: dg.abc",
        "GET /base/stt-token Bearer stored ", "stored");
    row("sign out forgets the token though refused", "sign out", "stored", 500, "boom",
        "ok: ", "POST /base/auth/signout Bearer stored ", "");
    row("sign out with nobody listening", "sign out", "stored", -1, "", "ok: ", "", "");
    row("usage", "usage 12.5", "stored", 500, "", "sent",
        R"(POST /base/usage Bearer stored {"sttSeconds":12.5})", "stored");
    row("usage unauthorized", "usage 2", "stored", 401, "", "sent",
        R"(POST /base/usage Bearer stored {"sttSeconds":2})", "");
    row("usage below one second", "usage 0.99", "stored", 200, "", "sent", "", "stored");
    row("usage not a number", "usage nan", "stored", 200, "", "sent", "", "stored");
}

void EndpointsTest::endpointsSendTheirRequestAndReadTheReply() {
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
    if (token != "none") {
        Keychain::save(QStringLiteral("stored"));
    }
    if (token.startsWith("env=")) {
        home.environment().set("TALLOWIND_TOKEN", token.mid(4));
    }

    BackendClient client;
    std::optional<QString> outcome;
    const auto report = [&outcome](auto show) {
        return [&outcome, show](const auto& result) {
            outcome = result ? "ok: " + show(result.value()) : "failed: " + result.failure().description();
        };
    };
    const auto same = [](const QString& text) { return text; };
    if (endpoint == "start") {
        client.startLogin(QStringLiteral("ada@example.test"),
                          report([](const auto& code) { return code.value_or(QStringLiteral("(none)")); }));
    } else if (endpoint == "verify") {
        client.verifyLogin(QStringLiteral("ada@example.test"), QStringLiteral("123456"), report(same));
    } else if (endpoint == "sign out") {
        client.signOut(report([](Done) { return QString(); }));
    } else if (endpoint == "account") {
        client.account(report([](const Account& a) {
            return QStringLiteral("%1 %2/%3").arg(a.email).arg(a.minutesUsed).arg(a.minutesLimit);
        }));
    } else if (endpoint == "speech token") {
        client.speechToken(report(same));
    } else {
        client.reportUsage(endpoint.mid(6).toDouble());
        outcome = QStringLiteral("sent");
        QTest::qWait(200);
    }
    QTRY_VERIFY(outcome);
    QCOMPARE(*outcome, result);
    QCOMPARE(server.received().size(), sent.isEmpty() ? 0 : 1);
    if (!sent.isEmpty()) {
        const auto& received = server.received().first();
        QCOMPARE(received.method + ' ' + received.target + ' ' + received.header("authorization") + ' ' +
                     received.body,
                 sent);
        QCOMPARE(received.header("content-type"), QByteArray("application/json"));
        QCOMPARE(received.header("user-agent"), "Tallowind/" + Config::appVersion().toUtf8());
    }
    QCOMPARE(Keychain::load().value_or(QString()), kept);
}

QTEST_GUILESS_MAIN(EndpointsTest)
#include "tst_endpoints.moc"
