#include "signinrules.h"

#include <QList>

#include <string>

namespace {

// Spaces, tabs and the other space separators; line breaks are not among them.
bool isBlank(char32_t c) {
    return c == U'\t' || QChar::category(c) == QChar::Separator_Space;
}

// Code points rather than UTF-16 units, so that a character beyond the first plane counts once.
std::u32string codePoints(const QString& text) {
    std::u32string points;
    for (const uint point : text.toUcs4()) {
        points.push_back(static_cast<char32_t>(point));
    }
    return points;
}

}  // namespace

namespace SignInRules {

bool canSendCode(const QString& email) {
    return email.contains(QLatin1Char('@'));
}

QString trimmedEmail(const QString& email) {
    const std::u32string points = codePoints(email);
    std::size_t begin = 0;
    std::size_t end = points.size();
    while (begin < end && isBlank(points[begin])) {
        ++begin;
    }
    while (end > begin && isBlank(points[end - 1])) {
        --end;
    }
    return QString::fromStdU32String(points.substr(begin, end - begin));
}

QString verifiedEmail(const QString& email) {
    return trimmedEmail(email).toLower();
}

QString codeDigits(const QString& code) {
    std::u32string digits;
    for (const char32_t point : codePoints(code)) {
        if (QChar::isNumber(point)) {
            digits.push_back(point);
        }
    }
    return QString::fromStdU32String(digits);
}

bool canVerify(const QString& code) {
    return codePoints(codeDigits(code)).size() == 6;
}

}  // namespace SignInRules
