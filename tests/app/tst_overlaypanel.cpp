#include "appsettings.h"
#include "fakesession.h"
#include "overlaypanel.h"

#include <QApplication>
#include <QScreen>
#include <QSettings>
#include <QTest>

#include <cmath>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <X11/extensions/XTest.h>
#include <X11/extensions/shape.h>

using namespace Qt::StringLiterals;

// Runs on the X display of the test services, with no window manager: what the panel asks of the X
// server is read back by a second client, which also drives the pointer through XTest as a user would.
class OverlayPanelTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase();
    void cleanupTestCase();
    void savedFrameIsRestored_data();
    void savedFrameIsRestored();
    void windowStaysOutOfTheWay();
    void applySettingsSetsOpacityAndClickThrough_data();
    void applySettingsSetsOpacityAndClickThrough();
    void draggingMovesOrResizesAndSaves_data();
    void draggingMovesOrResizesAndSaves();
    void toggleVisibleTwiceKeepsTheFrame();

private:
    std::unique_ptr<OverlayPanel> shownPanel(FakeSession& fake);
    QRect savedFrame(AppSettings& settings);
    QList<quint32> windowProperty(QWidget& window, const char* name);
    quint32 atom(const char* name) { return static_cast<quint32>(XInternAtom(x_, name, False)); }

    Display* x_ = nullptr;
};

void OverlayPanelTest::initTestCase() {
    if (QGuiApplication::platformName() != "xcb"_L1) {
        QSKIP("needs the X display of scripts/with-test-services.sh (TALLOWIND_TEST_DISPLAY)");
    }
    x_ = XOpenDisplay(nullptr);
    QVERIFY(x_);
}

void OverlayPanelTest::cleanupTestCase() {
    if (x_) {
        XCloseDisplay(x_);
    }
}

std::unique_ptr<OverlayPanel> OverlayPanelTest::shownPanel(FakeSession& fake) {
    auto panel = std::make_unique<OverlayPanel>(fake.session(), fake.settings());
    panel->bringToFront();
    if (!QTest::qWaitForWindowExposed(panel.get())) {
        qFatal("the panel never appeared");
    }
    return panel;
}

QRect OverlayPanelTest::savedFrame(AppSettings& settings) {
    QSettings& store = settings.store();
    store.beginGroup(QLatin1String(OverlayPanel::frameGroup));
    const QRect frame(store.value(u"x"_s, -1).toInt(), store.value(u"y"_s, -1).toInt(),
                      store.value(u"width"_s, -1).toInt(), store.value(u"height"_s, -1).toInt());
    store.endGroup();
    return frame;
}

QList<quint32> OverlayPanelTest::windowProperty(QWidget& window, const char* name) {
    Atom type = 0;
    int format = 0;
    unsigned long count = 0;
    unsigned long after = 0;
    unsigned char* data = nullptr;
    XGetWindowProperty(x_, window.winId(), XInternAtom(x_, name, False), 0, 64, False, AnyPropertyType, &type,
                       &format, &count, &after, &data);
    // Xlib hands 32-bit items over as longs, sign-extended.
    QList<quint32> values;
    if (data && format == 32) {
        const auto* longs = reinterpret_cast<const long*>(data);
        for (unsigned long i = 0; i < count; ++i) {
            values << static_cast<quint32>(longs[i]);
        }
    }
    if (data) {
        XFree(data);
    }
    return values;
}

void OverlayPanelTest::savedFrameIsRestored_data() {
    QTest::addColumn<QRect>("saved");     // null: nothing saved yet
    QTest::addColumn<QRect>("expected");  // null: the first placement, 440×520 at the top right

    QTest::newRow("first launch: top right of the primary screen") << QRect() << QRect();
    QTest::newRow("a frame on the screen comes back")
        << QRect(100, 120, 500, 400) << QRect(100, 120, 500, 400);
    QTest::newRow("a frame below the minimum grows to it")
        << QRect(40, 50, 100, 80) << QRect(40, 50, 320, 260);
    QTest::newRow("a frame on a monitor that is gone is not used") << QRect(5000, 100, 440, 520) << QRect();
}

void OverlayPanelTest::savedFrameIsRestored() {
    QFETCH(QRect, saved);
    QFETCH(QRect, expected);
    FakeSession fake;
    if (!saved.isNull()) {
        QSettings& store = fake.settings().store();
        store.beginGroup(QLatin1String(OverlayPanel::frameGroup));
        store.setValue(u"x"_s, saved.x());
        store.setValue(u"y"_s, saved.y());
        store.setValue(u"width"_s, saved.width());
        store.setValue(u"height"_s, saved.height());
        store.endGroup();
    }
    const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
    const QRect first(area.x() + area.width() - 460, area.y() + 20, 440, 520);
    const auto panel = shownPanel(fake);
    QCOMPARE(panel->geometry(), expected.isNull() ? first : expected);
}

