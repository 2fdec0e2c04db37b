// The program's own backend client against the real server on a loopback port: sign-in, the account's
// minutes, sign-out and what survives a restart.

#include "awaitresult.h"
#include "backendclient.h"
#include "fakesmtpserver.h"
#include "keychain.h"
#include "runningserver.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTest>

using namespace std::chrono_literals;

class TestServerAccount : public QObject {
    Q_OBJECT

private:
    // Signs `email` in through the client and returns the stored token.
    QString signIn(BackendClient& client, const QString& email) {
        const auto code = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        if (!code || !code.value()) {
            return {};
        }
        const auto verified = awaitResult<QString>(
            [&](auto done) { client.verifyLogin(email, *code.value(), std::move(done)); });
        return verified ? Keychain::load().value_or(QString()) : QString();
    }

    Result<Account> account(BackendClient& client) {
        return awaitResult<Account>([&](auto done) { client.account(std::move(done)); });
    }

    // Waits until the account shows `minutes`: usage reports are fire and forget.
    bool minutesReach(BackendClient& client, qint64 minutes) {
        QDeadlineTimer deadline(10'000);
        while (!deadline.hasExpired()) {
            const auto current = account(client);
            if (current && current.value().minutesUsed == minutes) {
                return true;
            }
            QTest::qWait(20);
        }
        return false;
    }

private slots:
    void aDevelopmentCodeSignsInAndTheAccountShowsTheAddress() {
        TestHome home;
        RunningServer server;
        QVERIFY(server.isUp());
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;

        const auto code = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(QStringLiteral("Ada@Example.org "), std::move(done)); });
        QVERIFY2(code, qPrintable(code ? QString() : code.failure().description()));
        QVERIFY(code.value().has_value());
        QCOMPARE(code.value()->size(), 6);
        QVERIFY(!isSignedIn());

        const auto verified = awaitResult<QString>([&](auto done) {
            client.verifyLogin(QStringLiteral("ada@example.org"), *code.value(), std::move(done));
        });
        QVERIFY2(verified, qPrintable(verified ? QString() : verified.failure().description()));
        QCOMPARE(verified.value(), QStringLiteral("ada@example.org"));
        QVERIFY(isSignedIn());
        QCOMPARE(Keychain::load()->size(), 64);

        const auto details = account(client);
        QVERIFY(details);
        QCOMPARE(details.value(), (Account{QStringLiteral("ada@example.org"), 0, 600}));

