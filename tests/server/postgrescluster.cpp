#include "postgrescluster.h"

#include <QCollator>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <pwd.h>
#include <unistd.h>

#include <algorithm>

namespace {

const QString user = QStringLiteral("tallowind");
const QString unprivileged = QStringLiteral("nobody");

// Debian keeps the server's tools out of PATH, one folder per major version; the newest wins.
QString serverBinaries() {
    QDir versions(QStringLiteral("/usr/lib/postgresql"));
    QStringList found = versions.entryList(QDir::Dirs | QDir::NoDotAndDotDot);
    QCollator numeric;
    numeric.setNumericMode(true);
    std::sort(found.begin(), found.end(), numeric);
    for (auto it = found.crbegin(); it != found.crend(); ++it) {
        const QString bin = versions.filePath(*it + QStringLiteral("/bin"));
        if (QFile::exists(bin + QStringLiteral("/pg_ctl"))) {
            return bin;
        }
    }
    const QString initdb = QStandardPaths::findExecutable(QStringLiteral("initdb"));
    return initdb.isEmpty() ? QString() : QFileInfo(initdb).path();
}

}  // namespace

PostgresCluster::PostgresCluster() : binaries_(serverBinaries()) {
    if (binaries_.isEmpty()) {
        failure_ = QStringLiteral("PostgreSQL's server tools (initdb, pg_ctl) are not installed");
        return;
    }
    if (!dir_.isValid()) {
        failure_ = QStringLiteral("no temporary folder: ") + dir_.errorString();
        return;
    }
    if (geteuid() == 0) {
        const passwd* owner = getpwnam(unprivileged.toLocal8Bit().constData());
        if (!owner || chown(dir_.path().toLocal8Bit().constData(), owner->pw_uid, owner->pw_gid) != 0) {
            failure_ = QStringLiteral("can't hand the cluster's folder to ") + unprivileged;
            return;
        }
    }
    if (!run(QStringLiteral("initdb"), {QStringLiteral("--pgdata=") + dir_.filePath(QStringLiteral("data")),
                                        QStringLiteral("--username=") + user, QStringLiteral("--auth=trust"),
                                        QStringLiteral("--encoding=UTF8"), QStringLiteral("--locale=C"),
                                        QStringLiteral("--no-sync")})) {
        return;
    }
    up_ = start();
}

PostgresCluster::~PostgresCluster() {
    if (up_) {
        run(QStringLiteral("pg_ctl"),
            {QStringLiteral("stop"), QStringLiteral("--pgdata=") + dir_.filePath(QStringLiteral("data")),
             QStringLiteral("--mode=immediate"), QStringLiteral("--wait")});
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
    // Durability is of no use to a test's throwaway data, and no TCP port means no clash with anything
    // else on the machine.
    const QString options = QStringLiteral(
                                "-k %1 -c listen_addresses='' -c fsync=off -c synchronous_commit=off "
                                "-c full_page_writes=off -c max_connections=300")
                                .arg(dir_.path());
    up_ = run(QStringLiteral("pg_ctl"),
              {QStringLiteral("start"), QStringLiteral("--pgdata=") + dir_.filePath(QStringLiteral("data")),
               QStringLiteral("--log=") + dir_.filePath(QStringLiteral("server.log")),
               QStringLiteral("--wait"), QStringLiteral("--options=") + options});
    return up_;
}

bool PostgresCluster::stop() {
    up_ = !run(QStringLiteral("pg_ctl"),
               {QStringLiteral("stop"), QStringLiteral("--pgdata=") + dir_.filePath(QStringLiteral("data")),
                QStringLiteral("--mode=fast"), QStringLiteral("--wait")});
    return !up_;
}

std::string PostgresCluster::newDatabase() {
    const QString name = QStringLiteral("test%1").arg(++databases_);
    if (!run(QStringLiteral("createdb"),
             {QStringLiteral("--host=") + dir_.path(), QStringLiteral("--username=") + user, name})) {
        return {};
    }
    return url(name);
}

std::string PostgresCluster::url(const QString& database) const {
    return QStringLiteral("postgresql:///%1?host=%2&user=%3").arg(database, dir_.path(), user).toStdString();
}

bool PostgresCluster::run(const QString& tool, const QStringList& arguments) {
    QProcess process;
    // Somewhere the unprivileged user may stand.
    process.setWorkingDirectory(dir_.path());
    const QString program = binaries_ + QLatin1Char('/') + tool;
    if (geteuid() == 0) {
        // A root shell's PATH usually holds /usr/sbin, a CI runner's may not.
        const QString runuser = QStandardPaths::findExecutable(
            QStringLiteral("runuser"), {QStringLiteral("/usr/sbin"), QStringLiteral("/sbin")});
        process.start(
            runuser.isEmpty() ? QStringLiteral("runuser") : runuser,
            QStringList{QStringLiteral("-u"), unprivileged, QStringLiteral("--"), program} + arguments);
    } else {
        process.start(program, arguments);
    }
    if (!process.waitForFinished(60'000) || process.exitStatus() != QProcess::NormalExit ||
        process.exitCode() != 0) {
        failure_ = tool + QStringLiteral(" failed: ") +
                   QString::fromLocal8Bit(process.readAllStandardError()) + process.errorString();
        return false;
    }
    return true;
}
