#include "audiotest.h"
#include "pcmconverter.h"

#include <QTest>

namespace {

using Kind = AudioServer::Failure::Kind;

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
        addCaptureRows("44.1 kHz stereo 16-bit", AudioFormat{44100, 2, AudioFormat::SampleType::int16});
        addCaptureRows("48 kHz stereo float", AudioFormat{48000, 2, AudioFormat::SampleType::float32});
    }

    void capturesConvertedAudioAndKeepsTheConverterAcrossRuns() {
        QFETCH(Which, which);
        QFETCH(AudioFormat, format);

        auto server = std::make_shared<FakeAudioServer>();
        auto capture = makeCapture(which, server);
        capture->start([](const Result<Done>&) {});
        const AudioFormat mixed{48000, 2, AudioFormat::SampleType::float32};
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
};

QTEST_GUILESS_MAIN(AudioCaptureTest)
#include "tst_audiocapture.moc"
