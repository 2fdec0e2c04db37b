#include "servercapture.h"

#include <QMetaObject>

ServerCapture::ServerCapture(std::shared_ptr<AudioServer> server, AudioServer::Request request,
                             QString missingMessage)
    : server_(std::move(server)), request_(std::move(request)), missingMessage_(std::move(missingMessage)) {}

ServerCapture::~ServerCapture() {
    // First the recording, whose destructor waits out a buffer in flight; only then the converter and
    // handlers that such a buffer uses.
    recording_.reset();
}

void ServerCapture::setOnAudio(AudioHandler handler) {
    onAudio_ = std::move(handler);
}

void ServerCapture::setOnStop(StopHandler handler) {
    onStop_ = std::move(handler);
}

void ServerCapture::start(Completion<Done> done) {
    stop();
    pendingStart_ = std::move(done);
    const quint64 run = ++run_;
    AudioServer::Handlers handlers;
    handlers.started = [this, run] {
        QMetaObject::invokeMethod(
            &mainThread_, [this, run] { started(run); }, Qt::QueuedConnection);
    };
    handlers.audio = [this](const AudioBuffer& buffer) {
        std::optional<QByteArray> pcm = converter_.convert(buffer);
        if (pcm && onAudio_)
            onAudio_(*pcm);
    };
    handlers.failed = [this, run](const AudioServer::Failure& failure) {
        QMetaObject::invokeMethod(
            &mainThread_, [this, run, failure] { failed(run, failure); }, Qt::QueuedConnection);
    };
    recording_ = server_->record(request_, std::move(handlers));
}

void ServerCapture::stop() {
    ++run_;
    recording_.reset();
    if (pendingStart_)
        finishStart(Failure::other(QStringLiteral("The capture was stopped before it started.")));
}

void ServerCapture::started(quint64 run) {
    if (run != run_)
        return;
    finishStart(Done{});
}

void ServerCapture::failed(quint64 run, const AudioServer::Failure& failure) {
    if (run != run_)
        return;
    ++run_;
    recording_.reset();
    if (pendingStart_) {
        if (failure.kind == AudioServer::Failure::Kind::server)
            finishStart(Failure::other(failure.message));
        else
            finishStart(BackendError::server(missingMessage_));
    } else if (onStop_) {
        onStop_(Failure::other(failure.message));
    }
}

// The completion always runs from the event loop, never inside start() or stop(), so that an owner that
// reacts to it by starting or stopping again is not re-entered.
void ServerCapture::finishStart(Result<Done> result) {
    QMetaObject::invokeMethod(
        &mainThread_, [done = std::move(pendingStart_), result = std::move(result)] { done(result); },
        Qt::QueuedConnection);
    pendingStart_ = nullptr;
}
