#include "testhttpserver.h"

#include <QTcpSocket>
#include <QTimer>

// Set while a response is under way: a hang-up then abandons it, and a next request waits for its end.
static const char* const responding = "responding";

TestHttpServer::TestHttpServer(QObject* parent) : QObject(parent) {
    connect(&server_, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = server_.nextPendingConnection()) {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
            connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
                abandoned_ += socket->property(responding).toBool();
                socket->setProperty(responding, false);
                socket->deleteLater();
            });
        }
    });
}

TestHttpServer::~TestHttpServer() {
    // Sockets still open report their hang-up while being destroyed, when nobody may hear it any more.
    for (QTcpSocket* socket : server_.findChildren<QTcpSocket*>()) {
        socket->disconnect(this);
    }
}

void TestHttpServer::serve(QTcpSocket* socket) {
    while (!socket->property(responding).toBool()) {
        const QByteArray buffer = socket->peek(socket->bytesAvailable());
        const qsizetype headerEnd = buffer.indexOf("\r\n\r\n");
        QList<QByteArray> lines = buffer.left(headerEnd).split('\n');
        const QList<QByteArray> requestLine = lines.takeFirst().trimmed().split(' ');
        Received request{requestLine.value(0), requestLine.value(1), {}, {}};
        for (const QByteArray& line : lines) {
            const qsizetype colon = line.indexOf(':');
            request.headers.insert(line.left(colon).trimmed().toLower(), line.mid(colon + 1).trimmed());
        }
        const qsizetype end = headerEnd + 4 + request.header("content-length").toLongLong();
        if (headerEnd < 0 || buffer.size() < end) {
            return;
        }
        request.body = socket->read(end).mid(headerEnd + 4);
        received_.append(request);
        emit requestReceived();
        socket->setProperty(responding, true);
        send(socket, handler_(request));
    }
}

void TestHttpServer::send(QTcpSocket* socket, const Response& response) {
    QByteArray head = "HTTP/1.1 " + QByteArray::number(response.status) + " Scripted\r\n";
    qsizetype length = 0;
    for (const auto& [name, value] : response.headers) {
        head += name + ": " + value + "\r\n";
    }
    for (const Piece& piece : response.pieces) {
        length += piece.bytes.size();
    }
    socket->write(
        head +
        (response.streamed ? "transfer-encoding: chunked" : "content-length: " + QByteArray::number(length)) +
        "\r\n\r\n");
    // Precise timers of equal time fire in the order they were started, so the pieces keep theirs.
    int at = 0;
    for (qsizetype i = 0; i <= response.pieces.size(); ++i) {
        const Piece piece = response.pieces.value(i);
        at += piece.delayMs;
        QTimer::singleShot(at, Qt::PreciseTimer, socket, [this, socket, response, piece, i] {
            if (!socket->property(responding).toBool()) {
                return;
            }
            if (i < response.pieces.size()) {
                const QByteArray size = QByteArray::number(piece.bytes.size(), 16);
                socket->write(!response.streamed || piece.bytes.isEmpty()
                                  ? piece.bytes
                                  : size + "\r\n" + piece.bytes + "\r\n");
                return;
            }
            socket->setProperty(responding, false);
            if (response.drop) {
                socket->disconnectFromHost();
            } else if (response.streamed) {
                socket->write("0\r\n\r\n");
            }
            emit responseCompleted();
            serve(socket);
        });
    }
}
