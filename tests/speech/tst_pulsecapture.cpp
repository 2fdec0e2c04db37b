#include "audiotest.h"
#include "pcmconverter.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QElapsedTimer>
#include <QTest>
#include <QThread>

#include <atomic>
#include <mutex>

class PulseCaptureTest : public QObject {
    Q_OBJECT

private slots:
    void init() {
        if (qEnvironmentVariableIsEmpty("PULSE_SERVER"))
            QSKIP("needs the PulseAudio server of scripts/test.sh (PULSE_SERVER)");
    }

    void capturesUntilStoppedOrEndedByTheServer_data() {
        QTest::addColumn<Which>("which");
        QTest::addColumn<QStringList>("action");  // play SINK, kill, or what pactl is told

        addCaptureRows("no server", QStringList{"no server"});
        addCaptureRows("a server without devices", QStringList{"no devices"});
        QTest::newRow("system audio hears what is played")
            << Which::systemAudio << QStringList{"play", "speakers"};
        QTest::newRow("microphone hears its feed") << Which::microphone << QStringList{"play", "micfeed"};
        QTest::newRow("microphone, server killed") << Which::microphone << QStringList{"kill"};
        QTest::newRow("system audio, every device removed")
            << Which::systemAudio << QStringList{"unload-module", "module-null-sink"};
        // The server moves the recording to the new default; nothing ends.
        QTest::newRow("microphone, another default input chosen")
            << Which::microphone << QStringList{"set-default-source", "speakers.monitor"};
    }

    void capturesUntilStoppedOrEndedByTheServer() {
        QFETCH(Which, which);
        QFETCH(QStringList, action);

        // Speech goes to the test command's server; what may disturb others, to a server of the test's own.
        const bool play = action.first() == "play";
        const bool missing = action.first().startsWith("no ");
        const bool ends = action.first() == "kill" || action.first() == "unload-module";
        QTemporaryDir nowhere;
        ScopedEnvironment environment;
        if (action.first() == "no server")
            environment.set("PULSE_SERVER", "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
        std::optional<PulseServer> server;
        if (!play && action.first() != "no server") {
            server.emplace(action.first() != "no devices");
            QVERIFY(server->running());
            environment.set("PULSE_SERVER", server->address().toUtf8());
        }
        // From the capture's thread: the bytes, each call's time and bytes so far, and the late calls.
        std::mutex mutex;
        QElapsedTimer clock;
        clock.start();
        QByteArray pcm;
        QList<std::pair<qint64, qsizetype>> arrivals;
        std::atomic<bool> closed = false;
        std::atomic<int> calls = 0, late = 0;
        QStringList stops;
        auto capture = makeCapture(which);
        capture->setOnAudio([&](const QByteArray& buffer) {
            late += closed ? 1 : 0;
            std::lock_guard lock(mutex);
            arrivals.append({clock.elapsed(), (pcm += buffer).size()});
            ++calls;
        });
        capture->setOnStop([&](const Failure& failure) {
            stops.append(QThread::currentThread() == qApp->thread() ? failure.description()
                                                                    : "off the main thread");
            closed = true;
        });
        std::optional<Result<Done>> started;
        capture->start([&started](Result<Done> result) { started = std::move(result); });
        QTRY_VERIFY_WITH_TIMEOUT(started, 10'000);
        const QString problem = started->ok() ? QString() : started->failure().description();
        QCOMPARE(problem, !missing                     ? QString()
                          : which == Which::microphone ? "No microphone found."
                                                       : "No display found to capture audio from.");
        if (missing)
            return;
        QTRY_VERIFY(calls >= 2);
        const qsizetype before = calls;
        if (play)
            QVERIFY(::play(QStringLiteral("espeak-ng --stdout \"Tell me about a project you are proud of.\""),
                           action.last()));
        else if (action.first() == "kill")
            server->kill();
        else
            QVERIFY(server->pactl(action));
        if (ends)
            QTRY_COMPARE_WITH_TIMEOUT(stops.size(), 1, 10'000);
        else
            QTRY_VERIFY_WITH_TIMEOUT(calls >= before + 10, 10'000);
        capture->stop();
        closed = true;
        QTest::qWait(200);
        std::lock_guard lock(mutex);
        QCOMPARE(late.load(), 0);
        QCOMPARE(stops.size(), ends ? 1 : 0);
        QVERIFY(!stops.contains("off the main thread") && !stops.contains(QString()));
        if (!play)
            return;

        // 16 kHz mono 16-bit at the pace of the sound card, and loud enough to be the speech.
        const auto [firstAt, firstBytes] = arrivals.at(before);
        const auto [lastAt, lastBytes] = arrivals.last();
        const double rate = double(lastBytes - firstBytes) * 1000 / double(lastAt - firstAt);
        QVERIFY2(std::abs(rate - PCMConverter::bytesPerSecond) < 0.05 * PCMConverter::bytesPerSecond,
                 qPrintable(QStringLiteral("%1 bytes per second").arg(rate)));
        const double level = AudioSignal::fit(AudioSignal::samples(pcm.mid(firstBytes)), 16000, {}).residual;
        QVERIFY2(level > 0.005, qPrintable(QStringLiteral("speech at %1 rms").arg(level)));
    }
};

QTEST_GUILESS_MAIN(PulseCaptureTest)
#include "tst_pulsecapture.moc"
