// The program's own backend client against the real server on a loopback port: sign-in, the account's
// minutes, sign-out and what survives a restart.

#include "awaitresult.h"
#include "backendclient.h"
#include "fakesmtpserver.h"
#include "keychain.h"
#include "runningserver.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QRegularExpression>
#include <QTest>

using namespace std::chrono_literals;

namespace {

// A server with the program's client pointed at it.
struct Deployment {
    TestHome home;
    RunningServer server;
    BackendClient client;

    explicit Deployment(server::ServerConfig config = RunningServer::devConfig())
        : server(std::move(config)) {
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
    }

    Result<std::optional<QString>> startLogin(const QString& email) {
        return awaitResult<std::optional<QString>>(
            [&](auto done) { client.startLogin(email, std::move(done)); });
    }
    Result<QString> verify(const QString& email, const QString& code) {
        return awaitResult<QString>([&](auto done) { client.verifyLogin(email, code, std::move(done)); });
    }
    // Signs `email` in through the development code and returns the stored token.
    QString signIn(const QString& email) {
        const auto code = startLogin(email);
        return code && code.value() && verify(email, *code.value()) ? Keychain::load().value_or(QString())
                                                                    : QString();
    }
    Result<Account> account() {
        return awaitResult<Account>([&](auto done) { client.account(std::move(done)); });
    }
    Result<QString> speechToken() {
        return awaitResult<QString>([&](auto done) { client.speechToken(std::move(done)); });
    }
    // Waits until the account shows `minutes`: usage reports are fire and forget.
    bool minutesReach(qint64 minutes) {
        return QTest::qWaitFor([&] {
            const auto current = account();
            return current && current.value().minutesUsed == minutes;
        });
    }
};

QString otherThan(const QString& code) {
    return code == QStringLiteral("000000") ? QStringLiteral("000001") : QStringLiteral("000000");
}

}  // namespace

class TestServerAccount : public QObject {
    Q_OBJECT

private slots:
    void aDevelopmentCodeSignsInOnceAndTheAccountShowsTheAddress() {
        Deployment d;
        const auto code = d.startLogin(QStringLiteral("Ada@Example.org "));
        QVERIFY2(code, qPrintable(code ? QString() : code.failure().description()));
        QCOMPARE(code.value().value_or(QString()).size(), 6);
        QVERIFY(!isSignedIn());
        // A wrong code is refused and leaves the right one usable.
        const auto refused = d.verify(QStringLiteral("ada@example.org"), otherThan(*code.value()));
        QCOMPARE(refused ? QString() : refused.failure().description(),
                 QStringLiteral("That code isn't right. Check the e-mail and try again."));

        const auto verified = d.verify(QStringLiteral("ada@example.org"), *code.value());
        QCOMPARE(verified ? verified.value() : verified.failure().description(),
                 QStringLiteral("ada@example.org"));
        QCOMPARE(Keychain::load().value_or(QString()).size(), 64);
        const auto details = d.account();
        QVERIFY(details);
        QCOMPARE(details.value(), (Account{QStringLiteral("ada@example.org"), 0, 600}));
        QVERIFY(!d.verify(QStringLiteral("ada@example.org"), *code.value()));
    }

    void aCodeExpiresAfterTenMinutes_data() {
        QTest::addColumn<int>("waitedSeconds");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("just under ten minutes") << 599 << true;
        QTest::newRow("ten minutes") << 600 << false;
    }

    void aCodeExpiresAfterTenMinutes() {
        QFETCH(int, waitedSeconds);
        QFETCH(bool, accepted);
        Deployment d;
        const QString email = QStringLiteral("cy@example.org");
        const auto code = d.startLogin(email);
        QVERIFY(code && code.value());
        d.server.advance(std::chrono::seconds(waitedSeconds));
        const auto verified = d.verify(email, *code.value());
        QCOMPARE(verified ? QString() : verified.failure().description(),
                 accepted ? QString()
                          : QStringLiteral("This code has expired or was already used. Request a new code."));
    }

    void fiveWrongTriesUseTheCodeUp() {
        Deployment d;
        const QString email = QStringLiteral("di@example.org");
        const auto code = d.startLogin(email);
        QVERIFY(code && code.value());
        for (int attempt = 1; attempt <= 5; ++attempt) {
            const auto refused = d.verify(email, otherThan(*code.value()));
            QVERIFY(!refused);
            QCOMPARE(refused.failure().description().contains(QStringLiteral("no tries left")), attempt == 5);
        }
        QVERIFY(!d.verify(email, *code.value()));
        QVERIFY(!isSignedIn());
        // A new code starts a new count.
        QVERIFY(!d.signIn(email).isEmpty());
    }

    void withoutDevelopmentModeTheCodeIsMailedNotReturned() {
        auto config = RunningServer::devConfig();
        config.devMode = false;
        Deployment d(config);
        const auto started = d.startLogin(QStringLiteral("ed@example.org"));
        QVERIFY(started && !started.value());
        const auto mail = d.server.outbox().messages();
        QCOMPARE(mail.size(), std::size_t(1));
        QCOMPARE(mail[0].to, std::string("ed@example.org"));
        QVERIFY(d.verify(QStringLiteral("ed@example.org"), d.server.outbox().lastCode()));
    }

