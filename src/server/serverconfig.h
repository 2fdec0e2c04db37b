#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace server {

// Every setting of the server. Each comes from its command-line flag, else its environment variable,
// else the default; `--help` lists them all.
struct ServerConfig {
    std::string host = "127.0.0.1";
    int port = 8787;  // 0: any free port (tests)
    std::string dataDir;
    std::string databaseUrl;  // empty: SQLite in the data folder
    bool devMode = false;
    long long minutesLimit = 600;

    std::string llmUrl;  // empty: the offline engine answers
    std::string llmKey;
    std::string llmModel;
    std::chrono::milliseconds llmTimeout{30'000};

    std::string speechUrl = "https://api.deepgram.com";
    std::string speechKey;

    std::string smtpUrl;
    std::string smtpUser;
    std::string smtpPassword;
    std::string smtpFrom;

    std::string releasesDir;  // empty: no releases are served
    std::size_t maxBodyBytes = 1 << 20;
    int threads = 64;
    int codesPerEmail = 5;
    int codesPerAddress = 20;
};

// What to do instead of serving: print `text` (help or the reason the settings were refused) and exit.
struct ConfigExit {
    int status = 0;
    std::string text;
};

using Environment = std::function<std::optional<std::string>(const std::string& name)>;

// The process environment, for `parseServerConfig`.
Environment processEnvironment();

std::variant<ServerConfig, ConfigExit> parseServerConfig(const std::vector<std::string>& arguments,
                                                         const Environment& environment);

// The database address without its password, for the log.
std::string redactedDatabaseUrl(const std::string& url);

// True for addresses that only this machine can reach.
bool isLoopbackHost(const std::string& host);

}  // namespace server
