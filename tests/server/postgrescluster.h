#pragma once

#include <QStringList>
#include <QTemporaryDir>

#include <string>

// A PostgreSQL server of the test's own in a temporary folder, reachable only through a Unix socket
// there, without passwords. PostgreSQL refuses to run as root, so under root it belongs to "nobody".
class PostgresCluster {
public:
    PostgresCluster();
    ~PostgresCluster() { stop(); }
    static PostgresCluster& shared();  // one for the whole test process, started on first use

    QString failure() const { return failure_; }
    std::string newDatabase();  // its address for --database; empty when that failed
    bool stop();                // as an administrator would: open connections are ended
    bool start();

private:
    bool run(QStringList command);  // a tool of the server's, run as its owner

    QTemporaryDir dir_;
    QString binaries_;
    QString failure_;
    int databases_ = 0;
};
