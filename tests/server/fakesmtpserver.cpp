#include "fakesmtpserver.h"

#include <QTcpServer>
#include <QTcpSocket>

FakeSmtpServer::FakeSmtpServer(QObject* parent) : QObject(parent), server_(new QTcpServer(this)) {
    connect(server_, &QTcpServer::newConnection, this, [this] {
        while (QTcpSocket* socket = server_->nextPendingConnection()) {
            serve(socket);
        }
    });
}

bool FakeSmtpServer::listen() {
    return server_->listen(QHostAddress::LocalHost);
}

quint16 FakeSmtpServer::port() const {
    return server_->serverPort();
}

void FakeSmtpServer::serve(QTcpSocket* socket) {
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    socket->write("220 fake.smtp.test ESMTP\r\n");
    auto mail = std::make_shared<Mail>();
    auto inData = std::make_shared<bool>(false);
    connect(socket, &QTcpSocket::readyRead, this, [this, socket, mail, inData] {
        while (socket->canReadLine()) {
            const QByteArray line = socket->readLine();
            if (*inData) {
                if (line == ".\r\n") {
                    *inData = false;
                    mail_.append(*mail);
                    socket->write("250 queued\r\n");
                } else {
                    mail->data += line;
                }
                continue;
            }
            const QByteArray command = line.trimmed().left(4).toUpper();
            if (command == "EHLO" || command == "HELO") {
                socket->write("250-fake.smtp.test\r\n250 8BITMIME\r\n");
            } else if (command == "MAIL") {
                mail->from = line.trimmed().mid(10);
                socket->write("250 sender ok\r\n");
            } else if (command == "RCPT") {
                if (refuseRecipients_) {
                    socket->write("550 no such mailbox\r\n");
                } else {
                    mail->to.append(line.trimmed().mid(8));
                    socket->write("250 recipient ok\r\n");
                }
            } else if (command == "DATA") {
                *inData = true;
                socket->write("354 end with a dot\r\n");
            } else if (command == "QUIT") {
                socket->write("221 bye\r\n");
                socket->disconnectFromHost();
            } else {
                socket->write("502 not here\r\n");
            }
        }
    });
}
