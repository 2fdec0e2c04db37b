#include "recognitionmessage.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

namespace {

// Only tabs and the space separators count: a line break the service puts at either end is kept.
bool isTrimmed(QChar c) {
    return c == QLatin1Char('\t') || c.category() == QChar::Separator_Space;
}

QString trimmed(const QString& text) {
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && isTrimmed(text[begin])) {
        ++begin;
    }
    while (end > begin && isTrimmed(text[end - 1])) {
        --end;
    }
    return text.sliced(begin, end - begin);
}

// channel.alternatives[0].transcript, or empty when anything along the way is missing or of another type.
QString transcript(const QJsonObject& message) {
    const QJsonValue channel = message.value(QLatin1String("channel"));
    if (!channel.isObject()) {
        return {};
    }
    const QJsonValue alternatives = channel.toObject().value(QLatin1String("alternatives"));
    if (!alternatives.isArray() || alternatives.toArray().isEmpty()) {
        return {};
    }
    const QJsonValue first = alternatives.toArray().first();
    if (!first.isObject()) {
        return {};
    }
    const QJsonValue text = first.toObject().value(QLatin1String("transcript"));
    return text.isString() ? text.toString() : QString();
}

bool flag(const QJsonObject& message, QLatin1String key) {
    const QJsonValue value = message.value(key);
    return value.isBool() && value.toBool();
}

}  // namespace

std::optional<SpeechStream::Event> parseRecognitionMessage(const QString& message) {
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(message.toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return std::nullopt;
    }
    const QJsonObject object = document.object();
    const QJsonValue type = object.value(QLatin1String("type"));
    if (!type.isString()) {
        return std::nullopt;
    }
    if (type.toString() == QLatin1String("Results")) {
        QString text = trimmed(transcript(object));
        if (flag(object, QLatin1String("is_final"))) {
            // Also when empty: an empty final that ends the utterance closes it without new words.
            return SpeechStream::Event::final(std::move(text), flag(object, QLatin1String("speech_final")));
        }
        if (text.isEmpty()) {
            return std::nullopt;
        }
        return SpeechStream::Event::interim(std::move(text));
    }
    if (type.toString() == QLatin1String("UtteranceEnd")) {
        return SpeechStream::Event::utteranceEnd();
    }
    return std::nullopt;
}
