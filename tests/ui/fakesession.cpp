#include "fakesession.h"

#include <QCoreApplication>

FakeSession::FakeSession(bool useMic) : settings_(dir_.filePath(QStringLiteral("settings.ini"))) {
    settings_.setUseMic(useMic);
    settings_.setAutoAnswer(false);
    SessionController::Parts parts;
    parts.settings = &settings_;
    parts.backend = std::make_unique<FakeBackend>(backend_);
    parts.makeStream = streams_.factory();
    parts.systemCapture = std::make_unique<FakeCapture>(system_);
    parts.micCapture = std::make_unique<FakeCapture>(mic_);
    parts.microphoneAccess = std::make_unique<FakeMicrophoneAccess>(access_);
    parts.clock = std::make_unique<ManualClock>(clock_);
    session_ = std::make_unique<SessionController>(std::move(parts));
}

void FakeSession::listen() {
    session_->start();
    FakeCapture::finishStart(*system_, Done{});
    report(Speaker::interviewer, SpeechStream::Event::connected());
    if (settings_.useMic()) {
        access_->answerAll(true);
        FakeCapture::finishStart(*mic_, Done{});
        report(Speaker::me, SpeechStream::Event::connected());
    }
}

void FakeSession::hear(Speaker speaker, const QString& text) {
    report(speaker, SpeechStream::Event::interim(text));
}

void FakeSession::say(Speaker speaker, const QString& text) {
    report(speaker, SpeechStream::Event::final(text, true));
}

void FakeSession::failStream(Speaker speaker, const QString& message) {
    report(speaker, SpeechStream::Event::failed(message));
}

void FakeSession::ask(const QString& question) {
    session_->ask(question);
}

void FakeSession::answerPiece(const QString& text) {
    backend_->answers.back()->piece(text);
}

void FakeSession::answerFails(const QString& message) {
    backend_->answers.back()->end(Failure(BackendError::network(message)));
}

void FakeSession::report(Speaker speaker, const SpeechStream::Event& event) {
    streams_.report(speaker == Speaker::interviewer ? QStringLiteral("Interviewer") : QStringLiteral("You"),
                    event);
    // The controller takes stream events through the event loop.
    QCoreApplication::sendPostedEvents();
}
