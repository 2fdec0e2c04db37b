#include "signin.h"

#include "crypto.h"
#include "mailer.h"
#include "store.h"

#include <algorithm>
#include <cctype>

namespace server {

namespace {

constexpr std::chrono::hours rateWindow{1};

// Salting with the address keeps one code's hash from matching another address's row.
std::string codeHash(const std::string& email, const std::string& code) {
    return sha256Hex(email + '\n' + code);
}

std::string tokenHash(const std::string& token) {
    return sha256Hex(token);
}

bool isSixDigits(const std::string& code) {
    return code.size() == 6 &&
           std::all_of(code.begin(), code.end(), [](unsigned char c) { return std::isdigit(c); });
}

ApiError codeGone() {
    return {400, "This code has expired or was already used. Request a new code."};
}

}  // namespace

SignIn::SignIn(Store& store, Mailer* mailer, Clock clock, SignInSettings settings)
    : store_(store)
    , mailer_(mailer)
    , clock_(std::move(clock))
    , settings_(settings)
    , perEmail_(store.rateLimiter("email", settings.codesPerEmail, rateWindow))
    , perAddress_(store.rateLimiter("address", settings.codesPerAddress, rateWindow)) {}

std::optional<std::string> SignIn::normalizedEmail(const std::string& email) {
    const auto begin = email.find_first_not_of(" \t\r\n");
    if (begin == std::string::npos) {
        return std::nullopt;
    }
    const auto end = email.find_last_not_of(" \t\r\n");
    std::string address = email.substr(begin, end - begin + 1);
    std::transform(address.begin(), address.end(), address.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    const auto at = address.find('@');
    const bool shaped = address.size() <= 254 && at != std::string::npos && at > 0 &&
                        address.find('@', at + 1) == std::string::npos &&
                        address.find('.', at) != std::string::npos && address.back() != '.' &&
                        std::none_of(address.begin(), address.end(), [](unsigned char c) {
                            return std::isspace(c) || std::iscntrl(c) || c == '<' || c == '>' || c == ',';
                        });
    if (!shaped) {
        return std::nullopt;
    }
    return address;
}

Outcome<std::optional<std::string>> SignIn::start(const std::string& email,
                                                  const std::string& clientAddress) {
    const auto address = normalizedEmail(email);
    if (!address) {
        return ApiError{400, "Enter a valid e-mail address."};
    }
    if (!settings_.devMode && !mailer_) {
        return ApiError{503,
                        "This server can't send sign-in e-mails: it has no SMTP settings. Ask its "
                        "administrator, or start it with --dev on your own machine."};
    }
    const TimePoint now = clock_();
    if (!perAddress_->allow(clientAddress, now) || !perEmail_->allow(*address, now)) {
        return ApiError{429, "Too many sign-in codes were requested. Wait a few minutes and try again."};
    }

    const std::string code = newSignInCode();
    store_.putCode(*address, codeHash(*address, code), now + settings_.codeLifetime);
    if (settings_.devMode) {
        return std::optional<std::string>(code);
    }
    const auto minutes = std::chrono::duration_cast<std::chrono::minutes>(settings_.codeLifetime).count();
    const auto failure = mailer_->send(
        *address, "Your Tallowind sign-in code: " + code,
        "Your Tallowind sign-in code is " + code + ".\n\nIt works once, for " + std::to_string(minutes) +
            " minutes. If you didn't ask for it, you can ignore this e-mail.\n");
    if (failure) {
        store_.deleteCode(*address);
        return ApiError{502, "The sign-in e-mail couldn't be sent. Try again in a few minutes."};
    }
    return std::optional<std::string>();
}

Outcome<Session> SignIn::verify(const std::string& email, const std::string& code) {
    const auto address = normalizedEmail(email);
    if (!address) {
        return ApiError{400, "Enter a valid e-mail address."};
    }
    const auto pending = store_.pendingCode(*address);
    if (!pending) {
        return codeGone();
    }
    if (clock_() >= pending->expires) {
        store_.deleteCode(*address);
        return codeGone();
    }
    const std::string trimmed = [&] {
        std::string digits;
        std::copy_if(code.begin(), code.end(), std::back_inserter(digits),
                     [](unsigned char c) { return !std::isspace(c); });
        return digits;
    }();
    if (!isSixDigits(trimmed) || !constantTimeEqual(codeHash(*address, trimmed), pending->codeHash)) {
        const int tries = store_.countWrongTry(*address);
        if (tries == 0) {
            return codeGone();
        }
        if (tries >= settings_.maxWrongTries) {
            store_.deleteCode(*address);
            return ApiError{400, "That code isn't right, and there are no tries left. Request a new code."};
        }
        return ApiError{400, "That code isn't right. Check the e-mail and try again."};
    }
    if (!store_.takeCode(*address, pending->codeHash)) {
        return codeGone();
    }
    Session session{newSessionToken(), *address};
    store_.addToken(tokenHash(session.token), session.email, clock_());
    return session;
}

std::optional<std::string> SignIn::accountOf(const std::string& token) {
    if (token.empty()) {
        return std::nullopt;
    }
    return store_.tokenOwner(tokenHash(token));
}

void SignIn::signOut(const std::string& token) {
    store_.revokeToken(tokenHash(token));
}

}  // namespace server
