#include "backendclient.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QTest>

#include <limits>

Q_DECLARE_METATYPE(Account)

class EndpointsTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void endpointsSendTheirRequestAndReadTheAnswer_data();
    void endpointsSendTheirRequestAndReadTheAnswer();
    void unauthorizedForgetsTheToken_data();
    void unauthorizedForgetsTheToken();
    void accountNumbersMustBeWhole_data();
    void accountNumbersMustBeWhole();
    void usageBelowOneSecondIsNotReported_data();
    void usageBelowOneSecondIsNotReported();
    void signInStoresTheNewestTokenAndSignOutForgetsIt_data();
    void signInStoresTheNewestTokenAndSignOutForgetsIt();

private:
    // Calls one endpoint and describes its outcome in one line, so that a table can state what it expects.
    QString run(const QByteArray& endpoint);

    std::unique_ptr<TestHome> home_;
    std::unique_ptr<TestHttpServer> server_;
    std::unique_ptr<BackendClient> client_;
};

void EndpointsTest::init() {
    home_ = std::make_unique<TestHome>();
    server_ = std::make_unique<TestHttpServer>();
    QVERIFY(server_->listen());
    home_->environment().set("TALLOWIND_SERVER", server_->url().toString().toUtf8());
    client_ = std::make_unique<BackendClient>();
}

void EndpointsTest::cleanup() {
    client_.reset();
    server_.reset();
    home_.reset();
}

QString EndpointsTest::run(const QByteArray& endpoint) {
    std::optional<QString> outcome;
    auto report = [&outcome](auto show) {
        return [&outcome, show](const auto& result) {
            outcome = result ? "ok: " + show(result.value()) : "failed: " + result.failure().description();
        };
    };
    if (endpoint == "start") {
        client_->startLogin(QStringLiteral(" Ada@Example.test "),
                            report([](const auto& code) { return code.value_or(QStringLiteral("(none)")); }));
    } else if (endpoint == "verify") {
        client_->verifyLogin(QStringLiteral("ada@example.test"), QStringLiteral("123456"),
                             report([](const QString& email) { return email; }));
    } else if (endpoint == "sign out") {
        client_->signOut(report([](Done) { return QString(); }));
    } else if (endpoint == "account") {
        client_->account(report([](const Account& a) {
            return QStringLiteral("%1 %2/%3").arg(a.email).arg(a.minutesUsed).arg(a.minutesLimit);
        }));
    } else if (endpoint == "speech token") {
        client_->speechToken(report([](const QString& token) { return token; }));
    } else {
        client_->reportUsage(5);
        return QStringLiteral("sent");
    }
    return QTest::qWaitFor([&] { return outcome.has_value(); }, 5000) ? *outcome
                                                                      : QStringLiteral("(no answer)");
}

void EndpointsTest::endpointsSendTheirRequestAndReadTheAnswer_data() {
    QTest::addColumn<QByteArray>("endpoint");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("expected");
    const QString unreadable =
        QStringLiteral("failed: Tallowind's server sent an answer that couldn't be read: ");
    QTest::newRow("start with code") << QByteArray("start") << 200 << QByteArray(R"({"devCode":"042917"})")
                                     << "ok: 042917";
    QTest::newRow("start numeric code")
        << QByteArray("start") << 200 << QByteArray(R"({"devCode":42917})") << "ok: (none)";
    QTest::newRow("start empty body") << QByteArray("start") << 204 << QByteArray() << "ok: (none)";
    QTest::newRow("start refused") << QByteArray("start") << 429
                                   << QByteArray(R"({"error":"Wait a minute."})") << "failed: Wait a minute.";
    QTest::newRow("verify") << QByteArray("verify") << 200
                            << QByteArray(R"({"token":"t","email":"a@b.test"})") << "ok: a@b.test";
    QTest::newRow("verify without email") << QByteArray("verify") << 200 << QByteArray(R"({"token":"t"})")
                                          << unreadable + "\"email\" is missing.";
    QTest::newRow("verify numeric token")
        << QByteArray("verify") << 200 << QByteArray(R"({"token":5,"email":"a"})")
        << unreadable + "\"token\" is not a string.";
    QTest::newRow("sign out refused still succeeds")
        << QByteArray("sign out") << 500 << QByteArray("boom") << "ok: ";
    QTest::newRow("speech token") << QByteArray("speech token") << 200
                                  << QByteArray(R"({"token":"dg.abc","ttl":30})") << "ok: dg.abc";
    QTest::newRow("speech token missing") << QByteArray("speech token") << 200 << QByteArray(R"({"key":"x"})")
                                          << unreadable + "\"token\" is missing.";
    QTest::newRow("account") << QByteArray("account") << 200
                             << QByteArray(R"({"email":"a@b.test","minutesUsed":3,"minutesLimit":600})")
                             << "ok: a@b.test 3/600";
    QTest::newRow("account not JSON") << QByteArray("account") << 200 << QByteArray("<html>")
                                      << unreadable + "not JSON (illegal value at offset 1).";
}

