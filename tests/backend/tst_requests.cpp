#include "backendclient.h"
#include "config.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

class RequestsTest : public QObject {
    Q_OBJECT

private slots:
    void serverAddress_data();
    void serverAddress();
    void appVersion_data();
    void appVersion();
    void endpointURL_data();
    void endpointURL();
    void headers_data();
    void headers();
    void check_data();
    void check();
    void unauthorizedDeletesStoredToken_data();
    void unauthorizedDeletesStoredToken();
    void requestRoundTrip();
    void requestFailures_data();
    void requestFailures();
};

void RequestsTest::serverAddress_data() {
    QTest::addColumn<QVariant>("environment");  // invalid: unset
    QTest::addColumn<QString>("compiledIn");
    QTest::addColumn<QString>("expected");

    QTest::newRow("nothing configured") << QVariant() << ""
                                        << "http://localhost:8787";
    QTest::newRow("environment wins") << QVariant("https://api.example.test/v2") << "https://other.test"
                                      << "https://api.example.test/v2";
    QTest::newRow("environment used unchanged") << QVariant("http://127.0.0.1:9/") << ""
                                                << "http://127.0.0.1:9/";
    QTest::newRow("empty environment falls through") << QVariant("") << "https://built.test"
                                                     << "https://built.test";
    QTest::newRow("malformed environment falls through") << QVariant("not a url") << ""
                                                         << "http://localhost:8787";
    QTest::newRow("placeholder ignored") << QVariant() << "__TALLOWIND_SERVER_URL__"
                                         << "http://localhost:8787";
    QTest::newRow("compiled-in value") << QVariant() << "https://built.test/base"
                                       << "https://built.test/base";
}

void RequestsTest::serverAddress() {
    QFETCH(QVariant, environment);
    QFETCH(QString, compiledIn);
    QFETCH(QString, expected);
    const auto env = environment.isValid() ? std::optional(environment.toString()) : std::nullopt;
    QCOMPARE(Config::resolveServerURL(env, compiledIn).toString(), expected);
}

void RequestsTest::appVersion_data() {
    QTest::addColumn<QString>("compiledIn");
    QTest::addColumn<QString>("expected");
    QTest::newRow("version") << "1.4.2"
                             << "1.4.2";
    QTest::newRow("placeholder") << "__VERSION__"
                                 << "0.0.0";
    QTest::newRow("missing") << ""
                             << "0.0.0";
}

void RequestsTest::appVersion() {
    QFETCH(QString, compiledIn);
    QFETCH(QString, expected);
    QCOMPARE(Config::resolveAppVersion(compiledIn), expected);
}

void RequestsTest::endpointURL_data() {
    QTest::addColumn<QString>("base");
    QTest::addColumn<QString>("expected");
    QTest::newRow("no path") << "http://127.0.0.1:8787"
                             << "http://127.0.0.1:8787/me";
    QTest::newRow("trailing slash") << "http://127.0.0.1:8787/"
                                    << "http://127.0.0.1:8787/me";
    QTest::newRow("path") << "https://host.test/api"
                          << "https://host.test/api/me";
    QTest::newRow("path and trailing slash") << "https://host.test/api/"
                                             << "https://host.test/api/me";
}

void RequestsTest::endpointURL() {
    QFETCH(QString, base);
    QFETCH(QString, expected);
    TestHome home;
    home.environment().set("TALLOWIND_SERVER", base.toUtf8());
    const auto request = BackendClient::makeRequest("GET", QStringLiteral("/me"), false);
    QVERIFY(request.ok());
    QCOMPARE(request.value().url().toString(), expected);
    QCOMPARE(request.value().attribute(QNetworkRequest::CustomVerbAttribute).toByteArray(),
             QByteArray("GET"));
}

