#include "fakesession.h"

#include <QCoreApplication>

FakeSession::FakeSession() {
    settings_.setAutoAnswer(false);
    session_ = std::make_unique<SessionController>(
        SessionController::Parts{&settings_, std::make_unique<FakeBackend>(backend_), streams_.factory(),
                                 std::make_unique<FakeCapture>(system_), std::make_unique<FakeCapture>(mic_),
                                 std::make_unique<FakeMicrophoneAccess>(access_),
                                 std::make_unique<ManualClock>(std::make_shared<ManualClock::Record>())});
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
