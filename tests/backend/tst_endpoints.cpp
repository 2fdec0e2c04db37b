#include "backendclient.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QTest>

#include <cmath>
#include <limits>

Q_DECLARE_METATYPE(Account)

namespace {

// Calls one endpoint and describes its outcome in one line, so that a table can state what it expects.
using Call = std::function<void(BackendClient&, std::function<void(QString)>)>;

template <typename T>
std::function<void(Result<T>)> describe(std::function<void(QString)> report,
                                        std::function<QString(const T&)> show) {
    return [report, show](Result<T> result) {
        report(result ? QStringLiteral("ok: ") + show(result.value())
                      : QStringLiteral("failed: ") + result.failure().description());
    };
}

Call startLogin() {
    return [](BackendClient& client, auto report) {
        client.startLogin(QStringLiteral(" Ada@Example.test "),
                          describe<std::optional<QString>>(report, [](const auto& code) {
                              return code ? *code : QStringLiteral("(none)");
                          }));
    };
}

Call verifyLogin() {
    return [](BackendClient& client, auto report) {
        client.verifyLogin(QStringLiteral("ada@example.test"), QStringLiteral("123456"),
                           describe<QString>(report, [](const QString& email) { return email; }));
    };
}

Call signOut() {
    return [](BackendClient& client, auto report) {
        client.signOut(describe<Done>(report, [](Done) { return QString(); }));
    };
}

Call account() {
    return [](BackendClient& client, auto report) {
        client.account(describe<Account>(report, [](const Account& a) {
            return QStringLiteral("%1 %2/%3").arg(a.email).arg(a.minutesUsed).arg(a.minutesLimit);
        }));
    };
}

Call speechToken() {
    return [](BackendClient& client, auto report) {
        client.speechToken(describe<QString>(report, [](const QString& token) { return token; }));
    };
}

}  // namespace

class EndpointsTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void wireExchange_data();
    void wireExchange();
    void outcomes_data();
    void outcomes();
    void unauthorizedForgetsToken_data();
    void unauthorizedForgetsToken();
    void accountDecoding_data();
    void accountDecoding();
    void usageReports_data();
    void usageReports();
    void signInState_data();
    void signInState();

private:
    QString run(const Call& call);

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

QString EndpointsTest::run(const Call& call) {
    std::optional<QString> outcome;
    call(*client_, [&outcome](const QString& line) { outcome = line; });
    if (!QTest::qWaitFor([&] { return outcome.has_value(); }, 5000)) {
        return QStringLiteral("(no answer)");
    }
    return *outcome;
}

void EndpointsTest::wireExchange_data() {
    QTest::addColumn<Call>("call");
    QTest::addColumn<QByteArray>("method");
    QTest::addColumn<QByteArray>("path");
    QTest::addColumn<bool>("authenticated");
    QTest::addColumn<QByteArray>("body");  // empty: no body

    QTest::newRow("start") << startLogin() << QByteArray("POST") << QByteArray("/auth/start") << false
                           << QByteArray(R"({"email":" Ada@Example.test "})");
    QTest::newRow("verify") << verifyLogin() << QByteArray("POST") << QByteArray("/auth/verify") << false
                            << QByteArray(R"({"code":"123456","email":"ada@example.test"})");
    QTest::newRow("sign out") << signOut() << QByteArray("POST") << QByteArray("/auth/signout") << true
                              << QByteArray();
    QTest::newRow("account") << account() << QByteArray("GET") << QByteArray("/me") << true << QByteArray();
    QTest::newRow("speech token") << speechToken() << QByteArray("GET") << QByteArray("/stt-token") << true
                                  << QByteArray();
}

