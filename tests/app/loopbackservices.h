#pragma once

#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QProcessEnvironment>

// Our backend and the speech service as the desktop program meets them during a call, on loopback: the
// backend answers every request (a speech token, the account, a short streamed answer, an empty object for
// the rest); every speech connection hears a question every few seconds.
class LoopbackServices {
public:
    LoopbackServices();

    TestWebSocketServer& speech() { return speech_; }
    QProcessEnvironment environment(
        QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;
    QList<TestHttpServer::Received> requests(const QByteArray& path) const;

private:
    TestHttpServer backend_;
    TestWebSocketServer speech_;
};
