#pragma once

#include "answerengine.h"

#include <chrono>
#include <string>

namespace server {

struct ChatSettings {
    std::string baseUrl;  // up to and including the version, e.g. https://api.example.com/v1
    std::string apiKey;   // may be empty for local servers that want none
    std::string model;
    // The longest silence from the model, before its first piece or between two, before giving up.
    std::chrono::milliseconds idleTimeout{30'000};
    std::chrono::seconds connectTimeout{10};
};

// Answers through an OpenAI-compatible chat-completions endpoint with streaming, relaying each delta
// as it arrives. Works with hosted providers and with local servers that speak the same API.
class ChatEngine final : public AnswerEngine {
public:
    explicit ChatEngine(ChatSettings settings);
    void answer(const AnswerQuery& query, AnswerSink& sink) override;

private:
    ChatSettings settings_;
};

}  // namespace server
