#include "audiosignal.h"

#include <QtEndian>

#include <cmath>
#include <cstdint>
#include <numbers>
#include <type_traits>

namespace AudioSignal {

namespace {

template <typename Sample>
QByteArray fill(const QList<double>& hz, double rate, double amplitude, double fullScale, qint64 start,
                qsizetype frames) {
    QByteArray out(frames * hz.size() * qsizetype(sizeof(Sample)), Qt::Uninitialized);
    auto* data = reinterpret_cast<Sample*>(out.data());
    const auto channels = hz.size();
    for (qsizetype frame = 0; frame < frames; ++frame) {
        for (qsizetype channel = 0; channel < channels; ++channel) {
            const double t = static_cast<double>(start + frame) / rate;
            const double value = amplitude * std::sin(2 * std::numbers::pi * hz[channel] * t);
            if constexpr (std::is_floating_point_v<Sample>)
                data[frame * channels + channel] = static_cast<Sample>(value);
            else
                data[frame * channels + channel] = static_cast<Sample>(std::lround(value * fullScale));
        }
    }
    return out;
}

struct Components {
    double sine = 0;
    double cosine = 0;
};

Components components(const std::vector<double>& samples, double rate, double hz) {
    Components c;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double phase = 2 * std::numbers::pi * hz * static_cast<double>(i) / rate;
        c.sine += samples[i] * std::sin(phase);
        c.cosine += samples[i] * std::cos(phase);
    }
    const auto n = static_cast<double>(samples.size());
    c.sine *= 2 / n;
    c.cosine *= 2 / n;
    return c;
}

}  // namespace

QByteArray tone(const AudioFormat& format, const QList<double>& hz, double amplitude, qint64 start,
                qsizetype frames) {
    Q_ASSERT(hz.size() == format.channels);
    switch (format.sampleType) {
        case AudioFormat::SampleType::float32:
            return fill<float>(hz, format.sampleRate, amplitude, 1, start, frames);
        case AudioFormat::SampleType::int16:
            return fill<std::int16_t>(hz, format.sampleRate, amplitude, 32767, start, frames);
        case AudioFormat::SampleType::int32:
            return fill<std::int32_t>(hz, format.sampleRate, amplitude, 2147483647.0, start, frames);
    }
    return {};
}

std::vector<double> samples(const QByteArray& pcm) {
    std::vector<double> out(static_cast<std::size_t>(pcm.size() / 2));
    for (std::size_t i = 0; i < out.size(); ++i)
        out[i] = qFromLittleEndian<std::int16_t>(pcm.constData() + 2 * i) / 32768.0;
    return out;
}

double amplitudeAt(const std::vector<double>& samples, double rate, double hz) {
    const Components c = components(samples, rate, hz);
    return std::hypot(c.sine, c.cosine);
}

double residual(const std::vector<double>& samples, double rate, const QList<double>& hz) {
    std::vector<double> rest = samples;
    for (double f : hz) {
        const Components c = components(samples, rate, f);
        for (std::size_t i = 0; i < rest.size(); ++i) {
            const double phase = 2 * std::numbers::pi * f * static_cast<double>(i) / rate;
            rest[i] -= c.sine * std::sin(phase) + c.cosine * std::cos(phase);
        }
    }
    return rms(rest);
}

double rms(const std::vector<double>& samples) {
    if (samples.empty())
        return 0;
    double sum = 0;
    for (double s : samples) sum += s * s;
    return std::sqrt(sum / static_cast<double>(samples.size()));
}

}  // namespace AudioSignal
