#include "answerlines.h"

#include <QJsonDocument>
#include <QJsonObject>

QList<QByteArray> LineSplitter::feed(const QByteArray& bytes) {
    QList<QByteArray> lines;
    qsizetype start = 0;
    for (qsizetype i = 0; i < bytes.size(); ++i) {
        const char c = bytes[i];
        if (c == '\n' || c == '\r') {
            pending_.append(bytes.constData() + start, i - start);
            lines.append(std::exchange(pending_, {}));
            start = i + 1;
        }
    }
    pending_.append(bytes.constData() + start, bytes.size() - start);
    return lines;
}

QByteArray LineSplitter::finish() {
    return std::exchange(pending_, {});
}

namespace {

// A present key must hold a string; absent and null both mean "none".
bool optionalString(const QJsonObject& object, QLatin1String key, QString& out) {
    const QJsonValue value = object.value(key);
    if (value.isUndefined() || value.isNull()) {
        out.clear();
        return true;
    }
    if (!value.isString()) {
        return false;
    }
    out = value.toString();
    return true;
}

}  // namespace

AnswerLine parseAnswerLine(const QByteArray& line) {
    static const QByteArray prefix = QByteArrayLiteral("data: ");
    if (!line.startsWith(prefix)) {
        return {};
    }
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(line.mid(prefix.size()), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return {};
    }
    const QJsonObject event = document.object();
    const QJsonValue type = event.value(QLatin1String("type"));
    QString text;
    QString message;
    if (!type.isString() || !optionalString(event, QLatin1String("text"), text) ||
        !optionalString(event, QLatin1String("message"), message)) {
        return {};
    }
    if (type == QLatin1String("text")) {
        return {AnswerLine::Kind::text, text};
    }
    if (type == QLatin1String("error")) {
        if (event.value(QLatin1String("message")).isString()) {
            return {AnswerLine::Kind::error, message};
        }
        return {AnswerLine::Kind::error, QStringLiteral("Something went wrong.")};
    }
    return {};
}
