#include "postgrescluster.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

namespace {

const QString unprivileged = QStringLiteral("nobody");

// Debian keeps the server's tools out of PATH, one folder per major version; the newest wins.
QString serverBinaries() {
    const QStringList versions =
        QDir("/usr/lib/postgresql").entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
    return versions.isEmpty() ? QString() : QStringLiteral("/usr/lib/postgresql/%1/bin").arg(versions.last());
}

}  // namespace

PostgresCluster::PostgresCluster() : binaries_(serverBinaries()) {
    if (binaries_.isEmpty()) {
        failure_ = "PostgreSQL's server tools (initdb, pg_ctl) are not installed";
        return;
    }
    if (geteuid() == 0) {
        const passwd* owner = getpwnam(unprivileged.toLocal8Bit().constData());
        if (!owner || chown(dir_.path().toLocal8Bit().constData(), owner->pw_uid, owner->pw_gid) != 0) {
            failure_ = "can't hand the cluster's folder to " + unprivileged;
            return;
        }
    }
    if (run("initdb", {"--pgdata=" + dir_.filePath("data"), "--username=tallowind", "--auth=trust",
                       "--encoding=UTF8", "--locale=C", "--no-sync"})) {
        start();
    }
}

PostgresCluster::~PostgresCluster() {
    if (up_) {
        pgctl({"stop", "--mode=immediate"});
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
    up_ =
        pgctl({"start", "--log=" + dir_.filePath("server.log"),
               QStringLiteral("--options=-k %1 -c listen_addresses='' -c fsync=off -c synchronous_commit=off "
                              "-c full_page_writes=off -c max_connections=300")
                   .arg(dir_.path())});
    return up_;
}

bool PostgresCluster::stop() {
    up_ = !pgctl({"stop", "--mode=fast"});
    return !up_;
}

std::string PostgresCluster::newDatabase() {
    const QString name = QStringLiteral("test%1").arg(++databases_);
    if (!run("createdb", {"--host=" + dir_.path(), "--username=tallowind", name})) {
        return {};
    }
    return QStringLiteral("postgresql:///%1?host=%2&user=tallowind").arg(name, dir_.path()).toStdString();
}

bool PostgresCluster::pgctl(const QStringList& arguments) {
    return run("pg_ctl", arguments + QStringList{"--wait", "--pgdata=" + dir_.filePath("data")});
}

bool PostgresCluster::run(const QString& tool, const QStringList& arguments) {
    QProcess process;
    // Somewhere the unprivileged user may stand.
    process.setWorkingDirectory(dir_.path());
    const QString program = binaries_ + QLatin1Char('/') + tool;
    if (geteuid() == 0) {
        // A root shell's PATH usually holds /usr/sbin, a CI runner's may not.
        process.start(QStandardPaths::findExecutable("runuser", {"/usr/sbin", "/sbin"}),
                      QStringList{"-u", unprivileged, "--", program} + arguments);
    } else {
        process.start(program, arguments);
    }
    if (!process.waitForFinished(60'000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        failure_ = tool + " failed: " + QString::fromLocal8Bit(process.readAllStandardError()) +
                   process.errorString();
        return false;
    }
    return true;
}