void EndpointsTest::endpointsSendTheirRequestAndReadTheAnswer() {
    QFETCH(QByteArray, endpoint);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(QString, expected);
    const QMap<QByteArray, QByteArray> requests{
        {"start", R"(POST /auth/start  {"email":" Ada@Example.test "})"},
        {"verify", R"(POST /auth/verify  {"code":"123456","email":"ada@example.test"})"},
        {"sign out", "POST /auth/signout Bearer tok-1 "},
        {"account", "GET /me Bearer tok-1 "},
        {"speech token", "GET /stt-token Bearer tok-1 "}};
    home_->environment().set("TALLOWIND_TOKEN", "tok-1");
    server_->respondWith(TestHttpServer::Response::json(status, body));
    QCOMPARE(run(endpoint), expected);
    QCOMPARE(server_->received().size(), 1);
    const auto& received = server_->received().first();
    QCOMPARE(received.method + ' ' + received.target + ' ' + received.header("authorization") + ' ' +
                 received.body,
             requests.value(endpoint));
    QCOMPARE(received.header("content-type"), QByteArray("application/json"));
    QVERIFY(received.header("user-agent").startsWith("Tallowind/"));
}

void EndpointsTest::unauthorizedForgetsTheToken_data() {
    QTest::addColumn<QByteArray>("endpoint");
    QTest::addColumn<QString>("expected");
    QTest::newRow("verify") << QByteArray("verify") << QStringLiteral("failed: Please sign in again.");
    QTest::newRow("sign out") << QByteArray("sign out") << QStringLiteral("ok: ");
    QTest::newRow("speech token") << QByteArray("speech token")
                                  << QStringLiteral("failed: Please sign in again.");
    QTest::newRow("usage") << QByteArray("usage") << QStringLiteral("sent");
}

void EndpointsTest::unauthorizedForgetsTheToken() {
    QFETCH(QByteArray, endpoint);
    QFETCH(QString, expected);
    Keychain::save(QStringLiteral("stale"));
    server_->respondWith(TestHttpServer::Response::json(401, R"({"error":"Unknown token."})"));
    QCOMPARE(run(endpoint), expected);
    QTRY_COMPARE(server_->received().size(), 1);
    QTRY_COMPARE(Keychain::load(), std::nullopt);
    QVERIFY(!isSignedIn());
}

void EndpointsTest::accountNumbersMustBeWhole_data() {
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QVariant>("expected");  // Account, or the failure's description
    const auto account = [](qint64 used, qint64 limit) {
        return QVariant::fromValue(Account{QStringLiteral("a@b.test"), used, limit});
    };
    const auto broken = [](const char* detail) {
        return QVariant(QStringLiteral("Tallowind's server sent an answer that couldn't be read: %1.")
                            .arg(QString::fromUtf8(detail)));
    };
    QTest::newRow("zero fraction") << QByteArray(
                                          R"({"email":"a@b.test","minutesUsed":12.0,"minutesLimit":6e2})")
                                   << account(12, 600);
    QTest::newRow("beyond 32 bits")
        << QByteArray(R"({"email":"a@b.test","minutesUsed":4294967296,"minutesLimit":9007199254740993})")
        << account(4294967296LL, 9007199254740993LL);
    QTest::newRow("fraction") << QByteArray(R"({"email":"a@b.test","minutesUsed":12.5,"minutesLimit":600})")
                              << broken("\"minutesUsed\" is not a whole number");
    QTest::newRow("string") << QByteArray(R"({"email":"a@b.test","minutesUsed":"12","minutesLimit":600})")
                            << broken("\"minutesUsed\" is not a number");
    QTest::newRow("missing limit") << QByteArray(R"({"email":"a@b.test","minutesUsed":12})")
                                   << broken("\"minutesLimit\" is missing");
    QTest::newRow("too large for 64 bits")
        << QByteArray(R"({"email":"a@b.test","minutesUsed":1e30,"minutesLimit":600})")
        << broken("\"minutesUsed\" is not a whole number");
    QTest::newRow("array") << QByteArray("[]") << broken("not a JSON object");
}

