#include "transcriptline.h"

QString speakerName(Speaker speaker) {
    return speaker == Speaker::interviewer ? QStringLiteral("interviewer") : QStringLiteral("me");
}

QJsonObject TranscriptLine::toJson() const {
    return {{QStringLiteral("speaker"), speakerName(speaker)}, {QStringLiteral("text"), text}};
}