void EndpointsTest::wireExchange() {
    QFETCH(Call, call);
    QFETCH(QByteArray, method);
    QFETCH(QByteArray, path);
    QFETCH(bool, authenticated);
    QFETCH(QByteArray, body);
    home_->environment().set("TALLOWIND_TOKEN", "tok-1");
    server_->respondWith(TestHttpServer::Response::json(200, "{}"));

    run(call);
    QCOMPARE(server_->received().size(), 1);
    const auto& received = server_->received().first();
    QCOMPARE(received.method, method);
    QCOMPARE(received.target, path);
    QCOMPARE(received.header("content-type"), QByteArray("application/json"));
    QVERIFY(received.header("user-agent").startsWith("Tallowind/"));
    QCOMPARE(received.header("authorization"), authenticated ? QByteArray("Bearer tok-1") : QByteArray());
    if (body.isEmpty()) {
        QVERIFY(received.body.isEmpty());
    } else {
        QCOMPARE(QJsonDocument::fromJson(received.body), QJsonDocument::fromJson(body));
    }
}

void EndpointsTest::outcomes_data() {
    QTest::addColumn<Call>("call");
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("expected");

    QTest::newRow("start with code") << startLogin() << 200 << QByteArray(R"({"devCode":"042917"})")
                                     << "ok: 042917";
    QTest::newRow("start empty object") << startLogin() << 200 << QByteArray("{}") << "ok: (none)";
    QTest::newRow("start null code") << startLogin() << 200 << QByteArray(R"({"devCode":null})")
                                     << "ok: (none)";
    QTest::newRow("start numeric code")
        << startLogin() << 200 << QByteArray(R"({"devCode":42917})") << "ok: (none)";
    QTest::newRow("start empty body") << startLogin() << 204 << QByteArray() << "ok: (none)";
    QTest::newRow("start refused") << startLogin() << 429
                                   << QByteArray(R"({"error":"Too many codes. Wait a minute."})")
                                   << "failed: Too many codes. Wait a minute.";
    QTest::newRow("verify") << verifyLogin() << 200
                            << QByteArray(R"({"token":"t","email":"ada@example.test"})")
                            << "ok: ada@example.test";
    QTest::newRow("verify wrong code")
        << verifyLogin() << 400 << QByteArray(R"({"error":"That code is wrong."})")
        << "failed: That code is wrong.";
    QTest::newRow("verify without email")
        << verifyLogin() << 200 << QByteArray(R"({"token":"t"})")
        << "failed: Tallowind's server sent an answer that couldn't be read: \"email\" is missing.";
    QTest::newRow("verify numeric token")
        << verifyLogin() << 200 << QByteArray(R"({"token":5,"email":"a"})")
        << "failed: Tallowind's server sent an answer that couldn't be read: \"token\" is not a string.";
    QTest::newRow("sign out refused still succeeds") << signOut() << 500 << QByteArray("boom") << "ok: ";
    QTest::newRow("speech token") << speechToken() << 200 << QByteArray(R"({"token":"dg.abc","ttl":30})")
                                  << "ok: dg.abc";
    QTest::newRow("speech token missing")
        << speechToken() << 200 << QByteArray(R"({"key":"x"})")
        << "failed: Tallowind's server sent an answer that couldn't be read: \"token\" is missing.";
    QTest::newRow("speech token not set up")
        << speechToken() << 503
        << QByteArray(R"({"error":"Speech recognition is not set up on this server."})")
        << "failed: Speech recognition is not set up on this server.";
    QTest::newRow("account") << account() << 200
                             << QByteArray(R"({"email":"a@b.test","minutesUsed":3,"minutesLimit":600})")
                             << "ok: a@b.test 3/600";
    QTest::newRow("account not JSON")
        << account() << 200 << QByteArray("<html>")
        << "failed: Tallowind's server sent an answer that couldn't be read: not JSON "
           "(illegal value at offset 1).";
}

void EndpointsTest::outcomes() {
    QFETCH(Call, call);
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(QString, expected);
    home_->environment().set("TALLOWIND_TOKEN", "tok-1");
    server_->respondWith(TestHttpServer::Response::json(status, body));
    QCOMPARE(run(call), expected);
}

