#pragma once

#include "audioformat.h"

#include <QByteArray>
#include <QList>

#include <vector>

// Test signals and their analysis for the audio tests.
namespace AudioSignal {

// `frames` frames in `format`, starting at frame `start` of an endless signal in which channel c is a sine
// of hz[c] (0: silence) with peak `amplitude` (1 = full scale).
QByteArray tone(const AudioFormat& format, const QList<double>& hz, double amplitude, qint64 start,
                qsizetype frames);

// 16-bit little-endian PCM as samples scaled to -1 .. 1.
std::vector<double> samples(const QByteArray& pcm);

// Peak amplitude of the component at `hz` in `samples` taken at `rate`, by correlation with a sine and a
// cosine over the whole run (which should span many periods).
double amplitudeAt(const std::vector<double>& samples, double rate, double hz);

// Root mean square of what is left once the components at `hz` have been taken out: near zero for a clean
// sum of those tones, large when the run has gaps, repeated pieces or clicks.
double residual(const std::vector<double>& samples, double rate, const QList<double>& hz);

double rms(const std::vector<double>& samples);

}  // namespace AudioSignal
