#include "hotkeybackend.h"
#include "hotkeys.h"
#include "shortcuts.h"

#include <QGuiApplication>
#include <QProcess>
#include <QTest>

#include <X11/Xlib.h>

// Runs on the X display of the test services. A second X client grabs Ctrl+Alt+X before the program
// does; xdotool types as the user would.
class TestHotKeysX11 : public QObject {
    Q_OBJECT

    Display* other_ = nullptr;
    std::unique_ptr<HotKeys> hotKeys_;
    QList<int> runs_;

private slots:
    void initTestCase() {
        if (QGuiApplication::platformName() != QLatin1String("xcb")) {
            QSKIP("needs the X display of scripts/with-test-services.sh (TALLOWIND_TEST_DISPLAY)");
        }
        other_ = XOpenDisplay(nullptr);
        QVERIFY(other_);
        XGrabKey(other_, XKeysymToKeycode(other_, XStringToKeysym("x")), ControlMask | Mod1Mask,
                 DefaultRootWindow(other_), False, GrabModeAsync, GrabModeAsync);
        XSync(other_, False);
        hotKeys_ = std::make_unique<HotKeys>(makeX11HotKeyBackend());
        QVERIFY(hotKeys_->isAvailable());
        int number = 0;
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys_->registerShortcut(shortcut, [this, n = ++number] { runs_.append(n); });
        }
    }

    void cleanupTestCase() {
        hotKeys_.reset();
        if (other_) {
            XCloseDisplay(other_);
        }
    }

    void ctrlAltKeysRunTheirActionsOncePerPress_data() {
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QList<int>>("runs");
        // First, so that the rows after it show the other four working beside the refused grab.
        QTest::newRow("Ctrl+Alt+X, grabbed first by another client, reaches only that client")
            << "key ctrl+alt+x" << QList<int>{};
        QTest::newRow("Ctrl+Alt+K runs the fourth action") << "key ctrl+alt+k" << QList<int>{4};
        QTest::newRow("Ctrl+Alt+K with NumLock on still runs the fourth action")
            << "key Num_Lock ctrl+alt+k Num_Lock" << QList<int>{4};
        QTest::newRow("Ctrl+Alt+S with CapsLock on still starts listening")
            << "key Caps_Lock ctrl+alt+s Caps_Lock" << QList<int>{1};
        QTest::newRow("Ctrl+Alt+Enter on the keypad answers now")
            << "key Num_Lock ctrl+alt+KP_Enter Num_Lock" << QList<int>{2};
        // Held past the server's autorepeat delay (660 ms unless set otherwise), the key repeats.
        QTest::newRow("holding Ctrl+Alt+Space toggles the overlay once")
            << "keydown ctrl+alt+space sleep 1.2 keyup ctrl+alt+space" << QList<int>{3};
    }
    void ctrlAltKeysRunTheirActionsOncePerPress() {
        QFETCH(QString, typed);
        QFETCH(QList<int>, runs);
        runs_.clear();
        QCOMPARE(QProcess::execute(QStringLiteral("xdotool"), typed.split(' ')), 0);
        if (runs.isEmpty()) {
            // The press did happen, and went to the client that holds the combination.
            XEvent event;
            int presses = 0;
            QTRY_VERIFY((presses += XCheckTypedEvent(other_, KeyPress, &event)) > 0);
        }
        QTRY_COMPARE(runs_, runs);
        QTest::qWait(200);
        QCOMPARE(runs_, runs);
    }
};

int main(int argc, char** argv) {
    const QByteArray display = qgetenv("TALLOWIND_TEST_DISPLAY");
    if (!display.isEmpty()) {
        qputenv("DISPLAY", display);
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
    QGuiApplication app(argc, argv);
    TestHotKeysX11 test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_hotkeys_x11.moc"
