#include "audiotest.h"
#include "pcmconverter.h"

#include <QTest>

namespace {

using Kind = AudioServer::Failure::Kind;
using Type = AudioFormat::SampleType;

// `seconds` of the tones `hz` (one per channel) at half scale, converted in buffers of 4096 frames, once the
// filter has settled; empty when a buffer exceeds its capacity or the run falls short by more than 0.1 s of
// look-ahead.
std::vector<double> run(PCMConverter& converter, const AudioFormat& format, const QList<double>& hz,
                        double seconds) {
    const qsizetype frames = 4096;
    const auto capacity = qsizetype(PCMConverter::sampleRate / format.sampleRate * frames) + 64;
    QByteArray out;
    qint64 start = 0;
    for (; start < qint64(seconds * format.sampleRate); start += frames) {
        const QByteArray samples = AudioSignal::tone(format, hz, 0.5, start, frames);
        // Empty buffers in between yield nothing and disturb nothing.
        if (converter.convert({format, 0, samples.constData()}) || converter.convert({format, 4, nullptr}))
            return {};
        const std::optional<QByteArray> pcm = converter.convert(AudioSignal::buffer(format, samples));
        if (pcm && (pcm->isEmpty() || pcm->size() % 2 != 0 || pcm->size() > capacity * 2))
            return {};
        out += pcm.value_or(QByteArray());
    }
    const auto expected = qsizetype(double(start) * PCMConverter::sampleRate / format.sampleRate);
    if (out.size() / 2 > expected || out.size() / 2 < expected - 1600)
        return {};
    const std::vector<double> all = AudioSignal::samples(out);
    return {all.begin() + 2000, all.end()};
}

// Keeps the request and handlers of the latest recording; the test plays the server by calling them.
class FakeAudioServer final : public AudioServer {
public:
    struct FakeRecording final : Recording {
        explicit FakeRecording(int& alive) : alive(++alive) {}
        ~FakeRecording() override { --alive; }
        int& alive;
    };

    std::unique_ptr<Recording> record(const Request& request, Handlers handlers) override {
        this->request = request;
        this->handlers = std::move(handlers);
        return std::make_unique<FakeRecording>(alive);
    }

    Request request;
    Handlers handlers;
    int alive = 0;  // recordings the capture has not ended
};

}  // namespace

class AudioCaptureTest : public QObject {
    Q_OBJECT

private slots:
    void capturesConvertedAudioAndKeepsTheConverterAcrossRuns_data() {
        QTest::addColumn<Which>("which");
        QTest::addColumn<AudioFormat>("format");  // what the server delivers
        addCaptureRows("44.1 kHz stereo 16-bit", AudioFormat{44100, 2, Type::int16});
        addCaptureRows("48 kHz stereo float", AudioFormat{48000, 2, Type::float32});
    }

    void capturesConvertedAudioAndKeepsTheConverterAcrossRuns() {
        QFETCH(Which, which);
        QFETCH(AudioFormat, format);

        auto server = std::make_shared<FakeAudioServer>();
        auto capture = makeCapture(which, server);
        capture->start([](const Result<Done>&) {});
        const AudioFormat mixed{48000, 2, Type::float32};
        QCOMPARE(server->request.format, which == Which::microphone ? std::nullopt : std::optional(mixed));
        QCOMPARE(server->request.framesPerBuffer, 4096);
        // The first run's audio goes nowhere; the second continues its signal exactly, with the same
        // converter.
        QByteArray received;
        PCMConverter reference;
        QByteArray expected;
        for (int i = 0; i < 12; ++i) {
            if (i == 4) {
                capture->stop();
                capture->setOnAudio([&received](const QByteArray& pcm) { received += pcm; });
                capture->start([](const Result<Done>&) {});
            }
            const QByteArray samples =
                AudioSignal::tone(format, QList<double>(format.channels, 1000), 0.5, i * 4096, 4096);
            server->handlers.audio(AudioSignal::buffer(format, samples));
            server->handlers.audio(AudioSignal::buffer(format, {}));
            const QByteArray pcm = reference.convert(AudioSignal::buffer(format, samples)).value_or("");
            expected += i >= 4 ? pcm : QByteArray();
        }
        QVERIFY(!expected.isEmpty());
        QCOMPARE(received, expected);
    }

    void reportsOfTheServerReachTheOwnerUnlessTheRunWasStopped_data() {
        QTest::addColumn<Which>("which");
        // What happens in turn; the main thread runs only after "started", so reports can be on their way.
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("outcome");  // of start(), then what onStop reported

        const auto row = [](const char* name, Which which, const char* steps, const char* outcome) {
            QTest::newRow(name) << which << QString(steps) << QString(outcome);
        };
        const Which mic = Which::microphone, system = Which::systemAudio;
        row("microphone, no server", mic, "noServer", "backend error: No microphone found.");
        row("system audio, no default output", system, "noDevice",
            "backend error: No display found to capture audio from.");
        row("the server refuses", mic, "refused", "Server says no");
        row("the server ends the capture", system, "started refused", "started; Server says no");
        row("the owner stops before the end is reported", mic, "started refused stop", "started");
        row("the owner stops while starting", mic, "stop started",
            "The capture was stopped before it started.");
    }

