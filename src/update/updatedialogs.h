#pragma once

#include <QString>
#include <QStringList>

// One dialog of the updater: a message line, an informative text and its buttons, the first of which
// is the default. No buttons means the toolkit's single standard "OK".
struct UpdateDialog {
    QString message;
    QString informativeText;
    QStringList buttons;

    friend bool operator==(const UpdateDialog&, const UpdateDialog&) = default;
};

// How the updater puts a dialog in front of the user. The program shows a modal message box brought to
// the front; tests answer in its place, so no test ever waits on a person.
class UpdateDialogs {
public:
    virtual ~UpdateDialogs() = default;

    // Blocks until the dialog is dismissed; answers the index of the chosen button in `dialog.buttons`
    // (0 for the standard "OK").
    virtual int run(const UpdateDialog& dialog) = 0;
};
