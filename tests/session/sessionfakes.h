#pragma once

#include "sessioncontroller.h"

#include <QObject>

#include <memory>
#include <vector>

// Scripted stand-ins for everything a session talks to, so that a test drives every path by hand.
// Each fake keeps its record in a shared object that outlives it: the controller owns the fakes, the
// test reads what happened to them.

// Speech streams: what was made, started, stopped and sent; events are pushed in by the test.
class FakeStreams {
public:
    struct Record {
        QString label;
        SpeechStream::EventHandler onEvent;
        int starts = 0;
        int stops = 0;
        int sent = 0;  // buffers; counted on the capture's thread, which FakeCapture::deliver joins
        bool alive = true;
    };

    SessionController::StreamFactory factory();
    const std::vector<std::shared_ptr<Record>>& made() const { return made_; }
    // Hands `event` to the newest stream with `label`, as that stream would while it lives.
    void report(const QString& label, const SpeechStream::Event& event);

private:
    std::vector<std::shared_ptr<Record>> made_;
};

// A capture that starts when the test says so and delivers audio from a thread of its own. Like the
// real one, a start while starting or running stops first, and a stop while starting fails that start.
class FakeCapture : public AudioCapture {
public:
    enum class State { idle, starting, running };

    struct Record {
        State state = State::idle;
        Completion<Done> pendingStart;
        AudioHandler onAudio;
        StopHandler onStop;
    };

    explicit FakeCapture(std::shared_ptr<Record> record) : record_(std::move(record)) {}

    void setOnAudio(AudioHandler handler) override { record_->onAudio = std::move(handler); }
    void setOnStop(StopHandler handler) override { record_->onStop = std::move(handler); }
    void start(Completion<Done> done) override;
    void stop() override;

    static void finishStart(Record& record, const Result<Done>& result);
    // Delivers `count` buffers of `bytes` bytes from a separate thread and waits for it; audio flows as
    // soon as the server has started the recording, which may be before the start completes.
    static void deliver(Record& record, int bytes, int count = 1);
    static void end(Record& record, const Failure& error);

private:
    std::shared_ptr<Record> record_;
    // Receives the queued failure of a start cut short by stop(); gone with the capture, like the real one.
    QObject mainThread_;
};

class FakeBackend : public SessionBackend {
public:
    struct AnswerRecord {
        AnswerRequest request;
        AnswerHandlers handlers;
        bool abandoned = false;

        // Test side: what the server sends. Nothing reaches the session once the answer is abandoned.
        void piece(const QString& text);
        void end(const std::optional<Failure>& failure = std::nullopt);
    };

    struct Record {
        bool signedIn = true;
        QList<double> usage;
        std::vector<std::shared_ptr<AnswerRecord>> answers;
    };

    explicit FakeBackend(std::shared_ptr<Record> record) : record_(std::move(record)) {}

    bool isSignedIn() const override { return record_->signedIn; }
    void speechToken(Completion<QString> done) override { done(QStringLiteral("speech-token")); }
    void reportUsage(double seconds) override { record_->usage.append(seconds); }
    std::unique_ptr<Answer> answer(const AnswerRequest& request, AnswerHandlers handlers) override;

private:
    std::shared_ptr<Record> record_;
};

// Holds every request until the test answers it.
class FakeMicrophoneAccess : public MicrophoneAccess {
public:
    struct Record {
        std::vector<std::function<void(bool)>> pending;

        void answerAll(bool granted);
    };

    explicit FakeMicrophoneAccess(std::shared_ptr<Record> record) : record_(std::move(record)) {}
    void request(std::function<void(bool)> answer) override { record_->pending.push_back(std::move(answer)); }

private:
    std::shared_ptr<Record> record_;
};

// A clock that moves only when the test advances it, firing due timers on the way in time order.
class ManualClock : public SessionClock {
public:
    struct Record {
        struct Entry {
            std::chrono::milliseconds period;
            TimePoint due;
            std::function<void()> tick;
        };

        TimePoint now = TimePoint(std::chrono::hours(24 * 365 * 56));
        std::vector<std::weak_ptr<Entry>> timers;

        void advance(std::chrono::milliseconds by);
        int liveTimers() const;
    };

    explicit ManualClock(std::shared_ptr<Record> record) : record_(std::move(record)) {}

    TimePoint now() const override { return record_->now; }
    std::unique_ptr<Timer> repeat(std::chrono::milliseconds period, std::function<void()> tick) override;

private:
    std::shared_ptr<Record> record_;
};
