#pragma once

#include "audioserver.h"

#include <QByteArray>

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

class FakeAudioServer;

// One recording of the fake server, with a thread of its own on which every handler runs, as a real
// server's would. The test scripts it: started, buffers, a failure, or an endless flow of buffers.
class FakeRecording final : public AudioServer::Recording {
public:
    FakeRecording(FakeAudioServer& server, AudioServer::Request request, AudioServer::Handlers handlers);
    ~FakeRecording() override;

    const AudioServer::Request& request() const { return request_; }

    void start();
    // `samples` holds whole frames of `format`.
    void deliver(const AudioFormat& format, const QByteArray& samples);
    void fail(AudioServer::Failure::Kind kind, const QString& message = {});
    // Delivers `samples` over and over until the recording is destroyed.
    void flow(const AudioFormat& format, const QByteArray& samples);
    // Returns once everything scripted so far has run on the recording's thread.
    void flush();

private:
    void post(std::function<void()> step);
    std::function<void()> delivery(const AudioFormat& format, const QByteArray& samples);
    void run();

    FakeAudioServer& server_;
    const AudioServer::Request request_;
    const AudioServer::Handlers handlers_;
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> steps_;
    bool busy_ = false;
    bool flowing_ = false;
    bool closing_ = false;
    std::thread thread_;
};

// Hands out fake recordings and keeps track of the ones still alive, so that a test sees what its capture
// left running.
class FakeAudioServer final : public AudioServer {
public:
    std::unique_ptr<Recording> record(const Request& request, Handlers handlers) override;

    // The recording most recently opened, if it is still alive.
    FakeRecording* current();
    int alive();

    // What each new recording does by itself as soon as it is opened: start (the default), fail, or wait
    // for the test.
    enum class Opening { starts, fails, waits };
    void setOpening(Opening opening, AudioServer::Failure failure = {});

private:
    friend class FakeRecording;
    void gone(FakeRecording* recording);

    std::mutex mutex_;
    std::vector<FakeRecording*> alive_;
    Opening opening_ = Opening::starts;
    AudioServer::Failure failure_;
};
