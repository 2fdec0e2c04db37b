#pragma once

#include "outcome.h"

#include <string>

namespace server {

struct SpeechSettings {
    std::string apiUrl = "https://api.deepgram.com";
    std::string apiKey;  // empty: speech recognition is not set up on this server
};

// Short-lived credentials for the speech service, granted by its token endpoint so that the long-lived
// API key never leaves the server.
class SpeechTokens {
public:
    explicit SpeechTokens(SpeechSettings settings);
    bool configured() const { return !settings_.apiKey.empty(); }
    Outcome<std::string> grant();

private:
    SpeechSettings settings_;
};

}  // namespace server
