#pragma once

#include <QMap>
#include <QWebSocket>
#include <QWebSocketServer>

#include <optional>

// A scriptable WebSocket server on 127.0.0.1: records every connection's request, the frames it received
// and how it was closed, greets each new connection with scripted text messages, and can send more or
// cut a connection off at any time.
class TestWebSocketServer : public QObject {
    Q_OBJECT

public:
    struct Frame {
        bool binary = false;
        QByteArray payload;  // text frames as UTF-8
    };

    struct Connection {
        QByteArray target;                     // path and query as requested
        QMap<QByteArray, QByteArray> headers;  // names in lower case
        QList<Frame> frames;
        std::optional<int> closeCode;  // of the client's close frame, if one came
        bool open = true;

        QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
        QStringList texts() const;
        QList<QByteArray> binaries() const { return payloads(true); }
        QList<QByteArray> payloads(bool binary) const;
    };

    explicit TestWebSocketServer(QObject* parent = nullptr);
    ~TestWebSocketServer() override;

    // Port 0 picks a free one; listening again after close() with the port of before reopens the address.
    bool listen(quint16 port = 0);
    // Refuses new connections; open ones stay.
    void close() { server_.close(); }
    quint16 port() const { return port_; }
    QUrl url() const { return QUrl(QStringLiteral("ws://127.0.0.1:%1").arg(port_)); }

    // Text messages sent to every new connection as soon as its handshake completes.
    void setGreeting(const QStringList& messages) { greeting_ = messages; }

    const QList<Connection>& connections() const { return connections_; }
    int openConnections() const {
        return int(
            std::count_if(connections_.cbegin(), connections_.cend(), [](const auto& c) { return c.open; }));
    }
    void sendText(int connection, const QString& text) { sockets_.at(connection)->sendTextMessage(text); }
    // Cuts the TCP connection off without a closing handshake.
    void drop(int connection) {
        connections_[connection].open = false;  // no close code from a cut connection
        sockets_.at(connection)->abort();
    }

signals:
    void connectionOpened(int connection);
    void frameReceived(int connection);

private:
    QWebSocketServer server_;
    quint16 port_ = 0;
    QStringList greeting_;
    QList<Connection> connections_;
    QList<QWebSocket*> sockets_;  // kept until the server goes: sending to a closed one is harmless
};
