#pragma once

#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QProcessEnvironment>

// Our backend and the speech service as the desktop program meets them during a call, on loopback: speech
// tokens, usage reports, the account, sign-out and a short streamed answer from the one; a speech
// connection that hears a question every few seconds from the other.
class LoopbackServices {
public:
    LoopbackServices();

    TestHttpServer& backend() { return backend_; }
    TestWebSocketServer& speech() { return speech_; }

    // The program's environment pointed at both, signed in with a token.
    QProcessEnvironment environment(
        QProcessEnvironment base = QProcessEnvironment::systemEnvironment()) const;

    // The requests the backend received for `path`.
    QList<TestHttpServer::Received> requests(const QByteArray& path) const;

private:
    TestHttpServer backend_;
    TestWebSocketServer speech_;
};
