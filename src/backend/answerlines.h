#pragma once

#include <QByteArray>
#include <QList>
#include <QString>

// Splits a body that arrives in arbitrary pieces into lines ending at "\n", "\r" or "\r\n". A "\r\n"
// yields an extra empty line, which every reader of these lines ignores anyway; splitting on both
// bytes keeps the splitter free of look-ahead, so a "\r" at the end of one read is never held back.
class LineSplitter {
public:
    QList<QByteArray> feed(const QByteArray& bytes);
    // What is left when the body ends: the last line if it had no terminator.
    QByteArray finish();

private:
    QByteArray pending_;
};

// What one line of the answer body means.
struct AnswerLine {
    enum class Kind { skip, text, error };
    Kind kind = Kind::skip;
    QString value;  // the text piece, or the error message

    friend bool operator==(const AnswerLine&, const AnswerLine&) = default;
};

AnswerLine parseAnswerLine(const QByteArray& line);
