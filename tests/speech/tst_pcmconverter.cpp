#include "audiosignal.h"
#include "pcmconverter.h"

#include <QTest>

#include <cmath>
#include <cstdint>
#include <limits>

Q_DECLARE_METATYPE(AudioFormat)

namespace {

using Type = AudioFormat::SampleType;

// The most a converter may hold back at the end of a run (its filter's look-ahead, largest when it
// upsamples from 8 kHz), in output frames: 0.1 seconds.
constexpr qsizetype maxHeldBack = 1600;

AudioFormat format(double rate, int channels, Type type) {
    return {rate, channels, type};
}

AudioBuffer bufferOf(const AudioFormat& format, const QByteArray& samples) {
    const qsizetype bytesPerSample = format.sampleType == Type::int16 ? 2 : 4;
    return {format, samples.size() / (bytesPerSample * format.channels), samples.constData()};
}

struct Run {
    QByteArray pcm;
    qsizetype expectedFrames = 0;  // what the input amounts to at 16 kHz

    // Nothing lost at buffer boundaries: the run comes out whole, short only of what the filter still holds.
    bool complete() const {
        const qsizetype frames = pcm.size() / 2;
        return frames <= expectedFrames && frames >= expectedFrames - maxHeldBack;
    }
};

// Feeds about `seconds` of the signal in buffers of `framesPerBuffer` frames. Every buffer's output must
// fit the capacity promised for it.
Run run(PCMConverter& converter, const AudioFormat& format, const QList<double>& hz, double amplitude,
        double seconds, qsizetype framesPerBuffer = 4096) {
    Run out;
    const auto total = static_cast<qint64>(seconds * format.sampleRate);
    qint64 start = 0;
    for (; start < total; start += framesPerBuffer) {
        const QByteArray samples = AudioSignal::tone(format, hz, amplitude, start, framesPerBuffer);
        const std::optional<QByteArray> pcm = converter.convert(bufferOf(format, samples));
        if (!pcm)
            continue;
        const auto capacity =
            static_cast<qsizetype>(PCMConverter::sampleRate / format.sampleRate * double(framesPerBuffer)) +
            64;
        if (pcm->isEmpty() || pcm->size() % 2 != 0 || pcm->size() > capacity * 2) {
            qWarning("a buffer of %lld bytes against a capacity of %lld frames", qlonglong(pcm->size()),
                     qlonglong(capacity));
            return {};
        }
        out.pcm += *pcm;
    }
    out.expectedFrames = qsizetype(double(start) * PCMConverter::sampleRate / format.sampleRate);
    return out;
}

// The bytes of `values` in memory order, as a sound server hands them over.
template <typename T>
QByteArray bytesOf(std::initializer_list<T> values) {
    return QByteArray(reinterpret_cast<const char*>(values.begin()), qsizetype(values.size() * sizeof(T)));
}

// The output once the filter has settled, so that its start-up does not count in the analysis.
std::vector<double> settled(const QByteArray& pcm) {
    const std::vector<double> all = AudioSignal::samples(pcm);
    return {all.begin() + std::min<std::ptrdiff_t>(2000, std::ssize(all)), all.end()};
}

}  // namespace

class PCMConverterTest : public QObject {
    Q_OBJECT

private slots:
    void tonesComeOutAt16kHzWithoutDistortion_data();
    void tonesComeOutAt16kHzWithoutDistortion();
    void samplesAreScaledMixedAndClipped_data();
    void samplesAreScaledMixedAndClipped();
    void audioAlreadyAt16kHzPassesUnchanged();
    void aFormatChangeMidRunStartsAFreshConverter();
    void emptyBuffersYieldNothingAndDisturbNothing();
    void unusableFormatsYieldNothingUntilTheFormatChanges();
};

void PCMConverterTest::tonesComeOutAt16kHzWithoutDistortion_data() {
    QTest::addColumn<AudioFormat>("input");
    QTest::addColumn<QList<double>>("hz");     // per input channel
    QTest::addColumn<QList<double>>("heard");  // tones the output must hold, each at half the input peak
    QTest::addColumn<bool>("silent");  // the input lies above the output's band: nothing may come through

    const QList<double> none;
    QTest::newRow("1 kHz, 48 kHz stereo float")
        << format(48000, 2, Type::float32) << QList<double>{1000, 1000} << QList<double>{1000} << false;
    QTest::newRow("left and right in different tones")
        << format(48000, 2, Type::float32) << QList<double>{1000, 2500} << QList<double>{1000, 2500} << false;
    QTest::newRow("10 kHz is filtered out, not folded down to 6 kHz")
        << format(48000, 2, Type::float32) << QList<double>{10000, 10000} << none << true;
    QTest::newRow("8 kHz mono 16-bit")
        << format(8000, 1, Type::int16) << QList<double>{1000} << QList<double>{1000} << false;
}

