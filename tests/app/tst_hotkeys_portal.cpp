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
const QString connectionName = "fake-portal";

using Bound = QList<QPair<QString, QVariantMap>>;

// The desktop's GlobalShortcuts portal on the test's session bus: like the real one it answers each call
// with a Response signal on the request's object, here with the responses it is told to give, and it
// remembers what it was asked to bind.
class FakePortal : public QDBusVirtualObject {
public:
    FakePortal(uint sessionResponse, uint bindResponse) : responses_{sessionResponse, bindResponse} {}

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const auto options =
            qdbus_cast<QVariantMap>(message.arguments().value(message.arguments().size() - 1));
        const QString sender = message.service().mid(1).replace('.', '_');
        const auto objectPath = [&](const QString& kind, const char* tokenKey) {
            return QStringList{portalPath, kind, sender, options.value(tokenKey).toString()}.join('/');
        };
        QVariantMap results;
        uint response = 0;
        if (message.member() == "CreateSession") {
            session = objectPath("session", "session_handle_token");
            results.insert("session_handle", session);
            response = responses_[0];
        } else if (message.member() == "BindShortcuts") {
            const auto shortcuts = message.arguments()[1].value<QDBusArgument>();
            shortcuts.beginArray();
            while (!shortcuts.atEnd()) {
                QPair<QString, QVariantMap> shortcut;
                shortcuts.beginStructure();
                shortcuts >> shortcut.first >> shortcut.second;
                shortcuts.endStructure();
                bound.append(shortcut);
            }
            shortcuts.endArray();
            response = responses_[1];
        } else {
            return false;
        }
        const QString request = objectPath("request", "handle_token");
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        connection.send(QDBusMessage::createSignal(request, "org.freedesktop.portal.Request", "Response")
                        << response << results);
        ++answered;
        return true;
    }

    QString introspect(const QString&) const override { return {}; }

    // The user pressed the keys the portal bound to `shortcutId`.
    void activate(const QString& shortcutId) const {
        QDBusConnection(connectionName)
            .send(QDBusMessage::createSignal(portalPath, shortcutsInterface, "Activated")
                  << QVariant::fromValue(QDBusObjectPath(session)) << shortcutId << qulonglong(1000)
                  << QVariantMap());
    }

    QString session;
    Bound bound;
    int answered = 0;

private:
    uint responses_[2];
};

}  // namespace

class TestHotKeysPortal : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() {
        if (!QDBusConnection::sessionBus().isConnected()) {
            QSKIP("needs the session bus of scripts/with-test-services.sh");
        }
        // Sees every activation on the program's own connection, after the backend has.
        QVERIFY(QDBusConnection::sessionBus().connect(portalService, portalPath, shortcutsInterface,
                                                      "Activated", this, SLOT(noteActivation())));
    }

    void thePortalBindsTheFiveAndDeliversTheirPresses_data() {
        QTest::addColumn<uint>("sessionResponse");
        QTest::addColumn<uint>("bindResponse");
        QTest::addColumn<bool>("works");

        QTest::newRow("a granted bind makes the activation of clear-answer run the fourth action")
            << 0u << 0u << true;
        QTest::newRow("a cancelled bind leaves every shortcut inert") << 0u << 1u << false;
        QTest::newRow("a refused session binds nothing and leaves every shortcut inert") << 2u << 0u << false;
    }
    void thePortalBindsTheFiveAndDeliversTheirPresses() {
        QFETCH(uint, sessionResponse);
        QFETCH(uint, bindResponse);
        QFETCH(bool, works);

        FakePortal portal(sessionResponse, bindResponse);
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, connectionName);
        QVERIFY(bus.registerVirtualObject(portalPath, &portal));
        QVERIFY(bus.registerService(portalService));
        const auto unregister = qScopeGuard([&] {
            bus.unregisterObject(portalPath);
            bus.unregisterService(portalService);
            QDBusConnection::disconnectFromBus(connectionName);
        });

        HotKeys hotKeys(makePortalHotKeyBackend(QDBusConnection::sessionBus()));
        QList<int> runs;
        int number = 0;
        Bound expected;
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys.registerShortcut(shortcut, [&runs, n = ++number] { runs.append(n); });
            expected.append(
                {shortcut.portalId,
                 {{"description", shortcut.description}, {"preferred_trigger", shortcut.portalTrigger}}});
        }
        const bool binds = sessionResponse == 0;
        QTRY_COMPARE(portal.answered, binds ? 2 : 1);
        QCOMPARE(portal.bound, binds ? expected : Bound());
        QTRY_COMPARE(hotKeys.isAvailable(), works);

        activations_ = 0;
        portal.activate("clear-answer");
        QTRY_COMPARE(activations_, 1);
        // The registry runs the action one turn of the event loop after the backend saw the activation.
        QTest::qWait(50);
        QCOMPARE(runs, works ? QList<int>{4} : QList<int>());
    }

public slots:
    void noteActivation() { ++activations_; }

private:
    int activations_ = 0;
};

QTEST_GUILESS_MAIN(TestHotKeysPortal)
#include "tst_hotkeys_portal.moc"