        // A code signs in once.
        const auto again = awaitResult<QString>([&](auto done) {
            client.verifyLogin(QStringLiteral("ada@example.org"), *code.value(), std::move(done));
        });
        QVERIFY(!again);
        QVERIFY(again.failure().description().contains(QStringLiteral("expired or was already used")));
    }

    void aWrongCodeIsRefusedAndTheRightOneStillWorks() {
        TestHome home;
        RunningServer server;
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString email = QStringLiteral("bo@example.org");
        const auto code = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY(code && code.value());
        const QString wrong =
            *code.value() == QStringLiteral("000000") ? QStringLiteral("000001") : QStringLiteral("000000");

        const auto refused =
            awaitResult<QString>([&](auto done) { client.verifyLogin(email, wrong, std::move(done)); });
        QVERIFY(!refused);
        QCOMPARE(refused.failure().description(),
                 QStringLiteral("That code isn't right. Check the e-mail and try again."));
        QVERIFY(!isSignedIn());

        const auto accepted = awaitResult<QString>(
            [&](auto done) { client.verifyLogin(email, *code.value(), std::move(done)); });
        QVERIFY(accepted);
    }

    void aCodeExpiresAfterTenMinutes_data() {
        QTest::addColumn<int>("waitedSeconds");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("just under ten minutes") << 599 << true;
        QTest::newRow("ten minutes") << 600 << false;
        QTest::newRow("an hour") << 3600 << false;
    }

    void aCodeExpiresAfterTenMinutes() {
        QFETCH(int, waitedSeconds);
        QFETCH(bool, accepted);
        TestHome home;
        RunningServer server;
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString email = QStringLiteral("cy@example.org");
        const auto code = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY(code && code.value());

        server.advance(std::chrono::seconds(waitedSeconds));
        const auto verified = awaitResult<QString>(
            [&](auto done) { client.verifyLogin(email, *code.value(), std::move(done)); });
        QCOMPARE(verified.ok(), accepted);
        if (!accepted) {
            QCOMPARE(verified.failure().description(),
                     QStringLiteral("This code has expired or was already used. Request a new code."));
        }
    }

    void fiveWrongTriesUseTheCodeUp() {
        TestHome home;
        RunningServer server;
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString email = QStringLiteral("di@example.org");
        const auto code = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY(code && code.value());
        const QString wrong =
            *code.value() == QStringLiteral("123456") ? QStringLiteral("654321") : QStringLiteral("123456");

        for (int attempt = 1; attempt <= 5; ++attempt) {
            const auto refused =
                awaitResult<QString>([&](auto done) { client.verifyLogin(email, wrong, std::move(done)); });
            QVERIFY(!refused);
            QCOMPARE(refused.failure().description().contains(QStringLiteral("no tries left")), attempt == 5);
        }
        const auto tooLate = awaitResult<QString>(
            [&](auto done) { client.verifyLogin(email, *code.value(), std::move(done)); });
        QVERIFY(!tooLate);
        QVERIFY(!isSignedIn());

        // A new code starts a new count.
        QVERIFY(!signIn(client, email).isEmpty());
    }

    void withoutDevelopmentModeTheCodeIsMailedNotReturned() {
        TestHome home;
        auto config = RunningServer::devConfig();
        config.devMode = false;
        RunningServer server(config);
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString email = QStringLiteral("ed@example.org");

        const auto started = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY(started);
        QVERIFY(!started.value().has_value());
        const auto mail = server.outbox().messages();
        QCOMPARE(mail.size(), std::size_t(1));
        QCOMPARE(mail[0].to, std::string("ed@example.org"));
        const QString code = server.outbox().lastCode();
        QCOMPARE(code.size(), 6);

        const auto verified =
            awaitResult<QString>([&](auto done) { client.verifyLogin(email, code, std::move(done)); });
        QVERIFY(verified);
    }

    void codesGoOutThroughTheConfiguredMailServer() {
        TestHome home;
        FakeSmtpServer smtp;
        QVERIFY(smtp.listen());
        auto config = RunningServer::devConfig();
        config.devMode = false;
        config.smtpUrl = QStringLiteral("smtp://127.0.0.1:%1").arg(smtp.port()).toStdString();
        config.smtpFrom = "signin@tallowind.test";
        RunningServer server(config);
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString email = QStringLiteral("Flo@Example.org");

        const auto started = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY2(started, qPrintable(started ? QString() : started.failure().description()));
        QVERIFY(!started.value().has_value());
        QCOMPARE(smtp.mail().size(), 1);
        const auto& mail = smtp.mail()[0];
        QCOMPARE(mail.from, QByteArray("<signin@tallowind.test>"));
        QCOMPARE(mail.to, QList<QByteArray>{"<flo@example.org>"});
        const auto code =
            QRegularExpression(QStringLiteral("Subject: Your Tallowind sign-in code: (\\d{6})\r\n"))
                .match(QString::fromUtf8(mail.data));
        QVERIFY2(code.hasMatch(), mail.data.constData());
        QVERIFY(mail.data.contains("Your Tallowind sign-in code is " + code.captured(1).toUtf8() + "."));

        const auto verified = awaitResult<QString>(
            [&](auto done) { client.verifyLogin(email, code.captured(1), std::move(done)); });
        QVERIFY(verified);

        // A mail server that refuses the address leaves no code behind and says so.
        smtp.refuseRecipients(true);
        const auto refused = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY(!refused);
        QCOMPARE(refused.failure().description(),
                 QStringLiteral("The sign-in e-mail couldn't be sent. Try again in a few minutes."));
    }

    void codeRequestsAreRateLimitedPerEmail() {
        TestHome home;
        auto config = RunningServer::devConfig();
        config.codesPerEmail = 3;
        RunningServer server(config);
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString email = QStringLiteral("fay@example.org");
        for (int i = 0; i < 3; ++i) {
            QVERIFY(awaitResult<std::optional<QString>>(
                [&](auto done) { client.startLogin(email, std::move(done)); }));
        }
        const auto limited = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
        QVERIFY(!limited);
        QVERIFY(limited.failure().description().contains(QStringLiteral("Too many sign-in codes")));
        // Another address from the same machine is not held back by this one.
        QVERIFY(awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(QStringLiteral("gus@example.org"), std::move(done)); }));
        // The window slides: an hour later the address may ask again.
        server.advance(3601s);
        QVERIFY(awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); }));
    }

    void codeRequestsAreRateLimitedPerClientAddress() {
        TestHome home;
        auto config = RunningServer::devConfig();
        config.codesPerAddress = 2;
        RunningServer server(config);
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        for (const char* email : {"lee@example.org", "max@example.org"}) {
            QVERIFY(awaitResult<std::optional<QString>>(
                [&](auto done) { client.startLogin(QString::fromLatin1(email), std::move(done)); }));
        }
        const auto limited = awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(QStringLiteral("ned@example.org"), std::move(done)); });
        QVERIFY(!limited);
        QVERIFY(limited.failure().description().contains(QStringLiteral("Too many sign-in codes")));
    }

    void usageReportsAddUpToWholeMinutesOfTheMonth() {
        TestHome home;
        RunningServer server;
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        QVERIFY(!signIn(client, QStringLiteral("hal@example.org")).isEmpty());

        client.reportUsage(59.5);
        QVERIFY(minutesReach(client, 0));
        client.reportUsage(0.9);  // not sent: under a second
        client.reportUsage(1.0);  // 60.5 seconds: one whole minute
        QVERIFY(minutesReach(client, 1));
        client.reportUsage(60.0);
        client.reportUsage(59.5);
        QVERIFY(minutesReach(client, 3));

        // The first day of the next month starts from nothing.
        server.setNow(std::chrono::system_clock::now() + std::chrono::days(32));
        QVERIFY(minutesReach(client, 0));
    }

    void theSpeechTokenNeedsAKeyAndMinutesLeft() {
        TestHome home;
        TestHttpServer speechService;
        QVERIFY(speechService.listen());
        speechService.respondWith(
            TestHttpServer::Response::json(200, R"({"access_token":"short-lived","expires_in":60})"));
        auto config = RunningServer::devConfig();
        config.minutesLimit = 1;
        RunningServer withoutKey;
        home.environment().set("TALLOWIND_SERVER", withoutKey.url().toString().toUtf8());
        BackendClient client;
        QVERIFY(!signIn(client, QStringLiteral("ivy@example.org")).isEmpty());
        const auto off = awaitResult<QString>([&](auto done) { client.speechToken(std::move(done)); });
        QVERIFY(!off);
        QVERIFY(off.failure().description().startsWith(
            QStringLiteral("Speech recognition is not set up on this server")));

        config.speechKey = "secret-key";
        config.speechUrl = speechService.url().toString().toStdString();
        RunningServer withKey(config);
        home.environment().set("TALLOWIND_SERVER", withKey.url().toString().toUtf8());
        QVERIFY(!signIn(client, QStringLiteral("ivy@example.org")).isEmpty());
        const auto granted = awaitResult<QString>([&](auto done) { client.speechToken(std::move(done)); });
        QVERIFY2(granted, qPrintable(granted ? QString() : granted.failure().description()));
        QCOMPARE(granted.value(), QStringLiteral("short-lived"));
        QCOMPARE(speechService.received().size(), 1);
        QCOMPARE(speechService.received()[0].target, QByteArray("/v1/auth/grant"));
        QCOMPARE(speechService.received()[0].header("authorization"), QByteArray("Token secret-key"));

        client.reportUsage(61.0);
        QVERIFY(minutesReach(client, 1));
        const auto usedUp = awaitResult<QString>([&](auto done) { client.speechToken(std::move(done)); });
        QVERIFY(!usedUp);
        QVERIFY(usedUp.failure().description().contains(QStringLiteral("used all 1 listening minutes")));
        QCOMPARE(speechService.received().size(), 1);
    }

    void signingOutRevokesTheTokenOnTheServer() {
        TestHome home;
        RunningServer server;
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        const QString token = signIn(client, QStringLiteral("jo@example.org"));
        QVERIFY(!token.isEmpty());
        QVERIFY(account(client));

        QVERIFY(awaitResult<Done>([&](auto done) { client.signOut(std::move(done)); }));
        QVERIFY(!isSignedIn());

        // The old token, presented again, is refused by the server itself.
        home.environment().set("TALLOWIND_TOKEN", token.toUtf8());
        const auto refused = account(client);
        QVERIFY(!refused);
        QVERIFY(refused.failure().is(BackendError::Kind::signedOut));
    }

    void tokensAndMinutesSurviveARestart() {
        TestHome home;
        RunningServer server;
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        BackendClient client;
        QVERIFY(!signIn(client, QStringLiteral("kim@example.org")).isEmpty());
        client.reportUsage(120.0);
        QVERIFY(minutesReach(client, 2));

        server.restart();
        QVERIFY(server.isUp());
        const auto details = account(client);
        QVERIFY2(details, qPrintable(details ? QString() : details.failure().description()));
        QCOMPARE(details.value(), (Account{QStringLiteral("kim@example.org"), 2, 600}));
    }
};

QTEST_GUILESS_MAIN(TestServerAccount)
#include "tst_serveraccount.moc"
