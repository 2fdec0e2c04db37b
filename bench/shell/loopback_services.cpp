#include "loopbackservices.h"

#include <QCoreApplication>
#include <QTextStream>

#include <csignal>

// Serves the desktop program's backend and speech service on loopback for a measuring run; prints the
// environment that points the program at them, then runs until it is stopped.
int main(int argc, char* argv[]) {
    QCoreApplication app(argc, argv);
    LoopbackServices services;
    const QProcessEnvironment environment = services.environment(QProcessEnvironment());
    QTextStream out(stdout);
    for (const QString& name : environment.keys()) {
        out << name << '=' << environment.value(name) << '\n';
    }
    out.flush();
    std::signal(SIGTERM, [](int) { QCoreApplication::quit(); });
    return QCoreApplication::exec();
}
