// Runs the microphone and system-audio captures side by side against the running sound server for a
// number of seconds and reports what they delivered and the CPU time the process spent doing it (every
// thread: the sound server's client threads, the conversion and the main thread). bench/capture_cpu.sh
// runs it while speech plays.
//
//   capture_cpu SECONDS
#include "miccapture.h"
#include "systemaudiocapture.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QTimer>

#include <sys/resource.h>

#include <atomic>

namespace {

double cpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

struct Source {
    const char* name;
    AudioCapture& capture;
    std::atomic<qint64> bytes = 0;
    std::atomic<qint64> buffers = 0;
    bool started = false;
};

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    const double seconds = argc > 1 ? QString::fromLocal8Bit(argv[1]).toDouble() : 60;
    QTextStream out(stdout);

    MicCapture mic;
    SystemAudioCapture system;
    Source sources[] = {{"microphone", mic}, {"system audio", system}};
    int pending = 2;
    int failures = 0;
    QElapsedTimer wall;
    double cpuAtStart = 0;

    for (Source& source : sources) {
        source.capture.setOnAudio([&source](const QByteArray& pcm) {
            source.bytes += pcm.size();
            ++source.buffers;
        });
        source.capture.setOnStop([&](const Failure& failure) {
            out << source.name << " stopped: " << failure.description() << Qt::endl;
            app.exit(1);
        });
        source.capture.start([&](Result<Done> result) {
            if (!result) {
                out << source.name << " did not start: " << result.failure().description() << Qt::endl;
                ++failures;
            }
            if (--pending > 0)
                return;
            if (failures > 0) {
                app.exit(1);
                return;
            }
            // A new recording takes a moment to begin to flow; the measurement starts once both run steadily.
            QTimer::singleShot(2000, Qt::PreciseTimer, &app, [&] {
                for (Source& s : sources) {
                    s.bytes = 0;
                    s.buffers = 0;
                }
                cpuAtStart = cpuSeconds();
                wall.start();
                QTimer::singleShot(int(seconds * 1000), Qt::PreciseTimer, &app, [&] { app.exit(0); });
            });
        });
    }
    const int status = app.exec();
    const double cpu = cpuSeconds() - cpuAtStart;
    const double elapsed = wall.isValid() ? double(wall.elapsed()) / 1000 : 0;
    mic.stop();
    system.stop();
    if (status != 0 || elapsed <= 0)
        return 1;

    for (const Source& source : sources) {
        out << source.name << ": " << source.buffers << " buffers, " << source.bytes << " bytes, "
            << QString::number(double(source.bytes) / elapsed, 'f', 0) << " bytes/s" << Qt::endl;
    }
    out << "wall " << QString::number(elapsed, 'f', 2) << " s, cpu " << QString::number(cpu, 'f', 3) << " s, "
        << QString::number(100 * cpu / elapsed, 'f', 3) << "% of one core" << Qt::endl;
    return 0;
}
