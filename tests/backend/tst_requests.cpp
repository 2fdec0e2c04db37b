#include "backendclient.h"
#include "config.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QTest>

namespace {

Result<QByteArray> exchange(BackendClient& client, const QByteArray& method, const QString& path,
                            const std::optional<QJsonObject>& body, bool authenticated) {
    std::optional<Result<QByteArray>> outcome;
    client.request(method, path, body, authenticated,
                   [&](Result<QByteArray> result) { outcome = std::move(result); });
    if (!QTest::qWaitFor([&] { return outcome.has_value(); }, 10'000)) {
        return Failure::other(QStringLiteral("no outcome"));
    }
    return *outcome;
}

}  // namespace

class RequestsTest : public QObject {
    Q_OBJECT

private slots:
    void serverAddressPicksTheFirstUsableSource_data();
    void serverAddressPicksTheFirstUsableSource();
    void appVersionIgnoresThePlaceholder();
    void requestCarriesHeadersAndTheRightToken_data();
    void requestCarriesHeadersAndTheRightToken();
    void responseStatusAndBodyMapToTheUsersMessage_data();
    void responseStatusAndBodyMapToTheUsersMessage();
    void unauthorizedForgetsOnlyAStoredToken_data();
    void unauthorizedForgetsOnlyAStoredToken();
    void requestReachesThePathUnderTheBase();
    void transportFailuresSayTheServerIsUnreachable_data();
    void transportFailuresSayTheServerIsUnreachable();
};

void RequestsTest::serverAddressPicksTheFirstUsableSource_data() {
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

void RequestsTest::serverAddressPicksTheFirstUsableSource() {
    QFETCH(QVariant, environment);
    QFETCH(QString, compiledIn);
    QFETCH(QString, expected);
    const auto env = environment.isValid() ? std::optional(environment.toString()) : std::nullopt;
    QCOMPARE(Config::resolveServerURL(env, compiledIn).toString(), expected);
}

void RequestsTest::appVersionIgnoresThePlaceholder() {
    QCOMPARE(Config::resolveAppVersion(QStringLiteral("1.4.2")), QStringLiteral("1.4.2"));
    QCOMPARE(Config::resolveAppVersion(QStringLiteral("__VERSION__")), QStringLiteral("0.0.0"));
    QCOMPARE(Config::resolveAppVersion(QString()), QStringLiteral("0.0.0"));
}

void RequestsTest::requestCarriesHeadersAndTheRightToken_data() {
    QTest::addColumn<bool>("authenticated");
    QTest::addColumn<QVariant>("environmentToken");
    QTest::addColumn<QVariant>("storedToken");
    QTest::addColumn<QVariant>("authorization");  // invalid: no header; "signedOut": the request fails
    QTest::newRow("unauthenticated") << false << QVariant() << QVariant("stored") << QVariant();
    QTest::newRow("stored token") << true << QVariant() << QVariant("stored") << QVariant("Bearer stored");
    QTest::newRow("environment beats store")
        << true << QVariant("env") << QVariant("stored") << QVariant("Bearer env");
    QTest::newRow("empty environment token")
        << true << QVariant("") << QVariant("stored") << QVariant("Bearer ");
    QTest::newRow("no token at all") << true << QVariant() << QVariant() << QVariant("signedOut");
}

void RequestsTest::requestCarriesHeadersAndTheRightToken() {
    QFETCH(bool, authenticated);
    QFETCH(QVariant, environmentToken);
    QFETCH(QVariant, storedToken);
    QFETCH(QVariant, authorization);
    TestHome home;
    home.environment().set("TALLOWIND_SERVER", "https://host.test/api/");
    if (environmentToken.isValid()) {
        home.environment().set("TALLOWIND_TOKEN", environmentToken.toString().toUtf8());
    }
    if (storedToken.isValid()) {
        Keychain::save(storedToken.toString());
    }
    const auto request = BackendClient::makeRequest("POST", QStringLiteral("/answer"), authenticated);
    if (authorization == QVariant("signedOut")) {
        QVERIFY(!request.ok() && request.failure().is(BackendError::Kind::signedOut));
        QCOMPARE(request.failure().description(), QStringLiteral("Please sign in again."));
        return;
    }
    QVERIFY(request.ok());
    QCOMPARE(request.value().url().toString(), QStringLiteral("https://host.test/api/answer"));
    QCOMPARE(request.value().rawHeader("content-type"), QByteArray("application/json"));
    QCOMPARE(request.value().rawHeader("user-agent"), "Tallowind/" + Config::appVersion().toUtf8());
    QCOMPARE(request.value().hasRawHeader("authorization"), authorization.isValid());
    QCOMPARE(request.value().rawHeader("authorization"), authorization.toString().toUtf8());
}

void RequestsTest::responseStatusAndBodyMapToTheUsersMessage_data() {
    QTest::addColumn<QVariant>("status");      // invalid: not an HTTP response
    QTest::addColumn<QVariant>("body");        // invalid: the body could not be read
    QTest::addColumn<QString>("description");  // empty with kind -1: success
    QTest::addColumn<int>("kind");
    const int server = int(BackendError::Kind::server);
    const QString generic = QStringLiteral("Tallowind's server returned an error (%1).");
    QTest::newRow("201 empty") << QVariant(201) << QVariant(QByteArray()) << "" << -1;
    QTest::newRow("204 unreadable") << QVariant(204) << QVariant() << "" << -1;
    QTest::newRow("no HTTP response")
        << QVariant() << QVariant() << "No response from Tallowind." << int(BackendError::Kind::network);
    QTest::newRow("301") << QVariant(301) << QVariant(QByteArray("moved")) << generic.arg(301) << server;
    QTest::newRow("error string") << QVariant(503) << QVariant(QByteArray(R"({"error":"Busy.","retry":3})"))
                                  << "Busy." << server;
    QTest::newRow("not JSON") << QVariant(500) << QVariant(QByteArray("<html>")) << generic.arg(500)
                              << server;
    QTest::newRow("empty error") << QVariant(400) << QVariant(QByteArray(R"({"error":""})")) << "" << server;
    QTest::newRow("numeric error") << QVariant(400) << QVariant(QByteArray(R"({"error":42})"))
                                   << generic.arg(400) << server;
    QTest::newRow("body lost") << QVariant(502) << QVariant() << generic.arg(502) << server;
    QTest::newRow("401") << QVariant(401) << QVariant(QByteArray(R"({"error":"expired"})"))
                         << "Please sign in again." << int(BackendError::Kind::signedOut);
}

void RequestsTest::responseStatusAndBodyMapToTheUsersMessage() {
    QFETCH(QVariant, status);
    QFETCH(QVariant, body);
    QFETCH(QString, description);
    QFETCH(int, kind);
    TestHome home;
    const auto error =
        BackendClient::check(status.isValid() ? std::optional(status.toInt()) : std::nullopt,
                             body.isValid() ? std::optional(body.toByteArray()) : std::nullopt);
    QCOMPARE(error.has_value(), kind >= 0);
    if (error) {
        QCOMPARE(int(error->kind()), kind);
        QCOMPARE(error->description(), description);
    }
}

void RequestsTest::unauthorizedForgetsOnlyAStoredToken_data() {
    QTest::addColumn<bool>("authenticated");
    QTest::addColumn<bool>("environmentToken");
    QTest::newRow("authenticated request") << true << false;
    QTest::newRow("unauthenticated request") << false << false;
    QTest::newRow("token from the environment") << true << true;
}

void RequestsTest::unauthorizedForgetsOnlyAStoredToken() {
    QFETCH(bool, authenticated);
    QFETCH(bool, environmentToken);
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    server.respondWith(TestHttpServer::Response::json(401, R"({"error":"Token expired."})"));
    home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
    if (environmentToken) {
        home.environment().set("TALLOWIND_TOKEN", "from-env");
    }
    Keychain::save(QStringLiteral("stored"));
    BackendClient client;
    const auto outcome = exchange(client, "GET", QStringLiteral("/me"), std::nullopt, authenticated);
    QVERIFY(!outcome.ok());
    QCOMPARE(outcome.failure().description(), QStringLiteral("Please sign in again."));
    QCOMPARE(Keychain::load(), std::nullopt);
}

void RequestsTest::requestReachesThePathUnderTheBase() {
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    server.respondWith(TestHttpServer::Response::json(200, R"({"ok":true})"));
    home.environment().set("TALLOWIND_SERVER", (server.url().toString() + "/base/").toUtf8());
    home.environment().set("TALLOWIND_TOKEN", "secret");
    BackendClient client;
    const auto outcome =
        exchange(client, "POST", QStringLiteral("/usage"), QJsonObject{{"sttSeconds", 12.5}}, true);
    QVERIFY(outcome.ok());
    QCOMPARE(outcome.value(), QByteArray(R"({"ok":true})"));
    QCOMPARE(server.received().size(), 1);
    const auto& received = server.received().first();
    QCOMPARE(received.method, QByteArray("POST"));
    QCOMPARE(received.target, QByteArray("/base/usage"));
    QCOMPARE(received.header("authorization"), QByteArray("Bearer secret"));
    QCOMPARE(received.body, QByteArray(R"({"sttSeconds":12.5})"));
}

void RequestsTest::transportFailuresSayTheServerIsUnreachable_data() {
    QTest::addColumn<bool>("refused");
    QTest::newRow("connection refused") << true;
    QTest::newRow("connection dropped mid-body") << false;
}

void RequestsTest::transportFailuresSayTheServerIsUnreachable() {
    QFETCH(bool, refused);
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    auto response = TestHttpServer::Response::json(200, R"({"tok)");
    response.streamed = response.drop = true;
    server.respondWith(response);
    QUrl url = server.url();
    if (refused) {
        TestHttpServer closed;
        QVERIFY(closed.listen());
        url = closed.url();
    }
    home.environment().set("TALLOWIND_SERVER", url.toString().toUtf8());
    BackendClient client;
    const auto outcome = exchange(client, "POST", QStringLiteral("/auth/verify"), QJsonObject{}, false);
    QVERIFY(!outcome.ok());
    QCOMPARE(outcome.failure().description(),
             QStringLiteral("Can't reach Tallowind. Check your internet connection."));
}

QTEST_GUILESS_MAIN(RequestsTest)
#include "tst_requests.moc"
