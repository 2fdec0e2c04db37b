#pragma once

#include "appsettings.h"
#include "sessioncontroller.h"
#include "sessionfakes.h"

#include <QTemporaryDir>

#include <memory>

// A session controller over the session fakes, with settings in a file of its own, and the steps that
// put it into the states the overlay shows. Automatic answering is off, so that only `ask` starts one.
class FakeSession {
public:
    explicit FakeSession(bool useMic = true);

    SessionController& session() { return *session_; }
    AppSettings& settings() { return settings_; }

    // Starts listening with both captures running and both streams connected (the microphone's only
    // when it is used).
    void listen();
    // Words still being heard, and a finished utterance, which becomes a committed line.
    void hear(Speaker speaker, const QString& text);
    void say(Speaker speaker, const QString& text);
    // A stream reports a failure, which becomes the session's notice.
    void failStream(Speaker speaker, const QString& message);

    // An answer request that the backend has not answered yet.
    void ask(const QString& question);
    void answerPiece(const QString& text);
    void answerFails(const QString& message);

private:
    void report(Speaker speaker, const SpeechStream::Event& event);

    QTemporaryDir dir_;
    AppSettings settings_;
    FakeStreams streams_;
    std::shared_ptr<FakeCapture::Record> system_ = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeCapture::Record> mic_ = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeBackend::Record> backend_ = std::make_shared<FakeBackend::Record>();
    std::shared_ptr<FakeMicrophoneAccess::Record> access_ = std::make_shared<FakeMicrophoneAccess::Record>();
    std::shared_ptr<ManualClock::Record> clock_ = std::make_shared<ManualClock::Record>();
    std::unique_ptr<SessionController> session_;
};
