#pragma once

#include "audioformat.h"

#include <QByteArray>

#include <memory>
#include <optional>

// Turns captured audio of any format into 16 kHz mono 16-bit little-endian PCM. Stateful: the resampler
// keeps its look-ahead between buffers, so a run of buffers converts as one signal. One owner, one thread.
class PCMConverter {
public:
    static constexpr double sampleRate = 16000;
    static constexpr double bytesPerSecond = 32000;

    PCMConverter();
    ~PCMConverter();
    PCMConverter(const PCMConverter&) = delete;
    PCMConverter& operator=(const PCMConverter&) = delete;

    // The converted bytes, or nothing when this buffer produced no output. Never fails otherwise.
    std::optional<QByteArray> convert(const AudioBuffer& buffer);

private:
    struct Resampler;
    std::unique_ptr<Resampler> converter_;
    std::optional<AudioFormat> inputFormat_;
};
