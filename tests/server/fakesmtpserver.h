#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>

class QTcpServer;
class QTcpSocket;

// A mail server on 127.0.0.1 that speaks just enough SMTP for one client: it greets, accepts EHLO,
// MAIL, RCPT and DATA, records the envelope and the message, and can refuse recipients.
class FakeSmtpServer : public QObject {
    Q_OBJECT

public:
    struct Mail {
        QByteArray from;
        QList<QByteArray> to;
        QByteArray data;  // headers and body as sent, without the closing dot line
    };

    explicit FakeSmtpServer(QObject* parent = nullptr);
    bool listen();
    quint16 port() const;
    void refuseRecipients(bool refuse) { refuseRecipients_ = refuse; }
    const QList<Mail>& mail() const { return mail_; }

private:
    void serve(QTcpSocket* socket);

    QTcpServer* server_;
    QList<Mail> mail_;
    bool refuseRecipients_ = false;
};
