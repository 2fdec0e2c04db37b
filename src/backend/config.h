#pragma once

#include <QString>
#include <QUrl>

#include <optional>

// Where the backend is and how the program names itself to it. Both are worked out afresh on every
// read, so a changed environment is seen at once.
namespace Config {

QUrl serverURL();
QString appVersion();
// The speech service's base address: "TALLOWIND_STT_URL", else the compiled-in default.
QUrl speechURL();

// The rules behind the two reads, with their inputs made explicit: the environment variable (absent when
// unset) and the compiled-in value that stands in for the bundle's information key.
QUrl resolveServerURL(const std::optional<QString>& environment, const QString& compiledIn);
QString resolveAppVersion(const QString& compiledIn);

}  // namespace Config
