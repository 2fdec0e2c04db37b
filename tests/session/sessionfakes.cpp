#include "sessionfakes.h"

#include <QCoreApplication>

#include <algorithm>
#include <thread>

namespace {

struct FakeStream : Fake<SpeechStream, FakeStreams::Record> {
    using Fake::Fake;
    ~FakeStream() override { record->alive = false; }
    QString label() const override { return record->label; }
    void setOnEvent(EventHandler handler) override { record->onEvent = std::move(handler); }
    void start() override {}
    void send(const QByteArray&) override {}
    void stop() override {}
};

struct FakeAnswer : Fake<SessionBackend::Answer, AnswerRecord> {
    using Fake::Fake;
    ~FakeAnswer() override { record->abandoned = true; }
};

}  // namespace

SessionController::StreamFactory FakeStreams::factory() {
    return [this](const QString& label, TokenProvider) -> std::unique_ptr<SpeechStream> {
        made.push_back(std::make_shared<Record>(Record{label, nullptr}));
        return std::make_unique<FakeStream>(made.back());
    };
}

void FakeStreams::report(const QString& label, const SpeechStream::Event& event) {
    const auto newest =
        std::find_if(made.rbegin(), made.rend(), [&](const auto& r) { return r->label == label; });
    if (newest != made.rend() && (*newest)->alive && (*newest)->onEvent)
        (*newest)->onEvent(event);
}

void FakeCapture::start(Completion<Done> done) {
    stop();
    record->state = Record::State::starting;
    record->pendingStart = std::move(done);
}

void FakeCapture::stop() {
    if (auto done = std::exchange(record->pendingStart, nullptr)) {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [done] { done(Failure::other(QStringLiteral("Stopped."))); },
            Qt::QueuedConnection);
    }
    record->state = Record::State::idle;
}

void FakeCapture::finishStart(Record& record, const Result<Done>& result) {
    if (auto done = std::exchange(record.pendingStart, nullptr)) {
        record.state = result ? Record::State::running : Record::State::idle;
        done(result);
    }
}

void FakeCapture::deliver(Record& record, int bytes, int count) {
    if (record.state != Record::State::idle && record.onAudio) {
        std::thread([&record, pcm = QByteArray(bytes, '\0'), count] {
            for (int i = 0; i < count; ++i) record.onAudio(pcm);
        }).join();
    }
}

void FakeCapture::end(Record& record, const Failure& error) {
    record.state = Record::State::idle;
    record.onStop(error);
}

std::unique_ptr<SessionBackend::Answer> FakeBackend::answer(const AnswerRequest& request,
                                                            AnswerHandlers handlers) {
    record->answers.push_back(std::make_shared<AnswerRecord>(AnswerRecord{request, std::move(handlers)}));
    return std::make_unique<FakeAnswer>(record->answers.back());
}

void AccessRecord::answerAll(bool granted) {
    for (const auto& answer : std::exchange(pending, {})) answer(granted);
}

void ClockRecord::advance(std::chrono::milliseconds by) {
    // A millisecond at a time, so that every timer fires when it is due, in time order.
    for (const SessionClock::TimePoint target = now + by; now < target;) {
        now += std::chrono::milliseconds(1);
        for (const auto& timer : timers) {
            if (const auto entry = timer.lock(); entry && entry->due <= now) {
                entry->due += entry->period;
                entry->tick();
            }
        }
    }
}

std::unique_ptr<SessionClock::Timer> ManualClock::repeat(std::chrono::milliseconds period,
                                                         std::function<void()> tick) {
    auto entry =
        std::make_shared<Record::Entry>(Record::Entry{period, record->now + period, std::move(tick)});
    record->timers.push_back(entry);
    return std::make_unique<Fake<Timer, Record::Entry>>(entry);
}
