// How fast the session reacts to the interviewer, and what the question check costs on a full
// transcript.
//
// SessionAnswerLatency: from the moment an interviewer's utterance ends (the stream's event is handed to
// the main thread) to the moment the answer request reaches a loopback HTTP server, through the real
// controller, backend client and network stack. The server is a plain socket loop on its own thread,
// so that its timestamp does not wait for the main thread's event loop.

#include "appsettings.h"
#include "backendclient.h"
#include "sessioncontroller.h"
#include "sessiontext.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

namespace {

// Answers every request on every connection with a one-piece answer, noting when each request's first
// bytes arrived.
class AnswerServer {
public:
    AnswerServer() {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 8);
        socklen_t length = sizeof address;
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { acceptLoop(); });
    }

    ~AnswerServer() {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }

    int port() const { return port_; }
    int requests() const { return requests_.load(std::memory_order_acquire); }
    SteadyClock::time_point lastArrival() const {
        return SteadyClock::time_point(SteadyClock::duration(lastArrival_.load(std::memory_order_acquire)));
    }

private:
    void acceptLoop() {
        for (;;) {
            const int client = ::accept(listener_, nullptr, nullptr);
            if (client < 0) {
                return;
            }
            std::thread([this, client] { serve(client); }).detach();
        }
    }

    void serve(int client) {
        const int one = 1;
        ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        std::string buffer;
        char chunk[65536];
        for (;;) {
            const ssize_t got = ::recv(client, chunk, sizeof chunk, 0);
            if (got <= 0) {
                break;
            }
            if (buffer.empty()) {
                lastArrival_.store(SteadyClock::now().time_since_epoch().count(), std::memory_order_release);
            }
            buffer.append(chunk, static_cast<std::size_t>(got));
            const std::size_t headerEnd = buffer.find("\r\n\r\n");
            if (headerEnd == std::string::npos) {
                continue;
            }
            std::size_t bodyLength = 0;
            const std::size_t field = buffer.find("ontent-Length: ");
            if (field != std::string::npos && field < headerEnd) {
                bodyLength = std::stoul(buffer.substr(field + 15));
            }
            if (buffer.size() < headerEnd + 4 + bodyLength) {
                continue;
            }
            buffer.erase(0, headerEnd + 4 + bodyLength);
            requests_.fetch_add(1, std::memory_order_acq_rel);
            static const std::string body = "data: {\"type\":\"text\",\"text\":\"ok\"}\n";
            const std::string response =
                "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nContent-Length: " +
                std::to_string(body.size()) + "\r\n\r\n" + body;
            ::send(client, response.data(), response.size(), MSG_NOSIGNAL);
        }
        ::close(client);
    }

    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
    std::atomic<int> requests_{0};
    std::atomic<SteadyClock::rep> lastArrival_{0};
};

// Hands the test its event handler; nothing is ever sent anywhere.
class ScriptedStream : public SpeechStream {
public:
    explicit ScriptedStream(EventHandler* slot) : slot_(slot) {}
    ~ScriptedStream() override { *slot_ = nullptr; }
    QString label() const override { return QStringLiteral("Interviewer"); }
    void setOnEvent(EventHandler handler) override { *slot_ = std::move(handler); }
    void start() override {}
    void send(const QByteArray&) override {}
    void stop() override {}

private:
    EventHandler* slot_;
};

class SilentCapture : public AudioCapture {
public:
    void setOnAudio(AudioHandler) override {}
    void setOnStop(StopHandler) override {}
    void start(Completion<Done> done) override {
        QMetaObject::invokeMethod(
            QCoreApplication::instance(), [done = std::move(done)] { done(Done{}); }, Qt::QueuedConnection);
    }
    void stop() override {}
};

class SteppedClock : public SessionClock {
public:
    explicit SteppedClock(TimePoint* now) : now_(now) {}
    TimePoint now() const override { return *now_; }
    std::unique_ptr<Timer> repeat(std::chrono::milliseconds, std::function<void()>) override {
        return std::make_unique<Timer>();
    }

private:
    TimePoint* now_;
};

