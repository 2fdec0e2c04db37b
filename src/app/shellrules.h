#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

#include <optional>

// What the tray menu, the start of the program and the closing of a window lead to, decided from the state
// alone so that every combination can be checked without a tray or a window.
namespace ShellRules {

enum class Action {
    separator,
    toggleListening,
    answerNow,
    toggleOverlay,
    showSettings,
    checkUpdates,
    signOut,
    showOnboarding,
    quit
};

struct State {
    bool listening = false;
    bool overlayVisible = false;
    bool signedIn = false;
};

struct Item {
    Action action;
    QString title;  // empty for a separator

    bool operator==(const Item&) const = default;
};

// The menu's items in order, titles as shown.
QList<Item> menuItems(const State& state);

enum class StartWindow { overlay, onboarding };

// The overlay for a user who finished onboarding and is signed in; onboarding for everyone else.
StartWindow startWindow(bool onboarded, bool signedIn);

enum class Window { onboarding, settings };

// Whether the program still shows a window of its own in the taskbar once `closing` has closed: only
// while the other of the two windows is open.
bool windowStaysOpen(Window closing, bool onboardingVisible, bool settingsVisible);

// The Qt platform to force before the application starts, or nothing. A Wayland session gives no window a
// way to stay on top or place itself, so the program runs through XWayland when it can, unless the user
// chose a platform.
std::optional<QByteArray> forcedPlatform(const QByteArray& sessionType, const QByteArray& display,
                                         const QByteArray& chosenPlatform);

}  // namespace ShellRules
