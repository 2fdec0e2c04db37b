#pragma once

#include <QtGlobal>

// The shape of captured PCM as its source delivers it: interleaved samples of one type.
struct AudioFormat {
    enum class SampleType { float32, int16, int32 };

    double sampleRate = 0;
    int channels = 0;
    SampleType sampleType = SampleType::float32;

    friend bool operator==(const AudioFormat&, const AudioFormat&) = default;
};

// One buffer of captured audio: `frames` frames of `format`, interleaved, at `data`.
struct AudioBuffer {
    AudioFormat format;
    qsizetype frames = 0;
    const void* data = nullptr;
};
