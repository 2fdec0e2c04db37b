#include "runningserver.h"

#include "postgrescluster.h"

#include <QRegularExpression>

void MailOutbox::add(Message message) {
    std::lock_guard lock(mutex_);
    messages_.push_back(std::move(message));
}

std::vector<MailOutbox::Message> MailOutbox::messages() const {
    std::lock_guard lock(mutex_);
    return messages_;
}

QString MailOutbox::lastCode() const {
    std::lock_guard lock(mutex_);
    if (messages_.empty()) {
        return {};
    }
    const auto match = QRegularExpression(QStringLiteral("\\b(\\d{6})\\b"))
                           .match(QString::fromStdString(messages_.back().body));
    return match.captured(1);
}

namespace {

class OutboxMailer final : public server::Mailer {
public:
    explicit OutboxMailer(std::shared_ptr<MailOutbox> outbox) : outbox_(std::move(outbox)) {}
    std::optional<std::string> send(const std::string& to, const std::string& subject,
                                    const std::string& body) override {
        outbox_->add({to, subject, body});
        return std::nullopt;
    }

private:
    std::shared_ptr<MailOutbox> outbox_;
};

}  // namespace

server::ServerConfig RunningServer::devConfig() {
    server::ServerConfig config;
    config.devMode = true;
    return config;
}

RunningServer::RunningServer(server::ServerConfig config) : config_(std::move(config)) {
    config_.host = "127.0.0.1";
    config_.port = 0;
    if (config_.dataDir.empty()) {
        config_.dataDir = dataDir_.path().toStdString();
    }
    // The same tests, run a second time against a fresh PostgreSQL database each.
    if (config_.databaseUrl.empty() && qgetenv("TALLOWIND_TEST_STORE") == "postgresql") {
        auto& cluster = PostgresCluster::shared();
        config_.databaseUrl = cluster.isUp() ? cluster.newDatabase() : std::string();
        if (config_.databaseUrl.empty()) {
            qFatal("No PostgreSQL for the tests: %s", qPrintable(cluster.failure()));
        }
    }
    start();
}

RunningServer::~RunningServer() {
    stop();
}

QUrl RunningServer::url() const {
    return QUrl(QStringLiteral("http://127.0.0.1:%1").arg(port_));
}

void RunningServer::setNow(std::chrono::system_clock::time_point now) {
    const auto real = std::chrono::system_clock::now();
    offset_->store(std::chrono::duration_cast<std::chrono::seconds>(now - real).count());
}

void RunningServer::restart() {
    stop();
    // The same port again, so that clients pointed at the server find it after the restart.
    config_.port = port_;
    start();
}

void RunningServer::start() {
    const auto offset = offset_;
    server::Clock clock = [offset] {
        return std::chrono::system_clock::now() + std::chrono::seconds(offset->load());
    };
    std::unique_ptr<server::Mailer> mailer;
    if (config_.smtpUrl.empty()) {
        mailer = std::make_unique<OutboxMailer>(outbox_);
    }
    server_ = std::make_unique<server::HttpServer>(config_, clock, std::move(mailer));
    port_ = server_->bind();
    if (port_ == 0) {
        return;
    }
    thread_ = std::thread([server = server_.get()] { server->run(); });
    // stop() is only heard once the server is accepting connections.
    for (int waited = 0; !server_->running() && waited < 5000; ++waited) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

void RunningServer::stop() {
    if (thread_.joinable()) {
        server_->stop();
        thread_.join();
    }
    server_.reset();
}
