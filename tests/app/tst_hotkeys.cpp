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

const QString portalPath = "/org/freedesktop/portal/desktop";

// The desktop's GlobalShortcuts portal: each call gets the Response it is told to give.
class FakePortal : public QDBusVirtualObject {
public:
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override {
        const auto options = qdbus_cast<QVariantMap>(message.arguments().last());
        const QString prefix = portalPath + "/%1/" + message.service().mid(1).replace('.', '_') + '/';
        const QString request = prefix.arg("request") + options.value("handle_token").toString();
        QVariantMap results;
        if (message.member() == "CreateSession") {
            session = prefix.arg("session") + options.value("session_handle_token").toString();
            results.insert("session_handle", session);
        }
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));
        connection.send(QDBusMessage::createSignal(request, "org.freedesktop.portal.Request", "Response")
                        << responses.value(message.member()) << results);
        ++answered;
        return true;
    }
    QString introspect(const QString&) const override { return {}; }

    QHash<QString, uint> responses;
    QString session;
    int answered = 0;
};

}  // namespace

class TestHotKeys : public QObject {
    Q_OBJECT

    FakePortal portal_;
    bool portalListens_ = false;

private slots:
    void initTestCase() {
        auto bus = QDBusConnection::connectToBus(QDBusConnection::SessionBus, "fake-portal");
        portalListens_ = bus.registerVirtualObject(portalPath, &portal_) &&
                         bus.registerService("org.freedesktop.portal.Desktop");
    }
    void cleanupTestCase() { QDBusConnection::disconnectFromBus("fake-portal"); }

    void thePortalBindsTheShortcutsAndDeliversTheirPresses_data() {
        QTest::addColumn<uint>("sessionResponse");
        QTest::addColumn<uint>("bindResponse");
        QTest::newRow("a granted bind makes clear-answer run the fourth action") << 0u << 0u;
        QTest::newRow("a refused session binds nothing") << 2u << 0u;
    }
    void thePortalBindsTheShortcutsAndDeliversTheirPresses() {
        QFETCH(uint, sessionResponse);
        QFETCH(uint, bindResponse);
        if (!portalListens_) {
            QSKIP("needs the session bus of scripts/with-test-services.sh");
        }
        portal_.responses = {{"CreateSession", sessionResponse}, {"BindShortcuts", bindResponse}};
        portal_.answered = 0;
        HotKeys hotKeys(makePortalHotKeyBackend(QDBusConnection::sessionBus()));
        QList<int> runs;
        int number = 0;
        for (const auto& shortcut : Shortcuts::all()) {
            hotKeys.registerShortcut(shortcut, [&runs, n = ++number] { runs.append(n); });
        }
        const bool works = sessionResponse == 0 && bindResponse == 0;
        QTRY_COMPARE(portal_.answered, sessionResponse == 0 ? 2 : 1);
        QTRY_COMPARE(hotKeys.isAvailable(), works);
        QDBusConnection("fake-portal")
            .send(
                QDBusMessage::createSignal(portalPath, "org.freedesktop.portal.GlobalShortcuts", "Activated")
                << QVariant::fromValue(QDBusObjectPath(portal_.session)) << QStringLiteral("clear-answer")
                << qulonglong(1000) << QVariantMap());
        if (works) {
            QTRY_COMPARE(runs, QList<int>{4});
        } else {
            QTest::qWait(200);  // for a run that must not come
            QCOMPARE(runs, QList<int>());
        }
    }
};

QTEST_GUILESS_MAIN(TestHotKeys)
#include "tst_hotkeys.moc"
