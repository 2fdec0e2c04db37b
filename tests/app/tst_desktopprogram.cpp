#include "loopbackservices.h"
#include "testdisplay.h"
#include "testenvironment.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QStandardPaths>
#include <QTest>

#include <X11/XKBlib.h>

// The program as a user runs it, on the test display, against loopback services; xdotool types.
class TestDesktopProgram : public QObject {
    Q_OBJECT

    static void type(const QString& keys) { QProcess::execute("xdotool", keys.split(' ')); }
    static bool overlayShown() {
        return QProcess::execute("xdotool", {"search", "--onlyvisible", "--name", "Tallowind Overlay"}) == 0;
    }

private slots:
    void theProgramTakesItsShortcutsKeepsASecondStartOutAndReportsTheLastUsageWhenItEnds() {
        if (!onTestDisplay || QStandardPaths::findExecutable("xdotool").isEmpty()) {
            QSKIP("needs the test display and xdotool (scripts/test.sh provides both)");
        }
        // Another client holds Ctrl+Alt+X before the program asks for it, and on this run's private display a
        // held key repeats once.
        const std::unique_ptr<Display, int (*)(Display*)> other(XOpenDisplay(nullptr), XCloseDisplay);
        XGrabKey(other.get(), XKeysymToKeycode(other.get(), XStringToKeysym("x")), ControlMask | Mod1Mask,
                 DefaultRootWindow(other.get()), False, GrabModeAsync, GrabModeAsync);
        XkbSetAutoRepeatRate(other.get(), XkbUseCoreKbd, 100, 1000);
        XSync(other.get(), False);
        TestHome home;
        LoopbackServices services;
        // Hearing only the call, so that every byte the speech service receives was metered.
        QSettings settings(home.configPath() + "/Tallowind/settings.ini", QSettings::IniFormat);
        settings.setValue("onboarded", true);
        settings.setValue("useMic", false);
        settings.sync();
        QProcessEnvironment environment = services.environment();
        environment.insert("XDG_CONFIG_HOME", home.configPath());
        environment.insert("XDG_RUNTIME_DIR", home.path() + "/run");
        QProcess first;
        QProcess second;
        for (QProcess* program : {&first, &second}) {
            program->setProcessEnvironment(environment);
            program->start(tallowindBinary(), {});
            QVERIFY(QTest::qWaitFor(overlayShown, 30'000));
        }
        QVERIFY(QTest::qWaitFor([&] { return second.state() == QProcess::NotRunning; }, 10'000));
        QCOMPARE(second.exitCode(), 0);

        // Each shortcut with a lock on: grabs are exact about modifiers. A held press toggles once.
        type("key Num_Lock keydown ctrl+alt+space sleep 0.6 keyup ctrl+alt+space");
        QTRY_VERIFY(!overlayShown());
        type("key ctrl+alt+KP_Enter Num_Lock");  // answering brings the overlay back
        QTRY_VERIFY(overlayShown());
        type("key Caps_Lock ctrl+alt+s Caps_Lock");
        // Once a second and a half of the call's audio has reached the speech service, that much was counted.
        QTRY_VERIFY_WITH_TIMEOUT(services.speech().connections().value(0).binaries().join().size() >= 48'000,
                                 20'000);
        QVERIFY(services.requests("/usage").isEmpty());
        first.terminate();
        QVERIFY(QTest::qWaitFor([&] { return first.state() == QProcess::NotRunning; }, 10'000));
        QVERIFY(first.exitStatus() == QProcess::NormalExit && first.exitCode() == 0);
        const auto reports = services.requests("/usage");
        QCOMPARE(reports.size(), 1);
        QVERIFY(QJsonDocument::fromJson(reports.first().body).object().value("sttSeconds").toDouble() >= 1.0);
    }
};

QTEST_GUILESS_MAIN(TestDesktopProgram)
#include "tst_desktopprogram.moc"
