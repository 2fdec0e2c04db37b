#include "config.h"

#include "buildinfo.h"

#include <QtGlobal>

namespace {

std::optional<QString> environmentValue(const char* name) {
    if (!qEnvironmentVariableIsSet(name)) {
        return std::nullopt;
    }
    return qEnvironmentVariable(name);
}

// Empty and unparsable values are skipped; a usable base also needs a scheme and a host.
std::optional<QUrl> wellFormed(const QString& text) {
    if (text.isEmpty()) {
        return std::nullopt;
    }
    QUrl url(text, QUrl::StrictMode);
    if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) {
        return std::nullopt;
    }
    return url;
}

bool isPlaceholder(const QString& value) {
    return value.startsWith(QLatin1String("__"));
}

}  // namespace

namespace Config {

QUrl resolveServerURL(const std::optional<QString>& environment, const QString& compiledIn) {
    if (environment) {
        if (auto url = wellFormed(*environment)) {
            return *url;
        }
    }
    if (!isPlaceholder(compiledIn)) {
        if (auto url = wellFormed(compiledIn)) {
            return *url;
        }
    }
    return QUrl(QStringLiteral("http://localhost:8787"));
}

QString resolveAppVersion(const QString& compiledIn) {
    if (compiledIn.isEmpty() || isPlaceholder(compiledIn)) {
        return QStringLiteral("0.0.0");
    }
    return compiledIn;
}

QUrl serverURL() {
    return resolveServerURL(environmentValue("TALLOWIND_SERVER"), QStringLiteral(TALLOWIND_BUILD_SERVER_URL));
}

QString appVersion() {
    return resolveAppVersion(QStringLiteral(TALLOWIND_BUILD_APP_VERSION));
}

QUrl speechURL() {
    if (auto env = environmentValue("TALLOWIND_STT_URL")) {
        if (auto url = wellFormed(*env)) {
            return *url;
        }
    }
    return QUrl(QStringLiteral(TALLOWIND_BUILD_STT_URL));
}

}  // namespace Config
