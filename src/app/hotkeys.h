#pragma once

#include <QObject>
#include <QString>
#include <QtGlobal>

#include <functional>
#include <map>
#include <memory>

class HotKeyBackend;
namespace Shortcuts {
struct Shortcut;
}

// The registry of the program's global shortcuts. Registrations are numbered 1, 2, 3… in call order and
// last for the whole run; a press runs its action from the event loop, after the platform's key handler
// has returned, so an action may open windows or grab the keyboard freely. Main thread only.
class HotKeys : public QObject {
    Q_OBJECT
    // Whether global shortcuts work on this desktop; the settings window says so when they do not.
    Q_PROPERTY(bool available READ isAvailable NOTIFY availableChanged)

public:
    enum class Service { none, x11, portal };
    Q_ENUM(Service)

    // Which shortcut service a desktop offers, from its session type (XDG_SESSION_TYPE) and the Qt
    // platform the program's windows run on.
    static Service serviceFor(const QString& sessionType, const QString& qtPlatform);

    // Without a backend every registration stays inert.
    explicit HotKeys(std::unique_ptr<HotKeyBackend> backend, QObject* parent = nullptr);
    ~HotKeys() override;

    // The program's registry over the desktop's own service; needs the application object.
    static HotKeys& shared();

    void registerShortcut(const Shortcuts::Shortcut& shortcut, std::function<void()> action);

    bool isAvailable() const;

signals:
    void availableChanged(bool available);

private:
    void run(quint32 id);

    std::unique_ptr<HotKeyBackend> backend_;
    std::map<quint32, std::function<void()>> handlers_;
};
