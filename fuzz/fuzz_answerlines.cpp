#include "answerlines.h"
#include "fuzzinput.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <utility>

namespace {

// The body line the server writes for `line`.
QByteArray serverLine(const AnswerLine& line) {
    const bool text = line.kind == AnswerLine::Kind::text;
    const QJsonObject event{{QStringLiteral("type"), text ? QStringLiteral("text") : QStringLiteral("error")},
                            {text ? QStringLiteral("text") : QStringLiteral("message"), line.value}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact);
}

QList<QByteArray> splitWhole(const QByteArray& body) {
    LineSplitter splitter;
    QList<QByteArray> lines = splitter.feed(body);
    lines.append(splitter.finish());
    return lines;
}

}  // namespace

// The input's first byte says how many read sizes follow; the rest is the body, fed in reads of those
// sizes in turn, the way the network might hand it over.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    QList<qsizetype> readSizes;
    for (int count = input.byte() % 16; count > 0; --count) {
        readSizes.append(input.byte() % 64);
    }
    // Empty reads happen, but only reads that carry bytes move the body along.
    if (std::all_of(readSizes.cbegin(), readSizes.cend(), [](qsizetype length) { return length == 0; })) {
        readSizes.append(1);
    }
    const QByteArray body = input.rest();

    LineSplitter splitter;
    QList<QByteArray> lines;
    for (qsizetype offset = 0, turn = 0; offset < body.size(); ++turn) {
        const qsizetype length = readSizes[turn % readSizes.size()];
        lines.append(splitter.feed(body.mid(offset, length)));
        offset += length;
    }
    lines.append(splitter.finish());
    require(lines == splitWhole(body), "the lines do not depend on how the body was cut into reads");
    qsizetype kept = 0;
    for (const QByteArray& line : lines) {
        kept += line.size();
        require(!line.contains('\n') && !line.contains('\r'), "no line holds a line break");
    }
    require(kept + body.count('\n') + body.count('\r') == body.size(), "every byte but the breaks is kept");

    for (const QByteArray& line : std::as_const(lines)) {
        const AnswerLine parsed = parseAnswerLine(line);
        if (parsed.kind != AnswerLine::Kind::skip) {
            require(parseAnswerLine(serverLine(parsed)) == parsed, "a parsed line reads the same again");
        }
    }
    return 0;
}
