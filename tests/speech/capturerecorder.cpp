#include "capturerecorder.h"

#include <QCoreApplication>
#include <QTest>
#include <QThread>

AudioCapture::AudioHandler CaptureRecorder::handler() {
    return [this](const QByteArray& pcm) {
        if (closed_)
            afterClose_ = true;
        std::lock_guard lock(mutex_);
        if (clock_.isValid()) {
            lastAt_ = clock_.elapsed();
            if (firstAt_ < 0) {
                firstAt_ = lastAt_;
                firstSize_ = pcm.size();
            }
        }
        pcm_ += pcm;
        ++calls_;
        onMainThread_ = onMainThread_ || QThread::currentThread() == QCoreApplication::instance()->thread();
    };
}

QByteArray CaptureRecorder::bytes() {
    std::lock_guard lock(mutex_);
    return pcm_;
}

int CaptureRecorder::calls() {
    std::lock_guard lock(mutex_);
    return calls_;
}

bool CaptureRecorder::calledOnMainThread() {
    std::lock_guard lock(mutex_);
    return onMainThread_;
}

void CaptureRecorder::startClock() {
    std::lock_guard lock(mutex_);
    clock_.start();
}

double CaptureRecorder::rate(qsizetype skip) {
    std::lock_guard lock(mutex_);
    if (lastAt_ <= firstAt_)
        return 0;
    return double(pcm_.size() - skip - firstSize_) * 1000 / double(lastAt_ - firstAt_);
}

Completion<Done> StartOutcome::completion() {
    return [this](Result<Done> r) {
        result = std::move(r);
        ++completions;
    };
}

std::optional<Result<Done>> startAndWait(AudioCapture& capture) {
    std::optional<Result<Done>> result;
    capture.start([&result](Result<Done> r) { result = std::move(r); });
    if (!QTest::qWaitFor([&result] { return result.has_value(); }, 10'000))
        return std::nullopt;
    return result;
}

QString startProblem(AudioCapture& capture) {
    const auto result = startAndWait(capture);
    if (!result)
        return QStringLiteral("no outcome");
    return result->ok() ? QString() : result->failure().description();
}
