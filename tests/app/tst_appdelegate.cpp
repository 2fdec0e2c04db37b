#include "appdelegate.h"
#include "backendclient.h"
#include "fakesession.h"
#include "keychain.h"
#include "overlaypanel.h"
#include "testdisplay.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QAbstractButton>
#include <QAction>
#include <QMenu>
#include <QProcess>
#include <QScreen>
#include <QSettings>
#include <QTest>

// The shell and its overlay panel, on a display without a window manager; xdotool acts as the user.
class TestAppDelegate : public QObject {
    Q_OBJECT

    // Over a session of fakes and a backend client of a loopback backend, in a home with a stored sign-in.
    struct Shell {
        TestHome home;
        TestHttpServer server;
        FakeSession fake;
        BackendClient backend;
        AppDelegate delegate{fake.session(), fake.settings(), backend};

        Shell() {
            server.listen();
            server.respondWith(TestHttpServer::Response::json(200, "{}"));
            home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
            Keychain::save(QStringLiteral("session-token"));
            fake.settings().setOnboarded(true);
            delegate.launch();
        }

        QString menu() {
            emit delegate.statusMenu().aboutToShow();
            QStringList titles;
            for (QAction* action : delegate.statusMenu().actions()) {
                titles << action->text();
            }
            return titles.join('|');
        }
    };

    static QByteArray x11Tool(const QString& program, const QStringList& arguments) {
        QProcess process;
        process.start(program, arguments);
        process.waitForFinished(5000);
        return process.readAllStandardOutput();
    }

    static bool takesClicks(const OverlayPanel& panel) {
        const QPoint inside = panel.geometry().center();
        return x11Tool("xdotool", {"mousemove", QString::number(inside.x()), QString::number(inside.y()),
                                   "getmouselocation", "--shell"})
            .contains("WINDOW=" + QByteArray::number(panel.winId()) + '\n');
    }

private slots:
    void initTestCase() {
        if (!onTestDisplay) {
            QSKIP("needs the X display of scripts/with-test-services.sh (TALLOWIND_TEST_DISPLAY)");
        }
    }

    void aSignedInUserStartsWithTheOverlayAndTheMenuAndItsButtonsDoWhatTheySay() {
        Shell shell;
        QVERIFY(!shell.delegate.onboardingWindow());
        QCOMPARE(shell.menu(),
                 u"Start Listening    Ctrl+Alt+S|Answer Now    Ctrl+Alt+Enter|Hide Overlay    "
                 u"Ctrl+Alt+Space||Settings…|Check for Updates…|Sign Out||Quit Tallowind");
        shell.fake.listen();
        shell.delegate.toggleOverlay();
        QVERIFY(shell.menu().startsWith(
            u"Stop Listening    Ctrl+Alt+S|Answer Now    Ctrl+Alt+Enter|Show Overlay"));
        shell.fake.hear(Speaker::interviewer, QStringLiteral("What is a project you are proud of?"));
        shell.delegate.answerNow();
        QVERIFY(shell.delegate.overlay().isVisible() && shell.fake.session().isAnswering());
        shell.delegate.overlay().findChild<QAbstractButton*>("clickThroughButton")->click();
        QVERIFY(shell.fake.settings().clickThrough());
    }

    void signingOutStopsTheSessionBeforeTheServerHearsOfItAndEndsInOnboarding() {
        Shell shell;
        shell.fake.listen();
        std::optional<bool> listeningWhenTheServerHeard;
        // The update check asks the same server for its releases.
        QObject::connect(&shell.server, &TestHttpServer::requestReceived, [&] {
            if (shell.server.received().last().target == "/auth/signout") {
                listeningWhenTheServerHeard = shell.fake.session().isRunning();
            }
        });
        shell.delegate.signOut();
        QTRY_VERIFY(shell.delegate.onboardingWindow() && shell.delegate.onboardingWindow()->isVisible());
        QCOMPARE(listeningWhenTheServerHeard, false);
        QVERIFY(!shell.delegate.overlay().isVisible() && !shell.fake.settings().onboarded());
        QVERIFY(!::isSignedIn() && shell.delegate.isRegular() && shell.menu().contains(u"|Sign In…|"));
    }

    void theProgramLeavesTheTaskbarOnlyWhenItsLastWindowCloses() {
        Shell shell;
        shell.delegate.showSettings();
        shell.delegate.showOnboarding();
        QWidget* settings = shell.delegate.settingsWindow();
        settings->close();
        QVERIFY(shell.delegate.isRegular());
        shell.delegate.onboardingWindow()->close();
        QVERIFY(!shell.delegate.isRegular());
        shell.delegate.showSettings();
        QVERIFY(shell.delegate.settingsWindow() == settings && settings->isVisible() &&
                shell.delegate.isRegular());
    }

