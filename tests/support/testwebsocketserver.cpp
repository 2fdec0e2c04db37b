#include "testwebsocketserver.h"

#include <QHostAddress>
#include <QWebSocket>
#include <QWebSocketServer>

QStringList TestWebSocketServer::Connection::texts() const {
    QStringList result;
    for (const Frame& frame : frames) {
        if (!frame.binary) {
            result.append(QString::fromUtf8(frame.payload));
        }
    }
    return result;
}

QList<QByteArray> TestWebSocketServer::Connection::binaries() const {
    QList<QByteArray> result;
    for (const Frame& frame : frames) {
        if (frame.binary) {
            result.append(frame.payload);
        }
    }
    return result;
}

TestWebSocketServer::TestWebSocketServer(QObject* parent)
    : QObject(parent)
    , server_(new QWebSocketServer(QStringLiteral("test"), QWebSocketServer::NonSecureMode, this)) {
    connect(server_, &QWebSocketServer::newConnection, this, &TestWebSocketServer::accept);
}

TestWebSocketServer::~TestWebSocketServer() = default;

bool TestWebSocketServer::listen(quint16 port) {
    if (!server_->listen(QHostAddress::LocalHost, port)) {
        return false;
    }
    port_ = server_->serverPort();
    return true;
}

void TestWebSocketServer::close() {
    server_->close();
}

QUrl TestWebSocketServer::url() const {
    return QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port_));
}

int TestWebSocketServer::openConnections() const {
    return static_cast<int>(std::count_if(connections_.cbegin(), connections_.cend(),
                                          [](const Connection& connection) { return connection.open; }));
}

void TestWebSocketServer::sendText(int connection, const QString& message) {
    if (QWebSocket* socket = sockets_.value(connection)) {
        socket->sendTextMessage(message);
    }
}

void TestWebSocketServer::sendBinary(int connection, const QByteArray& message) {
    if (QWebSocket* socket = sockets_.value(connection)) {
        socket->sendBinaryMessage(message);
    }
}

void TestWebSocketServer::drop(int connection) {
    if (QWebSocket* socket = sockets_.value(connection)) {
        dropped_.insert(connection);
        socket->abort();
    }
}

void TestWebSocketServer::accept() {
    while (QWebSocket* socket = server_->nextPendingConnection()) {
        socket->setParent(this);
        const int index = static_cast<int>(connections_.size());
        Connection connection;
        const QUrl url = socket->requestUrl();
        connection.target = url.path(QUrl::FullyEncoded).toUtf8();
        if (url.hasQuery()) {
            connection.target += '?' + url.query(QUrl::FullyEncoded).toUtf8();
        }
        const QNetworkRequest request = socket->request();
        for (const QByteArray& name : request.rawHeaderList()) {
            connection.headers.insert(name.toLower(), request.rawHeader(name));
        }
        connections_.append(connection);
        sockets_.append(socket);

        connect(socket, &QWebSocket::textMessageReceived, this, [this, index](const QString& message) {
            connections_[index].frames.append({false, message.toUtf8()});
            emit frameReceived(index);
        });
        connect(socket, &QWebSocket::binaryMessageReceived, this, [this, index](const QByteArray& message) {
            connections_[index].frames.append({true, message});
            emit frameReceived(index);
        });
        // closeCode() alone cannot tell a close frame from a cut connection (it reads 1000 after both).
        // aboutToClose comes when the client's close frame arrives and when this server cuts the
        // connection itself, never when the client cuts it.
        connect(socket, &QWebSocket::aboutToClose, this, [this, index, socket] {
            if (!dropped_.contains(index) && !connections_[index].closeCode) {
                connections_[index].closeCode = socket->closeCode();
            }
        });
        connect(socket, &QWebSocket::disconnected, this, [this, index, socket] {
            connections_[index].open = false;
            socket->deleteLater();
            emit connectionClosed(index);
        });

        for (const QString& message : std::as_const(greeting_)) {
            socket->sendTextMessage(message);
        }
        emit connectionOpened(index);
    }
}
