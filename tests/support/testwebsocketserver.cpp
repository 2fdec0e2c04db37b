#include "testwebsocketserver.h"

QList<QByteArray> TestWebSocketServer::Connection::payloads(bool binary) const {
    QList<QByteArray> payloads;
    for (const Frame& frame : frames) {
        if (frame.binary == binary) {
            payloads.append(frame.payload);
        }
    }
    return payloads;
}

QStringList TestWebSocketServer::Connection::texts() const {
    QStringList texts;
    for (const QByteArray& text : payloads(false)) {
        texts.append(QString::fromUtf8(text));
    }
    return texts;
}

TestWebSocketServer::TestWebSocketServer(QObject* parent)
    : QObject(parent), server_(QStringLiteral("test"), QWebSocketServer::NonSecureMode) {
    connect(&server_, &QWebSocketServer::newConnection, this, [this] {
        while (QWebSocket* socket = server_.nextPendingConnection()) {
            socket->setParent(this);
            const int index = int(connections_.size());
            const QNetworkRequest request = socket->request();
            Connection connection;
            connection.target = request.url().toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority);
            for (const QByteArray& name : request.rawHeaderList()) {
                connection.headers.insert(name.toLower(), request.rawHeader(name));
            }
            connections_.append(connection);
            sockets_.append(socket);
            const auto receive = [this, index](bool binary, const QByteArray& payload) {
                connections_[index].frames.append({binary, payload});
                emit frameReceived(index);
            };
            connect(socket, &QWebSocket::textMessageReceived, this,
                    [receive](const QString& text) { receive(false, text.toUtf8()); });
            connect(socket, &QWebSocket::binaryMessageReceived, this,
                    [receive](const QByteArray& bytes) { receive(true, bytes); });
            // closeCode() reads 1000 after a cut connection too. aboutToClose comes with the client's close
            // frame and when this server cuts the connection, never when the client cuts it.
            connect(socket, &QWebSocket::aboutToClose, this, [this, index, socket] {
                if (connections_[index].open && !connections_[index].closeCode) {
                    connections_[index].closeCode = socket->closeCode();
                }
            });
            connect(socket, &QWebSocket::disconnected, this, [this, index, socket] {
                connections_[index].open = false;
                socket->deleteLater();
            });
            for (const QString& message : std::as_const(greeting_)) {
                socket->sendTextMessage(message);
            }
        }
    });
}

bool TestWebSocketServer::listen(quint16 port) {
    const bool listening = server_.listen(QHostAddress::LocalHost, port);
    port_ = server_.serverPort();
    return listening;
}

int TestWebSocketServer::openConnections() const {
    return int(std::count_if(connections_.cbegin(), connections_.cend(),
                             [](const Connection& c) { return c.open; }));
}

void TestWebSocketServer::sendText(int connection, const QString& message) {
    if (sockets_.value(connection)) {
        sockets_[connection]->sendTextMessage(message);
    }
}

void TestWebSocketServer::sendBinary(int connection, const QByteArray& message) {
    if (sockets_.value(connection)) {
        sockets_[connection]->sendBinaryMessage(message);
    }
}

void TestWebSocketServer::drop(int connection) {
    connections_[connection].open = false;
    sockets_.value(connection)->abort();
}
