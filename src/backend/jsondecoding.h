#pragma once

#include "backenderror.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <optional>

// Strict reading of the server's JSON answers. A failure names the key and what was wrong with it, in
// one line that is shown to the user like any other error.
namespace JsonDecoding {

Result<QJsonObject> object(const QByteArray& body);
Result<QString> requiredString(const QJsonObject& object, const QString& key);
// Absent and null both give nothing; any other non-string is a failure.
Result<std::optional<QString>> optionalString(const QJsonObject& object, const QString& key);
// A whole JSON number: 12 and 12.0 decode, 12.5, "12" and null do not.
Result<qint64> requiredInteger(const QJsonObject& object, const QString& key);

}  // namespace JsonDecoding