    void codesGoOutThroughTheConfiguredMailServer() {
        FakeSmtpServer smtp;
        QVERIFY(smtp.listen());
        auto config = RunningServer::devConfig();
        config.devMode = false;
        config.smtpUrl = QStringLiteral("smtp://127.0.0.1:%1").arg(smtp.port()).toStdString();
        config.smtpFrom = "signin@tallowind.test";
        Deployment d(config);
        const QString email = QStringLiteral("Flo@Example.org");
        const auto started = d.startLogin(email);
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
        QVERIFY(d.verify(email, code.captured(1)));

        // A mail server that refuses the address leaves no code behind and says so.
        smtp.refuseRecipients(true);
        const auto refused = d.startLogin(email);
        QCOMPARE(refused ? QString() : refused.failure().description(),
                 QStringLiteral("The sign-in e-mail couldn't be sent. Try again in a few minutes."));
    }

    void codeRequestsAreRateLimitedPerEmailAndPerClientAddress() {
        auto config = RunningServer::devConfig();
        config.codesPerEmail = 2;
        config.codesPerAddress = 4;
        Deployment d(config);
        const QString email = QStringLiteral("fay@example.org");
        QVERIFY(d.startLogin(email) && d.startLogin(email));
        const auto limited = d.startLogin(email);
        QVERIFY(!limited &&
                limited.failure().description().contains(QStringLiteral("Too many sign-in codes")));
        // Another address from the same machine is not held back by this one, until the machine's own limit.
        QVERIFY(d.startLogin(QStringLiteral("gus@example.org")));
        QVERIFY(!d.startLogin(QStringLiteral("ned@example.org")));
        // The windows slide: an hour later both may ask again.
        d.server.advance(3601s);
        QVERIFY(d.startLogin(email));
    }

    void usageReportsAddUpToWholeMinutesOfTheMonth() {
        Deployment d;
        QVERIFY(!d.signIn(QStringLiteral("hal@example.org")).isEmpty());
        d.client.reportUsage(59.5);
        QVERIFY(d.minutesReach(0));
        d.client.reportUsage(1.0);  // 60.5 seconds: one whole minute
        QVERIFY(d.minutesReach(1));
        d.client.reportUsage(60.0);
        d.client.reportUsage(59.5);
        QVERIFY(d.minutesReach(3));
        // The first day of the next month starts from nothing.
        d.server.setNow(std::chrono::system_clock::now() + std::chrono::days(32));
        QVERIFY(d.minutesReach(0));
    }

    void theSpeechTokenNeedsAKeyAndMinutesLeft() {
        TestHttpServer speechService;
        QVERIFY(speechService.listen());
        speechService.respondWith(
            TestHttpServer::Response::json(200, R"({"access_token":"short-lived","expires_in":60})"));
        {
            Deployment withoutKey;
            QVERIFY(!withoutKey.signIn(QStringLiteral("ivy@example.org")).isEmpty());
            const auto off = withoutKey.speechToken();
            QVERIFY(!off && off.failure().description().startsWith(
                                QStringLiteral("Speech recognition is not set up on this server")));
        }
        auto config = RunningServer::devConfig();
        config.minutesLimit = 1;
        config.speechKey = "secret-key";
        config.speechUrl = speechService.url().toString().toStdString();
        Deployment d(config);
        QVERIFY(!d.signIn(QStringLiteral("ivy@example.org")).isEmpty());
        const auto granted = d.speechToken();
        QCOMPARE(granted ? granted.value() : granted.failure().description(), QStringLiteral("short-lived"));
        QCOMPARE(speechService.received().size(), 1);
        QCOMPARE(speechService.received()[0].target, QByteArray("/v1/auth/grant"));
        QCOMPARE(speechService.received()[0].header("authorization"), QByteArray("Token secret-key"));

        d.client.reportUsage(61.0);
        QVERIFY(d.minutesReach(1));
        const auto usedUp = d.speechToken();
        QVERIFY(!usedUp &&
                usedUp.failure().description().contains(QStringLiteral("used all 1 listening minutes")));
        QCOMPARE(speechService.received().size(), 1);
    }

    void signingOutRevokesTheTokenOnTheServer() {
        Deployment d;
        const QString token = d.signIn(QStringLiteral("jo@example.org"));
        QVERIFY(!token.isEmpty() && d.account());
        QVERIFY(awaitResult<Done>([&](auto done) { d.client.signOut(std::move(done)); }));
        QVERIFY(!isSignedIn());
        // The old token, presented again, is refused by the server itself.
        d.home.environment().set("TALLOWIND_TOKEN", token.toUtf8());
        const auto refused = d.account();
        QVERIFY(!refused && refused.failure().is(BackendError::Kind::signedOut));
    }

    void tokensAndMinutesSurviveARestart() {
        Deployment d;
        QVERIFY(!d.signIn(QStringLiteral("kim@example.org")).isEmpty());
        d.client.reportUsage(120.0);
        QVERIFY(d.minutesReach(2));
        d.server.restart();
        QVERIFY(d.server.isUp());
        const auto details = d.account();
        QVERIFY2(details, qPrintable(details ? QString() : details.failure().description()));
        QCOMPARE(details.value(), (Account{QStringLiteral("kim@example.org"), 2, 600}));
    }
};

QTEST_GUILESS_MAIN(TestServerAccount)
#include "tst_serveraccount.moc"
