#pragma once

#include <QList>
#include <QString>

// What the tray menu and the start of the program show, decided from the state alone so that every
// combination can be checked without a tray or a window.
namespace StatusMenu {

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
QList<Item> items(const State& state);

enum class StartWindow { overlay, onboarding };

// The overlay for a user who finished onboarding and is signed in; onboarding for everyone else.
StartWindow startWindow(bool onboarded, bool signedIn);

}  // namespace StatusMenu
