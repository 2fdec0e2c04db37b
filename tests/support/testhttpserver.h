#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPair>
#include <QUrl>

#include <functional>

class QTcpServer;
class QTcpSocket;

// A scriptable HTTP/1.1 server on 127.0.0.1 for tests: answers each request from a handler with a status,
// headers and a body sent in timed pieces, records what it received, and notices clients that hang up
// before their response is complete.
class TestHttpServer : public QObject {
    Q_OBJECT

public:
    struct Piece {
        QByteArray bytes;
        int delayMs = 0;  // waited before this piece is sent
    };

    struct Response {
        int status = 200;
        QList<QPair<QByteArray, QByteArray>> headers;
        QList<Piece> pieces;
        // Sent with chunked transfer encoding and then, unless `drop`, properly ended. Otherwise the body
        // goes out whole with a content-length.
        bool streamed = false;
        // Close the connection after the last piece without ending the body.
        bool drop = false;

        static Response json(int status, const QByteArray& body);
        static Response text(int status, const QByteArray& body);
        static Response stream(QList<Piece> pieces, int status = 200);
    };

    struct Received {
        QByteArray method;
        QByteArray target;                     // path and query as sent
        QMap<QByteArray, QByteArray> headers;  // names in lower case
        QByteArray body;

        QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
    };

    using Handler = std::function<Response(const Received&)>;

    explicit TestHttpServer(QObject* parent = nullptr);
    ~TestHttpServer() override;

    // Binds an ephemeral port on loopback; false if that failed.
    bool listen();
    quint16 port() const;
    QUrl url() const;  // http://127.0.0.1:PORT

    void setHandler(Handler handler);
    // Shorthand: every request gets this response.
    void respondWith(const Response& response);

    const QList<Received>& received() const { return received_; }
    // Requests whose client closed the connection before the response was complete.
    int abandoned() const { return abandoned_; }

signals:
    void requestReceived();
    void responseAbandoned();
    void responseCompleted();

private:
    struct Connection;

    void accept();
    void readFrom(Connection* connection);
    void sendNextPiece(Connection* connection);

    QTcpServer* server_;
    Handler handler_;
    QList<Received> received_;
    int abandoned_ = 0;
};
