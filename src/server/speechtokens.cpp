#include "speechtokens.h"

#include "transfer.h"

#include <nlohmann/json.hpp>

namespace server {

namespace {

// Tokens only need to live long enough to open one connection: an open stream outlives its token.
constexpr int tokenSeconds = 60;

}  // namespace

SpeechTokens::SpeechTokens(SpeechSettings settings) : settings_(std::move(settings)) {
    while (settings_.apiUrl.ends_with('/')) {
        settings_.apiUrl.pop_back();
    }
}

Outcome<std::string> SpeechTokens::grant() {
    const auto reply =
        postOutbound(settings_.apiUrl + "/v1/auth/grant",
                     {"Content-Type: application/json", "Authorization: Token " + settings_.apiKey},
                     nlohmann::json{{"ttl_seconds", tokenSeconds}}.dump(), std::chrono::seconds(15));
    if (const auto* failure = std::get_if<std::string>(&reply)) {
        return ApiError{502, "Couldn't reach the speech service: " + *failure + "."};
    }
    const auto& answer = std::get<HttpReply>(reply);
    if (answer.status < 200 || answer.status > 299) {
        return ApiError{502, "The speech service refused to issue a token (status " +
                                 std::to_string(answer.status) + "). Check the server's speech API key."};
    }
    const auto json = nlohmann::json::parse(answer.body, nullptr, false);
    if (!json.is_object() || !json.contains("access_token") || !json["access_token"].is_string()) {
        return ApiError{502, "The speech service sent a token this server can't read."};
    }
    return json["access_token"].get<std::string>();
}

}  // namespace server
