#pragma once

#include <QJsonObject>
#include <QString>
#include <QUuid>

enum class Speaker { interviewer, me };

QString speakerName(Speaker speaker);

// One committed line of the transcript. The id is made with the line and never sent.
struct TranscriptLine {
    QUuid id = QUuid::createUuid();
    Speaker speaker = Speaker::interviewer;
    QString text;

    TranscriptLine() = default;
    TranscriptLine(Speaker speaker, QString text) : speaker(speaker), text(std::move(text)) {}

    QJsonObject toJson() const;

    friend bool operator==(const TranscriptLine&, const TranscriptLine&) = default;
};
