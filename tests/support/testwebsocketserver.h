#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QUrl>

#include <optional>

class QWebSocket;
class QWebSocketServer;

// A scriptable WebSocket server on 127.0.0.1 for tests: records every connection's request, the frames
// it received and how it was closed, greets each new connection with scripted text messages, and can
// send more text or cut a connection off at any time.
class TestWebSocketServer : public QObject {
    Q_OBJECT

public:
    struct Frame {
        bool binary = false;
        QByteArray payload;  // text frames as UTF-8

        friend bool operator==(const Frame&, const Frame&) = default;
    };

    struct Connection {
        QByteArray target;                     // path and query as requested
        QMap<QByteArray, QByteArray> headers;  // names in lower case
        QList<Frame> frames;
        // The code of the client's close frame; absent while open and when the connection ended
        // without one.
        std::optional<int> closeCode;
        bool open = true;

        QByteArray header(const QByteArray& name) const { return headers.value(name.toLower()); }
        QStringList texts() const;
        QList<QByteArray> binaries() const;
    };

    explicit TestWebSocketServer(QObject* parent = nullptr);
    ~TestWebSocketServer() override;

    // Binds `port` on loopback (0: an ephemeral one); false if that failed. Listening again after
    // close() with the port of before brings the server back at the same address.
    bool listen(quint16 port = 0);
    // Stops accepting: new connections are refused. Open connections stay.
    void close();
    quint16 port() const { return port_; }
    QUrl url() const;  // ws://127.0.0.1:PORT

    // Text messages sent to every new connection as soon as its handshake completes.
    void setGreeting(const QStringList& messages) { greeting_ = messages; }

    const QList<Connection>& connections() const { return connections_; }
    int openConnections() const;
    void sendText(int connection, const QString& message);
    void sendBinary(int connection, const QByteArray& message);
    // Cuts the TCP connection off without a closing handshake.
    void drop(int connection);

signals:
    void connectionOpened(int connection);
    void frameReceived(int connection);
    void connectionClosed(int connection);

private:
    void accept();

    QWebSocketServer* server_;
    quint16 port_ = 0;
    QStringList greeting_;
    QList<Connection> connections_;
    QList<QPointer<QWebSocket>> sockets_;
    QSet<int> dropped_;
};
