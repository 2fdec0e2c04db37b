#include "audiotest.h"
#include "pcmconverter.h"

#include <QTest>

using Report = std::optional<AudioServer::Failure::Kind>;
Q_DECLARE_METATYPE(AudioFormat)
Q_DECLARE_METATYPE(Report)

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

QByteArray toneBuffer(const AudioFormat& format, qint64 buffer) {
    return AudioSignal::tone(format, QList<double>(format.channels, 1000), 0.5, buffer * 4096, 4096);
}

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
        QList<Result<Done>> outcomes;
        const auto record = [&outcomes](Result<Done> result) { outcomes.append(std::move(result)); };
        capture->start(record);
        // The microphone records in the device's own format, system audio in the one it is mixed in.
        const AudioFormat mixed{48000, 2, AudioFormat::SampleType::float32};
        QCOMPARE(server->request.format, which == Which::microphone ? std::nullopt : std::optional(mixed));
        QCOMPARE(server->request.framesPerBuffer, 4096);
        server->handlers.started();
        // The completion comes from the event loop, never from inside the server's handler.
        QVERIFY(outcomes.isEmpty());
        QTRY_COMPARE(outcomes.size(), 1);
        QVERIFY(outcomes.first().ok());
        // Without a handler the audio goes nowhere.
        for (int i = 0; i < 4; ++i) server->handlers.audio(bufferOf(format, toneBuffer(format, i)));
        capture->stop();

        // The second run continues the first one's signal exactly: the converter kept its look-ahead.
        QByteArray received;
        capture->setOnAudio([&received](const QByteArray& pcm) { received += pcm; });
        capture->start(record);
        for (int i = 4; i < 12; ++i) {
            server->handlers.audio(bufferOf(format, toneBuffer(format, i)));
            server->handlers.audio(bufferOf(format, {}));
        }
        PCMConverter reference;
        QByteArray expected;
        for (int i = 0; i < 12; ++i) {
            const QByteArray pcm = reference.convert(bufferOf(format, toneBuffer(format, i))).value_or("");
            expected += i >= 4 ? pcm : QByteArray();
        }
        QVERIFY(!expected.isEmpty());
        QCOMPARE(received, expected);
    }

    void reportsOfTheServerReachTheOwnerUnlessTheRunWasStopped_data() {
        QTest::addColumn<Which>("which");
        QTest::addColumn<Report>("report");  // absent: the server reports the start
        QTest::addColumn<bool>("ownStop");   // before the report reaches the main thread
        QTest::addColumn<QString>("start");
        QTest::addColumn<QStringList>("stops");

        QTest::newRow("microphone, no server") << Which::microphone << Report(Kind::noServer) << false
                                               << "backend: No microphone found." << QStringList();
        QTest::newRow("system audio, no default output")
            << Which::systemAudio << Report(Kind::noDevice) << false
            << "backend: No display found to capture audio from." << QStringList();
        QTest::newRow("the server refuses")
            << Which::microphone << Report(Kind::server) << false << "Server says no" << QStringList();
        QTest::newRow("the server ends the capture") << Which::systemAudio << Report(Kind::server) << false
                                                     << "started" << QStringList{"Server says no"};
        QTest::newRow("the owner stops before the end is reported")
            << Which::microphone << Report(Kind::server) << true << "started" << QStringList();
        QTest::newRow("the owner stops while starting")
            << Which::microphone << Report() << true << "The capture was stopped before it started."
            << QStringList();
    }

    void reportsOfTheServerReachTheOwnerUnlessTheRunWasStopped() {
        QFETCH(Which, which);
        QFETCH(Report, report);
        QFETCH(bool, ownStop);
        QFETCH(QString, start);
        QFETCH(QStringList, stops);

        auto server = std::make_shared<FakeAudioServer>();
        auto capture = makeCapture(which, server);
        QStringList stopped;
        capture->setOnStop([&stopped](const Failure& failure) { stopped.append(failure.description()); });
        QList<Result<Done>> outcomes;
        const auto record = [&outcomes](Result<Done> result) { outcomes.append(std::move(result)); };
        capture->start(record);
        const AudioServer::Handlers handlers = server->handlers;
        if (start == "started") {
            handlers.started();
            QTRY_COMPARE(outcomes.size(), 1);
        }
        if (report)
            handlers.failed({*report, QStringLiteral("Server says no")});
        else
            handlers.started();
        if (ownStop)
            capture->stop();
        QTest::qWait(20);
        QCOMPARE(server->alive, 0);
        QCOMPARE(outcomes.size(), 1);
        const Failure* failure = outcomes.first().ok() ? nullptr : &outcomes.first().failure();
        const QString prefix = failure && failure->is(BackendError::Kind::server) ? "backend: " : "";
        QCOMPARE(failure ? prefix + failure->description() : QStringLiteral("started"), start);
        QCOMPARE(stopped, stops);

        // The next start tries again.
        capture->start(record);
        server->handlers.started();
        QTRY_COMPARE(outcomes.size(), 2);
        QVERIFY(outcomes.last().ok());
    }
};

QTEST_GUILESS_MAIN(AudioCaptureTest)
#include "tst_audiocapture.moc"