template <typename Done>
void spinUntil(Done done) {
    while (!done()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
}

void SessionAnswerLatency(benchmark::State& state) {
    AnswerServer server;
    QTemporaryDir home;
    qputenv("TALLOWIND_SERVER", QByteArray("http://127.0.0.1:") + QByteArray::number(server.port()));
    qputenv("TALLOWIND_TOKEN", "bench");

    AppSettings settings(home.filePath(QStringLiteral("settings.ini")));
    settings.setUseMic(false);
    settings.setAutoAnswer(true);
    settings.setResume(QString(3000, QLatin1Char('r')));
    BackendClient client;
    SpeechStream::EventHandler report;
    SessionClock::TimePoint now = SessionClock::TimePoint(std::chrono::hours(500'000));

    SessionController::Parts parts;
    parts.settings = &settings;
    parts.backend = SessionBackend::over(client);
    parts.makeStream = [&report](const QString&, TokenProvider) -> std::unique_ptr<SpeechStream> {
        return std::make_unique<ScriptedStream>(&report);
    };
    parts.systemCapture = std::make_unique<SilentCapture>();
    parts.micCapture = std::make_unique<SilentCapture>();
    parts.clock = std::make_unique<SteppedClock>(&now);
    SessionController session(std::move(parts));
    session.start();

    const QString question = QStringLiteral(
        "Can you walk me through how you would design a rate limiter for a public API with bursty traffic?");
    std::vector<double> samples;
    samples.reserve(static_cast<std::size_t>(state.max_iterations));
    for (auto _ : state) {
        // One utterance every ten seconds keeps the transcript at its ten-minute size, sixty lines.
        now += 10s;
        const int before = server.requests();
        const SteadyClock::time_point start = SteadyClock::now();
        report(SpeechStream::Event::final(question, true));
        spinUntil([&] { return server.requests() > before; });
        const double seconds = std::chrono::duration<double>(server.lastArrival() - start).count();
        state.SetIterationTime(seconds);
        samples.push_back(seconds * 1e6);
        spinUntil([&] { return !session.isAnswering(); });
    }
    std::sort(samples.begin(), samples.end());
    state.counters["median_us"] = samples.at(samples.size() / 2);
    state.counters["p90_us"] = samples.at(samples.size() * 9 / 10);
    state.counters["p99_us"] = samples.at(samples.size() * 99 / 100);
    session.stop();
    qunsetenv("TALLOWIND_SERVER");
    qunsetenv("TALLOWIND_TOKEN");
}
BENCHMARK(SessionAnswerLatency)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(2000);

// Ten minutes of an interview: a line every five seconds, the interviewer's three to one, with a long
// trailing run of interviewer lines that have no question mark, so that every step of the check runs.
QList<TranscriptLine> tenMinuteTranscript() {
    const QStringList interviewer = {
        QStringLiteral("So the system we run today takes in about forty thousand events a second"),
        QStringLiteral("and most of them come from mobile clients that reconnect a lot during the day"),
        QStringLiteral("we have seen the queue back up twice this quarter when a region failed over"),
    };
    const QString me =
        QStringLiteral("Right, that sounds like the consumers could not keep up with the replays");
    QList<TranscriptLine> lines;
    for (int i = 0; i < 120; ++i) {
        if (i % 4 == 3 && i < 110) {
            lines.append(TranscriptLine(Speaker::me, me));
        } else {
            lines.append(TranscriptLine(Speaker::interviewer, interviewer.at(i % 3)));
        }
    }
    return lines;
}

void QuestionCheckOnTenMinuteTranscript(benchmark::State& state) {
    const QList<TranscriptLine> lines = tenMinuteTranscript();
    for (auto _ : state) {
        const QString question = SessionText::currentQuestion(lines);
        benchmark::DoNotOptimize(SessionText::looksLikeQuestion(question));
    }
}
BENCHMARK(QuestionCheckOnTenMinuteTranscript)->Unit(benchmark::kNanosecond);

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
