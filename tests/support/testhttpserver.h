#pragma once

#include <QMap>
#include <QTcpServer>
#include <QUrl>

#include <functional>

// A scriptable HTTP/1.1 server on 127.0.0.1: answers each request from a handler, sends the body in
// timed pieces, records what it received, and counts clients that hang up before their response ends.
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
        bool streamed = false;  // chunked transfer encoding instead of a content-length
        bool drop = false;      // close the connection after the last piece without ending the body

        static Response json(int status, const QByteArray& body) {
            return {status, {{"content-type", "application/json"}}, {{body, 0}}};
        }
        static Response stream(QList<Piece> pieces, int status = 200) {
            return {status, {{"content-type", "text/event-stream"}}, std::move(pieces), true};
        }
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

    bool listen() { return server_.listen(QHostAddress::LocalHost, 0); }
    QUrl url() const { return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort())); }

    void setHandler(Handler handler) { handler_ = std::move(handler); }
    void respondWith(const Response& response) {
        handler_ = [response](const Received&) { return response; };
    }

    const QList<Received>& received() const { return received_; }
    int abandoned() const { return abandoned_; }

signals:
    void requestReceived();
    void responseCompleted();

private:
    void serve(QTcpSocket* socket);
    void send(QTcpSocket* socket, const Response& response);

    QTcpServer server_;
    Handler handler_ = [](const Received&) {
        return Response{404, {{"content-type", "text/plain"}}, {{"not found", 0}}};
    };
    QList<Received> received_;
    int abandoned_ = 0;
};
