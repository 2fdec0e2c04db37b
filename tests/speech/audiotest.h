#pragma once

#include "miccapture.h"
#include "systemaudiocapture.h"

#include <QElapsedTimer>
#include <QTest>
#include <QtEndian>

#include <cmath>
#include <cstdint>
#include <memory>
#include <mutex>
#include <numbers>
#include <utility>
#include <vector>

// Test signals and their analysis, and the captures as the audio tests drive them.
namespace AudioSignal {

// `frames` frames of `format` from frame `start` of an endless signal in which channel c is a sine of hz[c]
// with peak `amplitude` (1 = full scale).
inline QByteArray tone(const AudioFormat& format, const QList<double>& hz, double amplitude, qint64 start,
                       qsizetype frames) {
    using Type = AudioFormat::SampleType;
    const qsizetype size = format.sampleType == Type::int16 ? 2 : 4;
    QByteArray out(frames * hz.size() * size, Qt::Uninitialized);
    for (qsizetype i = 0; i < frames * hz.size(); ++i) {
        const double t = double(start + i / hz.size()) / format.sampleRate;
        const double value = amplitude * std::sin(2 * std::numbers::pi * hz[i % hz.size()] * t);
        char* at = out.data() + i * size;
        if (format.sampleType == Type::float32)
            qToUnaligned(float(value), at);
        else if (format.sampleType == Type::int16)
            qToUnaligned(std::int16_t(std::lround(value * 32767)), at);
        else
            qToUnaligned(std::int32_t(std::lround(value * 2147483647.0)), at);
    }
    return out;
}

// 16-bit little-endian PCM as samples scaled to -1 .. 1.
inline std::vector<double> samples(const QByteArray& pcm) {
    std::vector<double> out(std::size_t(pcm.size() / 2));
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = qFromLittleEndian<std::int16_t>(pcm.constData() + 2 * i) / 32768.0;
    return out;
}

inline double rms(const std::vector<double>& samples) {
    double sum = 0;
    for (double s : samples) sum += s * s;
    return samples.empty() ? 0 : std::sqrt(sum / double(samples.size()));
}

// The sine and cosine amplitudes of the component at `hz`, by correlation over the whole run (which should
// span many periods).
inline std::pair<double, double> component(const std::vector<double>& samples, double rate, double hz) {
    double sine = 0;
    double cosine = 0;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double phase = 2 * std::numbers::pi * hz * double(i) / rate;
        sine += samples[i] * std::sin(phase);
        cosine += samples[i] * std::cos(phase);
    }
    return {2 * sine / double(samples.size()), 2 * cosine / double(samples.size())};
}

inline double amplitudeAt(const std::vector<double>& samples, double rate, double hz) {
    const auto [sine, cosine] = component(samples, rate, hz);
    return std::hypot(sine, cosine);
}

// What is left once the components at `hz` have been taken out: near zero for a clean sum of those tones,
// large when the run has gaps, repeated pieces or clicks.
inline double residual(std::vector<double> samples, double rate, const QList<double>& hz) {
    for (double f : hz) {
        const auto [sine, cosine] = component(samples, rate, f);
        for (std::size_t i = 0; i < samples.size(); ++i) {
            const double phase = 2 * std::numbers::pi * f * double(i) / rate;
            samples[i] -= sine * std::sin(phase) + cosine * std::cos(phase);
        }
    }
    return rms(samples);
}

}  // namespace AudioSignal

// `samples` as whole frames of `format`.
inline AudioBuffer bufferOf(const AudioFormat& format, const QByteArray& samples) {
    const qsizetype frameBytes =
        format.channels * (format.sampleType == AudioFormat::SampleType::int16 ? 2 : 4);
    return {format, samples.size() / frameBytes, samples.constData()};
}

enum class Which { microphone, systemAudio };

inline std::unique_ptr<AudioCapture> makeCapture(Which which,
                                                 std::shared_ptr<AudioServer> server = AudioServer::pulse()) {
    if (which == Which::microphone)
        return std::make_unique<MicCapture>(std::move(server));
    return std::make_unique<SystemAudioCapture>(std::move(server));
}

// What the user is told when a capture's server or source is missing.
inline QString missingMessage(Which which) {
    return which == Which::microphone ? QStringLiteral("No microphone found.")
                                      : QStringLiteral("No display found to capture audio from.");
}

// The case `name` once for each capture, as the first column `which` followed by `values`.
template <typename... Values>
void addCaptureRows(const char* name, const Values&... values) {
    for (Which which : {Which::microphone, Which::systemAudio}) {
        const char* capture = which == Which::microphone ? "microphone" : "system audio";
        (QTest::addRow("%s, %s", capture, name) << which << ... << values);
    }
}

// What a capture handed to onAudio so far.
struct Received {
    QByteArray pcm;
    QList<std::pair<qint64, qsizetype>> arrivals;  // each call: ms since the recorder was made, bytes by then
    int late = 0;                                  // calls after close()
};

// Records what a capture hands to onAudio (on the capture's thread) for the test's thread to read.
class CaptureRecorder {
public:
    CaptureRecorder() { clock_.start(); }

    AudioCapture::AudioHandler handler() {
        return [this](const QByteArray& pcm) {
            std::lock_guard lock(mutex_);
            received_.late += closed_ ? 1 : 0;
            received_.pcm += pcm;
            received_.arrivals.append({clock_.elapsed(), received_.pcm.size()});
        };
    }
    Received snapshot() {
        std::lock_guard lock(mutex_);
        return received_;
    }
    // From now on a call counts as late: the capture promised that none would come.
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
    }

private:
    std::mutex mutex_;
    QElapsedTimer clock_;
    bool closed_ = false;
    Received received_;
};

// Starts `capture` and waits up to ten seconds for the outcome.
inline Result<Done> startAndWait(AudioCapture& capture) {
    std::optional<Result<Done>> result;
    capture.start([&result](Result<Done> r) { result = std::move(r); });
    if (!QTest::qWaitFor([&result] { return result.has_value(); }, 10'000))
        return Failure::other(QStringLiteral("no outcome"));
    return *result;
}

// Empty once `capture` has started, else what went wrong.
inline QString startProblem(AudioCapture& capture) {
    const Result<Done> result = startAndWait(capture);
    return result.ok() ? QString() : result.failure().description();
}
