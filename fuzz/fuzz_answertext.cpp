#include "answertext.h"
#include "fuzzinput.h"

#include <QGuiApplication>
#include <QStringTokenizer>

#include <algorithm>
#include <cstdlib>

namespace {

// What the splitter counts as space around a line: tabs and the horizontal spaces of Unicode.
QStringView trimmedLine(QStringView line) {
    const auto space = [](QChar c) { return c == u'\t' || c.category() == QChar::Separator_Space; };
    while (!line.isEmpty() && space(line.front())) {
        line = line.sliced(1);
    }
    while (!line.isEmpty() && space(line.back())) {
        line.chop(1);
    }
    return line;
}

bool isFence(QStringView line) {
    return trimmedLine(line).startsWith(u"```");
}

// The block lines, in order, come from the text's lines: a code line as written, any other block as a
// part of its line that is not a fence. The lines no block took are blank lines and fences.
void checkBlocksKeepLines(const QString& markdown, const QList<AnswerText::Block>& blocks) {
    QList<QStringView> lines;
    for (const QStringView line : QStringTokenizer(markdown, u'\n')) {
        lines.append(line);
    }
    qsizetype next = 0;
    for (const AnswerText::Block& block : blocks) {
        const bool code = block.kind == AnswerText::Block::Kind::code;
        require(
            code || !trimmedLine(block.content).isEmpty() || block.kind == AnswerText::Block::Kind::bullet,
            "a text block has words");
        if (code && block.content.isEmpty()) {
            continue;  // a fence just opened, its lines still to come
        }
        for (const QString& content : code ? block.content.split(u'\n') : QStringList{block.content}) {
            const auto taken = [&](QStringView line) {
                return code ? line == content : !isFence(line) && line.contains(content);
            };
            while (next < lines.size() && !taken(lines[next])) {
                require(trimmedLine(lines[next]).isEmpty() || isFence(lines[next]),
                        "no line with words is left out of the blocks");
                ++next;
            }
            require(next < lines.size(), "every block line comes from a line of the text, in order");
            ++next;
        }
    }
    for (; next < lines.size(); ++next) {
        require(trimmedLine(lines[next]).isEmpty() || isFence(lines[next]),
                "no line with words after the last block is lost");
    }
}

bool isPlainWords(const QString& text) {
    return std::all_of(text.begin(), text.end(), [](QChar c) { return c.isLetterOrNumber() || c == u' '; });
}

void checkRuns(const QString& text, const QList<AnswerText::Run>& runs) {
    QString joined;
    for (qsizetype i = 0; i < runs.size(); ++i) {
        require(!runs[i].text.isEmpty(), "no run is empty");
        require(i == 0 || runs[i].styles != runs[i - 1].styles || runs[i].link != runs[i - 1].link,
                "neighbouring runs of one style are merged");
        joined += runs[i].text;
    }
    // Non-empty text may still yield nothing, as an empty link "[](b)" does, so only one way is checked.
    require(!text.isEmpty() || runs.isEmpty(), "empty text yields no runs");
    if (isPlainWords(text)) {
        require(joined == text, "words without Markdown come back as written");
    }
    const QString html = AnswerText::html(runs);
    require(html.startsWith(u"<span") && html.endsWith(u"</span>"), "the rich text is one span");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    // The code font comes from the platform's font database, which needs a GUI application.
    setenv("QT_QPA_PLATFORM", "offscreen", 1);
    static QGuiApplication application(*argc, *argv);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const QString markdown =
        QString::fromUtf8(reinterpret_cast<const char*>(data), static_cast<qsizetype>(size));
    const QList<AnswerText::Block> blocks = AnswerText::blocks(markdown);
    checkBlocksKeepLines(markdown, blocks);
    for (const AnswerText::Block& block : blocks) {
        if (block.kind != AnswerText::Block::Kind::code) {
            checkRuns(block.content, AnswerText::inlineRuns(block.content));
        }
    }
    // A whole answer given as one paragraph, line breaks and all, must not break the styling either.
    checkRuns(markdown, AnswerText::inlineRuns(markdown));
    return 0;
}
