#include "hotkeybackend.h"
#include "hotkeys.h"
#include "shortcuts.h"

#include <QSignalSpy>
#include <QTest>

namespace {

// Stands in for the desktop's shortcut service: remembers every grab it was asked for, grants all but the
// combinations it is told to refuse, and delivers presses of granted combinations only.
class FakeBackend : public HotKeyBackend {
public:
    explicit FakeBackend(QStringList refused) : refused_(std::move(refused)) {}

    void grab(quint32 id, const Shortcuts::Shortcut& shortcut) override {
        asked.append({id, shortcut.keys});
        if (!refused_.contains(shortcut.keys)) {
            granted_.insert(shortcut.keys, id);
        }
    }

    void press(const QString& keys) {
        if (granted_.contains(keys)) {
            emit pressed(granted_.value(keys));
        }
    }

    using HotKeyBackend::setAvailable;

    QList<QPair<quint32, QString>> asked;

private:
    QStringList refused_;
    QHash<QString, quint32> granted_;
};

// A registry over a fake desktop with the five shortcuts registered in order; action n records n.
struct Registry {
    explicit Registry(QStringList refused = {}) {
        auto owned = std::make_unique<FakeBackend>(std::move(refused));
        backend = owned.get();
        hotKeys = std::make_unique<HotKeys>(std::move(owned));
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
    void registrationsAreNumberedOneToFiveInCallOrder() {
        Registry registry;
        QList<QPair<quint32, QString>> expected;
        for (const auto& shortcut : Shortcuts::all()) {
            expected.append({quint32(expected.size() + 1), shortcut.keys});
        }
        QCOMPARE(registry.backend->asked, expected);
    }

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
        QTest::newRow("a refused first shortcut still takes id 1, so the rest keep their actions")
            << QStringList{"Ctrl+Alt+S"} << QStringList{"Ctrl+Alt+K", "Ctrl+Alt+X"} << QList<int>{4, 5};
    }
    void eachPressRunsOnlyItsOwnAction() {
        QFETCH(QStringList, refused);
        QFETCH(QStringList, presses);
        QFETCH(QList<int>, runs);

        Registry registry(refused);
        for (const auto& keys : presses) {
            registry.backend->press(keys);
        }
        QTRY_COMPARE(registry.runs.size(), runs.size());
        QCOMPARE(registry.runs, runs);
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

        HotKeys without(nullptr);
        without.registerShortcut(Shortcuts::all()[0], [] {});
        QVERIFY(!without.isAvailable());
    }

    void theDesktopDecidesTheShortcutService_data() {
        QTest::addColumn<QString>("sessionType");
        QTest::addColumn<QString>("qtPlatform");
        QTest::addColumn<HotKeys::Service>("service");

        QTest::newRow("an X11 session grabs keys on its display") << "x11"
                                                                  << "xcb" << HotKeys::Service::x11;
        QTest::newRow("an X server started from a console still grabs keys")
            << "tty"
            << "xcb" << HotKeys::Service::x11;
        QTest::newRow("Wayland uses the portal even with the windows on XWayland")
            << "wayland"
            << "xcb" << HotKeys::Service::portal;
        QTest::newRow("Wayland with native windows uses the portal") << "wayland"
                                                                     << "wayland" << HotKeys::Service::portal;
        QTest::newRow("a run without a display has no shortcuts") << "x11"
                                                                  << "offscreen" << HotKeys::Service::none;
    }
    void theDesktopDecidesTheShortcutService() {
        QFETCH(QString, sessionType);
        QFETCH(QString, qtPlatform);
        QFETCH(HotKeys::Service, service);
        QCOMPARE(HotKeys::serviceFor(sessionType, qtPlatform), service);
    }
};

QTEST_GUILESS_MAIN(TestHotKeys)
#include "tst_hotkeys.moc"
