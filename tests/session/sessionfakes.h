#pragma once

#include "audiocapture.h"
#include "microphoneaccess.h"
#include "sessionbackend.h"
#include "sessionclock.h"
#include "sessioncontroller.h"
#include "speechstream.h"

#include <QList>
#include <QObject>
#include <QStringList>

#include <functional>
#include <memory>
#include <mutex>
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
        bool alive = true;

        QList<QByteArray> sent() const;
        void addSent(const QByteArray& pcm);

    private:
        mutable std::mutex lock_;
        QList<QByteArray> sent_;
    };

    SessionController::StreamFactory factory();

    int count() const { return static_cast<int>(made_.size()); }
    // The newest stream with this label, or null.
    Record* latest(const QString& label);
    // Hands `event` to the newest live stream with `label`, as the stream would.
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
        int starts = 0;
        int stops = 0;
        Completion<Done> pendingStart;
        AudioHandler onAudio;
        StopHandler onStop;
    };

    explicit FakeCapture(std::shared_ptr<Record> record) : record_(std::move(record)) {}
    ~FakeCapture() override;

    void setOnAudio(AudioHandler handler) override { record_->onAudio = std::move(handler); }
    void setOnStop(StopHandler handler) override { record_->onStop = std::move(handler); }
    void start(Completion<Done> done) override;
    void stop() override;

    // Test side.
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
        int requests = 0;

        void answerAll(bool granted);
    };

    explicit FakeMicrophoneAccess(std::shared_ptr<Record> record) : record_(std::move(record)) {}
    void request(std::function<void(bool granted)> answer) override;

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
            bool alive = true;
        };

        TimePoint now = TimePoint(std::chrono::hours(24 * 365 * 56));
        std::vector<std::shared_ptr<Entry>> timers;

        void advance(std::chrono::milliseconds by);
        int liveTimers() const;
    };

    explicit ManualClock(std::shared_ptr<Record> record) : record_(std::move(record)) {}

    TimePoint now() const override { return record_->now; }
    std::unique_ptr<Timer> repeat(std::chrono::milliseconds period, std::function<void()> tick) override;

private:
    std::shared_ptr<Record> record_;
};
