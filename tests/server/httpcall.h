#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <string>

// One plain HTTP exchange with a server on loopback, made synchronously with cpp-httplib, so that tests
// can send what the program's own client never would.
struct HttpCall {
    int status = 0;  // 0: no response, and `failure` says why
    std::string failure;
    std::string contentType;
    QByteArray body;

    QJsonObject json() const;
    QString error() const { return json().value(QStringLiteral("error")).toString(); }
};

// `token` goes out as "Authorization: Bearer TOKEN" unless empty.
HttpCall httpCall(int port, const std::string& method, const std::string& path, const std::string& token = {},
                  const QByteArray& body = {});

// Signs `email` in through the development code and returns the token.
std::string devSignIn(int port, const std::string& email);
