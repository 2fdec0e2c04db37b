#include "httpserver.h"

#include "chatengine.h"
#include "mailer.h"
#include "offlineengine.h"
#include "signin.h"
#include "speechtokens.h"
#include "store.h"

#include <httplib.h>
#include <nlohmann/json.hpp>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cmath>
#include <cstdio>
#include <filesystem>

namespace server {

namespace {

using nlohmann::json;

// One report covers a minute of audio; the bound leaves room for a late timer and the final report of a
// session, and stops a single request from spending a month's minutes.
constexpr double maxReportSeconds = 120.0;

std::string dump(const json& value) {
    return value.dump(-1, ' ', false, json::error_handler_t::replace);
}

void sendJson(httplib::Response& res, int status, const json& body) {
    res.status = status;
    res.set_content(dump(body), "application/json");
}

void sendError(httplib::Response& res, const ApiError& error) {
    sendJson(res, error.status, {{"error", error.message}});
}

Outcome<json> jsonObject(const httplib::Request& req) {
    if (req.body.empty()) {
        return ApiError{400, "The request needs a JSON object as its body."};
    }
    json body = json::parse(req.body, nullptr, false);
    if (body.is_discarded()) {
        return ApiError{400, "The request body isn't valid JSON."};
    }
    if (!body.is_object()) {
        return ApiError{400, "The request body must be a JSON object."};
    }
    return body;
}

ApiError missing(const std::string& key) {
    return {400, "The request lacks the field \"" + key + "\"."};
}

Outcome<std::string> stringField(const json& body, const std::string& key) {
    const auto found = body.find(key);
    if (found == body.end()) {
        return missing(key);
    }
    if (!found->is_string()) {
        return ApiError{400, "The field \"" + key + "\" must be a string."};
    }
    return found->get<std::string>();
}

Outcome<AnswerQuery> answerQuery(const json& body) {
    AnswerQuery query;
    for (const auto& [key, field] :
         {std::pair{"question", &AnswerQuery::question}, std::pair{"resume", &AnswerQuery::resume},
          std::pair{"jobDescription", &AnswerQuery::jobDescription},
          std::pair{"extraInstructions", &AnswerQuery::extraInstructions}}) {
        auto value = stringField(body, key);
        if (!value) {
            return value.error();
        }
        query.*field = value.value();
    }
    if (query.question.find_first_not_of(" \t\r\n") == std::string::npos) {
        return ApiError{400, "There is no question to answer."};
    }
    const auto transcript = body.find("transcript");
    if (transcript == body.end()) {
        return missing("transcript");
    }
    if (!transcript->is_array()) {
        return ApiError{400, "The field \"transcript\" must be a list of lines."};
    }
    for (const auto& line : *transcript) {
        const auto speaker = line.is_object() ? line.find("speaker") : line.end();
        const auto text = line.is_object() ? line.find("text") : line.end();
        if (!line.is_object() || speaker == line.end() || text == line.end() || !text->is_string() ||
            !(*speaker == "interviewer" || *speaker == "me")) {
            return ApiError{400,
                            "Each transcript line needs a \"speaker\" (\"interviewer\" or \"me\") and a "
                            "\"text\" string."};
        }
        query.transcript.push_back({speaker->get<std::string>(), text->get<std::string>()});
    }
    return query;
}

std::optional<std::string> bearerToken(const httplib::Request& req) {
    const std::string header = req.get_header_value("Authorization");
    constexpr std::string_view scheme = "bearer ";
    if (header.size() < scheme.size()) {
        return std::nullopt;
    }
    for (std::size_t i = 0; i < scheme.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(header[i])) != scheme[i]) {
            return std::nullopt;
        }
    }
    return header.substr(scheme.size());
}

// Writes the answer as "data: " event lines, one per piece, each flushed to the socket at once.
class EventSink final : public AnswerSink {
public:
    explicit EventSink(httplib::DataSink& sink) : sink_(sink) {}

