#include "hotkeys.h"
#include "permissions.h"
#include "shellrules.h"

#include <QTest>

// The menu's titles are checked on the tray menu itself (tst_appdelegate), and the closing of windows
// through the delegate's taskbar entry.
class TestShellRules : public QObject {
    Q_OBJECT

private slots:
    void onlyAnOnboardedSignedInUserStartsWithTheOverlay() {
        using ShellRules::StartWindow;
        QCOMPARE(ShellRules::startWindow(true, true), StartWindow::overlay);
        QCOMPARE(ShellRules::startWindow(true, false), StartWindow::onboarding);
        QCOMPARE(ShellRules::startWindow(false, true), StartWindow::onboarding);
    }

    void waylandSessionsRunThroughXWaylandUnlessTheUserChoseAPlatform() {
        QCOMPARE(ShellRules::forcedPlatform("wayland", ":0", {}).value_or(QByteArray()), QByteArray("xcb"));
        QVERIFY(!ShellRules::forcedPlatform("wayland", ":0", "wayland"));
        QVERIFY(!ShellRules::forcedPlatform("wayland", {}, {}));
        QVERIFY(!ShellRules::forcedPlatform("x11", ":0", {}));
    }

    void shortcutsGoThroughThePortalOnWaylandAndAreGrabbedOnlyOnAnX11Display() {
        using Service = HotKeys::Service;
        QCOMPARE(HotKeys::serviceFor("wayland", "xcb"), Service::portal);
        QCOMPARE(HotKeys::serviceFor("x11", "xcb"), Service::x11);
        QCOMPARE(HotKeys::serviceFor({}, "xcb"), Service::x11);
        QCOMPARE(HotKeys::serviceFor("x11", "offscreen"), Service::none);
    }

    void soundSettingsOpenTheFirstInstalledOfTheMixerAndTheDesktopsPages() {
        const auto opened = [](const QStringList& installed) {
            return Permissions::soundSettingsCommand(
                       [&](const QString& program) { return installed.contains(program); })
                .join(' ');
        };
        QCOMPARE(opened({"systemsettings", "gnome-control-center", "pavucontrol"}), "pavucontrol");
        QCOMPARE(opened({"systemsettings", "gnome-control-center"}), "gnome-control-center sound");
        QCOMPARE(opened({"systemsettings"}), "systemsettings kcm_pulseaudio");
        QCOMPARE(opened({}), "");
    }
};

QTEST_APPLESS_MAIN(TestShellRules)
#include "tst_shellrules.moc"
