#include "shortcuts.h"

namespace Shortcuts {

const std::array<Shortcut, 5>& all() {
    static const std::array<Shortcut, 5> shortcuts{{
        {Action::toggleListening,
         QStringLiteral("Ctrl+Alt+S"),
         QStringLiteral("Start or stop listening"),
         QStringLiteral("toggle-listening"),
         QStringLiteral("CTRL+ALT+s"),
         {QStringLiteral("s")}},
        {Action::answerNow,
         QStringLiteral("Ctrl+Alt+Enter"),
         QStringLiteral("Answer now (don't wait for the question to end)"),
         QStringLiteral("answer-now"),
         QStringLiteral("CTRL+ALT+Return"),
         {QStringLiteral("Return"), QStringLiteral("KP_Enter")}},
        {Action::toggleOverlay,
         QStringLiteral("Ctrl+Alt+Space"),
         QStringLiteral("Show or hide Tallowind"),
         QStringLiteral("toggle-overlay"),
         QStringLiteral("CTRL+ALT+space"),
         {QStringLiteral("space")}},
        {Action::clearAnswer,
         QStringLiteral("Ctrl+Alt+K"),
         QStringLiteral("Clear the answer"),
         QStringLiteral("clear-answer"),
         QStringLiteral("CTRL+ALT+k"),
         {QStringLiteral("k")}},
        {Action::toggleClickThrough,
         QStringLiteral("Ctrl+Alt+X"),
         QStringLiteral("Click-through, so Tallowind never blocks your clicks"),
         QStringLiteral("toggle-click-through"),
         QStringLiteral("CTRL+ALT+x"),
         {QStringLiteral("x")}},
    }};
    return shortcuts;
}

const Shortcut& of(Action action) {
    return all()[static_cast<std::size_t>(action)];
}

}  // namespace Shortcuts
