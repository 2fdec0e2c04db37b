#pragma once

#include "shellrules.h"

#include <QObject>
#include <QPointer>

#include <memory>

class AppSettings;
class BackendClient;
class OverlayPanel;
class QMenu;
class QSystemTrayIcon;
class QWidget;
class SessionController;
class ShellWindow;

// The desktop program's hub: the tray icon and its menu, the global shortcuts, the overlay, and the
// onboarding and settings windows, created when first needed. It carries out what the views ask of the
// shell (sign out, show a window, apply the overlay's settings) and ends the session when the program
// ends. Main thread only.
class AppDelegate : public QObject {
    Q_OBJECT
    // Whether a window of the program's own (onboarding, settings) is open, which gives it a taskbar
    // entry; the overlay never counts.
    Q_PROPERTY(bool regular READ isRegular NOTIFY regularChanged)

public:
    AppDelegate(SessionController& session, AppSettings& settings, BackendClient& backend,
                QObject* parent = nullptr);
    ~AppDelegate() override;

    // The launch sequence: tray icon, global shortcuts, update checks, then the overlay for a signed-in
    // user who finished onboarding, else onboarding. The views reach the shell through the signals this
    // connects, never through a global.
    void launch();

    OverlayPanel& overlay() { return *overlay_; }
    QMenu& statusMenu() { return *menu_; }
    QWidget* onboardingWindow() const;
    QWidget* settingsWindow() const;
    bool isRegular() const { return regular_; }

public slots:
    void toggleListening();
    void answerNow();
    void toggleOverlay();
    void clearAnswer();
    void toggleClickThrough();
    void showSettings();
    void showOnboarding();
    void checkUpdates();
    void signOut();
    void quit();
    // A second start of the program asked this one to come forward.
    void bringForward();
    // The program is ending, whatever the reason: stops the session and gives its last usage report a
    // few seconds to leave before the process exits.
    void terminate();

signals:
    void regularChanged();

private:
    void rebuildMenu();
    void onboardingFinished();
    ShellWindow* makeWindow(QWidget* content, const QString& title, ShellRules::Window which);
    void windowClosed(ShellRules::Window which);
    void setRegular(bool value);

    SessionController& session_;
    AppSettings& settings_;
    BackendClient& backend_;
    std::unique_ptr<OverlayPanel> overlay_;
    std::unique_ptr<QMenu> menu_;
    std::unique_ptr<QSystemTrayIcon> tray_;
    std::unique_ptr<ShellWindow> onboarding_;
    std::unique_ptr<ShellWindow> settingsWindow_;
    bool regular_ = false;
    bool terminated_ = false;
};
