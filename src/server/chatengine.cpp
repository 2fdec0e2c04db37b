#include "chatengine.h"

#include "prompt.h"
#include "streamlines.h"
#include "transfer.h"

#include <curl/curl.h>
#include <nlohmann/json.hpp>

#include <memory>
#include <optional>

namespace server {

namespace {

using SteadyClock = std::chrono::steady_clock;

// How often the client is probed while the model is silent. A write to a client that has gone only
// fails on the second attempt (the first draws the reset), so a gone client is noticed within about
// two intervals.
constexpr std::chrono::milliseconds probeInterval{500};

struct Transfer {
    CURL* curl = nullptr;
    AnswerSink* sink = nullptr;
    StreamLines lines;
    std::string errorBody;  // the body of a refusal, kept for its message
    std::optional<std::string> failure;
    bool clientGone = false;
    bool timedOut = false;
    bool finished = false;
    SteadyClock::time_point lastUpstream = SteadyClock::now();
    SteadyClock::time_point lastClient = SteadyClock::now();
    std::chrono::milliseconds idleTimeout{};

    long status() const {
        long code = 0;
        curl_easy_getinfo(curl, CURLINFO_RESPONSE_CODE, &code);
        return code;
    }

    // One line of the model's event stream: "data: " and a chunk object, or "data: [DONE]".
    void line(const std::string& text) {
        if (finished || failure || !text.starts_with("data:")) {
            return;
        }
        std::string_view payload = std::string_view(text).substr(5);
        if (payload.starts_with(' ')) {
            payload.remove_prefix(1);
        }
        if (payload == "[DONE]") {
            finished = true;
            return;
        }
        const auto event = nlohmann::json::parse(payload, nullptr, false);
        if (!event.is_object()) {
            return;
        }
        if (event.contains("error")) {
            const auto& error = event["error"];
            std::string message = "The language model stopped with an error.";
            if (error.is_object() && error.contains("message") && error["message"].is_string()) {
                message = "The language model stopped with an error: " + error["message"].get<std::string>();
            }
            failure = message;
            return;
        }
        const auto choices = event.find("choices");
        if (choices == event.end() || !choices->is_array() || choices->empty() ||
            !(*choices)[0].is_object()) {
            return;
        }
        const auto delta = (*choices)[0].find("delta");
        if (delta == (*choices)[0].end() || !delta->is_object()) {
            return;
        }
        const auto content = delta->find("content");
        if (content == delta->end() || !content->is_string() ||
            content->get_ref<const std::string&>().empty()) {
            return;
        }
        lastClient = SteadyClock::now();
        if (!sink->text(content->get_ref<const std::string&>())) {
            clientGone = true;
        }
    }
};

std::size_t received(char* data, std::size_t size, std::size_t count, void* target) {
    auto* transfer = static_cast<Transfer*>(target);
    const std::size_t length = size * count;
    transfer->lastUpstream = SteadyClock::now();
    const long status = transfer->status();
    if (status < 200 || status > 299) {
        if (transfer->errorBody.size() < std::size_t{64} * 1024) {
            transfer->errorBody.append(data, length);
        }
        return length;
    }
    for (const auto& line : transfer->lines.feed(std::string_view(data, length))) {
        transfer->line(line);
        // Returning short aborts the transfer: nobody is reading any more, or the model gave up.
        if (transfer->clientGone || transfer->failure) {
            return 0;
        }
    }
    return length;
}

int progress(void* target, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto* transfer = static_cast<Transfer*>(target);
    const auto now = SteadyClock::now();
    if (now - transfer->lastUpstream > transfer->idleTimeout) {
        transfer->timedOut = true;
        return 1;
    }
    if (now - transfer->lastClient > probeInterval) {
        transfer->lastClient = now;
        if (!transfer->sink->stillThere()) {
            transfer->clientGone = true;
            return 1;
        }
    }
    return 0;
}

// The reason a provider gives in its error body ({"error": {"message": ...}} or {"error": "..."}).
std::string refusalReason(const std::string& body) {
    const auto json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_object() && json.contains("error")) {
        const auto& error = json["error"];
        if (error.is_string()) {
            return error.get<std::string>();
        }
        if (error.is_object() && error.contains("message") && error["message"].is_string()) {
            return error["message"].get<std::string>();
        }
    }
    return {};
}

}  // namespace

ChatEngine::ChatEngine(ChatSettings settings) : settings_(std::move(settings)) {
    while (settings_.baseUrl.ends_with('/')) {
        settings_.baseUrl.pop_back();
    }
    ensureCurlReady();
}

void ChatEngine::answer(const AnswerQuery& query, AnswerSink& sink) {
    const std::string url = settings_.baseUrl + "/chat/completions";
    const std::string body =
        nlohmann::json{
            {"model", settings_.model},
            {"stream", true},
            {"messages", chatMessages(query)},
        }
            .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);

    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        sink.fail("The server ran out of memory. Try again.");
        return;
    }
    curl_slist* list = curl_slist_append(nullptr, "Content-Type: application/json");
    list = curl_slist_append(list, "Accept: text/event-stream");
    // A long resume can push the body past libcurl's threshold for "Expect: 100-continue", and some
    // local model servers never answer that; the body goes out at once instead.
    list = curl_slist_append(list, "Expect:");
    if (!settings_.apiKey.empty()) {
        list = curl_slist_append(list, ("Authorization: Bearer " + settings_.apiKey).c_str());
    }
    std::unique_ptr<curl_slist, decltype(&curl_slist_free_all)> headers(list, curl_slist_free_all);

    Transfer transfer;
    transfer.curl = curl.get();
    transfer.sink = &sink;
    transfer.idleTimeout = settings_.idleTimeout;
    curl_easy_setopt(curl.get(), CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_HTTPHEADER, headers.get());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDS, body.c_str());
    curl_easy_setopt(curl.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
    curl_easy_setopt(curl.get(), CURLOPT_CONNECTTIMEOUT_MS,
                     static_cast<long>(settings_.connectTimeout.count() * 1000));
    curl_easy_setopt(curl.get(), CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEFUNCTION, received);
    curl_easy_setopt(curl.get(), CURLOPT_WRITEDATA, &transfer);
    curl_easy_setopt(curl.get(), CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFOFUNCTION, progress);
    curl_easy_setopt(curl.get(), CURLOPT_XFERINFODATA, &transfer);
    const CURLcode result = curl_easy_perform(curl.get());

    if (transfer.clientGone) {
        return;
    }
    if (transfer.timedOut) {
        sink.fail("The language model didn't respond in time. Try again.");
        return;
    }
    if (result != CURLE_OK && result != CURLE_WRITE_ERROR) {
        sink.fail(std::string("The connection to the language model failed: ") + curl_easy_strerror(result) +
                  ".");
        return;
    }
    const long status = transfer.status();
    if (status < 200 || status > 299) {
        const std::string reason = refusalReason(transfer.errorBody);
        sink.fail("The language model refused the request (status " + std::to_string(status) + ")" +
                  (reason.empty() ? "." : ": " + reason));
        return;
    }
    if (const auto last = transfer.lines.finish(); !last.empty()) {
        transfer.line(last);
    }
    if (transfer.failure) {
        sink.fail(*transfer.failure);
    }
}

}  // namespace server
