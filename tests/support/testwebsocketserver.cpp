#include "testwebsocketserver.h"

QList<QByteArray> TestWebSocketServer::Connection::payloads(bool binary) const {
    QList<QByteArray> found;
    for (const Frame& frame : frames) {
        if (frame.binary == binary) {
            found.append(frame.payload);
        }
    }
    return found;
}

QStringList TestWebSocketServer::Connection::texts() const {
    QStringList texts;
    for (const QByteArray& payload : payloads(false)) {
        texts.append(QString::fromUtf8(payload));
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
            connect(socket, &QWebSocket::disconnected, this,
                    [this, index] { connections_[index].open = false; });
            for (const QString& message : std::as_const(greeting_)) {
                socket->sendTextMessage(message);
            }
            emit connectionOpened(index);
        }
    });
}

// Before server_, which takes the sockets' connections with it.
TestWebSocketServer::~TestWebSocketServer() {
    for (QWebSocket* socket : std::as_const(sockets_)) {
        socket->disconnect(this);
        delete socket;
    }
}

bool TestWebSocketServer::listen(quint16 port) {
    const bool listening = server_.listen(QHostAddress::LocalHost, port);
    port_ = server_.serverPort();
    return listening;
}
