// Two servers on one PostgreSQL database, as a team hosts them behind a load balancer: whatever one does,
// the other sees at once, and a database that goes away and comes back costs only the requests meanwhile.

#include "postgrescluster.h"
#include "runningserver.h"

#include <QTest>

class TestServerPostgres : public QObject {
    Q_OBJECT

private:
    PostgresCluster cluster_;
    std::unique_ptr<RunningServer> servers_[2];
    const QByteArray pat_ = "{\"email\":\"pat@example.org\"}";

    // Both servers start at the same moment on a new database, so that they race to create its schema.
    void startServers(int codesPerEmail) {
        server::ServerConfig config;
        config.databaseUrl = cluster_.newDatabase();
        config.codesPerEmail = codesPerEmail;
        QVERIFY2(!config.databaseUrl.empty(), qPrintable(cluster_.failure()));
        auto second =
            std::async(std::launch::async, [config] { return std::make_unique<RunningServer>(config); });
        servers_[0] = std::make_unique<RunningServer>(config);
        servers_[1] = second.get();
        QVERIFY(servers_[0]->port() != 0 && servers_[1]->port() != 0);
    }
    HttpCall call(int server, const std::string& method, const std::string& path,
                  const std::string& token = {}, const QByteArray& body = {}) {
        return httpCall(servers_[server]->port(), method, path, token, body);
    }

private slots:
    void aCodeIsTakenOnceAndSignOutsAndRateLimitsHoldOnBothServers() {
        startServers(3);
        const QByteArray code =
            call(0, "POST", "/auth/start", {}, pat_).json()["devCode"].toString().toUtf8();
        const QByteArray verify = pat_.chopped(1) + ",\"code\":\"" + code + "\"}";
        // Both servers are handed the same code at once; exactly one of them signs in with it.
        auto racing = httpAsync(servers_[1]->port(), "POST", "/auth/verify", {}, verify);
        const HttpCall verified[2]{call(0, "POST", "/auth/verify", {}, verify), racing.get()};
        const int winner = verified[0].status == 200 ? 0 : 1;
        QCOMPARE(verified[winner].status + verified[1 - winner].status, 200 + 400);
        const std::string token = verified[winner].json()["token"].toString().toStdString();
        QCOMPARE(call(1 - winner, "GET", "/me", token).status, 200);
        QCOMPARE(call(winner, "POST", "/auth/signout", token, "{}").status, 200);
        QCOMPARE(call(1 - winner, "GET", "/me", token).status, 401);
        // The first of three codes the address may ask for went to the first server.
        for (int asked = 1; asked < 5; ++asked) {
            QCOMPARE(call(asked % 2, "POST", "/auth/start", {}, pat_).status, asked < 3 ? 200 : 429);
        }
    }

    void aStoppedDatabaseGives503sAndTheServersRecoverWhenItReturns() {
        startServers(5);
        const std::string token = devSignIn(servers_[0]->port(), "pat@example.org");
        const QByteArray minute = R"({"sttSeconds":60})";
        // A restart between requests costs none: the connections it closed are not used again.
        QVERIFY2(cluster_.stop() && cluster_.start(), qPrintable(cluster_.failure()));
        QCOMPARE(call(0, "GET", "/me", token).status + call(1, "GET", "/me", token).status, 200 + 200);
        QVERIFY2(cluster_.stop(), qPrintable(cluster_.failure()));
        for (const auto& [server, method, path, body] :
             {std::tuple{0, "GET", "/me", QByteArray()}, std::tuple{1, "POST", "/usage", minute},
              std::tuple{0, "POST", "/auth/start", pat_}}) {
            const HttpCall down = call(server, method, path, token, body);
            QVERIFY2(down.status == 503 && down.body.contains("can't reach its database right now."),
                     down.body);
        }
        QVERIFY2(cluster_.start(), qPrintable(cluster_.failure()));
        for (int server = 0; server < 2; ++server) {
            QCOMPARE(call(server, "POST", "/usage", token, minute).status, 200);
            QCOMPARE(call(server, "GET", "/me", token).json()["minutesUsed"].toInt(), server + 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestServerPostgres)
#include "tst_serverpostgres.moc"
