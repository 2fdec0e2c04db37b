#pragma once

#include <QString>
#include <QStringList>
#include <QTemporaryDir>

#include <string>

// A PostgreSQL server of the test's own: a new cluster in a temporary folder,
// reachable only through a Unix socket there, with password-less access.
// PostgreSQL refuses to run as root, so when the tests do, the cluster belongs
// to the unprivileged user "nobody".
class PostgresCluster {
public:
    PostgresCluster();
    ~PostgresCluster();
    PostgresCluster(const PostgresCluster&) = delete;
    PostgresCluster& operator=(const PostgresCluster&) = delete;

    // One cluster for the whole test process, started on first use.
    static PostgresCluster& shared();

    bool isUp() const { return up_; }
    QString failure() const { return failure_; }
    // The address of a new empty database for `--database`; empty when that
    // failed.
    std::string newDatabase();
    bool stop();  // as an administrator would: open connections are ended
    bool start();

private:
    bool pgctl(const QStringList& arguments);
    bool run(const QString& tool, const QStringList& arguments);

    QTemporaryDir dir_;
    QString binaries_;
    QString failure_;
    bool up_ = false;
    int databases_ = 0;
};
