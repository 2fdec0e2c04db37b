#pragma once

#include "clock.h"
#include "mailer.h"
#include "serverconfig.h"

#include <memory>

namespace server {

// The backend's HTTP API on cpp-httplib: sign-in, account, usage, speech tokens, streamed answers and
// release files. Requests are served on a pool of threads; all of them share the store.
class HttpServer {
public:
    // Opens the store in the data folder; throws StoreError when it can't. `mailer` stands in for the
    // configured SMTP server (tests); `clock` for the time of day.
    explicit HttpServer(const ServerConfig& config, Clock clock = systemClock(),
                        std::unique_ptr<Mailer> mailer = nullptr);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds the configured address; returns the port (the chosen one for port 0), or 0 when binding failed.
    int bind();
    // Serves until stop(); call bind() first. Returns false when serving could not start.
    bool run();
    // True once run() is accepting connections.
    bool running() const;
    // Callable from any thread; answers still streaming are allowed to finish.
    void stop();

private:
    struct Private;
    std::unique_ptr<Private> d_;
};

}  // namespace server
