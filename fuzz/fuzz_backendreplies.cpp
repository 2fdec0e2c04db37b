#include "backendclient.h"
#include "fuzzinput.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <functional>

namespace {

QByteArray json(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

// A decoded reply written back as the server would send it decodes to the same value, and a reply that
// does not decode says why in a sentence.
template <typename T>
void check(const Result<T>& decoded, const std::function<QByteArray(const T&)>& reply,
           const std::function<Result<T>(const QByteArray&)>& decode) {
    if (!decoded) {
        require(!decoded.failure().description().isEmpty(), "a refused reply says why");
        return;
    }
    const Result<T> again = decode(reply(decoded.value()));
    require(again.ok() && again.value() == decoded.value(), "a decoded reply reads the same again");
}

}  // namespace

// Every reader sees the same body: a fuzzed account reply is as likely to reach the sign-in reader.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QByteArray body(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));

    check<Account>(
        BackendClient::decodeAccount(body),
        [](const Account& account) {
            return json({{QStringLiteral("email"), account.email},
                         {QStringLiteral("minutesUsed"), account.minutesUsed},
                         {QStringLiteral("minutesLimit"), account.minutesLimit}});
        },
        &BackendClient::decodeAccount);
    check<BackendClient::SignIn>(
        BackendClient::decodeSignIn(body),
        [](const BackendClient::SignIn& signIn) {
            return json({{QStringLiteral("token"), signIn.token}, {QStringLiteral("email"), signIn.email}});
        },
        &BackendClient::decodeSignIn);
    check<QString>(
        BackendClient::decodeSpeechToken(body),
        [](const QString& token) {
            return json({{QStringLiteral("token"), token}});
        },
        &BackendClient::decodeSpeechToken);

    if (const auto code = BackendClient::decodeLoginCode(body)) {
        require(BackendClient::decodeLoginCode(json({{QStringLiteral("devCode"), *code}})) == code,
                "a development code reads the same again");
    }
    return 0;
}
