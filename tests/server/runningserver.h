#pragma once

#include "httpserver.h"
#include "mailer.h"
#include "serverconfig.h"

#include <QString>
#include <QTemporaryDir>
#include <QUrl>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

// The messages a server handed to its mailer, readable from the test thread.
class MailOutbox {
public:
    struct Message {
        std::string to;
        std::string subject;
        std::string body;
    };

    void add(Message message);
    std::vector<Message> messages() const;
    // The six-digit code of the newest message, empty when there is none.
    QString lastCode() const;

private:
    mutable std::mutex mutex_;
    std::vector<Message> messages_;
};

// The backend server on a free loopback port inside the test process, with its data in a temporary
// folder, a clock the test moves, and its e-mail caught in an outbox unless the configuration names a
// mail server of its own.
class RunningServer {
public:
    // `config.dataDir` defaults to a fresh temporary folder; host and port are always loopback and free.
    explicit RunningServer(server::ServerConfig config = devConfig());
    ~RunningServer();
    RunningServer(const RunningServer&) = delete;
    RunningServer& operator=(const RunningServer&) = delete;

    static server::ServerConfig devConfig();

    bool isUp() const { return port_ != 0; }
    int port() const { return port_; }
    QUrl url() const;
    // Moves the server's clock forward (or to a moment of the test's choosing).
    void advance(std::chrono::seconds by) { offset_->fetch_add(by.count()); }
    void setNow(std::chrono::system_clock::time_point now);
    // Stops and starts the server again over the same data folder.
    void restart();
    MailOutbox& outbox() { return *outbox_; }
    const server::ServerConfig& config() const { return config_; }

private:
    void start();
    void stop();

    QTemporaryDir dataDir_;
    server::ServerConfig config_;
    std::shared_ptr<std::atomic<long long>> offset_ = std::make_shared<std::atomic<long long>>(0);
    std::shared_ptr<MailOutbox> outbox_ = std::make_shared<MailOutbox>();
    std::unique_ptr<server::HttpServer> server_;
    std::thread thread_;
    int port_ = 0;
};
