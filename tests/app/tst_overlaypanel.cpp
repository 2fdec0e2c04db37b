#include "fakesession.h"
#include "overlaypanel.h"

#include <QApplication>
#include <QProcess>
#include <QScreen>
#include <QSettings>
#include <QTest>

#include <optional>

// Runs on the X display of the test services, with no window manager: the X server's view of the panel
// is read back with xprop and xdotool, and xdotool drives the pointer as a user would.
class OverlayPanelTest : public QObject {
    Q_OBJECT

    std::optional<FakeSession> fake_;

    std::unique_ptr<OverlayPanel> shownPanel() {
        auto panel = std::make_unique<OverlayPanel>(fake_->session(), fake_->settings());
        panel->bringToFront();
        if (!QTest::qWaitForWindowExposed(panel.get())) {
            qFatal("the panel never appeared");
        }
        return panel;
    }

    static QByteArray x11Tool(const QString& program, const QStringList& arguments) {
        QProcess process;
        process.start(program, arguments);
        process.waitForFinished(5000);
        return process.readAllStandardOutput();
    }

private slots:
    void initTestCase() {
        if (QGuiApplication::platformName() != QLatin1String("xcb")) {
            QSKIP("needs the X display of scripts/with-test-services.sh (TALLOWIND_TEST_DISPLAY)");
        }
    }
    void init() { fake_.emplace(); }
    void cleanup() { fake_.reset(); }

    void theSavedFrameComesBackWhenItIsUsable_data() {
        QTest::addColumn<QRect>("saved");     // null: nothing saved yet
        QTest::addColumn<QRect>("expected");  // null: the first placement, 440×520 at the top right
        QTest::newRow("first launch: top right of the primary screen") << QRect() << QRect();
        QTest::newRow("a frame below the minimum grows to it")
            << QRect(40, 50, 100, 80) << QRect(40, 50, 320, 260);
        QTest::newRow("a frame on a monitor that is gone is not used")
            << QRect(5000, 100, 440, 520) << QRect();
    }
    void theSavedFrameComesBackWhenItIsUsable() {
        QFETCH(QRect, saved);
        QFETCH(QRect, expected);
        QSettings& group = fake_->settings().store();
        group.beginGroup(QLatin1String(OverlayPanel::frameGroup));
        if (!saved.isNull()) {
            group.setValue("x", saved.x());
            group.setValue("y", saved.y());
            group.setValue("width", saved.width());
            group.setValue("height", saved.height());
        }
        group.endGroup();
        const QRect area = QGuiApplication::primaryScreen()->availableGeometry();
        const QRect first(area.x() + area.width() - 460, area.y() + 20, 440, 520);
        QCOMPARE(shownPanel()->geometry(), expected.isNull() ? first : expected);
    }

    // On top, on every desktop, out of the taskbar and pager and never given the keyboard focus; still so,
    // and where it was, after being hidden and shown again.
    void thePanelStaysOutOfTheWayEvenAfterBeingShownAgain() {
        const auto panel = shownPanel();
        panel->setGeometry(200, 150, 460, 480);
        panel->toggleVisible();
        QVERIFY(!panel->isVisible());
        panel->toggleVisible();
        QVERIFY(QTest::qWaitForWindowExposed(panel.get()));
        QCOMPARE(panel->geometry(), QRect(200, 150, 460, 480));
        const QByteArray shown = x11Tool("xprop", {"-id", QString::number(panel->winId())});
        for (const char* property :
             {"_NET_WM_STATE_ABOVE", "_NET_WM_STATE_STICKY", "_NET_WM_STATE_SKIP_TASKBAR",
              "_NET_WM_STATE_SKIP_PAGER", "_NET_WM_DESKTOP(CARDINAL) = 4294967295",
              "_NET_WM_WINDOW_TYPE(ATOM) = _NET_WM_WINDOW_TYPE_UTILITY",
              "Client accepts input or input focus: False"}) {
            QVERIFY2(shown.contains(property), property);
        }
    }

    void opacityAndClickThroughFollowTheSettingsOnAShownPanel_data() {
        QTest::addColumn<double>("opacity");
        QTest::addColumn<bool>("clickThrough");
        QTest::newRow("default opacity, clickable") << 0.92 << false;
        QTest::newRow("half transparent, clicks pass through") << 0.5 << true;
    }
    void opacityAndClickThroughFollowTheSettingsOnAShownPanel() {
        QFETCH(double, opacity);
        QFETCH(bool, clickThrough);
        const auto panel = shownPanel();
        // Set the other way first, so that each row shows a change on a shown panel.
        for (const bool wanted : {false, true}) {
            fake_->settings().setClickThrough(clickThrough == wanted);
            fake_->settings().setOverlayOpacity(wanted ? opacity : 1.0);
            panel->applySettings();
        }
        QTRY_VERIFY(x11Tool("xprop", {"-id", QString::number(panel->winId())})
                        .contains("_NET_WM_WINDOW_OPACITY(CARDINAL) = " +
                                  QByteArray::number(qRound64(opacity * 0xFFFFFFFFU))));
        // The window under the pointer is the one that gets its clicks.
        const QPoint inside = panel->geometry().center();
        const QByteArray pointer =
            x11Tool("xdotool", {"mousemove", QString::number(inside.x()), QString::number(inside.y()),
                                "getmouselocation", "--shell"});
        QCOMPARE(pointer.contains("WINDOW=" + QByteArray::number(panel->winId()) + '\n'), !clickThrough);
        QVERIFY(panel->isVisible());
    }

    void draggingTheBackgroundMovesAndAnEdgeResizesAndTheFrameIsSaved_data() {
        // Where the press lands in the panel, from its top-left corner (negative x: from the right).
        QTest::addColumn<QPoint>("press");
        QTest::addColumn<QPoint>("drag");
        QTest::addColumn<QMargins>("change");  // of the frame's left, top, right and bottom edges
        QTest::newRow("the header's background moves the panel")
            << QPoint(220, 22) << QPoint(-150, 60) << QMargins(-150, 60, -150, 60);
        QTest::newRow("the innermost pixel of the right edge narrows it")
            << QPoint(-6, 200) << QPoint(-60, 10) << QMargins(0, 0, -60, 0);
        QTest::newRow("the bottom-left corner resizes both ways")
            << QPoint(3, 510) << QPoint(-40, 30) << QMargins(-40, 0, 0, 30);
        QTest::newRow("the top edge stops at the minimum height")
            << QPoint(200, 1) << QPoint(0, 400) << QMargins(0, 260, 0, 0);
    }
    void draggingTheBackgroundMovesAndAnEdgeResizesAndTheFrameIsSaved() {
        QFETCH(QPoint, press);
        QFETCH(QPoint, drag);
        QFETCH(QMargins, change);
        const auto panel = shownPanel();
        const QRect before = panel->geometry();
        const QPoint start =
            before.topLeft() + QPoint(press.x() < 0 ? before.width() + press.x() : press.x(), press.y());
        QStringList steps{"mousemove", QString::number(start.x()), QString::number(start.y()), "mousedown",
                          "1"};
        for (int step = 1; step <= 4; ++step) {
            const QPoint at = start + drag * step / 4;
            steps << "mousemove" << QString::number(at.x()) << QString::number(at.y());
        }
        x11Tool("xdotool", steps << "mouseup"
                                 << "1");
        const QRect expected = before.adjusted(change.left(), change.top(), change.right(), change.bottom());
        QTRY_COMPARE(panel->geometry(), expected);
        // The next start of the program puts the panel where the user left it.
        QCOMPARE(OverlayPanel(fake_->session(), fake_->settings()).geometry(), expected);
    }
};

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
