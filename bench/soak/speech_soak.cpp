// Soak of one speech stream against a loopback service that keeps dropping it: the stream must come
// back every time on its own reconnect schedule (shortened), with a fresh token each time, and hold
// its memory and descriptors flat while doing so.
//
//   speech_soak [DROPS]   the stream's side; starts the service side as a child process
//   speech_soak --service the loopback service: prints its port, drops every connection shortly after
//                         it opened, and now and then refuses connections for a while
#include "deepgramstream.h"
#include "testwebsocketserver.h"

#include <QCoreApplication>
#include <QDir>
#include <QProcess>
#include <QSet>
#include <QTimer>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

namespace {

constexpr int defaultDrops = 100;
// The drop after which the figures are taken as the baseline: the first connections warm caches up.
constexpr int baselineDrop = 10;
constexpr qint64 allowedGrowthBytes = 1024 * 1024;
constexpr int allowedDescriptorChange = 2;
// A connection lives this long before it is dropped; every tenth drop the service also stays away
// for a while, so that the stream goes through its growing delays too.
constexpr int connectionLifeMs = 30;
constexpr int outageEvery = 10;
constexpr int outageMs = 150;
constexpr int deadlineMs = 300'000;

struct Figures {
    qint64 residentBytes = 0;
    int descriptors = 0;
};

Figures measure() {
    Figures figures;
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (statm.open(QIODevice::ReadOnly)) {
        const QList<QByteArray> fields = statm.readAll().split(' ');
        figures.residentBytes = fields.value(1).toLongLong() * sysconf(_SC_PAGESIZE);
    }
    figures.descriptors =
        int(QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::NoDotAndDotDot | QDir::System).size());
    return figures;
}

int runService() {
    TestWebSocketServer server;
    if (!server.listen()) {
        std::fprintf(stderr, "the service could not listen on loopback\n");
        return 1;
    }
    const quint16 port = server.port();
    QSet<QByteArray> tokens;
    int opened = 0;
    QObject::connect(&server, &TestWebSocketServer::connectionOpened, &server, [&](int connection) {
        ++opened;
        const QByteArray authorization = server.connections()[connection].header("authorization");
        if (tokens.contains(authorization)) {
            std::printf("reused token %s\n", authorization.constData());
        }
        tokens.insert(authorization);
        server.sendText(connection,
                        QStringLiteral(R"({"type":"Results","is_final":true,"speech_final":true,)"
                                       R"("channel":{"alternatives":[{"transcript":"still there?"}]}})"));
        QTimer::singleShot(connectionLifeMs, &server, [&server, connection, opened, port] {
            server.drop(connection);
            if (opened % outageEvery == 0) {
                server.close();
                QTimer::singleShot(outageMs, &server, [&server, port] { server.listen(port); });
            }
        });
        std::printf("connections %d tokens %lld\n", opened, static_cast<long long>(tokens.size()));
        std::fflush(stdout);
    });
    std::printf("port %u\n", port);
    std::fflush(stdout);
    return QCoreApplication::exec();
}

int runStream(int drops) {
    QProcess service;
    service.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    service.start(QCoreApplication::applicationFilePath(), {QStringLiteral("--service")});
    if (!service.waitForReadyRead(10'000)) {
        std::fprintf(stderr, "the service did not start\n");
        return 1;
    }
    const QByteArray greeting = service.readLine().trimmed();
    if (!greeting.startsWith("port ")) {
        std::fprintf(stderr, "the service said %s\n", greeting.constData());
        return 1;
    }
    qputenv("TALLOWIND_STT_URL", "ws://127.0.0.1:" + greeting.mid(5));

    int tokensIssued = 0;
    TokenProvider tokens = [&tokensIssued](Completion<QString> done) {
        ++tokensIssued;
        QTimer::singleShot(
            0, qApp, [done = std::move(done), n = tokensIssued] { done(QStringLiteral("token-%1").arg(n)); });
    };
    DeepgramStream::Timing timing;
    timing.second = std::chrono::milliseconds(10);
    timing.handshakeTimeout = std::chrono::milliseconds(2000);
    DeepgramStream stream(QStringLiteral("soak"), tokens, timing);

    int connected = 0;
    int finals = 0;
    Figures baseline;
    Figures last;
    stream.setOnEvent([&](const SpeechStream::Event& event) {
        if (event.kind == SpeechStream::Event::Kind::final) {
            ++finals;
        }
        if (event.kind != SpeechStream::Event::Kind::connected) {
            return;
        }
        // The connection after the Nth drop has just opened: all that the Nth connection held is gone.
        if (connected == baselineDrop) {
            baseline = measure();
        }
        if (connected == drops) {
            last = measure();
            QCoreApplication::quit();
        }
        ++connected;
    });

    // 20 ms of silence every 20 ms, as a capture would send it, so that the audio path is soaked too.
    QTimer audio;
    QObject::connect(&audio, &QTimer::timeout, &audio, [&stream] { stream.send(QByteArray(640, '\0')); });
    audio.start(20);
    QTimer::singleShot(deadlineMs, qApp, [] { QCoreApplication::exit(2); });
    stream.start();
    const int loop = QCoreApplication::exec();
    stream.stop();

    service.terminate();
    service.waitForFinished(5000);
    QByteArray lastServiceLine;
    bool reused = false;
    for (const QByteArray& line : service.readAllStandardOutput().split('\n')) {
        if (line.startsWith("reused")) {
            reused = true;
        } else if (line.startsWith("connections")) {
            lastServiceLine = line;
        }
    }

    const qint64 growth = last.residentBytes - baseline.residentBytes;
    const int descriptorChange = last.descriptors - baseline.descriptors;
    std::printf("drops survived:        %d of %d (%d transcripts heard)\n", std::max(connected - 1, 0), drops,
                finals);
    std::printf("tokens fetched:        %d (service saw: %s; any reused: %s)\n", tokensIssued,
                lastServiceLine.constData(), reused ? "yes" : "no");
    std::printf("resident memory:       %.2f MB after drop %d, %.2f MB after drop %d (%+.0f KB)\n",
                baseline.residentBytes / 1048576.0, baselineDrop, last.residentBytes / 1048576.0, drops,
                growth / 1024.0);
    std::printf("open descriptors:      %d after drop %d, %d after drop %d (%+d)\n", baseline.descriptors,
                baselineDrop, last.descriptors, drops, descriptorChange);
    const bool ok = loop == 0 && !reused && tokensIssued > drops && growth <= allowedGrowthBytes &&
                    std::abs(descriptorChange) <= allowedDescriptorChange;
    std::printf("%s\n", ok ? "soak passed" : "soak FAILED");
    return ok ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication application(argc, argv);
    const QStringList arguments = application.arguments();
    if (arguments.value(1) == QLatin1String("--service")) {
        return runService();
    }
    const int drops = arguments.size() > 1 ? arguments[1].toInt() : defaultDrops;
    if (drops <= baselineDrop) {
        std::fprintf(stderr, "usage: speech_soak [DROPS above %d]\n", baselineDrop);
        return 2;
    }
    return runStream(drops);
}
