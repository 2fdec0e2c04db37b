#include "shellrules.h"

#include "shortcuts.h"

namespace ShellRules {

namespace {

// A title and its shortcut are set apart by four spaces, the way the menu lines them up.
QString withKeys(const char* title, Shortcuts::Action action) {
    return QLatin1String(title) + QStringLiteral("    ") + Shortcuts::keys(action);
}

}  // namespace

QList<Item> menuItems(const State& state) {
    using Shortcuts::Action::answerNow;
    using Shortcuts::Action::toggleListening;
    using Shortcuts::Action::toggleOverlay;
    return {
        {Action::toggleListening,
         withKeys(state.listening ? "Stop Listening" : "Start Listening", toggleListening)},
        {Action::answerNow, withKeys("Answer Now", answerNow)},
        {Action::toggleOverlay,
         withKeys(state.overlayVisible ? "Hide Overlay" : "Show Overlay", toggleOverlay)},
        {Action::separator, {}},
        {Action::showSettings, QStringLiteral("Settings…")},
        {Action::checkUpdates, QStringLiteral("Check for Updates…")},
        state.signedIn ? Item{Action::signOut, QStringLiteral("Sign Out")}
                       : Item{Action::showOnboarding, QStringLiteral("Sign In…")},
        {Action::separator, {}},
        {Action::quit, QStringLiteral("Quit Tallowind")},
    };
}

StartWindow startWindow(bool onboarded, bool signedIn) {
    return onboarded && signedIn ? StartWindow::overlay : StartWindow::onboarding;
}

bool windowStaysOpen(Window closing, bool onboardingVisible, bool settingsVisible) {
    return closing == Window::onboarding ? settingsVisible : onboardingVisible;
}

std::optional<QByteArray> forcedPlatform(const QByteArray& sessionType, const QByteArray& display,
                                         const QByteArray& chosenPlatform) {
    if (sessionType == "wayland" && !display.isEmpty() && chosenPlatform.isEmpty()) {
        return QByteArrayLiteral("xcb");
    }
    return std::nullopt;
}

}  // namespace ShellRules
