#include "audiosignal.h"
#include "capturerecorder.h"
#include "fakeaudioserver.h"
#include "miccapture.h"
#include "pcmconverter.h"
#include "systemaudiocapture.h"

#include <QTest>
#include <QThread>

#include <memory>

Q_DECLARE_METATYPE(AudioFormat)
Q_DECLARE_METATYPE(AudioServer::Failure::Kind)

namespace {

using Type = AudioFormat::SampleType;
using Kind = AudioServer::Failure::Kind;

enum class Which { microphone, systemAudio };

std::unique_ptr<AudioCapture> makeCapture(Which which, const std::shared_ptr<FakeAudioServer>& server) {
    if (which == Which::microphone)
        return std::make_unique<MicCapture>(server);
    return std::make_unique<SystemAudioCapture>(server);
}

QByteArray toneBuffer(const AudioFormat& format, qint64 start, qsizetype frames = 4096) {
    QList<double> hz(format.channels, 1000);
    return AudioSignal::tone(format, hz, 0.5, start, frames);
}

const AudioFormat studio{48000, 2, Type::float32};

}  // namespace

class AudioCaptureTest : public QObject {
    Q_OBJECT

private slots:
    void capturesInAnyFormat_data();
    void capturesInAnyFormat();
    void startFailures_data();
    void startFailures();
    void endOfTheRecording_data();
    void endOfTheRecording();
    void stopSilencesAtOnce();
    void stopWhileStartingCancelsTheStart();
    void withoutHandlerDataIsDroppedAndTheConverterCarriesOver();
    void destroyedWhileBuffersAreInFlight();
};

void AudioCaptureTest::capturesInAnyFormat_data() {
    QTest::addColumn<Which>("which");
    QTest::addColumn<AudioFormat>("format");  // what the server delivers

    QTest::newRow("system audio, 48 kHz stereo float") << Which::systemAudio << studio;
    QTest::newRow("microphone, 44.1 kHz stereo 16-bit")
        << Which::microphone << AudioFormat{44100, 2, Type::int16};
    QTest::newRow("microphone, 96 kHz four channels 32-bit")
        << Which::microphone << AudioFormat{96000, 4, Type::int32};
}

void AudioCaptureTest::capturesInAnyFormat() {
    QFETCH(Which, which);
    QFETCH(AudioFormat, format);

    auto server = std::make_shared<FakeAudioServer>();
    auto capture = makeCapture(which, server);
    CaptureRecorder received;
    capture->setOnAudio(received.handler());
    StartOutcome start;
    capture->start(start.completion());
    // The microphone records the default input as it comes, system audio the default output's monitor
    // in the format it is mixed in.
    QVERIFY(server->current());
    const bool mic = which == Which::microphone;
    QCOMPARE(server->current()->request().source, mic ? AudioServer::Request::Source::defaultSource
                                                      : AudioServer::Request::Source::defaultMonitor);
    QCOMPARE(server->current()->request().format, mic ? std::nullopt : std::optional(studio));
    QCOMPARE(server->current()->request().framesPerBuffer, 4096);
    // The completion comes from the event loop, never from inside start().
    QCOMPARE(start.completions, 0);
    QTRY_COMPARE(start.completions, 1);
    QVERIFY(start.result->ok());

    const int buffers = 40;
    for (int i = 0; i < buffers; ++i) {
        server->current()->deliver(format, toneBuffer(format, qint64(i) * 4096));
        // Empty buffers come in between and must be passed over.
        server->current()->deliver(format, {});
    }
    server->current()->flush();

    const qsizetype expectedFrames = qsizetype(buffers * 4096.0 * 16000 / format.sampleRate);
    const QByteArray pcm = received.bytes();
    QVERIFY2(pcm.size() / 2 <= expectedFrames && pcm.size() / 2 > expectedFrames - 1600,
             qPrintable(QString::number(pcm.size())));
    QVERIFY(received.calls() <= buffers);
    QVERIFY(!received.calledOnMainThread());
    const std::vector<double> samples = AudioSignal::samples(pcm);
    const std::vector<double> settled(samples.begin() + 2000, samples.end());
    QVERIFY(std::abs(AudioSignal::amplitudeAt(settled, 16000, 1000) - 0.5) < 0.01);
    capture->stop();
}

void AudioCaptureTest::startFailures_data() {
    QTest::addColumn<Which>("which");
    QTest::addColumn<Kind>("kind");
    QTest::addColumn<QString>("serverMessage");
    QTest::addColumn<QString>("description");
    QTest::addColumn<bool>("backendError");

    QTest::newRow("microphone, no server") << Which::microphone << Kind::noServer << "Connection refused"
                                           << "No microphone found." << true;
    QTest::newRow("microphone, server refuses") << Which::microphone << Kind::server << "Access denied"
                                                << "Access denied" << false;
    QTest::newRow("system audio, no default output")
        << Which::systemAudio << Kind::noDevice << "No such entity"
        << "No display found to capture audio from." << true;
    QTest::newRow("system audio, server refuses") << Which::systemAudio << Kind::server << "Not supported"
                                                  << "Not supported" << false;
}

void AudioCaptureTest::startFailures() {
    QFETCH(Which, which);
    QFETCH(Kind, kind);
    QFETCH(QString, serverMessage);
    QFETCH(QString, description);
    QFETCH(bool, backendError);

    auto server = std::make_shared<FakeAudioServer>();
    server->setOpening(FakeAudioServer::Opening::fails, {kind, serverMessage});
    auto capture = makeCapture(which, server);
    int stops = 0;
    capture->setOnStop([&stops](const Failure&) { ++stops; });
    StartOutcome start;
    capture->start(start.completion());
    QTRY_VERIFY(start.result);
    QVERIFY(!start.result->ok());
    QCOMPARE(start.result->failure().description(), description);
    QCOMPARE(start.result->failure().is(BackendError::Kind::server), backendError);
    // Nothing is left running, and a failed start is not a stop.
    QCOMPARE(server->alive(), 0);
    QCOMPARE(stops, 0);
    QCOMPARE(start.completions, 1);

    // The next start tries again.
    server->setOpening(FakeAudioServer::Opening::starts);
    QCOMPARE(startProblem(*capture), QString());
}

