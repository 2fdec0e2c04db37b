#include "testhttpserver.h"

#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

// Owned by its socket, so that the record and the socket end together whichever of them Qt deletes
// first: the server's own teardown, or the deferred delete after a hang-up.
struct TestHttpServer::Connection : QObject {
    explicit Connection(QTcpSocket* socket) : QObject(socket), socket(socket) {}

    QTcpSocket* socket = nullptr;
    QByteArray buffer;
    Response response;
    int nextPiece = 0;
    bool responding = false;
    bool waited = false;  // the current piece's delay has passed
};

TestHttpServer::Response TestHttpServer::Response::json(int status, const QByteArray& body) {
    return {status, {{"content-type", "application/json"}}, {{body, 0}}, false, false};
}

TestHttpServer::Response TestHttpServer::Response::text(int status, const QByteArray& body) {
    return {status, {{"content-type", "text/plain"}}, {{body, 0}}, false, false};
}

TestHttpServer::Response TestHttpServer::Response::stream(QList<Piece> pieces, int status) {
    return {status, {{"content-type", "text/event-stream"}}, std::move(pieces), true, false};
}

TestHttpServer::TestHttpServer(QObject* parent) : QObject(parent), server_(new QTcpServer(this)) {
    connect(server_, &QTcpServer::newConnection, this, &TestHttpServer::accept);
    handler_ = [](const Received&) { return Response::text(404, "not found"); };
}

TestHttpServer::~TestHttpServer() {
    // A socket still open says it disconnected from inside its destructor; no slot may hear that from a
    // server that is half gone.
    for (QTcpSocket* socket : findChildren<QTcpSocket*>(Qt::FindDirectChildrenOnly)) {
        socket->disconnect();
    }
}

bool TestHttpServer::listen() {
    return server_->listen(QHostAddress::LocalHost, 0);
}

quint16 TestHttpServer::port() const {
    return server_->serverPort();
}

QUrl TestHttpServer::url() const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port()));
}

void TestHttpServer::setHandler(Handler handler) {
    handler_ = std::move(handler);
}

void TestHttpServer::respondWith(const Response& response) {
    handler_ = [response](const Received&) { return response; };
}

void TestHttpServer::accept() {
    while (QTcpSocket* socket = server_->nextPendingConnection()) {
        socket->setParent(this);
        auto* connection = new Connection(socket);
        // Slots run in the record's context: once it is gone, nothing more reaches it.
        connect(socket, &QTcpSocket::readyRead, connection, [this, connection] { readFrom(connection); });
        connect(socket, &QTcpSocket::disconnected, connection, [this, connection] {
            if (connection->responding) {
                connection->responding = false;
                ++abandoned_;
                emit responseAbandoned();
            }
            connection->socket->deleteLater();
        });
    }
}

void TestHttpServer::readFrom(Connection* connection) {
    connection->buffer += connection->socket->readAll();
    while (!connection->responding) {
        const qsizetype headerEnd = connection->buffer.indexOf("\r\n\r\n");
        if (headerEnd < 0) {
            return;
        }
        const QList<QByteArray> lines = connection->buffer.left(headerEnd).split('\n');
        Received request;
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const qsizetype colon = lines[i].indexOf(':');
            if (colon > 0) {
                request.headers.insert(lines[i].left(colon).trimmed().toLower(),
                                       lines[i].mid(colon + 1).trimmed());
            }
        }
        const qsizetype length = request.headers.value("content-length", "0").toLongLong();
        if (connection->buffer.size() < headerEnd + 4 + length) {
            return;
        }
        request.body = connection->buffer.mid(headerEnd + 4, length);
        connection->buffer.remove(0, headerEnd + 4 + length);
        received_.append(request);
        emit requestReceived();

        connection->response = handler_(request);
        connection->nextPiece = 0;
        connection->responding = true;
        const Response& response = connection->response;
        QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + " Scripted\r\n";
        for (const auto& [name, value] : response.headers) {
            head += name + ": " + value + "\r\n";
        }
        if (response.streamed) {
            head += "transfer-encoding: chunked\r\n";
        } else {
            qsizetype total = 0;
            for (const auto& piece : response.pieces) {
                total += piece.bytes.size();
            }
            head += "content-length: " + QByteArray::number(total) + "\r\n";
        }
        connection->socket->write(head + "\r\n");
        sendNextPiece(connection);
    }
}

void TestHttpServer::sendNextPiece(Connection* connection) {
    const Response& response = connection->response;
    while (connection->nextPiece < response.pieces.size()) {
        const Piece& piece = response.pieces[connection->nextPiece];
        if (piece.delayMs > 0 && !connection->waited) {
            connection->waited = true;
            QTimer::singleShot(piece.delayMs, connection, [this, connection] {
                if (connection->responding) {
                    sendNextPiece(connection);
                }
            });
            return;
        }
        connection->waited = false;
        ++connection->nextPiece;
        if (response.streamed) {
            if (!piece.bytes.isEmpty()) {
                connection->socket->write(QByteArray::number(piece.bytes.size(), 16) + "\r\n" + piece.bytes +
                                          "\r\n");
            }
        } else {
            connection->socket->write(piece.bytes);
        }
        connection->socket->flush();
    }
    if (response.drop) {
        connection->responding = false;
        connection->socket->disconnectFromHost();
        emit responseCompleted();
        return;
    }
    if (response.streamed) {
        connection->socket->write("0\r\n\r\n");
    }
    connection->socket->flush();
    connection->responding = false;
    emit responseCompleted();
    if (!connection->buffer.isEmpty()) {
        readFrom(connection);
    }
}
