#include "audiosignal.h"
#include "capturerecorder.h"
#include "miccapture.h"
#include "pulseserver.h"
#include "systemaudiocapture.h"
#include "testenvironment.h"

#include <QTest>
#include <QThread>

#include <memory>

namespace {

enum class Which { microphone, systemAudio };

std::unique_ptr<AudioCapture> makeCapture(Which which) {
    if (which == Which::microphone)
        return std::make_unique<MicCapture>();
    return std::make_unique<SystemAudioCapture>();
}

// The sink whose sound each capture hears on the test command's server.
QString sinkHeardBy(Which which) {
    return which == Which::microphone ? QStringLiteral("micfeed") : QStringLiteral("speakers");
}

const QString speech = QStringLiteral("espeak-ng --stdout \"Tell me about a project you are proud of.\"");

}  // namespace

class PulseCaptureTest : public QObject {
    Q_OBJECT

private slots:
    void init();

    void capturesWhatIsPlayed_data();
    void capturesWhatIsPlayed();  // then stop silences it
    void withoutServerOrDevice_data();
    void withoutServerOrDevice();
    void serverEndingTheCapture_data();
    void serverEndingTheCapture();
};

void PulseCaptureTest::init() {
    if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
        QSKIP("needs the PulseAudio server of scripts/test.sh (PULSE_SERVER)");
}

void PulseCaptureTest::capturesWhatIsPlayed_data() {
    QTest::addColumn<Which>("which");
    QTest::newRow("system audio") << Which::systemAudio;
    QTest::newRow("microphone") << Which::microphone;
}

void PulseCaptureTest::capturesWhatIsPlayed() {
    QFETCH(Which, which);

    auto capture = makeCapture(which);
    CaptureRecorder received;
    capture->setOnAudio(received.handler());
    int stops = 0;
    capture->setOnStop([&stops](const Failure&) { ++stops; });
    QCOMPARE(startProblem(*capture), QString());

    // Measured from the first buffer on: a new recording of a monitor takes a moment to begin to flow.
    const qsizetype before = received.bytes().size();
    received.startClock();
    QVERIFY(play(speech, sinkHeardBy(which)));
    QTest::qWait(500);
    capture->stop();
    received.close();
    const QByteArray pcm = received.bytes().mid(before);

    // 16 kHz mono 16-bit at the pace of the sound card.
    const double rate = received.rate(before);
    QVERIFY2(std::abs(rate - PCMConverter::bytesPerSecond) < 0.05 * PCMConverter::bytesPerSecond,
             qPrintable(QStringLiteral("%1 bytes per second").arg(rate)));
    const std::vector<double> samples = AudioSignal::samples(pcm);
    double peak = 0;
    for (double s : samples) peak = std::max(peak, std::abs(s));
    QVERIFY2(peak > 0.05 && AudioSignal::rms(samples) > 0.005,
             qPrintable(QStringLiteral("peak %1, rms %2").arg(peak).arg(AudioSignal::rms(samples))));

    // Stop silences onAudio at once and is not reported as an end.
    QTest::qWait(300);
    QVERIFY(!received.calledAfterClose());
    QCOMPARE(stops, 0);

    // A second run on the same capture works.
    CaptureRecorder again;
    capture->setOnAudio(again.handler());
    QCOMPARE(startProblem(*capture), QString());
    QTRY_VERIFY(again.calls() >= 3);
    capture->stop();
}

void PulseCaptureTest::withoutServerOrDevice_data() {
    QTest::addColumn<Which>("which");
    QTest::addColumn<bool>("serverUp");
    QTest::addColumn<QString>("description");

    QTest::newRow("microphone, no server") << Which::microphone << false << "No microphone found.";
    QTest::newRow("system audio, no server")
        << Which::systemAudio << false << "No display found to capture audio from.";
    QTest::newRow("microphone, server without devices")
        << Which::microphone << true << "No microphone found.";
    QTest::newRow("system audio, server without devices")
        << Which::systemAudio << true << "No display found to capture audio from.";
}

void PulseCaptureTest::withoutServerOrDevice() {
    QFETCH(Which, which);
    QFETCH(bool, serverUp);
    QFETCH(QString, description);

    std::optional<PulseServer> server;
    QTemporaryDir nowhere;
    ScopedEnvironment environment;
    if (serverUp) {
        server.emplace(false);
        QVERIFY(server->running());
        environment.set("PULSE_SERVER", server->address().toUtf8());
    } else {
        environment.set("PULSE_SERVER", "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
    }

    auto capture = makeCapture(which);
    const auto started = startAndWait(*capture);
    QVERIFY(started);
    QVERIFY(!started->ok());
    QCOMPARE(started->failure().description(), description);
    QVERIFY(started->failure().is(BackendError::Kind::server));
}

void PulseCaptureTest::serverEndingTheCapture_data() {
    QTest::addColumn<Which>("which");
    QTest::addColumn<QStringList>("pactl");  // empty: the server is killed
    QTest::addColumn<bool>("ends");

    const QStringList removeDevices{QStringLiteral("unload-module"), QStringLiteral("module-null-sink")};
    QTest::newRow("microphone, server killed") << Which::microphone << QStringList() << true;
    QTest::newRow("system audio, every device removed") << Which::systemAudio << removeDevices << true;
    // The server moves the recording to the new default; nothing ends.
    QTest::newRow("microphone, another default input chosen")
        << Which::microphone
        << QStringList{QStringLiteral("set-default-source"), QStringLiteral("speakers.monitor")} << false;
}

void PulseCaptureTest::serverEndingTheCapture() {
    QFETCH(Which, which);
    QFETCH(QStringList, pactl);
    QFETCH(bool, ends);

    PulseServer server;
    QVERIFY(server.running());
    ScopedEnvironment environment;
    environment.set("PULSE_SERVER", server.address().toUtf8());

    auto capture = makeCapture(which);
    CaptureRecorder received;
    capture->setOnAudio(received.handler());
    QList<Failure> stops;
    bool onMainThread = false;
    capture->setOnStop([&](const Failure& failure) {
        stops.append(failure);
        onMainThread = QThread::currentThread() == qApp->thread();
    });
    QCOMPARE(startProblem(*capture), QString());
    QTRY_VERIFY(received.calls() >= 2);

    if (pactl.isEmpty())
        server.kill();
    else
        QVERIFY(server.pactl(pactl));
    if (!ends) {
        const int before = received.calls();
        QTRY_VERIFY_WITH_TIMEOUT(received.calls() >= before + 10, 10'000);
        QCOMPARE(stops.size(), 0);
        capture->stop();
        return;
    }
    QTRY_COMPARE_WITH_TIMEOUT(stops.size(), 1, 10'000);
    QVERIFY(!stops.first().description().isEmpty());
    QVERIFY(onMainThread);
    received.close();
    QTest::qWait(200);
    QVERIFY(!received.calledAfterClose());
    QCOMPARE(stops.size(), 1);
}

QTEST_GUILESS_MAIN(PulseCaptureTest)
#include "tst_pulsecapture.moc"
