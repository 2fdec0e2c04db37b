#include "sessionfakes.h"

#include <algorithm>
#include <thread>

namespace {

// Holds its record for as long as the session keeps the stream, answer or timer.
template <typename Base, typename Record>
struct Handle : Base {
    explicit Handle(std::shared_ptr<Record> record) : record(std::move(record)) {}
    std::shared_ptr<Record> record;
};

struct FakeStream : Handle<SpeechStream, FakeStreams::Record> {
    using Handle::Handle;
    ~FakeStream() override {
        record->alive = false;
        record->onEvent = nullptr;
    }
    QString label() const override { return record->label; }
    void setOnEvent(EventHandler handler) override { record->onEvent = std::move(handler); }
    void start() override { ++record->starts; }
    void send(const QByteArray&) override { ++record->sent; }
    void stop() override { ++record->stops; }
};

struct FakeAnswer : Handle<SessionBackend::Answer, FakeBackend::AnswerRecord> {
    using Handle::Handle;
    ~FakeAnswer() override { record->abandoned = true; }
};

}  // namespace

SessionController::StreamFactory FakeStreams::factory() {
    return [this](const QString& label, TokenProvider) -> std::unique_ptr<SpeechStream> {
        made_.push_back(std::make_shared<Record>());
        made_.back()->label = label;
        return std::make_unique<FakeStream>(made_.back());
    };
}

void FakeStreams::report(const QString& label, const SpeechStream::Event& event) {
    const auto newest =
        std::find_if(made_.rbegin(), made_.rend(), [&](const auto& r) { return r->label == label; });
    if (newest != made_.rend() && (*newest)->onEvent) {
        (*newest)->onEvent(event);
    }
}

void FakeCapture::start(Completion<Done> done) {
    stop();
    record_->state = State::starting;
    record_->pendingStart = std::move(done);
}

void FakeCapture::stop() {
    if (auto done = std::exchange(record_->pendingStart, nullptr)) {
        QMetaObject::invokeMethod(
            &mainThread_,
            [done] { done(Failure::other(QStringLiteral("The capture was stopped before it started."))); },
            Qt::QueuedConnection);
    }
    record_->state = State::idle;
}

void FakeCapture::finishStart(Record& record, const Result<Done>& result) {
    record.state = result ? State::running : State::idle;
    if (auto done = std::exchange(record.pendingStart, nullptr)) {
        done(result);
    }
}

void FakeCapture::deliver(Record& record, int bytes, int count) {
    if (record.state != State::idle && record.onAudio) {
        std::thread([&record, pcm = QByteArray(bytes, '\0'), count] {
            for (int i = 0; i < count; ++i) {
                record.onAudio(pcm);
            }
        }).join();
    }
}

void FakeCapture::end(Record& record, const Failure& error) {
    record.state = State::idle;
    record.onStop(error);
}

void FakeBackend::AnswerRecord::piece(const QString& text) {
    if (!abandoned) {
        handlers.piece(text);
    }
}

void FakeBackend::AnswerRecord::end(const std::optional<Failure>& failure) {
    if (!abandoned) {
        handlers.ended(failure);
    }
}

std::unique_ptr<SessionBackend::Answer> FakeBackend::answer(const AnswerRequest& request,
                                                            AnswerHandlers handlers) {
    record_->answers.push_back(std::make_shared<AnswerRecord>(AnswerRecord{request, std::move(handlers)}));
    return std::make_unique<FakeAnswer>(record_->answers.back());
}

void FakeMicrophoneAccess::Record::answerAll(bool granted) {
    for (const auto& answer : std::exchange(pending, {})) {
        answer(granted);
    }
}

void ManualClock::Record::advance(std::chrono::milliseconds by) {
    const TimePoint target = now + by;
    for (;;) {
        std::shared_ptr<Entry> next;
        for (const auto& timer : timers) {
            const auto entry = timer.lock();
            if (entry && entry->due <= target && (!next || entry->due < next->due)) {
                next = entry;
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
        std::count_if(timers.begin(), timers.end(), [](const auto& t) { return !t.expired(); }));
}

std::unique_ptr<SessionClock::Timer> ManualClock::repeat(std::chrono::milliseconds period,
                                                         std::function<void()> tick) {
    auto entry =
        std::make_shared<Record::Entry>(Record::Entry{period, record_->now + period, std::move(tick)});
    record_->timers.push_back(entry);
    return std::make_unique<Handle<Timer, Record::Entry>>(entry);
}
