#pragma once

#include "httpserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <atomic>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>

// The backend server on a free loopback port inside the test process, with its data in a temporary
// folder. With TALLOWIND_TEST_STORE=postgresql and no database configured, each server gets a fresh
// database of a private PostgreSQL instead of SQLite.
class RunningServer {
public:
    // Without a mail server, sign-in codes come back in the reply.
    explicit RunningServer(server::ServerConfig config = {});
    ~RunningServer() { stop(); }

    int port() const { return port_; }  // 0 when the server did not start
    void advance(std::chrono::seconds by) { offset_ += by.count(); }
    void restart() {
        stop();
        start();
    }

private:
    void start();
    void stop();

    QTemporaryDir dataDir_;
    server::ServerConfig config_;
    // The server's clock stands still but for advance(), so that a slow machine never carries a test
    // across a deadline it means to stop just short of, or into the next month.
    const std::chrono::system_clock::time_point startedAt_ = std::chrono::system_clock::now();
    std::atomic<long long> offset_ = 0;
    std::unique_ptr<server::HttpServer> server_;
    std::thread thread_;
    int port_ = 0;
};

struct HttpCall {
    int status = 0;  // 0: no response
    std::string contentType;
    QByteArray body;

    QJsonObject json() const { return QJsonDocument::fromJson(body).object(); }
};

// Called on the request's thread with each piece of the response body; false hangs up.
using BodyPiece = std::function<bool(const QByteArray& piece)>;

// One HTTP exchange with a loopback server on a thread of its own, so that tests can send what the
// program's own client never would. `token` goes out as a bearer token unless empty.
std::future<HttpCall> httpAsync(int port, const std::string& method, const std::string& path,
                                const std::string& token = {}, const QByteArray& body = {},
                                BodyPiece onPiece = {});
// Spins this thread's event loop, for the fakes that live on it, until the reply is in.
HttpCall awaitReply(std::future<HttpCall> reply);
inline HttpCall httpCall(int port, const std::string& method, const std::string& path,
                         const std::string& token = {}, const QByteArray& body = {}) {
    return awaitReply(httpAsync(port, method, path, token, body));
}

// Signs `email` in through the development code; the token, or empty when that failed.
std::string devSignIn(int port, const std::string& email);
