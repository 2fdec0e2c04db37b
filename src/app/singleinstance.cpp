#include "singleinstance.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QLocalServer>
#include <QLocalSocket>
#include <QStandardPaths>
#include <QThread>

namespace {

const QByteArray activate = QByteArrayLiteral("activate\n");

}  // namespace

SingleInstance::SingleInstance(const QString& folder, const QString& name, QObject* parent)
    : QObject(parent), folder_(folder), name_(name) {}

SingleInstance::~SingleInstance() = default;

QString SingleInstance::defaultFolder() {
    const QString runtime = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
    return runtime.isEmpty() ? QDir::tempPath() : runtime;
}

QString SingleInstance::socketPath() const {
    return QDir(folder_).filePath(name_ + QStringLiteral(".socket"));
}

bool SingleInstance::claim(int wait) {
    QDir().mkpath(folder_);
    lock_ = std::make_unique<QLockFile>(QDir(folder_).filePath(name_ + QStringLiteral(".lock")));
    // A lock left by a program that crashed names a process that is gone; QLockFile takes it over.
    if (lock_->tryLock(0)) {
        server_ = new QLocalServer(this);
        server_->setSocketOptions(QLocalServer::UserAccessOption);
        QLocalServer::removeServer(socketPath());
        server_->listen(socketPath());
        connect(server_, &QLocalServer::newConnection, this, [this] {
            while (QLocalSocket* socket = server_->nextPendingConnection()) {
                connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
                connect(socket, &QLocalSocket::readyRead, this, [this, socket] {
                    if (socket->readAll().contains(activate.trimmed())) {
                        emit activationRequested();
                    }
                    socket->disconnectFromServer();
                });
            }
        });
        return true;
    }
    lock_.reset();

    // The running program may still be starting and not listen yet: keep knocking for a while.
    const QDeadlineTimer deadline(wait);
    while (!deadline.hasExpired()) {
        QLocalSocket socket;
        socket.connectToServer(socketPath());
        if (socket.waitForConnected(200)) {
            socket.write(activate);
            socket.waitForBytesWritten(1000);
            socket.waitForDisconnected(1000);
            return false;
        }
        QThread::msleep(50);
    }
    return false;
}
