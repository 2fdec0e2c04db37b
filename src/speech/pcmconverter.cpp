#include "pcmconverter.h"

#include <soxr.h>

#include <QtEndian>

#include <bit>
#include <cstdint>
#include <vector>

namespace {

// High quality with a minimum-phase filter. From 48 kHz it holds back about 250 output frames (16 ms),
// half of what the medium setting's linear-phase filter holds; it passes speech up to 7.5 kHz, where the
// low setting already takes 13 dB off at 7 kHz (fricatives live there); and it puts what lies above 8 kHz
// more than 130 dB down, so nothing folds back into the band. Recognisers read magnitude spectra, so the
// phase distortion of a minimum-phase filter costs nothing, and the CPU time matches the cheaper settings.
constexpr unsigned long resamplerQuality = SOXR_HQ | SOXR_MINIMUM_PHASE;

// Averages the channels of every frame into `mono`, scaled to the full range of -1 to 1.
template <typename Sample>
void mixDown(const AudioBuffer& buffer, double fullScale, float* mono) {
    const auto* samples = static_cast<const Sample*>(buffer.data);
    const int channels = buffer.format.channels;
    const double scale = 1.0 / (fullScale * channels);
    for (qsizetype frame = 0; frame < buffer.frames; ++frame) {
        double sum = 0;
        for (int channel = 0; channel < channels; ++channel) sum += static_cast<double>(*samples++);
        mono[frame] = static_cast<float>(sum * scale);
    }
}

}  // namespace

struct PCMConverter::Resampler {
    soxr_t soxr = nullptr;
    // The mixed-down input of one call; kept so that a steady run of buffers allocates nothing here.
    std::vector<float> mono;

    ~Resampler() { soxr_delete(soxr); }
};

PCMConverter::PCMConverter() = default;
PCMConverter::~PCMConverter() = default;

std::optional<QByteArray> PCMConverter::convert(const AudioBuffer& buffer) {
    if (buffer.format != inputFormat_) {
        converter_.reset();
        inputFormat_ = buffer.format;
        if (buffer.format.sampleRate > 0 && buffer.format.channels > 0) {
            // libsoxr does not mix channels, so it runs on one channel that this code mixes down. Its int16
            // output rounds and clips (no dither: silence stays digital silence for the recogniser).
            soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_INT16_I);
            io.flags |= SOXR_NO_DITHER;
            const soxr_quality_spec_t quality = soxr_quality_spec(resamplerQuality, 0);
            soxr_error_t error = nullptr;
            soxr_t soxr =
                soxr_create(buffer.format.sampleRate, sampleRate, 1, &error, &io, &quality, nullptr);
            if (!error && soxr) {
                converter_ = std::make_unique<Resampler>();
                converter_->soxr = soxr;
            } else {
                soxr_delete(soxr);
            }
        }
    }
    if (!converter_ || buffer.frames <= 0 || !buffer.data)
        return std::nullopt;

    std::vector<float>& mono = converter_->mono;
    mono.resize(static_cast<std::size_t>(buffer.frames));
    switch (buffer.format.sampleType) {
        case AudioFormat::SampleType::float32:
            mixDown<float>(buffer, 1.0, mono.data());
            break;
        case AudioFormat::SampleType::int16:
            mixDown<std::int16_t>(buffer, 32768.0, mono.data());
            break;
        case AudioFormat::SampleType::int32:
            mixDown<std::int32_t>(buffer, 2147483648.0, mono.data());
            break;
    }

    const auto capacity =
        static_cast<qsizetype>(sampleRate / buffer.format.sampleRate * static_cast<double>(buffer.frames)) +
        64;
    QByteArray out(capacity * 2, Qt::Uninitialized);
    std::size_t consumed = 0;
    std::size_t produced = 0;
    // No end of input is signalled: what the filter has not yet turned into output stays inside it and
    // joins the next buffer.
    const soxr_error_t error = soxr_process(converter_->soxr, mono.data(), mono.size(), &consumed, out.data(),
                                            static_cast<std::size_t>(capacity), &produced);
    if (error || produced == 0)
        return std::nullopt;
    out.truncate(static_cast<qsizetype>(produced) * 2);
    if constexpr (std::endian::native == std::endian::big) {
        auto* samples = reinterpret_cast<std::int16_t*>(out.data());
        qToLittleEndian<std::int16_t>(samples, static_cast<qsizetype>(produced), samples);
    }
    return out;
}