    void reportsOfTheServerReachTheOwnerUnlessTheRunWasStopped() {
        QFETCH(Which, which);
        QFETCH(QString, steps);
        QFETCH(QString, outcome);

        auto server = std::make_shared<FakeAudioServer>();
        auto capture = makeCapture(which, server);
        QStringList stops;
        capture->setOnStop([&stops](const Failure& failure) { stops.append(failure.description()); });
        QList<Result<Done>> outcomes;
        capture->start([&outcomes](Result<Done> result) { outcomes.append(std::move(result)); });
        const AudioServer::Handlers handlers = server->handlers;
        const QMap<QString, Kind> kinds{{"noServer", Kind::noServer}, {"noDevice", Kind::noDevice}};
        for (const QString& step : steps.split(' ')) {
            if (step == "stop") {
                capture->stop();
            } else if (step == "started") {
                handlers.started();
                // The completion comes from the event loop, never from inside the server's handler.
                QVERIFY(outcomes.isEmpty());
                QTRY_VERIFY(!outcomes.isEmpty());
            } else {
                handlers.failed({kinds.value(step, Kind::server), QStringLiteral("Server says no")});
            }
        }
        QTest::qWait(20);
        QCOMPARE(server->alive, 0);
        QCOMPARE(outcomes.size(), 1);
        const Failure* failure = outcomes.first().ok() ? nullptr : &outcomes.first().failure();
        const QString prefix = failure && failure->is(BackendError::Kind::server) ? "backend error: " : "";
        QCOMPARE(QStringList(failure ? prefix + failure->description() : "started") + stops,
                 outcome.split("; "));
    }

    void tonesComeOutAt16kHzWithoutDistortion_data() {
        QTest::addColumn<AudioFormat>("input");
        QTest::addColumn<QList<double>>("hz");  // per input channel

        const AudioFormat studio{48000, 2, Type::float32};
        QTest::newRow("1 kHz, 48 kHz stereo float") << studio << QList<double>{1000, 1000};
        QTest::newRow("left and right in different tones") << studio << QList<double>{1000, 2500};
        QTest::newRow("10 kHz is filtered out, not folded down to 6 kHz")
            << studio << QList<double>{10000, 10000};
        QTest::newRow("8 kHz mono 16-bit") << AudioFormat{8000, 1, Type::int16} << QList<double>{1000};
        QTest::newRow("16 kHz mono 16-bit") << AudioFormat{16000, 1, Type::int16} << QList<double>{440};
        QTest::newRow("44.1 kHz three channels 32-bit")
            << AudioFormat{44100, 3, Type::int32} << QList<double>{1000, 2500, 1000};
    }

    void tonesComeOutAt16kHzWithoutDistortion() {
        QFETCH(AudioFormat, input);
        QFETCH(QList<double>, hz);

        // A converter that has seen another format, and formats it cannot use, starts afresh with this one.
        PCMConverter converter;
        QVERIFY(!run(converter, {22050, 1, Type::int16}, {700}, 1).empty());
        const char nothing[16] = {};
        for (const AudioFormat& unusable :
             {AudioFormat{0, 2, Type::float32}, AudioFormat{0, 2, Type::float32},
              AudioFormat{48000, 0, Type::float32}, AudioFormat{-8000, 1, Type::int16}})
            QVERIFY(!converter.convert({unusable, 1, nothing}));
        const std::vector<double> out = run(converter, input, hz, 20);
        QVERIFY(!out.empty());
        // Channels are averaged; above 8 kHz is gone, and whatever else (gaps, repeats, clicks, the wrong
        // pitch, a folded tone, the earlier format) stays 60 dB down.
        QMap<double, double> levels;
        for (double tone : hz)
            levels[tone] += tone < PCMConverter::sampleRate / 2 ? 0.5 / double(hz.size()) : 0;
        levels.removeIf([](auto tone) { return tone.value() == 0; });
        const AudioSignal::Fit fit = AudioSignal::fit(out, PCMConverter::sampleRate, levels.keys());
        QCOMPARE(fit.amplitudes.size(), levels.size());
        for (qsizetype i = 0; i < levels.size(); ++i)
            QVERIFY2(std::abs(fit.amplitudes[i] - levels.values()[i]) < 0.01,
                     qPrintable(QStringLiteral("%1 Hz at %2").arg(levels.keys()[i]).arg(fit.amplitudes[i])));
        QVERIFY2(fit.residual < 0.0005, qPrintable(QStringLiteral("residual %1").arg(fit.residual)));
    }
};

QTEST_GUILESS_MAIN(AudioCaptureTest)
#include "tst_audiocapture.moc"
