#include "jsondecoding.h"

#include <QJsonDocument>
#include <QJsonParseError>

namespace JsonDecoding {

namespace {

Failure failure(const QString& detail) {
    return Failure::other(
        QStringLiteral("Tallowind's server sent an answer that couldn't be read: %1.").arg(detail));
}

}  // namespace

Result<QJsonObject> object(const QByteArray& body) {
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(body, &error);
    if (error.error != QJsonParseError::NoError) {
        return failure(
            QStringLiteral("not JSON (%1 at offset %2)").arg(error.errorString()).arg(error.offset));
    }
    if (!document.isObject()) {
        return failure(QStringLiteral("not a JSON object"));
    }
    return document.object();
}

Result<QString> requiredString(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined()) {
        return failure(QStringLiteral("\"%1\" is missing").arg(key));
    }
    if (!value.isString()) {
        return failure(QStringLiteral("\"%1\" is not a string").arg(key));
    }
    return value.toString();
}

Result<std::optional<QString>> optionalString(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull()) {
        return std::optional<QString>();
    }
    if (!value.isString()) {
        return failure(QStringLiteral("\"%1\" is not a string").arg(key));
    }
    return std::optional(value.toString());
}

Result<qint64> requiredInteger(const QJsonObject& object, const QString& key) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined()) {
        return failure(QStringLiteral("\"%1\" is missing").arg(key));
    }
    if (!value.isDouble()) {
        return failure(QStringLiteral("\"%1\" is not a number").arg(key));
    }
    // toInteger answers its fallback for anything that is not exactly a 64-bit integer; two different
    // fallbacks tell that case apart from a genuine value.
    const qint64 first = value.toInteger(0);
    if (first != value.toInteger(1)) {
        return failure(QStringLiteral("\"%1\" is not a whole number").arg(key));
    }
    return first;
}

}  // namespace JsonDecoding