    bool text(std::string_view piece) override { return event({{"type", "text"}, {"text", piece}}); }
    // A comment line: the client reads only "data: " lines.
    bool stillThere() override { return write(": still writing\n\n"); }
    void fail(std::string_view message) override {
        failed_ = true;
        event({{"type", "error"}, {"message", message}});
    }
    void finish() {
        if (!failed_) {
            event({{"type", "done"}});
        }
    }
    bool gone() const { return gone_; }

private:
    // Ordered, so that "type" leads every event as readers of the raw stream expect.
    bool event(const nlohmann::ordered_json& value) {
        return write("data: " + value.dump(-1, ' ', false, json::error_handler_t::replace) + "\n\n");
    }
    bool write(const std::string& bytes) {
        if (!gone_ && !sink_.write(bytes.data(), bytes.size())) {
            gone_ = true;
        }
        return !gone_;
    }

    httplib::DataSink& sink_;
    bool gone_ = false;
    bool failed_ = false;
};

std::unique_ptr<Store> openStore(const ServerConfig& config) {
    if (config.databaseUrl.empty()) {
        return openSqliteStore((std::filesystem::path(config.dataDir) / "tallowind.sqlite3").string());
    }
    // A thread holds at most one connection at a time, so no request ever waits for one.
    return openPostgresStore(config.databaseUrl, config.threads);
}

}  // namespace

struct HttpServer::Private {
    Private(const ServerConfig& config, Clock clock, std::unique_ptr<Mailer> mailer)
        : config(config)
        , clock(std::move(clock))
        , store(openStore(config))
        , mailer(mailer                   ? std::move(mailer)
                 : config.smtpUrl.empty() ? nullptr
                                          : makeSmtpMailer({config.smtpUrl, config.smtpUser,
                                                            config.smtpPassword, config.smtpFrom}))
        , signIn(*store, this->mailer.get(), this->clock,
                 {config.devMode, std::chrono::minutes(10), 5, config.codesPerEmail, config.codesPerAddress})
        , speech({config.speechUrl, config.speechKey}) {
        if (config.llmUrl.empty()) {
            engine = std::make_shared<OfflineEngine>();
        } else {
            engine = std::make_shared<ChatEngine>(ChatSettings{config.llmUrl, config.llmKey, config.llmModel,
                                                               config.llmTimeout, std::chrono::seconds(10)});
        }
        routes();
    }

    // The account signed in by the request's bearer token.
    Outcome<std::string> account(const httplib::Request& req) {
        const auto token = bearerToken(req);
        const auto email = token ? signIn.accountOf(*token) : std::nullopt;
        if (!email) {
            return ApiError{401, "Your sign-in has ended. Sign in again."};
        }
        return *email;
    }

    long long minutesUsed(const std::string& email) {
        return static_cast<long long>(std::floor(store->usage(email, monthOf(clock())) / 60.0));
    }

    void routes();
    void startSignIn(const httplib::Request& req, httplib::Response& res);
    void verifySignIn(const httplib::Request& req, httplib::Response& res);
    void signOut(const httplib::Request& req, httplib::Response& res);
    void me(const httplib::Request& req, httplib::Response& res);
    void usage(const httplib::Request& req, httplib::Response& res);
    void speechToken(const httplib::Request& req, httplib::Response& res);
    void answer(const httplib::Request& req, httplib::Response& res);

    ServerConfig config;
    Clock clock;
    std::unique_ptr<Store> store;
    std::unique_ptr<Mailer> mailer;
    SignIn signIn;
    SpeechTokens speech;
    std::shared_ptr<AnswerEngine> engine;
    socket_t listenSocket = -1;
    httplib::Server http;
};

