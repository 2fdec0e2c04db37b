#pragma once

#include "clock.h"
#include "outcome.h"
#include "ratelimiter.h"

#include <chrono>
#include <memory>
#include <optional>
#include <string>

namespace server {

class Mailer;
class Store;

struct SignInSettings {
    // Hand the code back in the response instead of mailing it (development on one machine).
    bool devMode = false;
    std::chrono::seconds codeLifetime{600};
    int maxWrongTries = 5;
    int codesPerEmail = 5;     // per hour
    int codesPerAddress = 20;  // per hour, per client IP address
};

struct Session {
    std::string token;
    std::string email;
};

// E-mailed one-time codes exchanged for session tokens, and the tokens' lookup and revocation.
class SignIn {
public:
    // `mailer` may be null: without it and outside development mode, no code can be delivered.
    SignIn(Store& store, Mailer* mailer, Clock clock, SignInSettings settings);

    // Makes and delivers a code for `email`; in development mode returns it instead of mailing it.
    Outcome<std::optional<std::string>> start(const std::string& email, const std::string& clientAddress);
    Outcome<Session> verify(const std::string& email, const std::string& code);
    // The account that `token` signs in, if it is a live token.
    std::optional<std::string> accountOf(const std::string& token);
    void signOut(const std::string& token);

    // Trimmed and lower-cased when it looks like an address; nothing otherwise.
    static std::optional<std::string> normalizedEmail(const std::string& email);

private:
    Store& store_;
    Mailer* mailer_;
    Clock clock_;
    SignInSettings settings_;
    std::unique_ptr<RateLimiter> perEmail_;
    std::unique_ptr<RateLimiter> perAddress_;
};

}  // namespace server