    void theOverlaysSavedFrameComesBackOnlyWhenItIsUsable() {
        Shell shell;
        const auto placedAfterSaving = [&](const QRect& frame) {
            QSettings& store = shell.fake.settings().store();
            store.beginGroup(QLatin1String(OverlayPanel::frameGroup));
            store.setValue("x", frame.x());
            store.setValue("y", frame.y());
            store.setValue("width", frame.width());
            store.setValue("height", frame.height());
            store.endGroup();
            return OverlayPanel(shell.fake.session(), shell.fake.settings()).geometry();
        };
        const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
        const QRect first(area.x() + area.width() - 460, area.y() + 20, 440, 520);
        QCOMPARE(shell.delegate.overlay().geometry(), first);
        QCOMPARE(placedAfterSaving(QRect(40, 50, 100, 80)), QRect(40, 50, 320, 260));
        QCOMPARE(placedAfterSaving(QRect(5000, 100, 440, 520)), first);  // on a monitor that is gone
    }

    // On top, on every desktop, out of the taskbar and pager and never given the keyboard focus, also after
    // being hidden and shown again; opacity and click-through change on it as shown.
    void theOverlayStaysOutOfTheWayAndFollowsTheSettingsWhileShown() {
        Shell shell;
        OverlayPanel& panel = shell.delegate.overlay();
        panel.toggleVisible();
        panel.toggleVisible();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        const QByteArray shown = x11Tool("xprop", {"-id", QString::number(panel.winId())});
        for (const char* property :
             {"_NET_WM_STATE_ABOVE", "_NET_WM_STATE_STICKY", "_NET_WM_STATE_SKIP_TASKBAR",
              "_NET_WM_STATE_SKIP_PAGER", "_NET_WM_DESKTOP(CARDINAL) = 4294967295",
              "_NET_WM_WINDOW_TYPE(ATOM) = _NET_WM_WINDOW_TYPE_UTILITY",
              "Client accepts input or input focus: False"}) {
            QVERIFY2(shown.contains(property), property);
        }
        QVERIFY(takesClicks(panel));
        shell.fake.settings().setOverlayOpacity(0.5);
        shell.delegate.toggleClickThrough();
        QTRY_VERIFY(x11Tool("xprop", {"-id", QString::number(panel.winId())})
                        .contains("_NET_WM_WINDOW_OPACITY(CARDINAL) = 2147483648"));
        QVERIFY(!takesClicks(panel) && panel.isVisible());
        shell.delegate.toggleClickThrough();
        QTRY_VERIFY(takesClicks(panel));
    }

    void theOverlayMovesWhenItsBackgroundIsDraggedResizesByItsEdgesAndSavesItsFrame_data() {
        // Where the press lands on the 440×520 panel, clear of the rounded corners.
        QTest::addColumn<QPoint>("press");
        QTest::addColumn<QPoint>("drag");
        QTest::addColumn<QMargins>("change");  // of the frame's left, top, right and bottom edges
        QTest::newRow("the header's background")
            << QPoint(220, 22) << QPoint(-150, 60) << QMargins(-150, 60, -150, 60);
        QTest::newRow("the top-right corner, down to the minimum height")
            << QPoint(434, 14) << QPoint(-60, 400) << QMargins(0, 260, -60, 0);
        QTest::newRow("the bottom-left corner")
            << QPoint(3, 510) << QPoint(-40, 30) << QMargins(-40, 0, 0, 30);
    }
    void theOverlayMovesWhenItsBackgroundIsDraggedResizesByItsEdgesAndSavesItsFrame() {
        QFETCH(QPoint, press);
        QFETCH(QPoint, drag);
        QFETCH(QMargins, change);
        Shell shell;
        OverlayPanel& panel = shell.delegate.overlay();
        QVERIFY(QTest::qWaitForWindowExposed(&panel));
        const QRect before = panel.geometry();
        const QPoint start = before.topLeft() + press;
        QStringList steps{"mousemove", QString::number(start.x()), QString::number(start.y()), "mousedown",
                          "1"};
        for (int step = 1; step <= 4; ++step) {
            const QPoint at = start + drag * step / 4;
            steps << "mousemove" << QString::number(at.x()) << QString::number(at.y());
        }
        x11Tool("xdotool", steps << "mouseup"
                                 << "1");
        const QRect expected = before.adjusted(change.left(), change.top(), change.right(), change.bottom());
        QTRY_COMPARE(panel.geometry(), expected);
        QCOMPARE(OverlayPanel(shell.fake.session(), shell.fake.settings()).geometry(), expected);
    }
};

QTEST_MAIN(TestAppDelegate)
#include "tst_appdelegate.moc"