void PCMConverterTest::tonesComeOutAt16kHzWithoutDistortion() {
    QFETCH(AudioFormat, input);
    QFETCH(QList<double>, hz);
    QFETCH(QList<double>, heard);
    QFETCH(bool, silent);

    PCMConverter converter;
    const double seconds = 20;
    const double peak = 0.5;
    const Run result = run(converter, input, hz, peak, seconds);
    QVERIFY2(result.complete(), qPrintable(QStringLiteral("%1 frames for %2 expected")
                                               .arg(result.pcm.size() / 2)
                                               .arg(result.expectedFrames)));

    const std::vector<double> out = settled(result.pcm);
    if (silent) {
        const double level = 20 * std::log10(AudioSignal::rms(out) / (peak / std::sqrt(2.0)) + 1e-12);
        QVERIFY2(level <= -60, qPrintable(QStringLiteral("only %1 dB down").arg(level)));
        return;
    }
    // Channels are averaged: a tone on one of two channels comes out at half its level, a tone on all of
    // them at full level.
    for (double tone : heard) {
        const double share = double(hz.count(tone)) / double(hz.size());
        const double level = AudioSignal::amplitudeAt(out, PCMConverter::sampleRate, tone);
        QVERIFY2(std::abs(level - peak * share) < 0.01,
                 qPrintable(QStringLiteral("%1 Hz at %2").arg(tone).arg(level)));
    }
    // Whatever is not those tones (gaps, repeats, clicks, the wrong pitch) stays 60 dB below them.
    const double residual = AudioSignal::residual(out, PCMConverter::sampleRate, heard);
    QVERIFY2(residual < peak * 0.001, qPrintable(QStringLiteral("residual %1").arg(residual)));
}

void PCMConverterTest::samplesAreScaledMixedAndClipped_data() {
    QTest::addColumn<AudioFormat>("input");
    QTest::addColumn<QByteArray>("frame");  // one input frame, repeated
    QTest::addColumn<int>("expected");

    const auto mono16k = [](Type type) { return format(16000, 1, type); };

    QTest::newRow("float half scale") << mono16k(Type::float32) << bytesOf<float>({0.5F}) << 16384;
    QTest::newRow("float below full scale is clipped")
        << mono16k(Type::float32) << bytesOf<float>({-1.7F}) << -32768;
    QTest::newRow("32-bit half scale") << mono16k(Type::int32) << bytesOf<std::int32_t>({1 << 30}) << 16384;
    QTest::newRow("32-bit maximum") << mono16k(Type::int32)
                                    << bytesOf<std::int32_t>({std::numeric_limits<std::int32_t>::max()})
                                    << 32767;
    QTest::newRow("stereo is averaged, not the first channel taken")
        << format(16000, 2, Type::float32) << bytesOf<float>({0.5F, -0.25F}) << 4096;
    QTest::newRow("two loud channels clip after mixing")
        << format(48000, 2, Type::float32) << bytesOf<float>({1.5F, 1.5F}) << 32767;
    QTest::newRow("three 32-bit channels")
        << format(44100, 3, Type::int32) << bytesOf<std::int32_t>({1 << 30, 1 << 30, -(1 << 30)}) << 5461;
}

// A steady level passes the resampler's filter unchanged, so once it has settled the output shows the sample
// conversion, the mixing and the clipping alone.
void PCMConverterTest::samplesAreScaledMixedAndClipped() {
    QFETCH(AudioFormat, input);
    QFETCH(QByteArray, frame);
    QFETCH(int, expected);

    PCMConverter converter;
    const QByteArray samples = frame.repeated(4096);
    std::vector<double> out;
    for (int i = 0; i < 8; ++i) {
        const std::optional<QByteArray> pcm = converter.convert(bufferOf(input, samples));
        if (pcm)
            out = AudioSignal::samples(*pcm);
    }
    QVERIFY(!out.empty());
    const int last = int(std::lround(out.back() * 32768));
    QVERIFY2(std::abs(last - expected) <= 1, qPrintable(QStringLiteral("%1 for %2").arg(last).arg(expected)));
}

