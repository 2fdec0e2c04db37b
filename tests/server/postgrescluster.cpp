#include "postgrescluster.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

PostgresCluster::PostgresCluster() {
    // Debian keeps the server's tools out of PATH, one folder per major version; the newest wins.
    const QStringList versions = QDir("/usr/lib/postgresql").entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    const passwd* nobody = getpwnam("nobody");
    if (versions.isEmpty()) {
        failure_ = "PostgreSQL's server tools (initdb, pg_ctl) are not installed";
    } else if (geteuid() == 0 &&
               (!nobody || chown(qPrintable(dir_.path()), nobody->pw_uid, nobody->pw_gid))) {
        failure_ = "can't hand the cluster's folder to nobody";
    } else {
        binaries_ = "/usr/lib/postgresql/" + versions.last() + "/bin/";
        run({"initdb", "--username=tallowind", "--auth=trust", "--locale=C", "--no-sync"}) && start();
    }
}

PostgresCluster& PostgresCluster::shared() {
    // Stopped while the application object still exists, which QProcess needs.
    static PostgresCluster* cluster = [] {
        qAddPostRoutine([] { delete cluster; });
        return new PostgresCluster;
    }();
    return *cluster;
}

bool PostgresCluster::start() {
    // Durability is of no use to throwaway data, and no TCP port means no clash with anything else.
    return run(
        {"pg_ctl", "start", "--log=" + dir_.filePath("server.log"),
         "--options=-k " + dir_.path() + " -c listen_addresses='' -c fsync=off -c full_page_writes=off"});
}

bool PostgresCluster::stop() {
    return run({"pg_ctl", "stop", "--mode=fast"});
}

std::string PostgresCluster::newDatabase() {
    const QString name = QStringLiteral("test%1").arg(++databases_);
    return run({"createdb", name})
               ? "postgresql:///" + name.toStdString() + "?user=tallowind&host=" + dir_.path().toStdString()
               : std::string();
}

bool PostgresCluster::run(QStringList command) {
    command.first().prepend(binaries_);
    if (geteuid() == 0) {
        // A root shell's PATH usually holds /usr/sbin, a CI runner's may not.
        const QString runuser = QStandardPaths::findExecutable("runuser", {"/usr/sbin", "/sbin"});
        command = QStringList{runuser, "-u", "nobody", "--"} + command;
    }
    QProcess process;
    process.setEnvironment(QProcess::systemEnvironment() << "PGDATA=" + dir_.filePath("data")
                                                         << "PGHOST=" + dir_.path() << "PGUSER=tallowind");
    process.setWorkingDirectory(dir_.path());  // somewhere the unprivileged user may stand
    process.start(command.takeFirst(), command);
    const bool done = process.waitForFinished(60'000) && process.exitStatus() == QProcess::NormalExit &&
                      process.exitCode() == 0;
    if (!done) {
        failure_ = command.join(' ') + " failed: " + process.readAllStandardError() + process.errorString();
    }
    return done;
}
