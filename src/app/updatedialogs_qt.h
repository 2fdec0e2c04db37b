#pragma once

#include "updatedialogs.h"

#include <memory>

class QMessageBox;

// The updater's dialogs as modal message boxes titled "Tallowind", brought in front of other windows
// (the program otherwise lives in the tray and has no window to come forward with).
class MessageBoxUpdateDialogs : public UpdateDialogs {
public:
    int run(const UpdateDialog& dialog) override;

    // The box that run() shows, with its buttons in the dialog's order, the first one the default and
    // the last one Escape's.
    static std::unique_ptr<QMessageBox> makeBox(const UpdateDialog& dialog);
};
