#include "updatedialogs_qt.h"

#include <QMessageBox>
#include <QPushButton>

std::unique_ptr<QMessageBox> MessageBoxUpdateDialogs::makeBox(const UpdateDialog& dialog) {
    auto box = std::make_unique<QMessageBox>();
    box->setWindowTitle(QStringLiteral("Tallowind"));
    box->setIcon(QMessageBox::Information);
    box->setText(dialog.message);
    box->setInformativeText(dialog.informativeText);
    box->setWindowFlag(Qt::WindowStaysOnTopHint);
    if (dialog.buttons.isEmpty()) {
        QPushButton* ok = box->addButton(QMessageBox::Ok);
        box->setDefaultButton(ok);
        box->setEscapeButton(ok);
        return box;
    }
    QList<QPushButton*> buttons;
    for (const QString& title : dialog.buttons) {
        // The first button accepts; any other declines.
        buttons.append(
            box->addButton(title, buttons.isEmpty() ? QMessageBox::AcceptRole : QMessageBox::RejectRole));
    }
    box->setDefaultButton(buttons.constFirst());
    box->setEscapeButton(buttons.constLast());
    return box;
}

int MessageBoxUpdateDialogs::run(const UpdateDialog& dialog) {
    const auto box = makeBox(dialog);
    box->show();
    box->raise();
    box->activateWindow();
    box->exec();
    if (dialog.buttons.isEmpty()) {
        return 0;
    }
    const QAbstractButton* clicked = box->clickedButton();
    return clicked ? int(dialog.buttons.indexOf(clicked->text())) : -1;
}
