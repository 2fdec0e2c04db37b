#include "fakesession.h"

#include <QCoreApplication>

FakeSession::FakeSession() {
    settings_.setAutoAnswer(false);
    SessionController::Parts parts;
    parts.settings = &settings_;
    parts.backend = std::make_unique<FakeBackend>(backend_);
    parts.makeStream = streams_.factory();
    parts.systemCapture = std::make_unique<FakeCapture>(system_);
    parts.micCapture = std::make_unique<FakeCapture>(mic_);
    parts.microphoneAccess = std::make_unique<FakeMicrophoneAccess>(access_);
    parts.clock = std::make_unique<ManualClock>(std::make_shared<ManualClock::Record>());
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

void FakeSession::report(Speaker speaker, const SpeechStream::Event& event) {
    streams_.report(speaker == Speaker::interviewer ? QStringLiteral("Interviewer") : QStringLiteral("You"),
                    event);
    // The controller takes stream events through the event loop.
    QCoreApplication::sendPostedEvents();
}
