#include "hotkeybackend.h"
#include "hotkeys.h"
#include "shortcuts.h"

#include <QSignalSpy>
#include <QTest>

namespace {

// Stands in for the desktop's shortcut service: grants every combination but the refused ones, and
// delivers presses of granted combinations only.
class FakeBackend : public HotKeyBackend {
public:
    void grab(quint32 id, const Shortcuts::Shortcut& shortcut) override {
        asked.append(id);
        if (!refused.contains(shortcut.keys)) {
            granted.insert(shortcut.keys, id);
        }
    }
    void press(const QString& keys) {
        if (granted.contains(keys)) {
            emit pressed(granted.value(keys));
        }
    }
    using HotKeyBackend::setAvailable;

    QStringList refused;
    QList<quint32> asked;
    QHash<QString, quint32> granted;
};

// The five shortcuts registered in order over a fake desktop; action n records n.
struct Registry {
    explicit Registry(const QStringList& refused = {}) : backend(new FakeBackend) {
        backend->refused = refused;
        hotKeys = std::make_unique<HotKeys>(std::unique_ptr<HotKeyBackend>(backend));
        int number = 0;
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys->registerShortcut(shortcut, [this, n = ++number] { runs.append(n); });
        }
    }

    FakeBackend* backend;
    std::unique_ptr<HotKeys> hotKeys;
    QList<int> runs;
};

}  // namespace

class TestHotKeys : public QObject {
    Q_OBJECT

private slots:
    void eachPressRunsOnlyItsOwnAction_data() {
        QTest::addColumn<QStringList>("refused");
        QTest::addColumn<QStringList>("presses");
        QTest::addColumn<QList<int>>("runs");

        QTest::newRow("Ctrl+Alt+K runs the fourth action only")
            << QStringList{} << QStringList{"Ctrl+Alt+K"} << QList<int>{4};
        QTest::newRow("presses run their actions in the order pressed")
            << QStringList{} << QStringList{"Ctrl+Alt+X", "Ctrl+Alt+S", "Ctrl+Alt+Space", "Ctrl+Alt+Enter"}
            << QList<int>{5, 1, 3, 2};
        QTest::newRow("a refused Ctrl+Alt+X leaves the other four working")
            << QStringList{"Ctrl+Alt+X"}
            << QStringList{"Ctrl+Alt+X", "Ctrl+Alt+S", "Ctrl+Alt+Enter", "Ctrl+Alt+Space", "Ctrl+Alt+K"}
            << QList<int>{1, 2, 3, 4};
    }
    void eachPressRunsOnlyItsOwnAction() {
        QFETCH(QStringList, refused);
        QFETCH(QStringList, presses);
        QFETCH(QList<int>, runs);

        Registry registry(refused);
        // A refused registration still takes its id: ids follow the calls, not the grants.
        QCOMPARE(registry.backend->asked, (QList<quint32>{1, 2, 3, 4, 5}));
        for (const auto& keys : presses) {
            registry.backend->press(keys);
        }
        QTRY_COMPARE(registry.runs, runs);
    }

    void theActionRunsOnlyAfterTheKeyHandlerHasReturned() {
        Registry registry;
        // An id that no registration has (a press whose identity could not be read) runs nothing.
        emit registry.backend->pressed(0);
        registry.backend->press(QStringLiteral("Ctrl+Alt+K"));
        QVERIFY(registry.runs.isEmpty());
        QTRY_COMPARE(registry.runs, QList<int>{4});
    }

    void availabilityFollowsTheDesktopsService() {
        Registry registry;
        QSignalSpy changed(registry.hotKeys.get(), &HotKeys::availableChanged);
        QVERIFY(!registry.hotKeys->isAvailable());
        registry.backend->setAvailable(true);
        QCOMPARE(changed.count(), 1);
        QVERIFY(registry.hotKeys->isAvailable());

        HotKeys withoutService(nullptr);
        withoutService.registerShortcut(Shortcuts::all()[0], [] {});
        QVERIFY(!withoutService.isAvailable());
    }

    void waylandUsesThePortalEvenWithWindowsOnXWayland() {
        QCOMPARE(HotKeys::serviceFor("wayland", "xcb"), HotKeys::Service::portal);
        QCOMPARE(HotKeys::serviceFor("tty", "xcb"), HotKeys::Service::x11);
        QCOMPARE(HotKeys::serviceFor("x11", "offscreen"), HotKeys::Service::none);
    }
};

QTEST_GUILESS_MAIN(TestHotKeys)
#include "tst_hotkeys.moc"