void AudioCaptureTest::endOfTheRecording_data() {
    QTest::addColumn<Which>("which");
    QTest::addColumn<bool>("ownStop");

    QTest::newRow("microphone, ended by the server") << Which::microphone << false;
    QTest::newRow("system audio, ended by the server") << Which::systemAudio << false;
    // The server's report may already be on its way to the main thread when the owner stops.
    QTest::newRow("the owner stops first: the report is dropped") << Which::microphone << true;
}

void AudioCaptureTest::endOfTheRecording() {
    QFETCH(Which, which);
    QFETCH(bool, ownStop);

    auto server = std::make_shared<FakeAudioServer>();
    auto capture = makeCapture(which, server);
    QList<Failure> stops;
    bool stopOnMainThread = false;
    capture->setOnStop([&](const Failure& failure) {
        stops.append(failure);
        stopOnMainThread = QThread::currentThread() == qApp->thread();
    });
    QCOMPARE(startProblem(*capture), QString());

    server->current()->fail(Kind::server, QStringLiteral("Connection terminated"));
    if (ownStop) {
        server->current()->flush();
        capture->stop();
        QTest::qWait(50);
    } else {
        QTRY_COMPARE(stops.size(), 1);
        QCOMPARE(stops.first().description(), QStringLiteral("Connection terminated"));
        QVERIFY(stopOnMainThread);
    }
    QCOMPARE(server->alive(), 0);
    const qsizetype reported = ownStop ? 0 : 1;
    QCOMPARE(stops.size(), reported);

    // Stopping what has already ended is harmless and reports nothing more; a new start works.
    capture->stop();
    QCOMPARE(startProblem(*capture), QString());
    QCOMPARE(server->alive(), 1);
    QCOMPARE(stops.size(), reported);
}

void AudioCaptureTest::stopSilencesAtOnce() {
    auto server = std::make_shared<FakeAudioServer>();
    SystemAudioCapture capture(server);
    CaptureRecorder received;
    capture.setOnAudio(received.handler());
    QCOMPARE(startProblem(capture), QString());

    server->current()->flow(studio, toneBuffer(studio, 0));
    QTRY_VERIFY(received.calls() > 20);
    capture.stop();
    received.close();
    QCOMPARE(server->alive(), 0);
    QTest::qWait(50);
    QVERIFY(!received.calledAfterClose());
}

void AudioCaptureTest::stopWhileStartingCancelsTheStart() {
    auto server = std::make_shared<FakeAudioServer>();
    server->setOpening(FakeAudioServer::Opening::waits);
    MicCapture capture(server);
    StartOutcome start;
    capture.start(start.completion());
    QVERIFY(server->current());
    capture.stop();
    QCOMPARE(server->alive(), 0);
    QTRY_VERIFY(start.result);
    QVERIFY(!start.result->ok());
    QTest::qWait(20);
    QCOMPARE(start.completions, 1);
}

void AudioCaptureTest::withoutHandlerDataIsDroppedAndTheConverterCarriesOver() {
    auto server = std::make_shared<FakeAudioServer>();
    SystemAudioCapture capture(server);
    QCOMPARE(startProblem(capture), QString());
    for (int i = 0; i < 4; ++i) server->current()->deliver(studio, toneBuffer(studio, qint64(i) * 4096));
    server->current()->flush();
    capture.stop();

    // The second run continues the first one's signal exactly: the converter kept its look-ahead, and the
    // first run's audio went nowhere.
    CaptureRecorder received;
    capture.setOnAudio(received.handler());
    QCOMPARE(startProblem(capture), QString());
    for (int i = 4; i < 8; ++i) server->current()->deliver(studio, toneBuffer(studio, qint64(i) * 4096));
    server->current()->flush();

    PCMConverter reference;
    QByteArray expected;
    for (int i = 0; i < 8; ++i) {
        const QByteArray samples = toneBuffer(studio, qint64(i) * 4096);
        const std::optional<QByteArray> pcm = reference.convert({studio, 4096, samples.constData()});
        if (pcm && i >= 4)
            expected += *pcm;
    }
    QVERIFY(!expected.isEmpty());
    QCOMPARE(received.bytes(), expected);
}

void AudioCaptureTest::destroyedWhileBuffersAreInFlight() {
    auto server = std::make_shared<FakeAudioServer>();
    auto received = std::make_shared<CaptureRecorder>();
    auto capture = std::make_unique<MicCapture>(server);
    // The handler takes its time, so that the capture goes away in the middle of a buffer.
    capture->setOnAudio([received](const QByteArray& pcm) {
        QThread::usleep(500);
        received->handler()(pcm);
    });
    int stops = 0;
    capture->setOnStop([&stops](const Failure&) { ++stops; });
    QCOMPARE(startProblem(*capture), QString());
    server->current()->flow(studio, toneBuffer(studio, 0));
    QTRY_VERIFY(received->calls() > 5);
    server->current()->fail(Kind::server, QStringLiteral("Connection terminated"));

    capture.reset();
    received->close();
    QCOMPARE(server->alive(), 0);
    QTest::qWait(50);
    QVERIFY(!received->calledAfterClose());
    QCOMPARE(stops, 0);
}

QTEST_GUILESS_MAIN(AudioCaptureTest)
#include "tst_audiocapture.moc"
