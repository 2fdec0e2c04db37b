// Two servers on one PostgreSQL database, as a team hosts them behind a load balancer: whatever one server
// does, the other sees at once, and a database that goes away and comes back costs only the requests made
// while it was gone.

#include "postgrescluster.h"
#include "runningserver.h"

#include <QTest>

#include <array>

namespace {

const QByteArray signInRequest = R"({"email":"pat@example.org"})";

QByteArray verifyRequest(const QString& code) {
    return R"({"email":"pat@example.org","code":")" + code.toUtf8() + R"("})";
}

int minutesUsed(int port, const std::string& token) {
    return httpCall(port, "GET", "/me", token).json().value(QStringLiteral("minutesUsed")).toInt(-1);
}

}  // namespace

class TestServerPostgres : public QObject {
    Q_OBJECT

private:
    PostgresCluster cluster_;
    std::array<std::unique_ptr<RunningServer>, 2> servers_;

    int port(std::size_t server) const { return servers_[server]->port(); }

    // Both servers start at the same moment on a new database, so that they race to create its schema.
    void startServers(int codesPerEmail = 5) {
        auto config = RunningServer::devConfig();
        config.databaseUrl = cluster_.newDatabase();
        config.threads = 16;
        config.codesPerEmail = codesPerEmail;
        QVERIFY2(!config.databaseUrl.empty(), qPrintable(cluster_.failure()));
        auto second =
            std::async(std::launch::async, [config] { return std::make_unique<RunningServer>(config); });
        servers_ = {std::make_unique<RunningServer>(config), second.get()};
        QVERIFY(port(0) != 0 && port(1) != 0);
    }

private slots:
    void initTestCase() { QVERIFY2(cluster_.isUp(), qPrintable(cluster_.failure())); }

    void cleanup() {
        servers_ = {};
        if (!cluster_.isUp()) {
            QVERIFY2(cluster_.start(), qPrintable(cluster_.failure()));
        }
    }

    void aCodeIsTakenOnceAndASignOutHoldsOnBothServers() {
        startServers();
        const QString code = httpCall(port(0), "POST", "/auth/start", {}, signInRequest)
                                 .json()
                                 .value(QStringLiteral("devCode"))
                                 .toString();
        // Both servers are handed the same code at once; exactly one of them signs in with it.
        auto racing = httpAsync(port(1), "POST", "/auth/verify", {}, verifyRequest(code));
        std::array<HttpCall, 2> verified{httpCall(port(0), "POST", "/auth/verify", {}, verifyRequest(code)),
                                         racing.get()};
        const std::size_t winner = verified[0].status == 200 ? 0 : 1;
        QCOMPARE(verified[winner].status, 200);
        QCOMPARE(verified[1 - winner].status, 400);
        QVERIFY(verified[1 - winner].body.contains("This code has expired or was already used."));
        const std::string token =
            verified[winner].json().value(QStringLiteral("token")).toString().toStdString();
        QCOMPARE(httpCall(port(1 - winner), "GET", "/me", token).status, 200);
        QCOMPARE(httpCall(port(winner), "POST", "/auth/signout", token, "{}").status, 200);
        QCOMPARE(httpCall(port(1 - winner), "GET", "/me", token).status, 401);
    }

    void aRateLimitCountsRequestsToBothServers() {
        startServers(3);
        // The third code for one address is the last, whichever server is asked.
        for (std::size_t asked = 0; asked < 5; ++asked) {
            QCOMPARE(httpCall(port(asked % 2), "POST", "/auth/start", {}, signInRequest).status,
                     asked < 3 ? 200 : 429);
        }
    }

    void aStoppedDatabaseGives503sAndTheServersRecoverWhenItReturns() {
        startServers();
        const std::string token = devSignIn(port(0), "pat@example.org");
        // A restart between requests costs none: the connections it closed are not used again.
        QVERIFY2(cluster_.stop() && cluster_.start(), qPrintable(cluster_.failure()));
        QCOMPARE(minutesUsed(port(0), token), 0);
        QCOMPARE(minutesUsed(port(1), token), 0);

        QVERIFY2(cluster_.stop(), qPrintable(cluster_.failure()));
        for (std::size_t server = 0; server < 2; ++server) {
            for (const auto& [method, path, body] :
                 {std::tuple{"GET", "/me", QByteArray()},
                  std::tuple{"POST", "/usage", QByteArray(R"({"sttSeconds":60})")},
                  std::tuple{"POST", "/auth/start", signInRequest}}) {
                const HttpCall down = httpCall(port(server), method, path, token, body);
                QCOMPARE(down.status, 503);
                QVERIFY(down.body.contains("The Tallowind server can't reach its database right now."));
            }
        }
        QVERIFY2(cluster_.start(), qPrintable(cluster_.failure()));
        for (std::size_t server = 0; server < 2; ++server) {
            QCOMPARE(httpCall(port(server), "POST", "/usage", token, R"({"sttSeconds":60})").status, 200);
            QCOMPARE(minutesUsed(port(server), token), int(server) + 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestServerPostgres)
#include "tst_serverpostgres.moc"
