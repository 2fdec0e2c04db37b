#include "transcriptline.h"

QString speakerName(Speaker speaker) {
    return speaker == Speaker::interviewer ? QStringLiteral("interviewer") : QStringLiteral("me");
}

QJsonObject TranscriptLine::toJson() const {
    return {{QStringLiteral("speaker"), speakerName(speaker)}, {QStringLiteral("text"), text}};
}

std::optional<TranscriptLine> TranscriptLine::fromJson(const QJsonObject& object) {
    const QJsonValue speaker = object.value(QLatin1String("speaker"));
    const QJsonValue text = object.value(QLatin1String("text"));
    if (!text.isString()) {
        return std::nullopt;
    }
    if (speaker == QLatin1String("interviewer")) {
        return TranscriptLine(Speaker::interviewer, text.toString());
    }
    if (speaker == QLatin1String("me")) {
        return TranscriptLine(Speaker::me, text.toString());
    }
    return std::nullopt;
}