void HttpServer::Private::routes() {
    const auto handle = [this](void (Private::*method)(const httplib::Request&, httplib::Response&)) {
        return [this, method](const httplib::Request& req, httplib::Response& res) {
            (this->*method)(req, res);
        };
    };
    http.Post("/auth/start", handle(&Private::startSignIn));
    http.Post("/auth/verify", handle(&Private::verifySignIn));
    http.Post("/auth/signout", handle(&Private::signOut));
    http.Get("/me", handle(&Private::me));
    http.Post("/usage", handle(&Private::usage));
    http.Get("/stt-token", handle(&Private::speechToken));
    http.Post("/answer", handle(&Private::answer));
    if (!config.releasesDir.empty() && !http.set_mount_point("/releases", config.releasesDir)) {
        throw std::runtime_error("the releases folder " + config.releasesDir + " doesn't exist");
    }

    http.new_task_queue = [threads = config.threads] { return new httplib::ThreadPool(threads); };
    // Replacing httplib's socket options drops its SO_REUSEADDR, so it is set here again; the socket is
    // remembered so that bind() can widen its backlog.
    http.set_socket_options([this](socket_t socket) {
        const int yes = 1;
        setsockopt(socket, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        listenSocket = socket;
    });
    // A response leaves in several writes (headers, body, chunks). With Nagle's algorithm on, every write
    // after the first waits for the client's acknowledgement, which a client on a kept-alive connection
    // delays by up to 40 ms. Accepted sockets inherit the option from the listening one.
    http.set_tcp_nodelay(true);
    // HTTP gives a request without Content-Length or Transfer-Encoding an empty body, and tools send a
    // bodiless POST that way; httplib would instead wait for the connection to close and answer 400.
    http.set_pre_routing_handler([](const httplib::Request& req, httplib::Response&) {
        if ((req.method == "POST" || req.method == "PUT" || req.method == "PATCH" ||
             req.method == "DELETE") &&
            !req.has_header("Content-Length") && !req.has_header("Transfer-Encoding")) {
            // httplib hands the handler a const view of the request that it owns and reads next.
            const_cast<httplib::Request&>(req).set_header("Content-Length", "0");
        }
        return httplib::Server::HandlerResponse::Unhandled;
    });
    http.set_payload_max_length(config.maxBodyBytes);
    // Refusals that httplib makes itself (unknown path, oversized body, unreadable request) get the same
    // {"error"} body as ours, so the client shows a sentence instead of a bare status.
    http.set_error_handler([limit = config.maxBodyBytes](const httplib::Request&, httplib::Response& res) {
        if (!res.body.empty()) {
            return;
        }
        std::string message;
        switch (res.status) {
            case 404:
                message = "There is nothing at this address on the Tallowind server.";
                break;
            case 413:
                message = "The request is too large: this server accepts at most " + std::to_string(limit) +
                          " bytes.";
                break;
            default:
                message = "The Tallowind server couldn't handle this request (status " +
                          std::to_string(res.status) + ").";
        }
        sendJson(res, res.status, {{"error", message}});
    });
    http.set_exception_handler([](const httplib::Request& req, httplib::Response& res,
                                  std::exception_ptr failure) {
        std::string what = "unknown exception";
        bool unavailable = false;
        try {
            std::rethrow_exception(failure);
        } catch (const StoreUnavailable& exception) {
            what = exception.what();
            unavailable = true;
        } catch (const std::exception& exception) {
            what = exception.what();
        } catch (...) {
        }
        std::fprintf(stderr, "tallowind-server: %s %s failed: %s\n", req.method.c_str(), req.path.c_str(),
                     what.c_str());
        if (unavailable) {
            sendJson(res, 503,
                     {{"error",
                       "The Tallowind server can't reach its database right now. Try again in a "
                       "moment."}});
            return;
        }
        sendJson(res, 500, {{"error", "The Tallowind server hit an internal error. Try again in a moment."}});
    });
}

void HttpServer::Private::startSignIn(const httplib::Request& req, httplib::Response& res) {
    const auto body = jsonObject(req);
    if (!body) {
        return sendError(res, body.error());
    }
    const auto email = stringField(body.value(), "email");
    if (!email) {
        return sendError(res, email.error());
    }
    const auto started = signIn.start(email.value(), req.remote_addr);
    if (!started) {
        return sendError(res, started.error());
    }
    json reply = json::object();
    if (started.value()) {
        reply["devCode"] = *started.value();
    }
    sendJson(res, 200, reply);
}

void HttpServer::Private::verifySignIn(const httplib::Request& req, httplib::Response& res) {
    const auto body = jsonObject(req);
    if (!body) {
        return sendError(res, body.error());
    }
    const auto email = stringField(body.value(), "email");
    if (!email) {
        return sendError(res, email.error());
    }
    const auto code = stringField(body.value(), "code");
    if (!code) {
        return sendError(res, code.error());
    }
    const auto session = signIn.verify(email.value(), code.value());
    if (!session) {
        return sendError(res, session.error());
    }
    sendJson(res, 200, {{"token", session.value().token}, {"email", session.value().email}});
}

void HttpServer::Private::signOut(const httplib::Request& req, httplib::Response& res) {
    const auto email = account(req);
    if (!email) {
        return sendError(res, email.error());
    }
    signIn.signOut(*bearerToken(req));
    sendJson(res, 200, json::object());
}

void HttpServer::Private::me(const httplib::Request& req, httplib::Response& res) {
    const auto email = account(req);
    if (!email) {
        return sendError(res, email.error());
    }
    sendJson(res, 200,
             {{"email", email.value()},
              {"minutesUsed", minutesUsed(email.value())},
              {"minutesLimit", config.minutesLimit}});
}

void HttpServer::Private::usage(const httplib::Request& req, httplib::Response& res) {
    const auto email = account(req);
    if (!email) {
        return sendError(res, email.error());
    }
    const auto body = jsonObject(req);
    if (!body) {
        return sendError(res, body.error());
    }
    const auto seconds = body.value().find("sttSeconds");
    if (seconds == body.value().end()) {
        return sendError(res, missing("sttSeconds"));
    }
    if (!seconds->is_number()) {
        return sendError(res, {400, "The field \"sttSeconds\" must be a number."});
    }
    const double value = seconds->get<double>();
    if (!std::isfinite(value) || value < 1.0 || value > maxReportSeconds) {
        return sendError(res, {400, "The field \"sttSeconds\" must be from 1 to " +
                                        std::to_string(static_cast<int>(maxReportSeconds)) + " seconds."});
    }
    store->addUsage(email.value(), monthOf(clock()), value);
    sendJson(res, 200, json::object());
}

void HttpServer::Private::speechToken(const httplib::Request& req, httplib::Response& res) {
    const auto email = account(req);
    if (!email) {
        return sendError(res, email.error());
    }
    if (!speech.configured()) {
        return sendError(res,
                         {503,
                          "Speech recognition is not set up on this server: it needs a speech-service API "
                          "key (TALLOWIND_SERVER_SPEECH_KEY)."});
    }
    if (minutesUsed(email.value()) >= config.minutesLimit) {
        return sendError(
            res, {403, "You've used all " + std::to_string(config.minutesLimit) +
                           " listening minutes of this month. They renew on the first of the month."});
    }
    const auto token = speech.grant();
    if (!token) {
        return sendError(res, token.error());
    }
    sendJson(res, 200, {{"token", token.value()}});
}

void HttpServer::Private::answer(const httplib::Request& req, httplib::Response& res) {
    const auto email = account(req);
    if (!email) {
        return sendError(res, email.error());
    }
    const auto body = jsonObject(req);
    if (!body) {
        return sendError(res, body.error());
    }
    const auto query = answerQuery(body.value());
    if (!query) {
        return sendError(res, query.error());
    }
    res.set_header("Cache-Control", "no-cache");
    // Reverse proxies that buffer would hold the pieces back until the answer is complete.
    res.set_header("X-Accel-Buffering", "no");
    // text/event-stream is never compressed by httplib, and a compressed body would only reach the
    // client when the answer is complete.
    res.set_chunked_content_provider(
        "text/event-stream", [engine = engine, query = query.value()](std::size_t, httplib::DataSink& sink) {
            EventSink events(sink);
            try {
                engine->answer(query, events);
            } catch (const std::exception&) {
                events.fail("The Tallowind server hit an internal error while answering. Try again.");
            }
            if (events.gone()) {
                return false;
            }
            events.finish();
            sink.done();
            return true;
        });
}

HttpServer::HttpServer(const ServerConfig& config, Clock clock, std::unique_ptr<Mailer> mailer)
    : d_(std::make_unique<Private>(config, std::move(clock), std::move(mailer))) {}

HttpServer::~HttpServer() = default;

int HttpServer::bind() {
    int port = 0;
    if (d_->config.port == 0) {
        port = std::max(0, d_->http.bind_to_any_port(d_->config.host));
    } else if (d_->http.bind_to_port(d_->config.host, d_->config.port)) {
        port = d_->config.port;
    }
    // httplib listens with a backlog of five: a burst of new connections overflows it and the kernel
    // drops some of them. Listening again on the bound socket only widens the queue.
    if (port != 0 && ::listen(d_->listenSocket, SOMAXCONN) != 0) {
        return 0;
    }
    return port;
}

bool HttpServer::run() {
    return d_->http.listen_after_bind();
}

bool HttpServer::running() const {
    return d_->http.is_running();
}

void HttpServer::stop() {
    d_->http.stop();
}

}  // namespace server
