#include "shellrules.h"

#include <QTest>

using ShellRules::Action;

class TestShellRules : public QObject {
    Q_OBJECT

private slots:
    void titlesFollowTheStateWhenTheMenuOpens_data() {
        QTest::addColumn<bool>("listening");
        QTest::addColumn<bool>("overlayVisible");
        QTest::addColumn<bool>("signedIn");
        QTest::addColumn<QStringList>("titles");
        QTest::addColumn<Action>("accountAction");

        const auto titles = [](const char* listen, const char* overlay, const char* account) {
            return QStringList{
                QString::fromUtf8(listen),       QStringLiteral("Answer Now    Ctrl+Alt+Enter"),
                QString::fromUtf8(overlay),      {},
                QStringLiteral("Settings…"),     QStringLiteral("Check for Updates…"),
                QString::fromUtf8(account),      {},
                QStringLiteral("Quit Tallowind")};
        };
        QTest::newRow("idle, overlay hidden, signed out")
            << false << false << false
            << titles("Start Listening    Ctrl+Alt+S", "Show Overlay    Ctrl+Alt+Space", "Sign In…")
            << Action::showOnboarding;
        QTest::newRow("listening with the overlay up, signed in")
            << true << true << true
            << titles("Stop Listening    Ctrl+Alt+S", "Hide Overlay    Ctrl+Alt+Space", "Sign Out")
            << Action::signOut;
    }
    void titlesFollowTheStateWhenTheMenuOpens() {
        QFETCH(bool, listening);
        QFETCH(bool, overlayVisible);
        QFETCH(bool, signedIn);
        QFETCH(QStringList, titles);
        QFETCH(Action, accountAction);

        const auto items = ShellRules::menuItems({listening, overlayVisible, signedIn});
        QStringList shown;
        for (const auto& item : items) {
            shown << item.title;
        }
        QCOMPARE(shown, titles);
        QCOMPARE(items[6].action, accountAction);
        QCOMPARE(items[3].action, Action::separator);
        QCOMPARE(items[7].action, Action::separator);
    }

    void onlyAnOnboardedSignedInUserStartsWithTheOverlay() {
        using ShellRules::StartWindow;
        QCOMPARE(ShellRules::startWindow(true, true), StartWindow::overlay);
        QCOMPARE(ShellRules::startWindow(true, false), StartWindow::onboarding);
        QCOMPARE(ShellRules::startWindow(false, true), StartWindow::onboarding);
        QCOMPARE(ShellRules::startWindow(false, false), StartWindow::onboarding);
    }

    void closingOneWindowKeepsTheProgramInTheTaskbarOnlyWhileTheOtherIsOpen() {
        using ShellRules::Window;
        QVERIFY(ShellRules::windowStaysOpen(Window::settings, true, true));
        QVERIFY(!ShellRules::windowStaysOpen(Window::settings, false, true));
        QVERIFY(ShellRules::windowStaysOpen(Window::onboarding, true, true));
        QVERIFY(!ShellRules::windowStaysOpen(Window::onboarding, true, false));
    }

    void waylandSessionsRunThroughXWaylandUnlessTheUserChoseAPlatform_data() {
        QTest::addColumn<QByteArray>("session");
        QTest::addColumn<QByteArray>("display");
        QTest::addColumn<QByteArray>("chosen");
        QTest::addColumn<QByteArray>("forced");
        QTest::newRow("wayland with XWayland")
            << QByteArray("wayland") << QByteArray(":0") << QByteArray() << QByteArray("xcb");
        QTest::newRow("wayland, platform chosen")
            << QByteArray("wayland") << QByteArray(":0") << QByteArray("wayland") << QByteArray();
        QTest::newRow("wayland without XWayland")
            << QByteArray("wayland") << QByteArray() << QByteArray() << QByteArray();
        QTest::newRow("x11 session") << QByteArray("x11") << QByteArray(":0") << QByteArray() << QByteArray();
    }
    void waylandSessionsRunThroughXWaylandUnlessTheUserChoseAPlatform() {
        QFETCH(QByteArray, session);
        QFETCH(QByteArray, display);
        QFETCH(QByteArray, chosen);
        QFETCH(QByteArray, forced);
        QCOMPARE(ShellRules::forcedPlatform(session, display, chosen).value_or(QByteArray()), forced);
    }
};

QTEST_APPLESS_MAIN(TestShellRules)
#include "tst_shellrules.moc"
