#include "hotkeybackend.h"
#include "hotkeys.h"
#include "shortcuts.h"

#include <QGuiApplication>
#include <QTest>
#include <QThread>

#include <X11/Xlib.h>
#include <X11/extensions/XTest.h>

// Runs on the X display of the test services. A second X client stands beside the program: it grabs
// Ctrl+Alt+X before the program does, and types through XTest as the user would.
class TestHotKeysX11 : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        if (QGuiApplication::platformName() != QLatin1String("xcb")) {
            QSKIP("needs the X display of scripts/with-test-services.sh (TALLOWIND_TEST_DISPLAY)");
        }
        other_ = XOpenDisplay(nullptr);
        QVERIFY(other_);
        XGrabKey(other_, keycode("x"), ControlMask | Mod1Mask, DefaultRootWindow(other_), False,
                 GrabModeAsync, GrabModeAsync);
        XSync(other_, False);

        auto backend = makeX11HotKeyBackend();
        QVERIFY(backend);
        hotKeys_ = std::make_unique<HotKeys>(std::move(backend));
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

    void ctrlAltKeysReachTheirActions_data() {
        QTest::addColumn<QByteArray>("key");
        QTest::addColumn<QByteArray>("lock");
        QTest::addColumn<QList<int>>("runs");

        // First, so that the rows after it show the other four working beside the refused grab.
        QTest::newRow("Ctrl+Alt+X, grabbed first by another client, reaches only that client")
            << QByteArray("x") << QByteArray() << QList<int>{};
        QTest::newRow("Ctrl+Alt+K runs the fourth action")
            << QByteArray("k") << QByteArray() << QList<int>{4};
        QTest::newRow("Ctrl+Alt+K with NumLock on still runs the fourth action")
            << QByteArray("k") << QByteArray("Num_Lock") << QList<int>{4};
        QTest::newRow("Ctrl+Alt+S with CapsLock on still starts listening")
            << QByteArray("s") << QByteArray("Caps_Lock") << QList<int>{1};
        QTest::newRow("Ctrl+Alt+Enter on the keypad answers now")
            << QByteArray("KP_Enter") << QByteArray("Num_Lock") << QList<int>{2};
    }
    void ctrlAltKeysReachTheirActions() {
        QFETCH(QByteArray, key);
        QFETCH(QByteArray, lock);
        QFETCH(QList<int>, runs);

        runs_.clear();
        type(key, lock);
        if (runs.isEmpty()) {
            // The press did happen, and went to the client that holds the combination.
            QTRY_COMPARE(otherPresses(), 1);
        }
        QTRY_COMPARE(runs_, runs);
    }

    void holdingACombinationRunsItsActionOnce() {
        runs_.clear();
        // Held past the server's autorepeat delay (660 ms unless set otherwise), the key repeats.
        type("space", {}, 1200);
        QTRY_COMPARE(runs_, QList<int>{3});
        QTest::qWait(200);
        QCOMPARE(runs_, QList<int>{3});
    }

private:
    // Key presses the other client has been sent so far.
    int otherPresses() {
        for (XEvent event; XCheckTypedEvent(other_, KeyPress, &event);) {
            ++otherPresses_;
        }
        return otherPresses_;
    }

    KeyCode keycode(const char* keysym) const { return XKeysymToKeycode(other_, XStringToKeysym(keysym)); }

    void tap(KeyCode code) {
        XTestFakeKeyEvent(other_, code, True, CurrentTime);
        XTestFakeKeyEvent(other_, code, False, CurrentTime);
    }

    // Ctrl+Alt+key, with a locking modifier switched on around it when one is named, the key held down
    // for `holdMs`.
    void type(const QByteArray& key, const QByteArray& lock, unsigned long holdMs = 0) {
        const KeyCode control = keycode("Control_L");
        const KeyCode alt = keycode("Alt_L");
        if (!lock.isEmpty()) {
            tap(keycode(lock.constData()));
        }
        XTestFakeKeyEvent(other_, control, True, CurrentTime);
        XTestFakeKeyEvent(other_, alt, True, CurrentTime);
        XTestFakeKeyEvent(other_, keycode(key.constData()), True, CurrentTime);
        XSync(other_, False);
        QThread::msleep(holdMs);
        XTestFakeKeyEvent(other_, keycode(key.constData()), False, CurrentTime);
        XTestFakeKeyEvent(other_, alt, False, CurrentTime);
        XTestFakeKeyEvent(other_, control, False, CurrentTime);
        if (!lock.isEmpty()) {
            tap(keycode(lock.constData()));
        }
        XSync(other_, False);
    }

    Display* other_ = nullptr;
    int otherPresses_ = 0;
    std::unique_ptr<HotKeys> hotKeys_;
    QList<int> runs_;
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