void RequestsTest::headers_data() {
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

void RequestsTest::headers() {
    QFETCH(bool, authenticated);
    QFETCH(QVariant, environmentToken);
    QFETCH(QVariant, storedToken);
    QFETCH(QVariant, authorization);
    TestHome home;
    if (environmentToken.isValid()) {
        home.environment().set("TALLOWIND_TOKEN", environmentToken.toString().toUtf8());
    }
    if (storedToken.isValid()) {
        Keychain::save(storedToken.toString());
    }

    const auto request = BackendClient::makeRequest("POST", QStringLiteral("/answer"), authenticated);
    if (authorization == QVariant("signedOut")) {
        QVERIFY(!request.ok());
        QVERIFY(request.failure().is(BackendError::Kind::signedOut));
        QCOMPARE(request.failure().description(), QStringLiteral("Please sign in again."));
        return;
    }
    QVERIFY(request.ok());
    QCOMPARE(request.value().rawHeader("content-type"), QByteArray("application/json"));
    QCOMPARE(request.value().rawHeader("user-agent"), "Tallowind/" + Config::appVersion().toUtf8());
    QCOMPARE(request.value().hasRawHeader("authorization"), authorization.isValid());
    if (authorization.isValid()) {
        QCOMPARE(request.value().rawHeader("authorization"), authorization.toString().toUtf8());
    }
}

void RequestsTest::check_data() {
    QTest::addColumn<QVariant>("status");      // invalid: not an HTTP response
    QTest::addColumn<QVariant>("body");        // invalid: the body could not be read
    QTest::addColumn<QString>("description");  // empty: success
    QTest::addColumn<int>("kind");

    const int server = int(BackendError::Kind::server);
    QTest::newRow("200") << QVariant(200) << QVariant(QByteArray("{}")) << "" << -1;
    QTest::newRow("201") << QVariant(201) << QVariant(QByteArray()) << "" << -1;
    QTest::newRow("204 unreadable body") << QVariant(204) << QVariant() << "" << -1;
    QTest::newRow("no HTTP response")
        << QVariant() << QVariant() << "No response from Tallowind." << int(BackendError::Kind::network);
    QTest::newRow("301") << QVariant(301) << QVariant(QByteArray("moved"))
                         << "Tallowind's server returned an error (301)." << server;
    QTest::newRow("500 with error string")
        << QVariant(500) << QVariant(QByteArray(R"({"error":"Disk full."})")) << "Disk full." << server;
    QTest::newRow("500 not JSON") << QVariant(500) << QVariant(QByteArray("<html>oops</html>"))
                                  << "Tallowind's server returned an error (500)." << server;
    QTest::newRow("400 empty error") << QVariant(400) << QVariant(QByteArray(R"({"error":""})")) << ""
                                     << server;
    QTest::newRow("400 numeric error") << QVariant(400) << QVariant(QByteArray(R"({"error":42})"))
                                       << "Tallowind's server returned an error (400)." << server;
    QTest::newRow("422 array body") << QVariant(422) << QVariant(QByteArray(R"(["error"])"))
                                    << "Tallowind's server returned an error (422)." << server;
    QTest::newRow("503 extra keys") << QVariant(503) << QVariant(QByteArray(R"({"error":"Busy.","retry":3})"))
                                    << "Busy." << server;
    QTest::newRow("502 body lost") << QVariant(502) << QVariant()
                                   << "Tallowind's server returned an error (502)." << server;
    QTest::newRow("401") << QVariant(401) << QVariant(QByteArray(R"({"error":"expired"})"))
                         << "Please sign in again." << int(BackendError::Kind::signedOut);
}

void RequestsTest::check() {
    QFETCH(QVariant, status);
    QFETCH(QVariant, body);
    QFETCH(QString, description);
    QFETCH(int, kind);
    TestHome home;
    const auto error =
        BackendClient::check(status.isValid() ? std::optional(status.toInt()) : std::nullopt,
                             body.isValid() ? std::optional(body.toByteArray()) : std::nullopt);
    if (kind < 0) {
        QVERIFY(!error);
        return;
    }
    QVERIFY(error);
    QCOMPARE(int(error->kind()), kind);
    QCOMPARE(error->description(), description);
}

void RequestsTest::unauthorizedDeletesStoredToken_data() {
    QTest::addColumn<bool>("authenticated");
    QTest::addColumn<bool>("environmentToken");
    QTest::newRow("authenticated request") << true << false;
    QTest::newRow("unauthenticated request") << false << false;
    QTest::newRow("token from the environment") << true << true;
}

void RequestsTest::unauthorizedDeletesStoredToken() {
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
    std::optional<Result<QByteArray>> outcome;
    client.request("GET", QStringLiteral("/me"), std::nullopt, authenticated,
                   [&](Result<QByteArray> result) { outcome = std::move(result); });
    QTRY_VERIFY(outcome.has_value());
    QVERIFY(!outcome->ok());
    QCOMPARE(outcome->failure().description(), QStringLiteral("Please sign in again."));
    QCOMPARE(Keychain::load(), std::nullopt);
}

void RequestsTest::requestRoundTrip() {
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    server.respondWith(TestHttpServer::Response::json(200, R"({"ok":true})"));
    home.environment().set("TALLOWIND_SERVER", (server.url().toString() + "/base/").toUtf8());
    home.environment().set("TALLOWIND_TOKEN", "secret");

    BackendClient client;
    std::optional<Result<QByteArray>> outcome;
    client.request("POST", QStringLiteral("/usage"), QJsonObject{{"sttSeconds", 12.5}}, true,
                   [&](Result<QByteArray> result) { outcome = std::move(result); });
    QTRY_VERIFY(outcome.has_value());
    QVERIFY(outcome->ok());
    QCOMPARE(outcome->value(), QByteArray(R"({"ok":true})"));

    QCOMPARE(server.received().size(), 1);
    const auto& received = server.received().first();
    QCOMPARE(received.method, QByteArray("POST"));
    QCOMPARE(received.target, QByteArray("/base/usage"));
    QCOMPARE(received.header("authorization"), QByteArray("Bearer secret"));
    QCOMPARE(received.header("content-type"), QByteArray("application/json"));
    QCOMPARE(received.body, QByteArray(R"({"sttSeconds":12.5})"));
}

void RequestsTest::requestFailures_data() {
    QTest::addColumn<int>("scenario");
    QTest::addColumn<QString>("description");
    QTest::newRow("connection refused") << 0 << "Can't reach Tallowind. Check your internet connection.";
    QTest::newRow("server error body") << 1 << "The code has expired.";
    QTest::newRow("connection dropped mid-body")
        << 2 << "Can't reach Tallowind. Check your internet connection.";
}

void RequestsTest::requestFailures() {
    QFETCH(int, scenario);
    QFETCH(QString, description);
    TestHome home;
    TestHttpServer server;
    QVERIFY(server.listen());
    QUrl url = server.url();
    if (scenario == 0) {
        // A port that was just free: nothing listens on it any more.
        TestHttpServer closed;
        QVERIFY(closed.listen());
        url = closed.url();
    } else if (scenario == 1) {
        server.respondWith(TestHttpServer::Response::json(410, R"({"error":"The code has expired."})"));
    } else {
        auto response = TestHttpServer::Response::json(200, R"({"tok)");
        response.streamed = true;
        response.drop = true;
        server.respondWith(response);
    }
    home.environment().set("TALLOWIND_SERVER", url.toString().toUtf8());

    BackendClient client;
    std::optional<Result<QByteArray>> outcome;
    client.request("POST", QStringLiteral("/auth/verify"), QJsonObject{}, false,
                   [&](Result<QByteArray> result) { outcome = std::move(result); });
    QTRY_VERIFY(outcome.has_value());
    QVERIFY(!outcome->ok());
    QCOMPARE(outcome->failure().description(), description);
}

QTEST_GUILESS_MAIN(RequestsTest)
#include "tst_requests.moc"
