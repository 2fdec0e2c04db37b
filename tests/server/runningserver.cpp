#include "runningserver.h"

#include "postgrescluster.h"

#include <QTest>

#include <httplib.h>

RunningServer::RunningServer(server::ServerConfig config) : config_(std::move(config)) {
    config_.host = "127.0.0.1";
    config_.port = 0;
    config_.devMode = config_.smtpUrl.empty();
    config_.dataDir = dataDir_.path().toStdString();
    if (config_.databaseUrl.empty() && qgetenv("TALLOWIND_TEST_STORE") == "postgresql" &&
        (config_.databaseUrl = PostgresCluster::shared().newDatabase()).empty()) {
        qFatal("No PostgreSQL for the tests: %s", qPrintable(PostgresCluster::shared().failure()));
    }
    start();
}

void RunningServer::start() {
    server_ = std::make_unique<server::HttpServer>(
        config_, [this] { return startedAt_ + std::chrono::seconds(offset_.load()); });
    port_ = server_->bind();
    if (port_ != 0) {
        thread_ = std::thread([server = server_.get()] { server->run(); });
        // stop() is only heard once the server is accepting connections.
        for (int waited = 0; !server_->running() && waited < 5000; ++waited) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
}

void RunningServer::stop() {
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
    server_.reset();
}

std::future<HttpCall> httpAsync(int port, const std::string& method, const std::string& path,
                                const std::string& token, const QByteArray& body, BodyPiece onPiece) {
    return std::async(std::launch::async, [=] {
        HttpCall reply;
        httplib::Request request;
        request.method = method;
        request.path = path;
        request.body = body.toStdString();
        if (!token.empty()) {
            request.headers.emplace("Authorization", "Bearer " + token);
        }
        if (onPiece) {
            request.content_receiver = [&](const char* data, std::size_t length, std::uint64_t,
                                           std::uint64_t) {
                const QByteArray piece(data, static_cast<qsizetype>(length));
                reply.body += piece;
                return onPiece(piece);
            };
        }
        if (const auto result = httplib::Client("127.0.0.1", port).send(request)) {
            reply.status = result->status;
            reply.contentType = result->get_header_value("Content-Type");
            reply.body += QByteArray::fromStdString(result->body);
        }
        return reply;
    });
}

HttpCall awaitReply(std::future<HttpCall> reply) {
    while (reply.wait_for(std::chrono::seconds(0)) != std::future_status::ready) {
        QTest::qWait(1);
    }
    return reply.get();
}

std::string devSignIn(int port, const std::string& email) {
    const QByteArray address = R"({"email":")" + QByteArray::fromStdString(email) + '"';
    const QString code =
        httpCall(port, "POST", "/auth/start", {}, address + '}').json()["devCode"].toString();
    const HttpCall verified =
        httpCall(port, "POST", "/auth/verify", {}, address + R"(,"code":")" + code.toUtf8() + "\"}");
    // Exactly 200: a client that only looks for success would not notice another status.
    return verified.status == 200 ? verified.json()["token"].toString().toStdString() : std::string();
}
