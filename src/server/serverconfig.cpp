#include "serverconfig.h"

#include <arpa/inet.h>

#include <algorithm>
#include <charconv>
#include <cstdlib>

namespace server {

namespace {

// A setter returns the reason a value was refused, or nothing.
using Setter = std::function<std::optional<std::string>(ServerConfig&, const std::string&)>;

struct Option {
    const char* flag;
    const char* variable;
    const char* valueName;  // null: a switch that takes no value on the command line
    const char* help;
    Setter set;
};

template <typename Number>
std::optional<Number> number(const std::string& text, Number minimum, Number maximum) {
    Number value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < minimum || value > maximum) {
        return std::nullopt;
    }
    return value;
}

Setter text(std::string ServerConfig::*field) {
    return [field](ServerConfig& config, const std::string& value) -> std::optional<std::string> {
        config.*field = value;
        return std::nullopt;
    };
}

template <typename Field>
Setter whole(Field ServerConfig::*field, long long minimum, long long maximum) {
    return [=](ServerConfig& config, const std::string& value) -> std::optional<std::string> {
        const auto parsed = number<long long>(value, minimum, maximum);
        if (!parsed) {
            return "expects a whole number from " + std::to_string(minimum) + " to " +
                   std::to_string(maximum);
        }
        config.*field = static_cast<Field>(*parsed);
        return std::nullopt;
    };
}

std::optional<std::string> setListen(ServerConfig& config, const std::string& value) {
    const auto colon = value.rfind(':');
    if (colon == std::string::npos || colon == 0) {
        return "expects HOST:PORT, such as 127.0.0.1:8787";
    }
    std::string host = value.substr(0, colon);
    if (host.starts_with('[') && host.ends_with(']')) {
        host = host.substr(1, host.size() - 2);
    }
    const auto port = number<int>(value.substr(colon + 1), 0, 65535);
    if (!port) {
        return "expects a port from 0 to 65535 after the colon";
    }
    config.host = host;
    config.port = *port;
    return std::nullopt;
}

std::optional<std::string> setDatabase(ServerConfig& config, const std::string& value) {
    if (!value.empty() && !value.starts_with("postgresql://") && !value.starts_with("postgres://")) {
        return "expects a PostgreSQL address, such as postgresql://tallowind@db.example.org/tallowind";
    }
    config.databaseUrl = value;
    return std::nullopt;
}

std::optional<std::string> setSwitch(ServerConfig& config, const std::string& value) {
    if (value == "1" || value == "true" || value == "yes" || value == "on") {
        config.devMode = true;
    } else if (value.empty() || value == "0" || value == "false" || value == "no" || value == "off") {
        config.devMode = false;
    } else {
        return "expects 1 or 0";
    }
    return std::nullopt;
}

std::optional<std::string> setTimeout(ServerConfig& config, const std::string& value) {
    const auto seconds = number<double>(value, 0.1, 600.0);
    if (!seconds) {
        return "expects seconds from 0.1 to 600";
    }
    config.llmTimeout = std::chrono::milliseconds(static_cast<long long>(*seconds * 1000));
    return std::nullopt;
}

const std::vector<Option>& options() {
    static const std::vector<Option> table = {
        {"--listen", "TALLOWIND_SERVER_LISTEN", "HOST:PORT", "address to listen on (default 127.0.0.1:8787)",
         setListen},
        {"--data", "TALLOWIND_SERVER_DATA", "DIR",
         "folder of the database (default $XDG_DATA_HOME/tallowind-server)", text(&ServerConfig::dataDir)},
        {"--database", "TALLOWIND_SERVER_DATABASE", "URL",
         "PostgreSQL database that several servers share, postgresql://USER@HOST/NAME "
         "(default: none, SQLite in the data folder)",
         setDatabase},
        {"--dev", "TALLOWIND_SERVER_DEV", nullptr,
         "development mode: sign-in codes come back in the response instead of by e-mail; loopback only",
         setSwitch},
        {"--minutes-limit", "TALLOWIND_SERVER_MINUTES_LIMIT", "N",
         "listening minutes per account and month (default 600)",
         whole(&ServerConfig::minutesLimit, 0, 1'000'000'000)},
        {"--llm-url", "TALLOWIND_SERVER_LLM_URL", "URL",
         "OpenAI-compatible API base, e.g. https://api.openai.com/v1 (default: none, answer offline)",
         text(&ServerConfig::llmUrl)},
        {"--llm-key", "TALLOWIND_SERVER_LLM_KEY", "KEY",
         "API key of the language model (prefer the variable)", text(&ServerConfig::llmKey)},
        {"--llm-model", "TALLOWIND_SERVER_LLM_MODEL", "NAME", "model name, required with --llm-url",
         text(&ServerConfig::llmModel)},
        {"--llm-timeout", "TALLOWIND_SERVER_LLM_TIMEOUT", "SECONDS",
         "longest silence of the model before the answer fails (default 30)", setTimeout},
        {"--speech-key", "TALLOWIND_SERVER_SPEECH_KEY", "KEY",
         "speech-service API key (prefer the variable; default: none, speech recognition off)",
         text(&ServerConfig::speechKey)},
        {"--speech-url", "TALLOWIND_SERVER_SPEECH_URL", "URL",
         "speech-service API base (default https://api.deepgram.com)", text(&ServerConfig::speechUrl)},
        {"--smtp-url", "TALLOWIND_SERVER_SMTP_URL", "URL",
         "mail server for sign-in codes, smtp://host:587 or smtps://host:465 (default: none)",
         text(&ServerConfig::smtpUrl)},
        {"--smtp-user", "TALLOWIND_SERVER_SMTP_USER", "NAME", "mail server user name",
         text(&ServerConfig::smtpUser)},
        {"--smtp-password", "TALLOWIND_SERVER_SMTP_PASSWORD", "PASSWORD",
         "mail server password (prefer the variable)", text(&ServerConfig::smtpPassword)},
        {"--smtp-from", "TALLOWIND_SERVER_SMTP_FROM", "ADDRESS",
         "sender of sign-in e-mails, required with --smtp-url", text(&ServerConfig::smtpFrom)},
        {"--releases", "TALLOWIND_SERVER_RELEASES", "DIR",
         "folder served under /releases/ (latest.json and the zips); default: none",
         text(&ServerConfig::releasesDir)},
        {"--max-body", "TALLOWIND_SERVER_MAX_BODY", "BYTES",
         "largest request body accepted (default 1048576)",
         whole(&ServerConfig::maxBodyBytes, 1024, 64LL << 20)},
        {"--threads", "TALLOWIND_SERVER_THREADS", "N",
         "request threads; each streaming answer holds one (default 64)",
         whole(&ServerConfig::threads, 2, 4096)},
        {"--codes-per-email", "TALLOWIND_SERVER_CODES_PER_EMAIL", "N",
         "sign-in codes per e-mail address and hour (default 5)",
         whole(&ServerConfig::codesPerEmail, 1, 100'000)},
        {"--codes-per-address", "TALLOWIND_SERVER_CODES_PER_ADDRESS", "N",
         "sign-in codes per client IP address and hour (default 20)",
         whole(&ServerConfig::codesPerAddress, 1, 100'000)},
    };
    return table;
}

std::string helpText() {
    std::string text =
        "Usage: tallowind-server [OPTION]...\n"
        "Tallowind's backend: sign-in, accounts, speech tokens, answers and releases.\n\n"
        "Each option can also be set by its environment variable; the flag wins.\n\n";
    for (const auto& option : options()) {
        std::string left = std::string("  ") + option.flag;
        if (option.valueName) {
            left += std::string(" ") + option.valueName;
        }
        text += left + "\n      " + option.variable + "\n      " + option.help + "\n";
    }
    text += "  --help\n      show this text\n";
    return text;
}

ConfigExit refuse(const std::string& reason) {
    return {2, "tallowind-server: " + reason + "\nTry 'tallowind-server --help'.\n"};
}

}  // namespace

Environment processEnvironment() {
    return [](const std::string& name) -> std::optional<std::string> {
        const char* value = std::getenv(name.c_str());
        return value ? std::optional<std::string>(value) : std::nullopt;
    };
}

std::string redactedDatabaseUrl(const std::string& url) {
    const auto scheme = url.find("://");
    if (scheme == std::string::npos) {
        return url;
    }
    const auto hostStart = scheme + 3;
    // The query may carry a password too; the rest of the address says enough.
    const std::string withoutQuery = url.substr(0, url.find('?'));
    const auto authorityEnd = std::min(withoutQuery.find('/', hostStart), withoutQuery.size());
    const auto at = withoutQuery.rfind('@', authorityEnd);
    if (at == std::string::npos || at < hostStart) {
        return withoutQuery;
    }
    const auto colon = withoutQuery.find(':', hostStart);
    if (colon == std::string::npos || colon > at) {
        return withoutQuery;
    }
    return withoutQuery.substr(0, colon) + withoutQuery.substr(at);
}

bool isLoopbackHost(const std::string& host) {
    if (host == "localhost") {
        return true;
    }
    in_addr v4{};
    if (inet_pton(AF_INET, host.c_str(), &v4) == 1) {
        return (ntohl(v4.s_addr) >> 24) == 127;
    }
    in6_addr v6{};
    return inet_pton(AF_INET6, host.c_str(), &v6) == 1 && IN6_IS_ADDR_LOOPBACK(&v6);
}

std::variant<ServerConfig, ConfigExit> parseServerConfig(const std::vector<std::string>& arguments,
                                                         const Environment& environment) {
    ServerConfig config;
    const auto home = environment("HOME").value_or(".");
    const auto dataHome = environment("XDG_DATA_HOME");
    config.dataDir =
        (dataHome && !dataHome->empty() ? *dataHome : home + "/.local/share") + "/tallowind-server";

    for (const auto& option : options()) {
        if (const auto value = environment(option.variable)) {
            if (const auto problem = option.set(config, *value)) {
                return refuse(std::string(option.variable) + " " + *problem + ".");
            }
        }
    }
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument == "--help" || argument == "-h") {
            return ConfigExit{0, helpText()};
        }
        const auto equals = argument.find('=');
        const std::string flag = argument.substr(0, equals);
        const Option* match = nullptr;
        for (const auto& option : options()) {
            if (flag == option.flag) {
                match = &option;
            }
        }
        if (!match) {
            return refuse("unknown option '" + argument + "'.");
        }
        std::string value = "1";
        if (equals != std::string::npos) {
            value = argument.substr(equals + 1);
        } else if (match->valueName) {
            if (i + 1 == arguments.size()) {
                return refuse(std::string(match->flag) + " needs a value (" + match->valueName + ").");
            }
            value = arguments[++i];
        }
        if (const auto problem = match->set(config, value)) {
            return refuse(std::string(match->flag) + " " + *problem + ".");
        }
    }

    if (config.devMode && !isLoopbackHost(config.host)) {
        return refuse(
            "--dev hands out sign-in codes to anyone who asks, so it only listens on loopback "
            "(127.0.0.1 or ::1), not on " +
            config.host + ".");
    }
    if (!config.llmUrl.empty() && config.llmModel.empty()) {
        return refuse("--llm-url needs --llm-model too.");
    }
    if (!config.smtpUrl.empty() && config.smtpFrom.empty()) {
        return refuse("--smtp-url needs --smtp-from too.");
    }
    return config;
}

}  // namespace server
