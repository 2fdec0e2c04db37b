#include "backendclient.h"

#include "config.h"
#include "keychain.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QNetworkAccessManager>
#include <QNetworkReply>

namespace {

constexpr int requestTimeoutMs = 60'000;
constexpr int answerTimeoutMs = 90'000;
// Qt knows only inactivity timers; the manager's applies where a request sets none of its own.
constexpr int idleTimeoutMs = 30'000;

QString unreachableMessage() {
    return QStringLiteral("Can't reach Tallowind. Check your internet connection.");
}

QUrl endpointURL(const QString& path) {
    QUrl url = Config::serverURL();
    QString base = url.path();
    while (base.endsWith(QLatin1Char('/'))) {
        base.chop(1);
    }
    QString tail = path;
    while (tail.startsWith(QLatin1Char('/'))) {
        tail.remove(0, 1);
    }
    url.setPath(base + QLatin1Char('/') + tail);
    return url;
}

std::optional<int> httpStatus(const QNetworkReply& reply) {
    const QVariant status = reply.attribute(QNetworkRequest::HttpStatusCodeAttribute);
    if (!status.isValid()) {
        return std::nullopt;
    }
    return status.toInt();
}

// Qt reports HTTP statuses outside 2xx as errors of its own too; those still carry a readable body.
bool isTransportFailure(QNetworkReply::NetworkError error) {
    return error != QNetworkReply::NoError && error < QNetworkReply::ContentAccessDenied;
}

QNetworkReply* send(QNetworkAccessManager& network, const QNetworkRequest& request, const QByteArray& body) {
    const QByteArray method = request.attribute(QNetworkRequest::CustomVerbAttribute).toByteArray();
    return network.sendCustomRequest(request, method, body);
}

}  // namespace

QJsonObject BackendClient::AnswerRequest::toJson() const {
    QJsonArray lines;
    for (const auto& line : transcript) {
        lines.append(line.toJson());
    }
    return {
        {QStringLiteral("question"), question},
        {QStringLiteral("transcript"), lines},
        {QStringLiteral("resume"), resume},
        {QStringLiteral("jobDescription"), jobDescription},
        {QStringLiteral("extraInstructions"), extraInstructions},
    };
}

BackendClient::BackendClient(QObject* parent)
    : QObject(parent), network_(std::make_unique<QNetworkAccessManager>()) {
    network_->setTransferTimeout(idleTimeoutMs);
}

BackendClient::~BackendClient() = default;

BackendClient& BackendClient::shared() {
    static BackendClient* instance = new BackendClient;  // lives for the whole run, like the event loop
    return *instance;
}

Result<QNetworkRequest> BackendClient::makeRequest(const QByteArray& method, const QString& path,
                                                   bool authenticated) {
    QNetworkRequest request(endpointURL(path));
    request.setAttribute(QNetworkRequest::CustomVerbAttribute, method);
    request.setTransferTimeout(requestTimeoutMs);
    request.setRawHeader("content-type", "application/json");
    request.setRawHeader("user-agent", "Tallowind/" + Config::appVersion().toUtf8());
    if (authenticated) {
        const auto current = token();
        if (!current) {
            return BackendError::signedOut();
        }
        request.setRawHeader("authorization", "Bearer " + current->toUtf8());
    }
    return request;
}

void BackendClient::request(const QByteArray& method, const QString& path,
                            const std::optional<QJsonObject>& body, bool authenticated,
                            Completion<QByteArray> done) {
    auto built = makeRequest(method, path, authenticated);
    if (!built) {
        done(built.failure());
        return;
    }
    const QByteArray payload = body ? QJsonDocument(*body).toJson(QJsonDocument::Compact) : QByteArray();
    QNetworkReply* reply = send(*network_, built.value(), payload);
    connect(reply, &QNetworkReply::finished, this, [reply, done = std::move(done)] {
        reply->deleteLater();
        const auto status = httpStatus(*reply);
        if (!status && isTransportFailure(reply->error())) {
            done(BackendError::network(unreachableMessage()));
            return;
        }
        const QByteArray bytes = reply->readAll();
        const bool bodyLost = isTransportFailure(reply->error());
        if (auto error = check(status, bodyLost ? std::nullopt : std::optional(bytes))) {
            done(*error);
            return;
        }
        if (bodyLost) {
            done(BackendError::network(unreachableMessage()));
            return;
        }
        done(bytes);
    });
}

