#include "tokenstore.h"

#include <qt6keychain/keychain.h>

#include <QPointer>
#include <QStringDecoder>
#include <QThread>

#include <condition_variable>
#include <functional>
#include <mutex>

namespace {

// Keychain jobs run on a thread of their own, so that a caller can stop waiting for one that never
// answers (a locked keyring with a password prompt nobody sees) without leaving a nested event loop
// behind on its own thread.
class KeychainThread {
public:
    KeychainThread() : thread_(new QThread), context_(new QObject) {
        thread_->setObjectName(QStringLiteral("tallowind.keychain"));
        context_->moveToThread(thread_);
        QObject::connect(thread_, &QThread::finished, context_, &QObject::deleteLater);
        thread_->start();
    }
    ~KeychainThread() {
        thread_->quit();
        // A job stuck on a bus that never answers keeps the thread busy; at exit it is left to the
        // operating system rather than holding the process open.
        if (thread_->wait(QDeadlineTimer(std::chrono::seconds(1)))) {
            delete thread_;
        }
    }
    QObject* context() { return context_; }

    static KeychainThread& instance() {
        static KeychainThread thread;
        return thread;
    }

private:
    QThread* thread_;
    QObject* context_;
};

struct Outcome {
    QKeychain::Error error = QKeychain::OtherError;
    QByteArray data;
};

struct Pending {
    std::mutex mutex;
    std::condition_variable done;
    std::optional<Outcome> outcome;
};

// Runs the job made by `make` on the keychain thread and waits at most `bound` for its outcome.
std::optional<Outcome> runBounded(std::function<QKeychain::Job*()> make, std::chrono::milliseconds bound) {
    auto pending = std::make_shared<Pending>();
    QMetaObject::invokeMethod(
        KeychainThread::instance().context(),
        [pending, make = std::move(make)] {
            QKeychain::Job* job = make();
            job->setAutoDelete(true);
            job->setInsecureFallback(false);
            QObject::connect(job, &QKeychain::Job::finished, job, [pending](QKeychain::Job* finished) {
                Outcome outcome{finished->error(), {}};
                if (auto* read = qobject_cast<QKeychain::ReadPasswordJob*>(finished)) {
                    outcome.data = read->binaryData();
                }
                const std::lock_guard lock(pending->mutex);
                pending->outcome = std::move(outcome);
                pending->done.notify_all();
            });
            job->start();
        },
        Qt::QueuedConnection);
    std::unique_lock lock(pending->mutex);
    pending->done.wait_for(lock, bound, [&] { return pending->outcome.has_value(); });
    return pending->outcome;
}

class SecretServiceTokenStore final : public TokenStore {
public:
    SecretServiceTokenStore(QString service, QString account, std::chrono::milliseconds bound)
        : service_(std::move(service)), account_(std::move(account)), bound_(bound) {}

    Lookup load() override {
        const auto outcome = runBounded(
            [this] {
                auto* job = new QKeychain::ReadPasswordJob(service_);
                job->setKey(account_);
                return job;
            },
            bound_);
        if (!outcome) {
            return {Availability::unreachable, std::nullopt};
        }
        if (outcome->error == QKeychain::EntryNotFound) {
            return {};
        }
        if (outcome->error != QKeychain::NoError) {
            return {Availability::unreachable, std::nullopt};
        }
        auto decoder = QStringDecoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
        QString text = decoder.decode(outcome->data);
        if (decoder.hasError()) {
            return {};
        }
        return {Availability::answered, std::move(text)};
    }

    Availability save(const QString& token) override {
        if (remove() == Availability::unreachable) {
            return Availability::unreachable;
        }
        const auto outcome = runBounded(
            [this, bytes = token.toUtf8()] {
                auto* job = new QKeychain::WritePasswordJob(service_);
                job->setKey(account_);
                job->setBinaryData(bytes);
                return job;
            },
            bound_);
        return outcome && outcome->error == QKeychain::NoError ? Availability::answered
                                                               : Availability::unreachable;
    }

    Availability remove() override {
        const auto outcome = runBounded(
            [this] {
                auto* job = new QKeychain::DeletePasswordJob(service_);
                job->setKey(account_);
                return job;
            },
            bound_);
        const bool answered =
            outcome && (outcome->error == QKeychain::NoError || outcome->error == QKeychain::EntryNotFound);
        return answered ? Availability::answered : Availability::unreachable;
    }

private:
    QString service_;
    QString account_;
    std::chrono::milliseconds bound_;
};

}  // namespace

std::unique_ptr<TokenStore> makeSecretServiceTokenStore(QString service, QString account,
                                                        std::chrono::milliseconds bound) {
    return std::make_unique<SecretServiceTokenStore>(std::move(service), std::move(account), bound);
}
