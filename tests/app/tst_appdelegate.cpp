#include "appdelegate.h"
#include "backendclient.h"
#include "fakesession.h"
#include "keychain.h"
#include "overlaypanel.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QAction>
#include <QMenu>
#include <QTest>

namespace {

// The shell over a session of fakes and a real backend client talking to a loopback backend, in a home
// of its own with a stored sign-in.
struct Shell {
    TestHome home;
    TestHttpServer server;
    FakeSession fake;
    BackendClient backend;
    std::unique_ptr<AppDelegate> delegate;

    Shell() {
        server.listen();
        server.respondWith(TestHttpServer::Response::json(200, "{}"));
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        Keychain::save(QStringLiteral("session-token"));
        fake.settings().setOnboarded(true);
        fake.settings().setResume(QStringLiteral("Ten years of billing systems."));
        delegate = std::make_unique<AppDelegate>(fake.session(), fake.settings(), backend);
        delegate->launch();
    }

    // The tray menu's titles as it opens, separators empty.
    QString menu() {
        emit delegate->statusMenu().aboutToShow();
        QStringList titles;
        for (QAction* action : delegate->statusMenu().actions()) {
            titles << action->text();
        }
        return titles.join('|');
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
        QCOMPARE(shell.menu(),
                 u"Start Listening    Ctrl+Alt+S|Answer Now    Ctrl+Alt+Enter|Hide Overlay    "
                 u"Ctrl+Alt+Space||Settings…|Check for Updates…|Sign Out||Quit Tallowind");
        shell.fake.listen();
        shell.delegate->toggleOverlay();
        QVERIFY(shell.menu().startsWith(
            u"Stop Listening    Ctrl+Alt+S|Answer Now    Ctrl+Alt+Enter|Show Overlay"));
    }

    void signingOutStopsTheSessionBeforeTheServerHearsOfItAndEndsInOnboarding() {
        Shell shell;
        shell.fake.listen();
        QStringList steps;
        QObject::connect(&shell.fake.session(), &SessionController::isRunningChanged,
                         [&] { steps << QStringLiteral("session stopped"); });
        // The update check asks the same server for its releases.
        QObject::connect(&shell.server, &TestHttpServer::requestReceived, [&] {
            if (shell.server.received().last().target == "/auth/signout") {
                steps << QStringLiteral("server told");
            }
        });

        shell.delegate->signOut();
        QTRY_VERIFY(shell.delegate->onboardingWindow() && shell.delegate->onboardingWindow()->isVisible());
        QCOMPARE(steps, QStringList({QStringLiteral("session stopped"), QStringLiteral("server told")}));
        QVERIFY(!shell.delegate->overlay().isVisible());
        QVERIFY(!shell.fake.settings().onboarded());
        QVERIFY(!::isSignedIn());
        QCOMPARE(shell.fake.settings().resume(), QStringLiteral("Ten years of billing systems."));
        QVERIFY(shell.delegate->isRegular());
        QVERIFY(shell.menu().contains(u"|Sign In…|"));
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
        QVERIFY(settings->isVisible() && shell.delegate->isRegular());
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
