#pragma once

#include "sessioncontroller.h"

#include <memory>
#include <vector>

// Scripted stand-ins for everything a session talks to. The controller owns the fakes; each keeps its
// record in a shared object that outlives it, through which the test drives it and reads what happened.
template <typename Base, typename Data>
struct Fake : Base {
    using Record = Data;
    explicit Fake(std::shared_ptr<Data> record) : record(std::move(record)) {}
    std::shared_ptr<Data> record;
};

struct FakeStreams {
    struct Record {
        QString label;
        SpeechStream::EventHandler onEvent;
        bool alive = true;
    };

    std::vector<std::shared_ptr<Record>> made;

    SessionController::StreamFactory factory();
    // Hands `event` to the newest stream with `label`, as that stream would while it lives.
    void report(const QString& label, const SpeechStream::Event& event);
};

struct CaptureRecord {
    enum class State { idle, starting, running } state = State::idle;
    Completion<Done> pendingStart;
    AudioCapture::AudioHandler onAudio;
    AudioCapture::StopHandler onStop;
};

// Starts when the test says so and delivers audio from a thread of its own. Like the real one, a start
// while starting or running stops first, and a stop while starting fails that start.
struct FakeCapture : Fake<AudioCapture, CaptureRecord> {
    using Fake::Fake;
    void setOnAudio(AudioHandler handler) override { record->onAudio = std::move(handler); }
    void setOnStop(StopHandler handler) override { record->onStop = std::move(handler); }
    void start(Completion<Done> done) override;
    void stop() override;

    static void finishStart(Record& record, const Result<Done>& result);
    // Audio flows as soon as the server has started the recording, which may be before the start completes.
    static void deliver(Record& record, int bytes, int count);
    static void end(Record& record, const Failure& error);
};

struct AnswerRecord {
    SessionBackend::AnswerRequest request;
    SessionBackend::AnswerHandlers handlers;
    bool abandoned = false;

    void piece(const QString& text) { handlers.piece(text); }
    void end(const std::optional<Failure>& failure = std::nullopt) { handlers.ended(failure); }
};

struct BackendRecord {
    bool signedIn = true;
    QStringList usage;  // seconds reported
    std::vector<std::shared_ptr<AnswerRecord>> answers;
};

struct FakeBackend : Fake<SessionBackend, BackendRecord> {
    using Fake::Fake;
    bool isSignedIn() const override { return record->signedIn; }
    void speechToken(Completion<QString> done) override { done(QStringLiteral("speech-token")); }
    void reportUsage(double seconds) override { record->usage.append(QString::number(seconds)); }
    std::unique_ptr<Answer> answer(const AnswerRequest& request, AnswerHandlers handlers) override;
};

// Holds every request until the test answers it.
struct AccessRecord {
    std::vector<std::function<void(bool)>> pending;
    void answerAll(bool granted);
};

struct FakeMicrophoneAccess : Fake<MicrophoneAccess, AccessRecord> {
    using Fake::Fake;
    void request(std::function<void(bool)> answer) override { record->pending.push_back(std::move(answer)); }
};

// Moves only when the test advances it, firing due timers on the way in time order.
struct ClockRecord {
    struct Entry {
        std::chrono::milliseconds period;
        SessionClock::TimePoint due;
        std::function<void()> tick;
    };
    SessionClock::TimePoint now = SessionClock::TimePoint(std::chrono::hours(24 * 365 * 56));
    std::vector<std::weak_ptr<Entry>> timers;
    void advance(std::chrono::milliseconds by);
};

struct ManualClock : Fake<SessionClock, ClockRecord> {
    using Fake::Fake;
    TimePoint now() const override { return record->now; }
    std::unique_ptr<Timer> repeat(std::chrono::milliseconds period, std::function<void()> tick) override;
};
