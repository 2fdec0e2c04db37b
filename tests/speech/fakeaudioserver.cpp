#include "fakeaudioserver.h"

#include <algorithm>

FakeRecording::FakeRecording(FakeAudioServer& server, AudioServer::Request request,
                             AudioServer::Handlers handlers)
    : server_(server)
    , request_(std::move(request))
    , handlers_(std::move(handlers))
    , thread_([this] { run(); }) {}

FakeRecording::~FakeRecording() {
    {
        std::lock_guard lock(mutex_);
        closing_ = true;
    }
    wake_.notify_all();
    thread_.join();
    server_.gone(this);
}

void FakeRecording::start() {
    post([this] { handlers_.started(); });
}

void FakeRecording::deliver(const AudioFormat& format, const QByteArray& samples) {
    post(delivery(format, samples));
}

std::function<void()> FakeRecording::delivery(const AudioFormat& format, const QByteArray& samples) {
    return [this, format, samples] {
        const qsizetype frameBytes =
            format.channels * (format.sampleType == AudioFormat::SampleType::int16 ? 2 : 4);
        handlers_.audio(AudioBuffer{format, samples.size() / frameBytes, samples.constData()});
    };
}

void FakeRecording::fail(AudioServer::Failure::Kind kind, const QString& message) {
    post([this, kind, message] { handlers_.failed({kind, message}); });
}

void FakeRecording::flow(const AudioFormat& format, const QByteArray& samples) {
    {
        std::lock_guard lock(mutex_);
        flowing_ = true;
        steps_.push_back(delivery(format, samples));
    }
    wake_.notify_all();
}

void FakeRecording::flush() {
    std::unique_lock lock(mutex_);
    wake_.wait(lock, [this] { return (steps_.empty() && !busy_) || flowing_; });
}

void FakeRecording::post(std::function<void()> step) {
    {
        std::lock_guard lock(mutex_);
        steps_.push_back(std::move(step));
    }
    wake_.notify_all();
}

void FakeRecording::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [this] { return closing_ || !steps_.empty(); });
        if (closing_)
            return;
        std::function<void()> step = std::move(steps_.front());
        steps_.pop_front();
        busy_ = true;
        lock.unlock();
        step();
        lock.lock();
        busy_ = false;
        // A flowing recording delivers its last buffer again and again, as a live source would.
        if (flowing_ && steps_.empty())
            steps_.push_back(std::move(step));
        wake_.notify_all();
    }
}

std::unique_ptr<AudioServer::Recording> FakeAudioServer::record(const Request& request, Handlers handlers) {
    auto recording = std::make_unique<FakeRecording>(*this, request, std::move(handlers));
    Opening opening;
    Failure failure;
    {
        std::lock_guard lock(mutex_);
        alive_.push_back(recording.get());
        opening = opening_;
        failure = failure_;
    }
    if (opening == Opening::starts)
        recording->start();
    else if (opening == Opening::fails)
        recording->fail(failure.kind, failure.message);
    return recording;
}

FakeRecording* FakeAudioServer::current() {
    std::lock_guard lock(mutex_);
    return alive_.empty() ? nullptr : alive_.back();
}

int FakeAudioServer::alive() {
    std::lock_guard lock(mutex_);
    return int(alive_.size());
}

void FakeAudioServer::setOpening(Opening opening, AudioServer::Failure failure) {
    std::lock_guard lock(mutex_);
    opening_ = opening;
    failure_ = std::move(failure);
}

void FakeAudioServer::gone(FakeRecording* recording) {
    std::lock_guard lock(mutex_);
    alive_.erase(std::remove(alive_.begin(), alive_.end(), recording), alive_.end());
}
