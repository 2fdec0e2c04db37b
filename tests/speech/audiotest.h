#pragma once

#include "miccapture.h"
#include "systemaudiocapture.h"

#include <QTest>
#include <QtEndian>

#include <cmath>
#include <numbers>
#include <numeric>

Q_DECLARE_METATYPE(AudioFormat)

namespace AudioSignal {

inline qsizetype sampleBytes(const AudioFormat& format) {
    return format.sampleType == AudioFormat::SampleType::int16 ? 2 : 4;
}

// `frames` frames of `format` from frame `start` of an endless signal in which channel c is a sine of hz[c]
// with peak `amplitude` (1 = full scale).
inline QByteArray tone(const AudioFormat& format, const QList<double>& hz, double amplitude, qint64 start,
                       qsizetype frames) {
    QByteArray out(frames * hz.size() * sampleBytes(format), Qt::Uninitialized);
    for (qsizetype i = 0; i < frames * hz.size(); ++i) {
        const double t = double(start + i / hz.size()) / format.sampleRate;
        const double value = amplitude * std::sin(2 * std::numbers::pi * hz[i % hz.size()] * t);
        char* at = out.data() + i * sampleBytes(format);
        if (format.sampleType == AudioFormat::SampleType::float32)
            qToUnaligned(float(value), at);
        else if (format.sampleType == AudioFormat::SampleType::int16)
            qToUnaligned(std::int16_t(std::lround(value * 32767)), at);
        else
            qToUnaligned(std::int32_t(std::lround(value * 2147483647.0)), at);
    }
    return out;
}

inline AudioBuffer buffer(const AudioFormat& format, const QByteArray& samples) {
    return {format, samples.size() / (format.channels * sampleBytes(format)), samples.constData()};
}

// 16-bit little-endian PCM as samples scaled to -1 .. 1.
inline std::vector<double> samples(const QByteArray& pcm) {
    std::vector<double> out(std::size_t(pcm.size() / 2));
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = qFromLittleEndian<std::int16_t>(pcm.constData() + 2 * i) / 32768.0;
    return out;
}

// The amplitudes of the tones `hz` in `samples` at `rate`, by correlation over many periods, and the root
// mean square of what is left: near zero for a clean sum of those tones, large with gaps, repeated pieces or
// clicks.
struct Fit {
    QList<double> amplitudes;
    double residual = 0;
};

inline Fit fit(std::vector<double> samples, double rate, const QList<double>& hz) {
    Fit out;
    const auto n = double(samples.size());
    for (double f : hz) {
        const auto phase = [&](std::size_t i) { return 2 * std::numbers::pi * f * double(i) / rate; };
        double sine = 0, cosine = 0;
        for (std::size_t i = 0; i < samples.size(); ++i) {
            sine += samples[i] * std::sin(phase(i)) * 2 / n;
            cosine += samples[i] * std::cos(phase(i)) * 2 / n;
        }
        for (std::size_t i = 0; i < samples.size(); ++i)
            samples[i] -= sine * std::sin(phase(i)) + cosine * std::cos(phase(i));
        out.amplitudes.append(std::hypot(sine, cosine));
    }
    const double power = std::inner_product(samples.begin(), samples.end(), samples.begin(), 0.0);
    out.residual = samples.empty() ? 0 : std::sqrt(power / n);
    return out;
}

}  // namespace AudioSignal

enum class Which { microphone, systemAudio };

inline std::unique_ptr<AudioCapture> makeCapture(Which which,
                                                 std::shared_ptr<AudioServer> server = AudioServer::pulse()) {
    if (which == Which::microphone)
        return std::make_unique<MicCapture>(std::move(server));
    return std::make_unique<SystemAudioCapture>(std::move(server));
}

// The case `name` once for each capture, as the first column `which` followed by `values`.
template <typename... Values>
void addCaptureRows(const char* name, const Values&... values) {
    for (Which which : {Which::microphone, Which::systemAudio}) {
        const char* capture = which == Which::microphone ? "microphone" : "system audio";
        (QTest::addRow("%s, %s", capture, name) << which << ... << values);
    }
}
