#include "hotkeybackend.h"
#include "hotkeys.h"
#include "shortcuts.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVirtualObject>
#include <QTest>

namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString connectionName = QStringLiteral("fake-portal");

using Bound = QList<QPair<QString, QVariantMap>>;

// The desktop's GlobalShortcuts portal as the test's session bus sees it: it answers every request through
// a Response signal on the request's object, as the real portal does, with the responses it is told to
// give, and remembers what it was asked to bind.
class FakePortal : public QDBusVirtualObject {
public:
    FakePortal(uint sessionResponse, uint bindResponse)
        : sessionResponse_(sessionResponse), bindResponse_(bindResponse) {}

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const auto arguments = message.arguments();
        if (message.interface() != shortcutsInterface || arguments.isEmpty()) {
            return false;
        }
        const auto options = qdbus_cast<QVariantMap>(arguments.last());
        const QString sender = message.service().mid(1).replace(QLatin1Char('.'), QLatin1Char('_'));
        const auto objectPath = [&](const char* kind, const QString& token) {
            return QStringLiteral("%1/%2/%3/%4").arg(portalPath, QLatin1String(kind), sender, token);
        };
        QVariantMap results;
        uint response = 0;
        if (message.member() == QLatin1String("CreateSession")) {
            session = objectPath("session", options.value(QStringLiteral("session_handle_token")).toString());
            results.insert(QStringLiteral("session_handle"), session);
            response = sessionResponse_;
        } else if (message.member() == QLatin1String("BindShortcuts") && arguments.size() == 4) {
            const auto shortcuts = arguments[1].value<QDBusArgument>();
            shortcuts.beginArray();
            while (!shortcuts.atEnd()) {
                QPair<QString, QVariantMap> shortcut;
                shortcuts.beginStructure();
                shortcuts >> shortcut.first >> shortcut.second;
                shortcuts.endStructure();
                bound.append(shortcut);
            }
            shortcuts.endArray();
            response = bindResponse_;
        } else {
            return false;
        }
        const QString request =
            objectPath("request", options.value(QStringLiteral("handle_token")).toString());
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        auto signal = QDBusMessage::createSignal(request, QStringLiteral("org.freedesktop.portal.Request"),
                                                 QStringLiteral("Response"));
        signal << response << results;
        connection.send(signal);
        ++answered;
        return true;
    }

    QString introspect(const QString&) const override { return {}; }

    // The user pressed the keys the portal bound to `shortcutId`.
    void activate(const QString& shortcutId) const {
        auto signal = QDBusMessage::createSignal(portalPath, shortcutsInterface, QStringLiteral("Activated"));
        signal << QVariant::fromValue(QDBusObjectPath(session)) << shortcutId << qulonglong(1000)
               << QVariantMap();
        QDBusConnection(connectionName).send(signal);
    }

    QString session;
    Bound bound;
    int answered = 0;

private:
    uint sessionResponse_;
    uint bindResponse_;
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
                                                      QStringLiteral("Activated"), this,
                                                      SLOT(noteActivation())));
    }

    void thePortalBindsTheFiveAndDeliversTheirPresses_data() {
        QTest::addColumn<uint>("sessionResponse");
        QTest::addColumn<uint>("bindResponse");
        QTest::addColumn<bool>("binds");
        QTest::addColumn<bool>("works");

        QTest::newRow("a granted bind makes Ctrl+Alt+K's activation run the fourth action")
            << 0u << 0u << true << true;
        QTest::newRow("a cancelled bind leaves every shortcut inert") << 0u << 1u << true << false;
        QTest::newRow("a refused session binds nothing and leaves every shortcut inert")
            << 2u << 0u << false << false;
    }
    void thePortalBindsTheFiveAndDeliversTheirPresses() {
        QFETCH(uint, sessionResponse);
        QFETCH(uint, bindResponse);
        QFETCH(bool, binds);
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
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys.registerShortcut(shortcut, [&runs, n = ++number] { runs.append(n); });
        }
        QTRY_COMPARE(portal.answered, binds ? 2 : 1);

        Bound expected;
        for (const auto& shortcut : Shortcuts::all()) {
            expected.append({shortcut.portalId,
                             {{QStringLiteral("description"), shortcut.description},
                              {QStringLiteral("preferred_trigger"), shortcut.portalTrigger}}});
        }
        QCOMPARE(portal.bound, binds ? expected : Bound());
        QTRY_COMPARE(hotKeys.isAvailable(), works);

        activations_ = 0;
        portal.activate(QStringLiteral("clear-answer"));
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
