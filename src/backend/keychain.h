#pragma once

#include <QString>

#include <optional>

// The session token's home. "TALLOWIND_TOKEN_STORE" = "file" or "secret-service" forces one store;
// unset, the Secret Service is used when it answers and the file under the configuration folder
// otherwise. None of these calls fails or waits longer than the store's bound.
namespace Keychain {

void save(const QString& token);
std::optional<QString> load();
void remove();

// The fallback file: $XDG_CONFIG_HOME/Tallowind/session-token.
QString tokenFilePath();

}  // namespace Keychain

// The token in use: "TALLOWIND_TOKEN" when it is set (even empty), else the stored one.
std::optional<QString> token();
bool isSignedIn();
