// Requests as command-line tools send them, one after another on a kept-alive connection.

#include "httpcall.h"
#include "runningserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QTcpSocket>
#include <QTest>

namespace {

struct RawReply {
    int status = 0;
    QByteArray body;
};

// Sends `request` as it stands and reads one response off the same connection, or nothing if none
// arrives within a few seconds.
RawReply exchange(QTcpSocket& socket, const QByteArray& request) {
    socket.write(request);
    QByteArray received;
    static const QRegularExpression length(QStringLiteral("\r\ncontent-length: *(\\d+)\r\n"),
                                           QRegularExpression::CaseInsensitiveOption);
    while (socket.waitForReadyRead(3000)) {
        received += socket.readAll();
        const auto headerEnd = received.indexOf("\r\n\r\n");
        if (headerEnd < 0) {
            continue;
        }
        const QString head = QString::fromLatin1(received.left(headerEnd + 2));
        const auto match = length.match(head);
        const qsizetype bodyLength = match.hasMatch() ? match.captured(1).toInt() : 0;
        if (received.size() >= headerEnd + 4 + bodyLength) {
            return {head.section(QLatin1Char(' '), 1, 1).toInt(), received.mid(headerEnd + 4, bodyLength)};
        }
    }
    return {};
}

QByteArray request(const QByteArray& method, const QByteArray& path, const std::string& token) {
    return method + ' ' + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\nAuthorization: Bearer " +
           QByteArray::fromStdString(token) + "\r\n\r\n";
}

}  // namespace

class TestServerConnection : public QObject {
    Q_OBJECT

private slots:
    void aPostWithoutBodyOrLengthIsAnEmptyBody_data() {
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");
        QTest::addColumn<int>("meAfterwards");

        QTest::newRow("sign-out revokes the token") << QByteArray("/auth/signout") << 200 << QString() << 401;
        QTest::newRow("usage needs a body")
            << QByteArray("/usage") << 400 << QStringLiteral("The request needs a JSON object as its body.")
            << 200;
    }

    void aPostWithoutBodyOrLengthIsAnEmptyBody() {
        QFETCH(QByteArray, path);
        QFETCH(int, status);
        QFETCH(QString, error);
        QFETCH(int, meAfterwards);
        RunningServer server;
        const std::string token = devSignIn(server.port(), "rae@example.org");
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(server.port()));
        QVERIFY(socket.waitForConnected(3000));

        const RawReply posted = exchange(socket, request("POST", path, token));
        QCOMPARE(posted.status, status);
        QCOMPARE(QJsonDocument::fromJson(posted.body).object().value(QStringLiteral("error")).toString(),
                 error);
        // The connection is still in step: the next request on it gets its own answer.
        QCOMPARE(exchange(socket, request("GET", "/me", token)).status, meAfterwards);
    }
};

QTEST_GUILESS_MAIN(TestServerConnection)
#include "tst_serverconnection.moc"
