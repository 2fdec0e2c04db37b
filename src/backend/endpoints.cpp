#include "backendclient.h"
#include "jsondecoding.h"
#include "keychain.h"

#include <cmath>

namespace {

// Runs `decode` on a successful body; passes failures on.
template <typename T, typename Decode>
Completion<QByteArray> decoded(Completion<T> done, Decode decode) {
    return [done = std::move(done), decode = std::move(decode)](Result<QByteArray> body) {
        if (!body) {
            done(body.failure());
            return;
        }
        done(decode(body.value()));
    };
}

}  // namespace

void BackendClient::startLogin(const QString& email, Completion<std::optional<QString>> done) {
    request("POST", QStringLiteral("/auth/start"), QJsonObject{{QStringLiteral("email"), email}}, false,
            decoded(std::move(done), &BackendClient::decodeLoginCode));
}

std::optional<QString> BackendClient::decodeLoginCode(const QByteArray& body) {
    // An answer without a usable code is fine: the code then only comes by e-mail.
    auto object = JsonDecoding::object(body);
    if (!object) {
        return std::nullopt;
    }
    auto code = JsonDecoding::optionalString(object.value(), QStringLiteral("devCode"));
    return code ? code.value() : std::nullopt;
}

void BackendClient::verifyLogin(const QString& email, const QString& code, Completion<QString> done) {
    request("POST", QStringLiteral("/auth/verify"),
            QJsonObject{{QStringLiteral("email"), email}, {QStringLiteral("code"), code}}, false,
            decoded(std::move(done), [](const QByteArray& body) -> Result<QString> {
                auto signIn = decodeSignIn(body);
                if (!signIn) {
                    return signIn.failure();
                }
                Keychain::save(signIn.value().token);
                return signIn.value().email;
            }));
}

Result<BackendClient::SignIn> BackendClient::decodeSignIn(const QByteArray& body) {
    auto object = JsonDecoding::object(body);
    if (!object) {
        return object.failure();
    }
    auto token = JsonDecoding::requiredString(object.value(), QStringLiteral("token"));
    if (!token) {
        return token.failure();
    }
    auto email = JsonDecoding::requiredString(object.value(), QStringLiteral("email"));
    if (!email) {
        return email.failure();
    }
    return SignIn{token.value(), email.value()};
}

void BackendClient::signOut(Completion<Done> done) {
    request("POST", QStringLiteral("/auth/signout"), std::nullopt, true,
            [done = std::move(done)](const Result<QByteArray>&) {
                Keychain::remove();
                if (done) {
                    done(Done{});
                }
            });
}

Result<Account> BackendClient::decodeAccount(const QByteArray& body) {
    auto object = JsonDecoding::object(body);
    if (!object) {
        return object.failure();
    }
    auto email = JsonDecoding::requiredString(object.value(), QStringLiteral("email"));
    if (!email) {
        return email.failure();
    }
    auto used = JsonDecoding::requiredInteger(object.value(), QStringLiteral("minutesUsed"));
    if (!used) {
        return used.failure();
    }
    auto limit = JsonDecoding::requiredInteger(object.value(), QStringLiteral("minutesLimit"));
    if (!limit) {
        return limit.failure();
    }
    return Account{email.value(), used.value(), limit.value()};
}

void BackendClient::account(Completion<Account> done) {
    request("GET", QStringLiteral("/me"), std::nullopt, true,
            decoded(std::move(done), &BackendClient::decodeAccount));
}

void BackendClient::speechToken(Completion<QString> done) {
    request("GET", QStringLiteral("/stt-token"), std::nullopt, true,
            decoded(std::move(done), &BackendClient::decodeSpeechToken));
}

Result<QString> BackendClient::decodeSpeechToken(const QByteArray& body) {
    auto object = JsonDecoding::object(body);
    if (!object) {
        return object.failure();
    }
    return JsonDecoding::requiredString(object.value(), QStringLiteral("token"));
}

void BackendClient::reportUsage(double seconds) {
    // JSON has no way to write an infinity, so only finite values can be reported.
    if (!std::isfinite(seconds) || seconds < 1.0) {
        return;
    }
    request("POST", QStringLiteral("/usage"), QJsonObject{{QStringLiteral("sttSeconds"), seconds}}, true,
            [](const Result<QByteArray>&) {});
}