void EndpointsTest::unauthorizedForgetsToken_data() {
    QTest::addColumn<Call>("call");
    QTest::addColumn<QString>("expected");
    const QString signedOut = QStringLiteral("failed: Please sign in again.");
    QTest::newRow("start") << startLogin() << signedOut;
    QTest::newRow("verify") << verifyLogin() << signedOut;
    QTest::newRow("sign out") << signOut() << QStringLiteral("ok: ");
    QTest::newRow("account") << account() << signedOut;
    QTest::newRow("speech token") << speechToken() << signedOut;
    QTest::newRow("usage") << Call([](BackendClient& client, auto report) {
        client.reportUsage(5);
        report(QStringLiteral("sent"));
    }) << QStringLiteral("sent");
}

void EndpointsTest::unauthorizedForgetsToken() {
    QFETCH(Call, call);
    QFETCH(QString, expected);
    Keychain::save(QStringLiteral("stale"));
    server_->respondWith(TestHttpServer::Response::json(401, R"({"error":"Unknown token."})"));
    QCOMPARE(run(call), expected);
    QTRY_COMPARE(server_->received().size(), 1);
    QTRY_COMPARE(Keychain::load(), std::nullopt);
    QVERIFY(!isSignedIn());
}

void EndpointsTest::accountDecoding_data() {
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QVariant>("expected");  // Account, or the failure's description
    const auto account = [](qint64 used, qint64 limit) {
        return QVariant::fromValue(Account{QStringLiteral("a@b.test"), used, limit});
    };
    const auto broken = [](const char* detail) {
        return QVariant(QStringLiteral("Tallowind's server sent an answer that couldn't be read: %1.")
                            .arg(QString::fromUtf8(detail)));
    };
    QTest::newRow("whole numbers") << QByteArray(
                                          R"({"email":"a@b.test","minutesUsed":12,"minutesLimit":600})")
                                   << account(12, 600);
    QTest::newRow("zero fraction") << QByteArray(
                                          R"({"email":"a@b.test","minutesUsed":12.0,"minutesLimit":6e2})")
                                   << account(12, 600);
    QTest::newRow("extra key") << QByteArray(
                                      R"({"email":"a@b.test","minutesUsed":1,"minutesLimit":2,"plan":"pro"})")
                               << account(1, 2);
    QTest::newRow("beyond 32 bits")
        << QByteArray(R"({"email":"a@b.test","minutesUsed":4294967296,"minutesLimit":9007199254740993})")
        << account(4294967296LL, 9007199254740993LL);
    QTest::newRow("negative") << QByteArray(R"({"email":"a@b.test","minutesUsed":-1,"minutesLimit":0})")
                              << account(-1, 0);
    QTest::newRow("fraction") << QByteArray(R"({"email":"a@b.test","minutesUsed":12.5,"minutesLimit":600})")
                              << broken("\"minutesUsed\" is not a whole number");
    QTest::newRow("string") << QByteArray(R"({"email":"a@b.test","minutesUsed":"12","minutesLimit":600})")
                            << broken("\"minutesUsed\" is not a number");
    QTest::newRow("null") << QByteArray(R"({"email":"a@b.test","minutesUsed":12,"minutesLimit":null})")
                          << broken("\"minutesLimit\" is not a number");
    QTest::newRow("missing limit") << QByteArray(R"({"email":"a@b.test","minutesUsed":12})")
                                   << broken("\"minutesLimit\" is missing");
    QTest::newRow("missing email") << QByteArray(R"({"minutesUsed":12,"minutesLimit":600})")
                                   << broken("\"email\" is missing");
    QTest::newRow("too large for 64 bits")
        << QByteArray(R"({"email":"a@b.test","minutesUsed":1e30,"minutesLimit":600})")
        << broken("\"minutesUsed\" is not a whole number");
    QTest::newRow("array") << QByteArray("[]") << broken("not a JSON object");
}