// On top, on every desktop, out of the taskbar and pager, never given the keyboard focus, and named for
// the tools that read window titles.
void OverlayPanelTest::windowStaysOutOfTheWay() {
    FakeSession fake;
    const auto panel = shownPanel(fake);
    XSync(x_, False);
    const QList<quint32> states = windowProperty(*panel, "_NET_WM_STATE");
    for (const char* state : {"_NET_WM_STATE_ABOVE", "_NET_WM_STATE_STICKY", "_NET_WM_STATE_SKIP_TASKBAR",
                              "_NET_WM_STATE_SKIP_PAGER"}) {
        QVERIFY2(states.contains(atom(state)), state);
    }
    QCOMPARE(windowProperty(*panel, "_NET_WM_DESKTOP"), QList<quint32>{0xFFFFFFFFU});
    QVERIFY(windowProperty(*panel, "_NET_WM_WINDOW_TYPE").contains(atom("_NET_WM_WINDOW_TYPE_UTILITY")));

    XWMHints* hints = XGetWMHints(x_, panel->winId());
    QVERIFY(hints);
    const bool takesInput = (hints->flags & InputHint) && hints->input;
    XFree(hints);
    QVERIFY(!takesInput);

    char* name = nullptr;
    XFetchName(x_, panel->winId(), &name);
    QCOMPARE(QString::fromUtf8(name), u"Tallowind Overlay"_s);
    XFree(name);
    QVERIFY(!panel->isHiddenFromCapture());
}

void OverlayPanelTest::applySettingsSetsOpacityAndClickThrough_data() {
    QTest::addColumn<double>("opacity");
    QTest::addColumn<bool>("clickThrough");

    QTest::newRow("default opacity, clickable") << 0.92 << false;
    QTest::newRow("half transparent, clicks pass through") << 0.5 << true;
}

void OverlayPanelTest::applySettingsSetsOpacityAndClickThrough() {
    QFETCH(double, opacity);
    QFETCH(bool, clickThrough);
    FakeSession fake;
    const auto panel = shownPanel(fake);
    // Set the other way first, so that each row shows a change on a shown panel.
    fake.settings().setClickThrough(!clickThrough);
    fake.settings().setOverlayOpacity(1.0);
    panel->applySettings();
    fake.settings().setClickThrough(clickThrough);
    fake.settings().setOverlayOpacity(opacity);
    panel->applySettings();
    QTRY_VERIFY(windowProperty(*panel, "_NET_WM_WINDOW_OPACITY").size() == 1 &&
                std::abs(windowProperty(*panel, "_NET_WM_WINDOW_OPACITY").first() / double(0xFFFFFFFFU) -
                         opacity) < 1e-6);

    int count = 0;
    int ordering = 0;
    XRectangle* input = XShapeGetRectangles(x_, panel->winId(), ShapeInput, &count, &ordering);
    XFree(input);
    // An empty input region lets every click reach the window beneath.
    QCOMPARE(count == 0, clickThrough);
    QVERIFY(panel->isVisible());
}

void OverlayPanelTest::draggingMovesOrResizesAndSaves_data() {
    QTest::addColumn<QPoint>("press");  // in the panel, from its top-left corner (negative: from the right)
    QTest::addColumn<QPoint>("drag");
    QTest::addColumn<QMargins>("change");  // of the frame's left, top, right and bottom edges

    QTest::newRow("the header's background moves the panel")
        << QPoint(220, 22) << QPoint(-150, 60) << QMargins(-150, 60, -150, 60);
    QTest::newRow("the right edge narrows it")
        << QPoint(-2, 200) << QPoint(-60, 10) << QMargins(0, 0, -60, 0);
    QTest::newRow("the bottom-left corner resizes both ways")
        << QPoint(3, 510) << QPoint(-40, 30) << QMargins(-40, 0, 0, 30);
    QTest::newRow("the top edge stops at the minimum height")
        << QPoint(200, 1) << QPoint(0, 400) << QMargins(0, 260, 0, 0);
}

void OverlayPanelTest::draggingMovesOrResizesAndSaves() {
    QFETCH(QPoint, press);
    QFETCH(QPoint, drag);
    QFETCH(QMargins, change);
    FakeSession fake;
    const auto panel = shownPanel(fake);
    const QRect before = panel->geometry();
    const QPoint start =
        before.topLeft() + QPoint(press.x() < 0 ? before.width() + press.x() : press.x(), press.y());

    XTestFakeMotionEvent(x_, -1, start.x(), start.y(), 0);
    XTestFakeButtonEvent(x_, 1, True, 0);
    for (int step = 1; step <= 4; ++step) {
        const QPoint at = start + drag * step / 4;
        XTestFakeMotionEvent(x_, -1, at.x(), at.y(), 10);
    }
    XTestFakeButtonEvent(x_, 1, False, 10);
    XFlush(x_);

    const QRect expected = before.adjusted(change.left(), change.top(), change.right(), change.bottom());
    QTRY_COMPARE(panel->geometry(), expected);
    QCOMPARE(savedFrame(fake.settings()), expected);
}

void OverlayPanelTest::toggleVisibleTwiceKeepsTheFrame() {
    FakeSession fake;
    const auto panel = shownPanel(fake);
    panel->setGeometry(200, 150, 460, 480);
    panel->toggleVisible();
    QVERIFY(!panel->isVisible());
    panel->toggleVisible();
    QVERIFY(QTest::qWaitForWindowExposed(panel.get()));
    QCOMPARE(panel->geometry(), QRect(200, 150, 460, 480));
    QVERIFY(windowProperty(*panel, "_NET_WM_STATE").contains(atom("_NET_WM_STATE_SKIP_TASKBAR")));
}

int main(int argc, char** argv) {
    const QByteArray display = qgetenv("TALLOWIND_TEST_DISPLAY");
    if (!display.isEmpty()) {
        qputenv("DISPLAY", display);
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
    QApplication app(argc, argv);
    OverlayPanelTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_overlaypanel.moc"
