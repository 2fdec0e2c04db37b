#include "hotkeys.h"

#include "hotkeybackend.h"

#include <QDBusConnection>
#include <QGuiApplication>

void HotKeyBackend::setAvailable(bool available) {
    if (available_ == available) {
        return;
    }
    available_ = available;
    emit availableChanged(available);
}

HotKeys::Service HotKeys::serviceFor(const QString& sessionType, const QString& qtPlatform) {
    // On Wayland the windows may still run through XWayland, but grabs there only see keys typed into
    // XWayland windows, never the call application's.
    if (sessionType == QLatin1String("wayland")) {
        return Service::portal;
    }
    return qtPlatform == QLatin1String("xcb") ? Service::x11 : Service::none;
}

HotKeys::HotKeys(std::unique_ptr<HotKeyBackend> backend, QObject* parent)
    : QObject(parent), backend_(std::move(backend)) {
    if (backend_) {
        // Queued: the action runs once control is back in the event loop, never inside the key handler.
        connect(backend_.get(), &HotKeyBackend::pressed, this, &HotKeys::run, Qt::QueuedConnection);
        connect(backend_.get(), &HotKeyBackend::availableChanged, this, &HotKeys::availableChanged);
    }
}

HotKeys::~HotKeys() = default;

HotKeys& HotKeys::shared() {
    // Never destroyed: grabs and the portal session belong to the whole run, and a teardown after the
    // application object would talk to a display connection that is already closed.
    static HotKeys* const instance = [] {
        std::unique_ptr<HotKeyBackend> backend;
        switch (serviceFor(qEnvironmentVariable("XDG_SESSION_TYPE"), QGuiApplication::platformName())) {
            case Service::x11:
                backend = makeX11HotKeyBackend();
                break;
            case Service::portal:
                backend = makePortalHotKeyBackend(QDBusConnection::sessionBus());
                break;
            case Service::none:
                break;
        }
        return new HotKeys(std::move(backend));
    }();
    return *instance;
}

void HotKeys::registerShortcut(const Shortcuts::Shortcut& shortcut, std::function<void()> action) {
    const auto id = static_cast<quint32>(handlers_.size() + 1);
    handlers_.emplace(id, std::move(action));
    if (backend_) {
        backend_->grab(id, shortcut);
    }
}

bool HotKeys::isAvailable() const {
    return backend_ && backend_->isAvailable();
}

void HotKeys::run(quint32 id) {
    const auto handler = handlers_.find(id);
    if (handler != handlers_.end()) {
        handler->second();
    }
}