void EndpointsTest::accountDecoding() {
    QFETCH(QByteArray, body);
    QFETCH(QVariant, expected);
    const auto decoded = BackendClient::decodeAccount(body);
    if (expected.canConvert<Account>() && expected.userType() == qMetaTypeId<Account>()) {
        QVERIFY2(decoded.ok(), qPrintable(decoded ? QString() : decoded.failure().description()));
        QCOMPARE(decoded.value(), expected.value<Account>());
    } else {
        QVERIFY(!decoded.ok());
        QCOMPARE(decoded.failure().description(), expected.toString());
    }
}

void EndpointsTest::usageReports_data() {
    QTest::addColumn<double>("seconds");
    QTest::addColumn<QByteArray>("body");  // empty: nothing is sent
    QTest::newRow("below one second") << 0.99 << QByteArray();
    QTest::newRow("zero") << 0.0 << QByteArray();
    QTest::newRow("negative") << -5.0 << QByteArray();
    QTest::newRow("not a number") << std::numeric_limits<double>::quiet_NaN() << QByteArray();
    QTest::newRow("infinite") << std::numeric_limits<double>::infinity() << QByteArray();
    QTest::newRow("exactly one") << 1.0 << QByteArray(R"({"sttSeconds":1})");
    QTest::newRow("fraction kept") << 12.5 << QByteArray(R"({"sttSeconds":12.5})");
    QTest::newRow("a minute") << 60.016 << QByteArray(R"({"sttSeconds":60.016})");
}

void EndpointsTest::usageReports() {
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
    const auto& received = server_->received().first();
    QCOMPARE(received.target, QByteArray("/usage"));
    QCOMPARE(received.body, body);
    QCOMPARE(QJsonDocument::fromJson(received.body).object().value("sttSeconds").toDouble(), seconds);
}

void EndpointsTest::signInState_data() {
    QTest::addColumn<QByteArray>("store");
    QTest::newRow("file") << QByteArray("file");
    QTest::newRow("secret service") << QByteArray("secret-service");
}

void EndpointsTest::signInState() {
    QFETCH(QByteArray, store);
    if (store == "secret-service" && !qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS")) {
        QSKIP("needs a session bus with a Secret Service (the test command starts one)");
    }
    home_->environment().set("TALLOWIND_TOKEN_STORE", store);
    Keychain::remove();
    int issued = 0;
    server_->setHandler([&issued](const TestHttpServer::Received& request) {
        if (request.target == "/auth/verify") {
            ++issued;
            return TestHttpServer::Response::json(
                200,
                QByteArray(R"({"token":"token-)") + QByteArray::number(issued) + R"(","email":"a@b.test"})");
        }
        return TestHttpServer::Response::json(200, "{}");
    });
    QVERIFY(!isSignedIn());

    QCOMPARE(run(verifyLogin()), QStringLiteral("ok: a@b.test"));
    QVERIFY(isSignedIn());
    QCOMPARE(token(), std::optional(QStringLiteral("token-1")));
    QCOMPARE(run(verifyLogin()), QStringLiteral("ok: a@b.test"));
    QCOMPARE(token(), std::optional(QStringLiteral("token-2")));

    // The environment's token stands in for the stored one but does not replace it.
    home_->environment().set("TALLOWIND_TOKEN", "from-env");
    QCOMPARE(token(), std::optional(QStringLiteral("from-env")));
    QCOMPARE(Keychain::load(), std::optional(QStringLiteral("token-2")));
    home_->environment().unset("TALLOWIND_TOKEN");

    // Signing out with the server gone still forgets the token here.
    server_.reset();
    QCOMPARE(run(signOut()), QStringLiteral("ok: "));
    QVERIFY(!isSignedIn());
    QCOMPARE(Keychain::load(), std::nullopt);
}

QTEST_GUILESS_MAIN(EndpointsTest)
#include "tst_endpoints.moc"
