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
    FakeSession();

    SessionController& session() { return *session_; }
    AppSettings& settings() { return settings_; }

    // Both captures running and both streams connected (the microphone's only when it is used).
    void listen();
    void hear(Speaker who, const QString& text) { report(who, SpeechStream::Event::interim(text)); }
    void say(Speaker who, const QString& text) { report(who, SpeechStream::Event::final(text, true)); }
    void failStream(Speaker who, const QString& why) { report(who, SpeechStream::Event::failed(why)); }
    void ask(const QString& question) { session_->ask(question); }
    void answerPiece(const QString& text) { backend_->answers.back()->piece(text); }
    void answerFails(const QString& why) {
        backend_->answers.back()->end(Failure(BackendError::network(why)));
    }

private:
    void report(Speaker speaker, const SpeechStream::Event& event);

    QTemporaryDir dir_;
    AppSettings settings_{dir_.filePath(QStringLiteral("settings.ini"))};
    FakeStreams streams_;
    std::shared_ptr<FakeCapture::Record> system_ = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeCapture::Record> mic_ = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeBackend::Record> backend_ = std::make_shared<FakeBackend::Record>();
    std::shared_ptr<FakeMicrophoneAccess::Record> access_ = std::make_shared<FakeMicrophoneAccess::Record>();
    std::unique_ptr<SessionController> session_;
};