void EndpointsTest::accountNumbersMustBeWhole() {
    QFETCH(QByteArray, body);
    QFETCH(QVariant, expected);
    const auto decoded = BackendClient::decodeAccount(body);
    if (expected.userType() == qMetaTypeId<Account>()) {
        QVERIFY2(decoded.ok(), qPrintable(decoded ? QString() : decoded.failure().description()));
        QCOMPARE(decoded.value(), expected.value<Account>());
    } else {
        QVERIFY(!decoded.ok());
        QCOMPARE(decoded.failure().description(), expected.toString());
    }
}

void EndpointsTest::usageBelowOneSecondIsNotReported_data() {
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QByteArray>("body");  // empty: nothing is sent
    QTest::newRow("below one second") << 0.99 << QByteArray();
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << QByteArray();
    QTest::newRow("infinite") << std::numeric_limits<double>::infinity() << QByteArray();
    QTest::newRow("exactly one") << 1.0 << QByteArray(R"({"sttSeconds":1})");
    QTest::newRow("fraction kept") << 12.5 << QByteArray(R"({"sttSeconds":12.5})");
}

void EndpointsTest::usageBelowOneSecondIsNotReported() {
    QFETCH(double, seconds);
    QFETCH(QByteArray, body);
    home_->environment().set("TALLOWIND_TOKEN", "tok");
    // A failing server changes nothing for the caller: reports never fail.
    server_->respondWith(TestHttpServer::Response::json(500, R"({"error":"down"})"));
    client_->reportUsage(seconds);
    if (body.isEmpty()) {
        QTest::qWait(100);
        QVERIFY(server_->received().isEmpty());
        return;
    }
    QTRY_COMPARE(server_->received().size(), 1);
    QCOMPARE(server_->received().first().target, QByteArray("/usage"));
    QCOMPARE(server_->received().first().body, body);
}

void EndpointsTest::signInStoresTheNewestTokenAndSignOutForgetsIt_data() {
    QTest::addColumn<QByteArray>("store");
    QTest::newRow("file") << QByteArray("file");
    QTest::newRow("secret service") << QByteArray("secret-service");
}

void EndpointsTest::signInStoresTheNewestTokenAndSignOutForgetsIt() {
    QFETCH(QByteArray, store);
    if (store == "secret-service" && !qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS")) {
        QSKIP("needs a session bus with a Secret Service (the test command starts one)");
    }
    home_->environment().set("TALLOWIND_TOKEN_STORE", store);
    Keychain::remove();
    int issued = 0;
    server_->setHandler([&issued](const TestHttpServer::Received& request) {
        const QByteArray token = request.target == "/auth/verify" ? QByteArray::number(++issued) : "";
        return TestHttpServer::Response::json(200,
                                              R"({"token":"token-)" + token + R"(","email":"a@b.test"})");
    });
    QVERIFY(!isSignedIn());
    // An environment token, even empty, counts as signed in but does not replace the stored one.
    home_->environment().set("TALLOWIND_TOKEN", "");
    QVERIFY(isSignedIn());
    QCOMPARE(run("verify"), QStringLiteral("ok: a@b.test"));
    QCOMPARE(run("verify"), QStringLiteral("ok: a@b.test"));
    QCOMPARE(token(), std::optional(QString()));
    home_->environment().unset("TALLOWIND_TOKEN");
    QCOMPARE(token(), std::optional(QStringLiteral("token-2")));

    // Signing out with the server gone still forgets the token here.
    server_.reset();
    QCOMPARE(run("sign out"), QStringLiteral("ok: "));
    QVERIFY(!isSignedIn());
    QCOMPARE(Keychain::load(), std::nullopt);
}

QTEST_GUILESS_MAIN(EndpointsTest)
#include "tst_endpoints.moc"
