#include "pulseserver.h"

#include <QDeadlineTimer>
#include <QFile>
#include <QThread>

PulseServer::PulseServer(bool devices) {
    QFile config(dir_.filePath(QStringLiteral("pulse.pa")));
    if (!config.open(QIODevice::WriteOnly))
        return;
    config.write("load-module module-native-protocol-unix auth-anonymous=1 socket=" +
                 dir_.filePath("socket").toUtf8() + "\n");
    if (devices) {
        config.write(
            "load-module module-null-sink sink_name=speakers\n"
            "load-module module-null-sink sink_name=micfeed\n"
            "load-module module-remap-source source_name=microphone master=micfeed.monitor\n"
            "set-default-sink speakers\n"
            "set-default-source microphone\n");
    }
    config.close();

    // Its own home and runtime folder, so that it shares no cookie, lock or socket with another server.
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), dir_.path());
    environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), dir_.path());
    environment.remove(QStringLiteral("PULSE_SERVER"));
    // Off the session bus: a second server there finds its bus names taken by the first and quits.
    environment.remove(QStringLiteral("DBUS_SESSION_BUS_ADDRESS"));
    environment.remove(QStringLiteral("DISPLAY"));
    process_.setProcessEnvironment(environment);
    process_.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process_.setStandardOutputFile(QProcess::nullDevice());
    process_.start(
        QStringLiteral("pulseaudio"),
        {QStringLiteral("-n"), QStringLiteral("-F"), config.fileName(), QStringLiteral("--daemonize=no"),
         QStringLiteral("--use-pid-file=no"), QStringLiteral("--exit-idle-time=-1"),
         QStringLiteral("--log-level=error"), QStringLiteral("--log-target=stderr")});
    if (!process_.waitForStarted())
        return;
    const QDeadlineTimer deadline(10'000);
    while (!deadline.hasExpired() && process_.state() == QProcess::Running) {
        if (pactl({QStringLiteral("info")})) {
            running_ = true;
            return;
        }
        QThread::msleep(50);
    }
}

PulseServer::~PulseServer() {
    kill();
}

QString PulseServer::address() const {
    return QStringLiteral("unix:") + dir_.filePath(QStringLiteral("socket"));
}

bool PulseServer::pactl(const QStringList& arguments) const {
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(QStringLiteral("pactl"), QStringList{QStringLiteral("-s"), address()} + arguments);
    return process.waitForFinished(5000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}

void PulseServer::kill() {
    if (process_.state() == QProcess::NotRunning)
        return;
    process_.kill();
    process_.waitForFinished();
}

bool play(const QString& command, const QString& sink) {
    QProcess process;
    process.setProcessChannelMode(QProcess::ForwardedChannels);
    process.start(QStringLiteral("sh"),
                  {QStringLiteral("-c"), command + QStringLiteral(" | paplay -d ") + sink});
    return process.waitForFinished(30'000) && process.exitStatus() == QProcess::NormalExit &&
           process.exitCode() == 0;
}
