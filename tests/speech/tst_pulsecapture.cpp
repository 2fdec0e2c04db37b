#include "audiotest.h"
#include "pcmconverter.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QTest>

class PulseCaptureTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
            QSKIP("needs the PulseAudio server of scripts/test.sh (PULSE_SERVER)");
    }

    void capturesWhatIsPlayedAtTheSoundCardsPaceUntilStopped_data() {
        QTest::addColumn<Which>("which");
        QTest::addColumn<QString>(
            "sink");  // the one whose sound the capture hears on the test command's server
        QTest::newRow("system audio") << Which::systemAudio << "speakers";
        QTest::newRow("microphone") << Which::microphone << "micfeed";
    }

    void capturesWhatIsPlayedAtTheSoundCardsPaceUntilStopped() {
        QFETCH(Which, which);
        QFETCH(QString, sink);

        auto capture = makeCapture(which);
        CaptureRecorder recorder;
        capture->setOnAudio(recorder.handler());
        int stops = 0;
        capture->setOnStop([&stops](const Failure&) { ++stops; });
        QCOMPARE(startProblem(*capture), QString());
        // Measured from the first buffer on: a new recording of a monitor takes a moment to begin to flow.
        const qsizetype before = recorder.snapshot().arrivals.size();
        QVERIFY(
            play(QStringLiteral("espeak-ng --stdout \"Tell me about a project you are proud of.\""), sink));
        QTest::qWait(500);
        capture->stop();
        recorder.close();
        QTest::qWait(300);
        const Received received = recorder.snapshot();
        QCOMPARE(received.late, 0);
        QCOMPARE(stops, 0);

        QVERIFY(received.arrivals.size() > before + 1);
        const auto [firstAt, firstBytes] = received.arrivals.at(before);
        const auto [lastAt, lastBytes] = received.arrivals.last();
        const double rate = double(lastBytes - firstBytes) * 1000 / double(lastAt - firstAt);
        QVERIFY2(std::abs(rate - PCMConverter::bytesPerSecond) < 0.05 * PCMConverter::bytesPerSecond,
                 qPrintable(QStringLiteral("%1 bytes per second").arg(rate)));
        const std::vector<double> samples = AudioSignal::samples(received.pcm.mid(firstBytes));
        const double peak =
            std::abs(*std::ranges::max_element(samples, {}, [](double s) { return std::abs(s); }));
        QVERIFY2(peak > 0.05 && AudioSignal::rms(samples) > 0.005,
                 qPrintable(QStringLiteral("peak %1, rms %2").arg(peak).arg(AudioSignal::rms(samples))));

        CaptureRecorder again;
        capture->setOnAudio(again.handler());
        QCOMPARE(startProblem(*capture), QString());
        QTRY_VERIFY(again.snapshot().arrivals.size() >= 3);
    }

    void startFailsWithoutServerOrDevice_data() {
        QTest::addColumn<Which>("which");
        QTest::addColumn<bool>("serverUp");
        addCaptureRows("no server", false);
        addCaptureRows("a server without devices", true);
    }

    void startFailsWithoutServerOrDevice() {
        QFETCH(Which, which);
        QFETCH(bool, serverUp);

        QTemporaryDir nowhere;
        ScopedEnvironment environment;
        environment.set("PULSE_SERVER", "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
        std::optional<PulseServer> server;
        if (serverUp) {
            server.emplace(false);
            QVERIFY(server->running());
            environment.set("PULSE_SERVER", server->address().toUtf8());
        }
        const Result<Done> result = startAndWait(*makeCapture(which));
        QVERIFY(!result.ok());
        QCOMPARE(result.failure().description(), missingMessage(which));
        QVERIFY(result.failure().is(BackendError::Kind::server));
    }

    void anEndByTheServerIsReportedOnceAndSilencesTheCapture_data() {
        QTest::addColumn<Which>("which");
        QTest::addColumn<QStringList>("pactl");  // empty: the server is killed
        QTest::addColumn<bool>("ends");

        QTest::newRow("microphone, server killed") << Which::microphone << QStringList() << true;
        QTest::newRow("system audio, every device removed")
            << Which::systemAudio << QStringList{"unload-module", "module-null-sink"} << true;
        // The server moves the recording to the new default; nothing ends.
        QTest::newRow("microphone, another default input chosen")
            << Which::microphone << QStringList{"set-default-source", "speakers.monitor"} << false;
    }

    void anEndByTheServerIsReportedOnceAndSilencesTheCapture() {
        QFETCH(Which, which);
        QFETCH(QStringList, pactl);
        QFETCH(bool, ends);

        PulseServer server;
        QVERIFY(server.running());
        ScopedEnvironment environment;
        environment.set("PULSE_SERVER", server.address().toUtf8());
        auto capture = makeCapture(which);
        CaptureRecorder recorder;
        capture->setOnAudio(recorder.handler());
        QStringList stops;
        capture->setOnStop([&](const Failure& failure) {
            stops.append(QThread::currentThread() == qApp->thread() ? failure.description()
                                                                    : "off the main thread");
            recorder.close();
        });
        QCOMPARE(startProblem(*capture), QString());
        QTRY_VERIFY(recorder.snapshot().arrivals.size() >= 2);

        if (pactl.isEmpty())
            server.kill();
        else
            QVERIFY(server.pactl(pactl));
        const qsizetype before = recorder.snapshot().arrivals.size();
        if (ends)
            QTRY_COMPARE_WITH_TIMEOUT(stops.size(), 1, 10'000);
        else
            QTRY_VERIFY_WITH_TIMEOUT(recorder.snapshot().arrivals.size() >= before + 10, 10'000);
        QTest::qWait(200);
        QCOMPARE(stops.size(), ends ? 1 : 0);
        QVERIFY(!stops.contains("off the main thread") && !stops.contains(QString()));
        QCOMPARE(recorder.snapshot().late, 0);
    }
};

QTEST_GUILESS_MAIN(PulseCaptureTest)
#include "tst_pulsecapture.moc"
