#include "httpserver.h"
#include "serverconfig.h"
#include "store.h"

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>
#include <thread>

int main(int argc, char** argv) {
    const auto parsed = server::parseServerConfig(std::vector<std::string>(argv + 1, argv + argc),
                                                  server::processEnvironment());
    if (const auto* exit = std::get_if<server::ConfigExit>(&parsed)) {
        std::fputs(exit->text.c_str(), exit->status == 0 ? stdout : stderr);
        return exit->status;
    }
    const auto& config = std::get<server::ServerConfig>(parsed);

    // Signals are blocked before any thread exists, so every thread inherits the mask and only the
    // sigwait below ever sees them; a client that hangs up mid-answer must not kill the process.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    std::signal(SIGPIPE, SIG_IGN);

    try {
        server::HttpServer http(config);
        const int port = http.bind();
        if (port == 0) {
            std::fprintf(
                stderr,
                "tallowind-server: can't listen on %s:%d (in use, or not an address of this machine).\n",
                config.host.c_str(), config.port);
            return 1;
        }
        const std::string data = config.databaseUrl.empty()
                                     ? "data in " + config.dataDir
                                     : "database " + server::redactedDatabaseUrl(config.databaseUrl);
        std::fprintf(stderr, "tallowind-server: listening on http://%s:%d, %s%s%s\n", config.host.c_str(),
                     port, data.c_str(), config.devMode ? ", development mode (codes in responses)" : "",
                     config.llmUrl.empty() ? ", offline answers" : "");
        std::thread waiter([&] {
            int signal = 0;
            sigwait(&stopSignals, &signal);
            http.stop();
        });
        const bool served = http.run();
        if (!served) {
            std::fprintf(stderr, "tallowind-server: serving failed.\n");
            std::_Exit(1);
        }
        waiter.join();
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "tallowind-server: %s\n", failure.what());
        return 1;
    }
    return 0;
}
