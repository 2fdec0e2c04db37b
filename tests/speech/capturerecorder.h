#pragma once

#include "audiocapture.h"

#include <QByteArray>
#include <QElapsedTimer>

#include <atomic>
#include <mutex>
#include <optional>

// Records what a capture hands to onAudio (on the capture's thread) for the test's thread to read.
class CaptureRecorder {
public:
    AudioCapture::AudioHandler handler();

    QByteArray bytes();
    int calls();
    bool calledOnMainThread();
    // From now on, a call counts as late: the capture promised that none would come.
    void close() { closed_ = true; }
    bool calledAfterClose() const { return afterClose_; }

    // Bytes per second of wall time from the first buffer after startClock() to the last one, not counting
    // the first `skip` bytes recorded nor the first buffer itself.
    void startClock();
    double rate(qsizetype skip);

private:
    std::mutex mutex_;
    QByteArray pcm_;
    int calls_ = 0;
    bool onMainThread_ = false;
    QElapsedTimer clock_;
    qint64 firstAt_ = -1;
    qint64 lastAt_ = -1;
    qsizetype firstSize_ = 0;
    std::atomic<bool> closed_ = false;
    std::atomic<bool> afterClose_ = false;
};

// Starts `capture` and waits up to ten seconds for the outcome.
std::optional<Result<Done>> startAndWait(AudioCapture& capture);
// Starts `capture` and waits: empty once it has started, else what went wrong.
QString startProblem(AudioCapture& capture);

// The outcome of one start, filled in by its completion.
struct StartOutcome {
    std::optional<Result<Done>> result;
    int completions = 0;

    Completion<Done> completion();
};
