// Load generator for the backend server's streamed answers, and a fake OpenAI-compatible model to put
// behind it. Used by run-answer-load.sh; run it directly for other shapes of load.
//
//   server_answer_load model PORT PIECES INTERVAL_MS
//       serves /v1/chat/completions on 127.0.0.1:PORT: PIECES deltas, INTERVAL_MS apart
//   server_answer_load load URL[,URL...] TOKEN CLIENTS SECONDS
//       CLIENTS threads ask for answers back to back for SECONDS, each on one kept-alive connection to
//       one of the servers in turn; prints the figures

#include <httplib.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int serveModel(int port, int pieces, int intervalMs) {
    httplib::Server model;
    model.new_task_queue = [] { return new httplib::ThreadPool(256); };
    model.Post("/v1/chat/completions", [=](const httplib::Request&, httplib::Response& res) {
        res.set_chunked_content_provider("text/event-stream", [=](std::size_t, httplib::DataSink& sink) {
            for (int i = 0; i < pieces; ++i) {
                if (i > 0) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(intervalMs));
                }
                const std::string event =
                    "data: {\"choices\":[{\"delta\":{\"content\":\"word" + std::to_string(i) + " \"}}]}\n\n";
                if (!sink.write(event.data(), event.size())) {
                    return false;
                }
            }
            const std::string done = "data: [DONE]\n\n";
            sink.write(done.data(), done.size());
            sink.done();
            return true;
        });
    });
    // httplib's backlog of five would make the model, not the server under test, drop connections.
    socket_t listening = -1;
    model.set_socket_options([&listening](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        listening = socket;
    });
    if (!model.bind_to_port("127.0.0.1", port) || ::listen(listening, SOMAXCONN) != 0) {
        return 1;
    }
    std::fprintf(stderr, "fake model on 127.0.0.1:%d\n", port);
    return model.listen_after_bind() ? 0 : 1;
}

struct Sample {
    double firstPieceMs;
    double totalMs;
};

double percentile(std::vector<double> values, double p) {
    if (values.empty()) {
        return 0;
    }
    std::sort(values.begin(), values.end());
    const auto index = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
    return values[index];
}

std::vector<std::string> split(const std::string& list) {
    std::vector<std::string> parts;
    std::size_t start = 0;
    while (start <= list.size()) {
        const auto comma = std::min(list.find(',', start), list.size());
        parts.push_back(list.substr(start, comma - start));
        start = comma + 1;
    }
    return parts;
}

int runLoad(const std::vector<std::string>& urls, const std::string& token, int clients, int seconds) {
    const std::string body =
        R"({"question":"Tell me about a project you are proud of.","transcript":[)"
        R"({"speaker":"interviewer","text":"Thanks for coming in."}],)"
        R"("resume":"Led the project that replaced a nightly batch job with a streaming pipeline\n)"
        R"(Mentored four engineers\nCut p99 latency from 1.8 s to 220 ms","jobDescription":"Backend engineer",)"
        R"("extraInstructions":"Keep it short."})";
    std::mutex mutex;
    std::vector<Sample> samples;
    std::atomic<int> failures = 0;
    const auto start = Clock::now();
    const auto end = start + std::chrono::seconds(seconds);

    std::vector<std::thread> threads;
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back([&, url = urls[static_cast<std::size_t>(i) % urls.size()]] {
            httplib::Client client(url);
            client.set_read_timeout(120, 0);
            // As the program does: every answer after the first reuses the connection, and the request
            // goes out without waiting for acknowledgements (Qt turns Nagle's algorithm off too).
            client.set_keep_alive(true);
            client.set_tcp_nodelay(true);
            while (Clock::now() < end) {
                httplib::Request request;
                request.method = "POST";
                request.path = "/answer";
                request.headers = {{"Authorization", "Bearer " + token},
                                   {"Content-Type", "application/json"}};
                request.body = body;
                const auto sent = Clock::now();
                std::optional<Clock::time_point> firstPiece;
                std::string received;
                request.content_receiver = [&](const char* data, std::size_t length, std::uint64_t,
                                               std::uint64_t) {
                    received.append(data, length);
                    if (!firstPiece && received.find("\"type\":\"text\"") != std::string::npos) {
                        firstPiece = Clock::now();
                    }
                    return true;
                };
                httplib::Response response;
                httplib::Error error = httplib::Error::Success;
                const bool ok = client.send(request, response, error);
                const auto done = Clock::now();
                if (!ok || response.status != 200 || !firstPiece ||
                    received.find("{\"type\":\"done\"}") == std::string::npos) {
                    ++failures;
                    continue;
                }
                const auto ms = [&](Clock::time_point t) {
                    return std::chrono::duration<double, std::milli>(t - sent).count();
                };
                std::lock_guard lock(mutex);
                samples.push_back({ms(*firstPiece), ms(done)});
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::vector<double> first;
    std::vector<double> total;
    for (const auto& sample : samples) {
        first.push_back(sample.firstPieceMs);
        total.push_back(sample.totalMs);
    }
    std::printf("%zu servers, clients %d, %.1f s: %zu answers complete, %d failed, %.1f answers/s\n",
                urls.size(), clients, elapsed, samples.size(), failures.load(),
                static_cast<double>(samples.size()) / elapsed);
    std::printf("time to first piece: p50 %.1f ms, p95 %.1f ms, max %.1f ms\n", percentile(first, 0.5),
                percentile(first, 0.95), percentile(first, 1.0));
    std::printf("whole answer:        p50 %.1f ms, p95 %.1f ms, max %.1f ms\n", percentile(total, 0.5),
                percentile(total, 0.95), percentile(total, 1.0));
    return failures.load() == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (args.size() == 4 && args[0] == "model") {
        return serveModel(std::atoi(args[1].c_str()), std::atoi(args[2].c_str()), std::atoi(args[3].c_str()));
    }
    if (args.size() == 5 && args[0] == "load") {
        return runLoad(split(args[1]), args[2], std::atoi(args[3].c_str()), std::atoi(args[4].c_str()));
    }
    std::fputs(
        "usage: server_answer_load model PORT PIECES INTERVAL_MS\n"
        "       server_answer_load load URL[,URL...] TOKEN CLIENTS SECONDS\n",
        stderr);
    return 2;
}
