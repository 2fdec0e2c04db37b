#pragma once

#include <QString>
#include <QStringList>

#include <array>

// The five global shortcuts, in the order they are registered (their registration ids are 1 to 5). The
// same names appear in menus, tooltips, placeholders and the onboarding's list, and the desktop's
// shortcut portal is offered the same ids, descriptions and keys.
namespace Shortcuts {

enum class Action { toggleListening, answerNow, toggleOverlay, clearAnswer, toggleClickThrough };

struct Shortcut {
    Action action;
    // As the user reads it: "Ctrl+Alt+S".
    QString keys;
    // The onboarding's description, also offered to the shortcut portal.
    QString description;
    // The id and preferred trigger offered to the GlobalShortcuts portal.
    QString portalId;
    QString portalTrigger;
    // X11 keysym names of the key (without the modifiers); the first is the main key.
    QStringList keysyms;
};

const std::array<Shortcut, 5>& all();
const Shortcut& of(Action action);
// The shown key name of `action`, for titles and tooltips.
inline QString keys(Action action) {
    return of(action).keys;
}

}  // namespace Shortcuts
