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

    int port(int server) const { return servers_[static_cast<std::size_t>(server)]->port(); }

    // Both servers start at the same moment on a new database, so that they race to create its schema.
    void startServers(int codesPerEmail = 5) {
        auto config = RunningServer::devConfig();
        config.databaseUrl = cluster_.newDatabase();
        config.threads = 16;
        config.codesPerEmail = codesPerEmail;
        QVERIFY2(!config.databaseUrl.empty(), qPrintable(cluster_.failure()));
        std::array<std::future<std::unique_ptr<RunningServer>>, 2> starting;
        for (auto& server : starting) {
            server =
                std::async(std::launch::async, [config] { return std::make_unique<RunningServer>(config); });
        }
        for (std::size_t i = 0; i < 2; ++i) {
            servers_[i] = starting[i].get();
            QVERIFY(servers_[i]->port() != 0);
        }
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
        std::array<std::future<HttpCall>, 2> racing{
            httpAsync(port(0), "POST", "/auth/verify", {}, verifyRequest(code)),
            httpAsync(port(1), "POST", "/auth/verify", {}, verifyRequest(code))};
        std::array<HttpCall, 2> verified{racing[0].get(), racing[1].get()};
        const int winner = verified[0].status == 200 ? 0 : 1;
        QCOMPARE(verified[std::size_t(winner)].status, 200);
        QCOMPARE(verified[std::size_t(1 - winner)].status, 400);
        QVERIFY(
            verified[std::size_t(1 - winner)].body.contains("This code has expired or was already used."));

        const std::string token =
            verified[std::size_t(winner)].json().value(QStringLiteral("token")).toString().toStdString();
        QCOMPARE(httpCall(port(1 - winner), "GET", "/me", token).status, 200);
        QCOMPARE(httpCall(port(winner), "POST", "/auth/signout", token, "{}").status, 200);
        QCOMPARE(httpCall(port(1 - winner), "GET", "/me", token).status, 401);
    }

    // Concurrent usage reports through many connections are tst_serverapi's, run on PostgreSQL too.
    void aRateLimitCountsRequestsToBothServers() {
        startServers(3);
        // The third code for one address is the last, whichever server is asked.
        for (int asked = 0; asked < 5; ++asked) {
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
        for (int server = 0; server < 2; ++server) {
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
        for (int server = 0; server < 2; ++server) {
            QCOMPARE(httpCall(port(server), "POST", "/usage", token, R"({"sttSeconds":60})").status, 200);
            QCOMPARE(minutesUsed(port(server), token), server + 1);
        }
    }
};

QTEST_GUILESS_MAIN(TestServerPostgres)
#include "tst_serverpostgres.moc"
