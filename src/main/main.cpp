#include "cli.h"

#include <QApplication>

int main(int argc, char* argv[]) {
    if (auto exitCode = CLI::runIfRequested(argc, argv)) {
        return *exitCode;
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tallowind"));
    QApplication::setDesktopFileName(QStringLiteral("app.tallowind.Tallowind"));
    // The program lives in the tray: closing its last window does not end it.
    QApplication::setQuitOnLastWindowClosed(false);
    return QApplication::exec();
}
