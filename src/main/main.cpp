#include "appdelegate.h"
#include "appsettings.h"
#include "backendclient.h"
#include "cli.h"
#include "sessioncontroller.h"
#include "shellrules.h"
#include "singleinstance.h"
#include "terminationsignals.h"

#include <QApplication>

int main(int argc, char* argv[]) {
    if (auto exitCode = CLI::runIfRequested(argc, argv)) {
        return *exitCode;
    }
    if (const auto platform = ShellRules::forcedPlatform(qgetenv("XDG_SESSION_TYPE"), qgetenv("DISPLAY"),
                                                         qgetenv("QT_QPA_PLATFORM"))) {
        qputenv("QT_QPA_PLATFORM", *platform);
    }
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Tallowind"));
    QApplication::setDesktopFileName(QStringLiteral("app.tallowind.Tallowind"));
    // The program lives in the tray: closing its last window does not end it.
    QApplication::setQuitOnLastWindowClosed(false);

    SingleInstance instance(SingleInstance::defaultFolder(), QStringLiteral("app.tallowind.Tallowind"));
    if (!instance.claim()) {
        return 0;
    }

    AppDelegate delegate(SessionController::shared(), AppSettings::shared(), BackendClient::shared());
    QObject::connect(&instance, &SingleInstance::activationRequested, &delegate, &AppDelegate::bringForward);
    TerminationSignals terminationSignals;
    QObject::connect(&terminationSignals, &TerminationSignals::received, &app, &QApplication::quit);
    QObject::connect(&app, &QApplication::aboutToQuit, &delegate, &AppDelegate::terminate);
    delegate.launch();
    return QApplication::exec();
}
