#pragma once

#include <QObject>
#include <QtGlobal>

#include <memory>

class QDBusConnection;
namespace Shortcuts {
struct Shortcut;
}

// The desktop's global-shortcut service beneath the hot-key registry. The registry says which key
// combination belongs to which registration id; the backend reports presses by that id. A combination the
// desktop refuses is simply never reported: refusals are silent, like every other failure here.
class HotKeyBackend : public QObject {
    Q_OBJECT
    // Whether this desktop delivers global shortcuts to the program at all.
    Q_PROPERTY(bool available READ isAvailable NOTIFY availableChanged)

public:
    using QObject::QObject;

    bool isAvailable() const { return available_; }
    virtual void grab(quint32 id, const Shortcuts::Shortcut& shortcut) = 0;

signals:
    void pressed(quint32 id);
    void availableChanged(bool available);

protected:
    void setAvailable(bool available);

private:
    bool available_ = false;
};

// Passive key grabs on the root window of the X display the application runs on; null when the
// application is not on an X display (offscreen, native Wayland).
std::unique_ptr<HotKeyBackend> makeX11HotKeyBackend();

// The desktop's GlobalShortcuts portal, reached over `bus`. The shortcuts registered before the portal
// has opened the session are bound together, once.
std::unique_ptr<HotKeyBackend> makePortalHotKeyBackend(const QDBusConnection& bus);
