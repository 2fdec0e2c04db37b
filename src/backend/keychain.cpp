#include "keychain.h"

#include "tokenstore.h"

#include <QDir>
#include <QStandardPaths>
#include <QtGlobal>

using namespace std::chrono_literals;

namespace {

constexpr auto serviceName = "app.tallowind.Tallowind";
constexpr auto accountName = "session-token";
constexpr auto secretServiceBound = 3s;

enum class Choice { automatic, file, secretService };

Choice chosenStore() {
    const QString forced = qEnvironmentVariable("TALLOWIND_TOKEN_STORE");
    if (forced == QLatin1String("file")) {
        return Choice::file;
    }
    if (forced == QLatin1String("secret-service")) {
        return Choice::secretService;
    }
    return Choice::automatic;
}

std::unique_ptr<TokenStore> secretService() {
    return makeSecretServiceTokenStore(QString::fromLatin1(serviceName), QString::fromLatin1(accountName),
                                       secretServiceBound);
}

std::unique_ptr<TokenStore> file() {
    return makeFileTokenStore(Keychain::tokenFilePath());
}

}  // namespace

namespace Keychain {

QString tokenFilePath() {
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (base.isEmpty()) {
        base = QDir::homePath() + QStringLiteral("/.config");
    }
    return base + QStringLiteral("/Tallowind/session-token");
}

void save(const QString& token) {
    switch (chosenStore()) {
        case Choice::file:
            file()->save(token);
            return;
        case Choice::secretService:
            secretService()->save(token);
            return;
        case Choice::automatic:
            // Whichever store takes the token, the other must not keep an older one.
            if (secretService()->save(token) == TokenStore::Availability::answered) {
                file()->remove();
            } else {
                file()->save(token);
            }
            return;
    }
}

std::optional<QString> load() {
    switch (chosenStore()) {
        case Choice::file:
            return file()->load().token;
        case Choice::secretService:
            return secretService()->load().token;
        case Choice::automatic: {
            auto lookup = secretService()->load();
            if (lookup.availability == TokenStore::Availability::answered) {
                return lookup.token;
            }
            return file()->load().token;
        }
    }
    return std::nullopt;
}

void remove() {
    switch (chosenStore()) {
        case Choice::file:
            file()->remove();
            return;
        case Choice::secretService:
            secretService()->remove();
            return;
        case Choice::automatic:
            secretService()->remove();
            file()->remove();
            return;
    }
}

}  // namespace Keychain

std::optional<QString> token() {
    if (qEnvironmentVariableIsSet("TALLOWIND_TOKEN")) {
        return qEnvironmentVariable("TALLOWIND_TOKEN");
    }
    return Keychain::load();
}

bool isSignedIn() {
    return token().has_value();
}
