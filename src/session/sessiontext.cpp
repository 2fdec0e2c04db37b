#include "sessiontext.h"

#include <algorithm>
#include <array>

namespace {

// Tried in this order; all lower case.
constexpr std::array<QStringView, 19> questionOpenings = {
    u"how",     u"why",        u"what",      u"when",     u"where",   u"which",    u"who",
    u"can you", u"could you",  u"would you", u"tell me",  u"walk me", u"describe", u"explain",
    u"design",  u"talk about", u"give me",   u"have you", u"do you",
};

constexpr int questionSpan = 4;

// Counts white-space separated words, but only up to `limit`: beyond that the count makes no difference.
int countWords(QStringView text, int limit) {
    int words = 0;
    bool inWord = false;
    for (const QChar c : text) {
        if (c.isSpace()) {
            inWord = false;
        } else if (!inWord) {
            inWord = true;
            if (++words == limit) {
                break;
            }
        }
    }
    return words;
}

}  // namespace

namespace SessionText {

QString join(const QString& a, const QString& b) {
    if (a.isEmpty()) {
        return b;
    }
    if (b.isEmpty()) {
        return a;
    }
    return a + QLatin1Char(' ') + b;
}

bool looksLikeQuestion(QStringView text) {
    // Full Unicode lower-casing can change the length (U+0130 becomes two code points), so it is done
    // before anything is counted or compared.
    const QString lower = text.toString().toLower();
    if (lower.contains(QLatin1Char('?'))) {
        return true;
    }
    const int words = countWords(lower, 7);
    if (words >= 7) {
        return true;
    }
    if (words < 3) {
        return false;
    }
    for (const QStringView opening : questionOpenings) {
        if (lower.startsWith(opening)) {
            return true;
        }
    }
    return false;
}

QString currentQuestion(const QList<TranscriptLine>& lines) {
    qsizetype first = lines.size();
    while (first > 0 && lines.size() - first < questionSpan) {
        const TranscriptLine& line = lines.at(first - 1);
        if (line.speaker == Speaker::me) {
            break;
        }
        --first;
    }
    qsizetype length = 0;
    for (qsizetype i = first; i < lines.size(); ++i) {
        length += lines.at(i).text.size() + 1;
    }
    QString question;
    question.reserve(length);
    for (qsizetype i = first; i < lines.size(); ++i) {
        const QString& text = lines.at(i).text;
        if (!question.isEmpty() && !text.isEmpty()) {
            question += QLatin1Char(' ');
        }
        question += text;
    }
    return question;
}

QString latestInterviewerText(const QList<TranscriptLine>& lines) {
    // Reverse iterators rather than std::views::reverse, which clang 14 cannot use on a QList with
    // libstdc++ 12; the fuzzing build is compiled with clang.
    const auto newest = std::find_if(lines.crbegin(), lines.crend(), [](const TranscriptLine& line) {
        return line.speaker == Speaker::interviewer;
    });
    return newest == lines.crend() ? QString() : newest->text;
}

}  // namespace SessionText
