#pragma once

#include "transcriptline.h"

#include <QList>
#include <QString>
#include <QStringView>

// The decisions the session makes about text, kept free of state so that they can be tested and
// measured on their own.
namespace SessionText {

// The non-empty ones of `a` and `b`, in that order, separated by one space. Nothing is trimmed: the text
// stays exactly as the speech service delivered it.
QString join(const QString& a, const QString& b);

// Whether words heard from the interviewer read as a question worth answering: anything with "?", any
// long enough sentence, or a short one that opens like a question ("Howdy folks" counts: the test is on
// the opening letters, not on whole words).
bool looksLikeQuestion(QStringView text);

// The interviewer's trailing run of lines after the user last spoke, at most the last four, oldest first
// and joined by spaces; empty when the newest line is the user's or there are no lines.
QString currentQuestion(const QList<TranscriptLine>& lines);

// The text of the newest interviewer line anywhere in `lines`, or empty.
QString latestInterviewerText(const QList<TranscriptLine>& lines);

}  // namespace SessionText