std::optional<BackendError> BackendClient::check(std::optional<int> status,
                                                 const std::optional<QByteArray>& errorBody) {
    if (!status) {
        return BackendError::network(QStringLiteral("No response from Tallowind."));
    }
    if (*status >= 200 && *status <= 299) {
        return std::nullopt;
    }
    if (*status == 401) {
        Keychain::remove();
        return BackendError::signedOut();
    }
    if (errorBody) {
        const QJsonDocument document = QJsonDocument::fromJson(*errorBody);
        const QJsonValue message = document.object().value(QLatin1String("error"));
        if (document.isObject() && message.isString()) {
            return BackendError::server(message.toString());
        }
    }
    return BackendError::server(QStringLiteral("Tallowind's server returned an error (%1).").arg(*status));
}

std::unique_ptr<AnswerStream> BackendClient::answer(const AnswerRequest& request) {
    auto built = makeRequest("POST", QStringLiteral("/answer"), true);
    if (built) {
        QNetworkRequest withAnswerTimeout = built.value();
        withAnswerTimeout.setTransferTimeout(answerTimeoutMs);
        // A compressed body would only be readable once it is complete.
        withAnswerTimeout.setRawHeader("accept-encoding", "identity");
        built = withAnswerTimeout;
    }
    const QByteArray body = QJsonDocument(request.toJson()).toJson(QJsonDocument::Compact);
    return std::unique_ptr<AnswerStream>(new AnswerStream(*network_, built, body));
}

AnswerStream::AnswerStream(QNetworkAccessManager& network, const Result<QNetworkRequest>& request,
                           const QByteArray& body) {
    if (!request) {
        // Reported from the event loop so that the caller can connect first.
        QMetaObject::invokeMethod(
            this, [this, failure = request.failure()] { end(failure); }, Qt::QueuedConnection);
        return;
    }
    reply_ = send(network, request.value(), body);
    connect(reply_, &QNetworkReply::readyRead, this, &AnswerStream::readAvailable);
    connect(reply_, &QNetworkReply::finished, this, &AnswerStream::replyFinished);
}

AnswerStream::~AnswerStream() {
    detachReply();
}

void AnswerStream::cancel() {
    ended_ = true;
    detachReply();
}

void AnswerStream::detachReply() {
    if (reply_) {
        reply_->disconnect(this);
        reply_->abort();
        reply_->deleteLater();
        reply_ = nullptr;
    }
}

void AnswerStream::readAvailable() {
    if (ended_) {
        return;
    }
    if (!status_) {
        status_ = httpStatus(*reply_);
    }
    const bool success = status_ && *status_ >= 200 && *status_ <= 299;
    if (!success) {
        if (status_ == 401) {
            end(BackendClient::check(status_, std::nullopt));
        }
        // Any other refusal is judged on its whole body, once it has arrived.
        return;
    }
    QPointer<AnswerStream> self(this);
    for (const QByteArray& line : splitter_.feed(reply_->readAll())) {
        if (!deliver(line) || !self) {
            return;
        }
    }
}

void AnswerStream::replyFinished() {
    if (ended_) {
        return;
    }
    if (!status_) {
        status_ = httpStatus(*reply_);
    }
    const auto error = reply_->error();
    if (!status_) {
        end(Failure::other(reply_->errorString()));
        return;
    }
    const bool success = *status_ >= 200 && *status_ <= 299;
    if (!success) {
        const QByteArray bytes = reply_->readAll();
        end(BackendClient::check(status_, isTransportFailure(error) ? std::nullopt : std::optional(bytes)));
        return;
    }
    QPointer<AnswerStream> self(this);
    readAvailable();
    if (!self || ended_) {
        return;
    }
    if (isTransportFailure(error)) {
        end(Failure::other(reply_->errorString()));
        return;
    }
    const QByteArray last = splitter_.finish();
    if (!deliver(last) || !self) {
        return;
    }
    end(std::nullopt);
}

bool AnswerStream::deliver(const QByteArray& line) {
    const AnswerLine parsed = parseAnswerLine(line);
    switch (parsed.kind) {
        case AnswerLine::Kind::skip:
            return true;
        case AnswerLine::Kind::text: {
            QPointer<AnswerStream> self(this);
            emit chunk(parsed.value);
            return self && !ended_;
        }
        case AnswerLine::Kind::error:
            end(BackendError::server(parsed.value));
            return false;
    }
    return true;
}

void AnswerStream::end(const std::optional<Failure>& failure) {
    if (ended_) {
        return;
    }
    ended_ = true;
    detachReply();
    if (failure) {
        emit failed(*failure);
    } else {
        emit finished();
    }
}