void PCMConverterTest::audioAlreadyAt16kHzPassesUnchanged() {
    const AudioFormat input = format(16000, 1, Type::int16);
    PCMConverter converter;
    QByteArray in;
    QByteArray out;
    for (qint64 start = 0; start < 16000 * 4; start += 1000) {
        const QByteArray samples = AudioSignal::tone(input, {440}, 0.3, start, 1000);
        in += samples;
        if (const std::optional<QByteArray> pcm = converter.convert(bufferOf(input, samples)))
            out += *pcm;
    }
    QVERIFY(out.size() <= in.size() && out.size() >= in.size() - 2 * maxHeldBack);
    // The samples come out as they went in, however long the filter held them.
    const std::vector<double> a = AudioSignal::samples(in.left(out.size()));
    const std::vector<double> b = AudioSignal::samples(out);
    double worst = 0;
    for (std::size_t i = 2000; i < b.size(); ++i) worst = std::max(worst, std::abs(a[i] - b[i]));
    QVERIFY2(worst <= 2.0 / 32768, qPrintable(QStringLiteral("differs by %1").arg(worst * 32768)));
}

void PCMConverterTest::aFormatChangeMidRunStartsAFreshConverter() {
    PCMConverter converter;
    const Run first = run(converter, format(48000, 2, Type::float32), {1000, 1000}, 0.5, 3);
    const Run second = run(converter, format(44100, 1, Type::int16), {700}, 0.5, 3);
    QVERIFY(first.complete());
    // A fresh converter for the new format: its own look-ahead, then 16 kHz again, and the new tone only.
    QVERIFY(second.complete());
    const std::vector<double> out = settled(second.pcm);
    QVERIFY(std::abs(AudioSignal::amplitudeAt(out, 16000, 700) - 0.5) < 0.01);
    QVERIFY(AudioSignal::amplitudeAt(out, 16000, 1000) < 0.001);
}

void PCMConverterTest::emptyBuffersYieldNothingAndDisturbNothing() {
    const AudioFormat input = format(48000, 2, Type::float32);
    const float sample = 0.25F;

    PCMConverter fresh;
    QVERIFY(!fresh.convert({input, 0, &sample}));
    QVERIFY(!fresh.convert({input, 4, nullptr}));

    // The same run with and without empty buffers between its pieces gives the same bytes.
    PCMConverter plain;
    PCMConverter interrupted;
    QByteArray plainOut;
    QByteArray interruptedOut;
    for (qint64 start = 0; start < 48000; start += 4096) {
        const QByteArray samples = AudioSignal::tone(input, {1000, 300}, 0.5, start, 4096);
        if (auto pcm = plain.convert(bufferOf(input, samples)))
            plainOut += *pcm;
        QVERIFY(!interrupted.convert({input, 0, samples.constData()}));
        if (auto pcm = interrupted.convert(bufferOf(input, samples)))
            interruptedOut += *pcm;
    }
    QVERIFY(!plainOut.isEmpty());
    QCOMPARE(interruptedOut, plainOut);
}

void PCMConverterTest::unusableFormatsYieldNothingUntilTheFormatChanges() {
    PCMConverter converter;
    const QByteArray samples = AudioSignal::tone(format(48000, 2, Type::float32), {1000, 1000}, 0.5, 0, 4096);
    for (const AudioFormat& unusable :
         {format(0, 2, Type::float32), format(48000, 0, Type::float32), format(-8000, 1, Type::int16)}) {
        QVERIFY(!converter.convert({unusable, 4096, samples.constData()}));
        QVERIFY(!converter.convert({unusable, 4096, samples.constData()}));
    }
    const AudioFormat usable = format(48000, 2, Type::float32);
    std::optional<QByteArray> pcm;
    for (int i = 0; i < 3 && !pcm; ++i) pcm = converter.convert(bufferOf(usable, samples));
    QVERIFY(pcm && !pcm->isEmpty());
}

QTEST_GUILESS_MAIN(PCMConverterTest)
#include "tst_pcmconverter.moc"
