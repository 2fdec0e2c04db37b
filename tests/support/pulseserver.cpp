#include "pulseserver.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

static bool succeeds(const QString& program, const QStringList& arguments, int timeoutMs) {
    QProcess process;
    process.start(program, arguments);
    return process.waitForFinished(timeoutMs) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

PulseServer::PulseServer(bool devices) {
    QFile config(dir_.filePath(QStringLiteral("pulse.pa")));
    const QByteArray modules =
        devices ? "load-module module-null-sink sink_name=speakers\n"
                  "load-module module-null-sink sink_name=micfeed\n"
                  "load-module module-remap-source source_name=microphone master=micfeed.monitor\n"
                  "set-default-sink speakers\nset-default-source microphone\n"
                : "";
    if (!config.open(QIODevice::WriteOnly) ||
        config.write("load-module module-native-protocol-unix auth-anonymous=1 socket=" +
                     dir_.filePath("socket").toUtf8() + "\n" + modules) < 0) {
        return;
    }
    config.close();
    // Its own home and runtime folder, so that it shares no cookie, lock or socket with another server;
    // off the session bus, where a second server finds its bus names taken by the first and quits.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), dir_.path());
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir_.path());
    for (const char* name : {"PULSE_SERVER", "DBUS_SESSION_BUS_ADDRESS", "DISPLAY"}) {
        environment.remove(QString::fromLatin1(name));
    }
    process_.setProcessEnvironment(environment);
    process_.setProcessChannelMode(QProcess::ForwardedChannels);
    process_.start(QStringLiteral("pulseaudio"),
                   {"-n", "-F", config.fileName(), "--daemonize=no", "--use-pid-file=no",
                    "--exit-idle-time=-1", "--log-level=error", "--log-target=stderr"});
    const QDeadlineTimer deadline(10'000);
    while (process_.waitForStarted() && !deadline.hasExpired() && process_.state() == QProcess::Running &&
           !(running_ = pactl({QStringLiteral("info")}))) {
        QThread::msleep(50);
    }
}

bool PulseServer::pactl(const QStringList& arguments) const {
    return succeeds(QStringLiteral("pactl"), QStringList{QStringLiteral("-s"), address()} + arguments, 5000);
}

void PulseServer::kill() {
    process_.kill();
    process_.waitForFinished();
}

bool play(const QString& command, const QString& sink) {
    return succeeds(QStringLiteral("sh"),
                    {QStringLiteral("-c"), command + QStringLiteral(" | paplay -d ") + sink}, 30'000);
}
