#include "sessionfakes.h"

#include <QMetaObject>

#include <algorithm>
#include <thread>

namespace {

class FakeStream : public SpeechStream {
public:
    explicit FakeStream(std::shared_ptr<FakeStreams::Record> record) : record_(std::move(record)) {}
    ~FakeStream() override {
        record_->alive = false;
        record_->onEvent = nullptr;
    }

    QString label() const override { return record_->label; }
    void setOnEvent(EventHandler handler) override { record_->onEvent = std::move(handler); }
    void start() override { ++record_->starts; }
    void send(const QByteArray& pcm) override { record_->addSent(pcm); }
    void stop() override { ++record_->stops; }

private:
    std::shared_ptr<FakeStreams::Record> record_;
};

class FakeAnswer : public SessionBackend::Answer {
public:
    explicit FakeAnswer(std::shared_ptr<FakeBackend::AnswerRecord> record) : record_(std::move(record)) {}
    ~FakeAnswer() override { record_->abandoned = true; }

private:
    std::shared_ptr<FakeBackend::AnswerRecord> record_;
};

class ManualTimer : public SessionClock::Timer {
public:
    explicit ManualTimer(std::shared_ptr<ManualClock::Record::Entry> entry) : entry_(std::move(entry)) {}
    ~ManualTimer() override { entry_->alive = false; }

private:
    std::shared_ptr<ManualClock::Record::Entry> entry_;
};

}  // namespace

QList<QByteArray> FakeStreams::Record::sent() const {
    std::lock_guard guard(lock_);
    return sent_;
}

void FakeStreams::Record::addSent(const QByteArray& pcm) {
    std::lock_guard guard(lock_);
    sent_.append(pcm);
}

SessionController::StreamFactory FakeStreams::factory() {
    return [this](const QString& label, TokenProvider) -> std::unique_ptr<SpeechStream> {
        auto record = std::make_shared<Record>();
        record->label = label;
        made_.push_back(record);
        return std::make_unique<FakeStream>(record);
    };
}

FakeStreams::Record* FakeStreams::latest(const QString& label) {
    for (auto it = made_.rbegin(); it != made_.rend(); ++it) {
        if ((*it)->label == label) {
            return it->get();
        }
    }
    return nullptr;
}

void FakeStreams::report(const QString& label, const SpeechStream::Event& event) {
    Record* record = latest(label);
    if (record && record->onEvent) {
        record->onEvent(event);
    }
}

FakeCapture::~FakeCapture() {
    record_->onAudio = nullptr;
    record_->onStop = nullptr;
}

void FakeCapture::start(Completion<Done> done) {
    stop();
    ++record_->starts;
    record_->state = State::starting;
    record_->pendingStart = std::move(done);
}

void FakeCapture::stop() {
    ++record_->stops;
    if (record_->state == State::starting && record_->pendingStart) {
        QMetaObject::invokeMethod(
            &mainThread_,
            [done = std::move(record_->pendingStart)] {
                done(Failure::other(QStringLiteral("The capture was stopped before it started.")));
            },
            Qt::QueuedConnection);
        record_->pendingStart = nullptr;
    }
    record_->state = State::idle;
}

void FakeCapture::finishStart(Record& record, const Result<Done>& result) {
    auto done = std::exchange(record.pendingStart, nullptr);
    record.state = result ? State::running : State::idle;
    if (done) {
        done(result);
    }
}

void FakeCapture::deliver(Record& record, int bytes, int count) {
    if (record.state == State::idle || !record.onAudio) {
        return;
    }
    const QByteArray pcm(bytes, '\0');
    std::thread capture([&record, &pcm, count] {
        for (int i = 0; i < count; ++i) {
            record.onAudio(pcm);
        }
    });
    capture.join();
}

void FakeCapture::end(Record& record, const Failure& error) {
    record.state = State::idle;
    if (record.onStop) {
        record.onStop(error);
    }
}

void FakeBackend::AnswerRecord::piece(const QString& text) {
    if (!abandoned && handlers.piece) {
        handlers.piece(text);
    }
}

void FakeBackend::AnswerRecord::end(const std::optional<Failure>& failure) {
    if (!abandoned && handlers.ended) {
        handlers.ended(failure);
    }
}

std::unique_ptr<SessionBackend::Answer> FakeBackend::answer(const AnswerRequest& request,
                                                            AnswerHandlers handlers) {
    auto record = std::make_shared<AnswerRecord>();
    record->request = request;
    record->handlers = std::move(handlers);
    record_->answers.push_back(record);
    return std::make_unique<FakeAnswer>(record);
}

void FakeMicrophoneAccess::Record::answerAll(bool granted) {
    auto answers = std::exchange(pending, {});
    for (auto& answer : answers) {
        answer(granted);
    }
}

void FakeMicrophoneAccess::request(std::function<void(bool granted)> answer) {
    ++record_->requests;
    record_->pending.push_back(std::move(answer));
}

void ManualClock::Record::advance(std::chrono::milliseconds by) {
    const TimePoint target = now + by;
    for (;;) {
        std::shared_ptr<Entry> next;
        for (const auto& timer : timers) {
            if (timer->alive && timer->due <= target && (!next || timer->due < next->due)) {
                next = timer;
            }
        }
        if (!next) {
            break;
        }
        now = next->due;
        next->due += next->period;
        next->tick();
    }
    now = target;
}

int ManualClock::Record::liveTimers() const {
    return static_cast<int>(
        std::count_if(timers.begin(), timers.end(), [](const auto& t) { return t->alive; }));
}

std::unique_ptr<SessionClock::Timer> ManualClock::repeat(std::chrono::milliseconds period,
                                                         std::function<void()> tick) {
    auto entry =
        std::make_shared<Record::Entry>(Record::Entry{period, record_->now + period, std::move(tick)});
    record_->timers.push_back(entry);
    return std::make_unique<ManualTimer>(entry);
}
