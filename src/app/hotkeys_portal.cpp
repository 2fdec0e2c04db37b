#include "hotkeybackend.h"
#include "shortcuts.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QHash>
#include <QList>
#include <QVariantMap>

#include <functional>

namespace {

const QString portalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString portalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString shortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString requestInterface = QStringLiteral("org.freedesktop.portal.Request");

// One element of BindShortcuts' a(sa{sv}): the shortcut's id and its description and preferred trigger.
struct PortalShortcut {
    QString id;
    QVariantMap properties;
};

}  // namespace

Q_DECLARE_METATYPE(PortalShortcut)

namespace {

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut) {
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut) {
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

// Request and session tokens must be unique among this connection's requests; they name the objects
// the portal creates for them.
QString nextToken() {
    static int counter = 0;
    return QStringLiteral("tallowind%1").arg(++counter);
}

// One portal call. Its outcome comes later, as a Response signal from a request object whose path the
// caller can predict from its handle token, so the listener is in place before the call leaves (a quick
// portal may answer before the call's reply arrives).
class PortalRequest : public QObject {
    Q_OBJECT

public:
    using Success = std::function<void(const QVariantMap& results)>;
    using Failure = std::function<void()>;

    PortalRequest(QDBusConnection bus, const QString& method, QVariantList arguments, Success success,
                  Failure failure, QObject* parent)
        : QObject(parent), bus_(std::move(bus)), success_(std::move(success)), failure_(std::move(failure)) {
        const QString token = nextToken();
        QString sender = bus_.baseService().mid(1);
        sender.replace(QLatin1Char('.'), QLatin1Char('_'));
        path_ = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
        bus_.connect(portalService, path_, requestInterface, QStringLiteral("Response"), this,
                     SLOT(respond(uint, QVariantMap)));

        // Every method of the interface takes its options last.
        auto options = arguments.last().toMap();
        options.insert(QStringLiteral("handle_token"), token);
        arguments.last() = options;
        auto call = QDBusMessage::createMethodCall(portalService, portalPath, shortcutsInterface, method);
        call.setArguments(arguments);
        auto* watcher = new QDBusPendingCallWatcher(bus_.asyncCall(call), this);
        // No portal, or one without global shortcuts, fails the call itself.
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this](QDBusPendingCallWatcher* done) {
            done->deleteLater();
            if (done->isError()) {
                finish(false, {});
            }
        });
    }

    ~PortalRequest() override {
        bus_.disconnect(portalService, path_, requestInterface, QStringLiteral("Response"), this,
                        SLOT(respond(uint, QVariantMap)));
    }

private slots:
    // 0 is success; 1 the user cancelled, 2 anything else.
    void respond(uint response, const QVariantMap& results) { finish(response == 0, results); }

private:
    void finish(bool succeeded, const QVariantMap& results) {
        if (done_) {
            return;
        }
        done_ = true;
        if (succeeded) {
            success_(results);
        } else {
            failure_();
        }
        deleteLater();
    }

    QDBusConnection bus_;
    QString path_;
    Success success_;
    Failure failure_;
    bool done_ = false;
};

class PortalHotKeyBackend final : public HotKeyBackend {
    Q_OBJECT

public:
    explicit PortalHotKeyBackend(QDBusConnection bus) : bus_(std::move(bus)) {
        qDBusRegisterMetaType<PortalShortcut>();
        qDBusRegisterMetaType<QList<PortalShortcut>>();
        // Qt D-Bus looks the slot's argument types up by name, and finds an object path only once its
        // type is registered; in a program whose first D-Bus use is this, the connection would fail.
        qRegisterMetaType<QDBusObjectPath>();
        bus_.connect(portalService, portalPath, shortcutsInterface, QStringLiteral("Activated"), this,
                     SLOT(activated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
    }

    void grab(quint32 id, const Shortcuts::Shortcut& shortcut) override {
        // A session binds its shortcuts once; what comes after the bind has left stays inert.
        if (state_ != State::idle && state_ != State::opening) {
            return;
        }
        ids_.insert(shortcut.portalId, id);
        shortcuts_.append({shortcut.portalId,
                           {{QStringLiteral("description"), shortcut.description},
                            {QStringLiteral("preferred_trigger"), shortcut.portalTrigger}}});
        if (state_ == State::idle) {
            open();
        }
    }

private slots:
    void activated(const QDBusObjectPath& session, const QString& shortcutId, qulonglong,
                   const QVariantMap&) {
        const auto id = ids_.constFind(shortcutId);
        if (state_ == State::bound && session.path() == session_ && id != ids_.cend()) {
            emit pressed(*id);
        }
    }

private:
    // idle → opening (CreateSession sent) → binding (BindShortcuts sent) → bound; a failed or refused
    // step, or a missing portal, ends in failed, where every shortcut stays inert.
    enum class State { idle, opening, binding, bound, failed };

    void open() {
        state_ = State::opening;
        const QVariantMap options{{QStringLiteral("session_handle_token"), nextToken()}};
        new PortalRequest(
            bus_, QStringLiteral("CreateSession"), {options},
            [this](const QVariantMap& results) {
                // Documented as a string, though it is an object path; accept either.
                const QVariant handle = results.value(QStringLiteral("session_handle"));
                session_ = handle.metaType() == QMetaType::fromType<QDBusObjectPath>()
                               ? handle.value<QDBusObjectPath>().path()
                               : handle.toString();
                bind();
            },
            [this] { state_ = State::failed; }, this);
    }

    void bind() {
        state_ = State::binding;
        // No parent window: the overlay never takes the focus, so the portal's dialog stands on its own.
        new PortalRequest(
            bus_, QStringLiteral("BindShortcuts"),
            {QVariant::fromValue(QDBusObjectPath(session_)), QVariant::fromValue(shortcuts_), QString(),
             QVariantMap()},
            [this](const QVariantMap&) {
                state_ = State::bound;
                setAvailable(true);
            },
            [this] { state_ = State::failed; }, this);
    }

    QDBusConnection bus_;
    State state_ = State::idle;
    QString session_;
    QList<PortalShortcut> shortcuts_;
    QHash<QString, quint32> ids_;
};

}  // namespace

std::unique_ptr<HotKeyBackend> makePortalHotKeyBackend(const QDBusConnection& bus) {
    return std::make_unique<PortalHotKeyBackend>(bus);
}

#include "hotkeys_portal.moc"
