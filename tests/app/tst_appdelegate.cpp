#include "appdelegate.h"
#include "appsettings.h"
#include "backendclient.h"
#include "keychain.h"
#include "loopbackservices.h"
#include "overlaypanel.h"
#include "sessionfakes.h"
#include "testenvironment.h"

#include <QAction>
#include <QMenu>
#include <QTest>

namespace {

// The shell over a session of fakes and a real backend client talking to a loopback backend, in a home
// of its own with a stored sign-in.
struct Shell {
    TestHome home;
    LoopbackServices services;
    AppSettings settings{home.configPath() + QStringLiteral("/Tallowind/settings.ini")};
    FakeStreams streams;
    std::shared_ptr<FakeCapture::Record> system = std::make_shared<FakeCapture::Record>();
    std::unique_ptr<SessionController> session;
    BackendClient backend;
    std::unique_ptr<AppDelegate> delegate;

    Shell() {
        home.environment().set("TALLOWIND_SERVER", services.backend().url().toString().toUtf8());
        Keychain::save(QStringLiteral("session-token"));
        settings.setOnboarded(true);
        settings.setEmail(QStringLiteral("me@example.org"));
        settings.setResume(QStringLiteral("Ten years of billing systems."));
        SessionController::Parts parts;
        parts.settings = &settings;
        parts.backend = std::make_unique<FakeBackend>(std::make_shared<FakeBackend::Record>());
        parts.makeStream = streams.factory();
        parts.systemCapture = std::make_unique<FakeCapture>(system);
        parts.micCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
        parts.microphoneAccess =
            std::make_unique<FakeMicrophoneAccess>(std::make_shared<FakeMicrophoneAccess::Record>());
        parts.clock = std::make_unique<ManualClock>(std::make_shared<ManualClock::Record>());
        session = std::make_unique<SessionController>(std::move(parts));
        delegate = std::make_unique<AppDelegate>(*session, settings, backend);
        delegate->launch();
    }

    void listen() {
        session->start();
        FakeCapture::finishStart(*system, Done{});
    }

    QStringList menuTitles() {
        emit delegate->statusMenu().aboutToShow();
        QStringList titles;
        for (QAction* action : delegate->statusMenu().actions()) {
            if (!action->isSeparator()) {
                titles << action->text();
            }
        }
        return titles;
    }
};

}  // namespace

class TestAppDelegate : public QObject {
    Q_OBJECT

private slots:
    void aSignedInUserStartsWithTheOverlayAndTheMenuFollowsTheState() {
        Shell shell;
        QVERIFY(shell.delegate->overlay().isVisible());
        QVERIFY(!shell.delegate->onboardingWindow());
        QCOMPARE(shell.menuTitles().first(), QStringLiteral("Start Listening    Ctrl+Alt+S"));

        shell.delegate->toggleListening();
        FakeCapture::finishStart(*shell.system, Done{});
        shell.delegate->toggleOverlay();
        const QStringList titles = shell.menuTitles();
        QCOMPARE(titles[0], QStringLiteral("Stop Listening    Ctrl+Alt+S"));
        QCOMPARE(titles[2], QStringLiteral("Show Overlay    Ctrl+Alt+Space"));
        QCOMPARE(titles[5], QStringLiteral("Sign Out"));
    }

    void signingOutStopsTheSessionBeforeTheServerHearsOfItAndEndsInOnboarding() {
        Shell shell;
        shell.listen();
        QVERIFY(shell.session->isRunning());
        QStringList steps;
        QObject::connect(shell.session.get(), &SessionController::isRunningChanged, [&] {
            if (!shell.session->isRunning()) {
                steps << QStringLiteral("session stopped");
            }
        });
        QObject::connect(&shell.services.backend(), &TestHttpServer::requestReceived, [&] {
            if (shell.services.backend().received().last().target == "/auth/signout") {
                steps << QStringLiteral("server told");
            }
        });

        shell.delegate->signOut();
        QTRY_VERIFY(shell.delegate->onboardingWindow() && shell.delegate->onboardingWindow()->isVisible());
        QCOMPARE(steps, QStringList({QStringLiteral("session stopped"), QStringLiteral("server told")}));
        QVERIFY(!shell.delegate->overlay().isVisible());
        QVERIFY(!shell.settings.onboarded());
        QVERIFY(!::isSignedIn());
        QCOMPARE(shell.settings.email(), QStringLiteral("me@example.org"));
        QCOMPARE(shell.settings.resume(), QStringLiteral("Ten years of billing systems."));
        QVERIFY(shell.delegate->isRegular());
    }

    void theProgramLeavesTheTaskbarOnlyWhenItsLastWindowCloses() {
        Shell shell;
        shell.delegate->showSettings();
        shell.delegate->showOnboarding();
        QVERIFY(shell.delegate->isRegular());
        shell.delegate->settingsWindow()->close();
        QVERIFY(shell.delegate->isRegular());
        shell.delegate->onboardingWindow()->close();
        QVERIFY(!shell.delegate->isRegular());
        // Closed windows are kept: showing settings again brings back the same window.
        QWidget* settings = shell.delegate->settingsWindow();
        shell.delegate->showSettings();
        QCOMPARE(shell.delegate->settingsWindow(), settings);
        QVERIFY(settings->isVisible());
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
