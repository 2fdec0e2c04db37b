#include "hotkeybackend.h"
#include "hotkeys.h"
#include "shortcuts.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QTest>

namespace {

const QString portalService = "org.freedesktop.portal.Desktop";
const QString portalPath = "/org/freedesktop/portal/desktop";
const QString shortcutsInterface = "org.freedesktop.portal.GlobalShortcuts";

// Stands in for the desktop's shortcut service: grants every combination but Ctrl+Alt+S.
class FakeBackend : public HotKeyBackend {
public:
    void grab(quint32 id, const Shortcuts::Shortcut& shortcut) override {
        if (shortcut.keys != QLatin1String("Ctrl+Alt+S")) {
            granted.insert(shortcut.keys, id);
        }
    }
    QHash<QString, quint32> granted;
};

// The desktop's GlobalShortcuts portal on the test's session bus: like the real one it answers each call
// with a Response signal on the request's object, here with the responses it is told to give.
class FakePortal : public QDBusVirtualObject {
public:
    FakePortal(uint sessionResponse, uint bindResponse) : responses_{sessionResponse, bindResponse} {}

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const auto options = qdbus_cast<QVariantMap>(message.arguments().last());
        const QString sender = message.service().mid(1).replace('.', '_');
        const auto objectPath = [&](const QString& kind, const char* tokenKey) {
            return QStringList{portalPath, kind, sender, options.value(tokenKey).toString()}.join('/');
        };
        QVariantMap results;
        const bool creates = message.member() == "CreateSession";
        if (creates) {
            session = objectPath("session", "session_handle_token");
            results.insert("session_handle", session);
        } else if (message.member() != "BindShortcuts") {
            return false;
        }
        const QString request = objectPath("request", "handle_token");
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        connection.send(QDBusMessage::createSignal(request, "org.freedesktop.portal.Request", "Response")
                        << responses_[creates ? 0 : 1] << results);
        ++answered;
        return true;
    }
    QString introspect(const QString&) const override { return {}; }

    QString session;
    int answered = 0;

private:
    uint responses_[2];
};

}  // namespace

class TestHotKeys : public QObject {
    Q_OBJECT

private slots:
    void eachPressRunsItsOwnActionOnceTheKeyHandlerHasReturned() {
        auto* backend = new FakeBackend;
        HotKeys hotKeys{std::unique_ptr<HotKeyBackend>(backend)};
        QList<int> runs;
        int number = 0;
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys.registerShortcut(shortcut, [&runs, n = ++number] { runs.append(n); });
        }
        // A refused registration still takes its id: ids follow the calls, not the grants.
        QCOMPARE(backend->granted.value("Ctrl+Alt+K"), 4u);
        // An id that no registration has (a press whose identity could not be read) runs nothing.
        emit backend->pressed(0);
        for (const char* keys : {"Ctrl+Alt+X", "Ctrl+Alt+Space", "Ctrl+Alt+Enter", "Ctrl+Alt+K"}) {
            emit backend->pressed(backend->granted.value(keys));
        }
        QVERIFY(runs.isEmpty());
        QTRY_COMPARE(runs, (QList<int>{5, 3, 2, 4}));
    }

    void waylandUsesThePortalEvenWithWindowsOnXWayland() {
        QCOMPARE(HotKeys::serviceFor("wayland", "xcb"), HotKeys::Service::portal);
        QCOMPARE(HotKeys::serviceFor("tty", "xcb"), HotKeys::Service::x11);
        QCOMPARE(HotKeys::serviceFor("x11", "offscreen"), HotKeys::Service::none);
    }

    void thePortalBindsTheFiveAndDeliversTheirPresses_data() {
        QTest::addColumn<uint>("sessionResponse");
        QTest::addColumn<uint>("bindResponse");
        QTest::newRow("a granted bind makes the activation of clear-answer run the fourth action")
            << 0u << 0u;
        QTest::newRow("a cancelled bind leaves every shortcut inert") << 0u << 1u;
        QTest::newRow("a refused session binds nothing and leaves every shortcut inert") << 2u << 0u;
    }
    void thePortalBindsTheFiveAndDeliversTheirPresses() {
        QFETCH(uint, sessionResponse);
        QFETCH(uint, bindResponse);
        if (!QDBusConnection::sessionBus().isConnected()) {
            QSKIP("needs the session bus of scripts/with-test-services.sh");
        }
        const bool binds = sessionResponse == 0;
        const bool works = binds && bindResponse == 0;
        FakePortal portal(sessionResponse, bindResponse);
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fake-portal");
        QVERIFY(bus.registerVirtualObject(portalPath, &portal));
        QVERIFY(bus.registerService(portalService));
        const auto unregister = qScopeGuard([&] {
            bus.unregisterObject(portalPath);
            bus.unregisterService(portalService);
            QDBusConnection::disconnectFromBus("fake-portal");
        });

        HotKeys hotKeys(makePortalHotKeyBackend(QDBusConnection::sessionBus()));
        QList<int> runs;
        int number = 0;
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys.registerShortcut(shortcut, [&runs, n = ++number] { runs.append(n); });
        }
        QTRY_COMPARE(portal.answered, binds ? 2 : 1);
        QTRY_COMPARE(hotKeys.isAvailable(), works);
        bus.send(QDBusMessage::createSignal(portalPath, shortcutsInterface, "Activated")
                 << QVariant::fromValue(QDBusObjectPath(portal.session)) << QStringLiteral("clear-answer")
                 << qulonglong(1000) << QVariantMap());
        QTest::qWait(200);
        QCOMPARE(runs, works ? QList<int>{4} : QList<int>());
    }
};

QTEST_GUILESS_MAIN(TestHotKeys)
#include "tst_hotkeys.moc"
