#include "answertext.h"

#include "overlaymetrics.h"

#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QStringTokenizer>
#include <QVBoxLayout>

#include <md4c.h>

#include <array>

namespace M = OverlayMetrics;

namespace {

// Spaces, tabs and the other horizontal spaces of Unicode; a line break is not one.
bool isHorizontalSpace(QChar c) {
    return c == u'\t' || c.category() == QChar::Separator_Space;
}

QStringView trimmedHorizontally(QStringView s) {
    qsizetype begin = 0;
    qsizetype end = s.size();
    while (begin < end && isHorizontalSpace(s[begin])) {
        ++begin;
    }
    while (end > begin && isHorizontalSpace(s[end - 1])) {
        --end;
    }
    return s.sliced(begin, end - begin);
}

// Named entities beyond these are rare in answers and stay as written.
QString decodeEntity(QStringView entity) {
    const QStringView name = entity.sliced(1, entity.size() - 2);
    if (name.startsWith(u'#')) {
        bool ok = false;
        const bool hex = name.size() > 1 && (name[1] == u'x' || name[1] == u'X');
        const uint code = name.sliced(hex ? 2 : 1).toUInt(&ok, hex ? 16 : 10);
        if (!ok || code == 0 || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
            return QString(QChar::ReplacementCharacter);
        }
        const char32_t c = code;
        return QString::fromUcs4(&c, 1);
    }
    static const std::pair<const char16_t*, char16_t> named[] = {
        {u"amp", u'&'}, {u"lt", u'<'}, {u"gt", u'>'}, {u"quot", u'"'}, {u"apos", u'\''}, {u"nbsp", u'\u00a0'},
    };
    for (const auto& [key, value] : named) {
        if (name == QStringView(key)) {
            return QString(QChar(value));
        }
    }
    return entity.toString();
}

// Collects the styled runs of one paragraph while md4c walks it.
struct InlineCollector {
    QList<AnswerText::Run> runs;
    int styles = AnswerText::Run::plain;
    QStringList links;
    int blocks = 0;
    bool refused = false;
    bool prefixPending = true;

    void append(QString text, int extraStyles = 0) {
        if (prefixPending) {
            // The first character is the guard put in front of the text, see inlineRuns.
            text.remove(0, 1);
            prefixPending = false;
        }
        if (text.isEmpty()) {
            return;
        }
        const int runStyles = styles | extraStyles;
        const QString link = links.isEmpty() ? QString() : links.last();
        if (!runs.isEmpty() && runs.last().styles == runStyles && runs.last().link == link) {
            runs.last().text += text;
        } else {
            runs.append({text, runStyles, link});
        }
    }

    static int styleOf(MD_SPANTYPE type) {
        switch (type) {
            case MD_SPAN_EM:
                return AnswerText::Run::italic;
            case MD_SPAN_STRONG:
                return AnswerText::Run::bold;
            case MD_SPAN_DEL:
                return AnswerText::Run::strikethrough;
            default:
                return AnswerText::Run::plain;
        }
    }

    static int enterBlock(MD_BLOCKTYPE type, void*, void* self) {
        // One paragraph inside the document is all a guarded line can be; anything else means the guard
        // failed, and the line is shown as written rather than as a block.
        auto& c = *static_cast<InlineCollector*>(self);
        ++c.blocks;
        const bool expected = type == MD_BLOCK_DOC || (type == MD_BLOCK_P && c.blocks == 2);
        // md4c does not always stop when asked: a setext heading ("text", a carriage return, "-") still
        // ends the parse successfully, with no text reported. The collector remembers the refusal itself.
        c.refused = c.refused || !expected;
        return expected ? 0 : 1;
    }
    static int leaveBlock(MD_BLOCKTYPE, void*, void*) { return 0; }

    static int enterSpan(MD_SPANTYPE type, void* detail, void* self) {
        auto& c = *static_cast<InlineCollector*>(self);
        c.styles |= styleOf(type);
        if (type == MD_SPAN_A) {
            const MD_ATTRIBUTE& href = static_cast<MD_SPAN_A_DETAIL*>(detail)->href;
            c.links.append(QString::fromUtf8(href.text, href.size));
        }
        return 0;
    }
    static int leaveSpan(MD_SPANTYPE type, void*, void* self) {
        auto& c = *static_cast<InlineCollector*>(self);
        c.styles &= ~styleOf(type);
        if (type == MD_SPAN_A && !c.links.isEmpty()) {
            c.links.removeLast();
        }
        return 0;
    }

    static int text(MD_TEXTTYPE type, const MD_CHAR* text, MD_SIZE size, void* self) {
        auto& c = *static_cast<InlineCollector*>(self);
        const QString s = QString::fromUtf8(text, size);
        switch (type) {
            case MD_TEXT_CODE:
                c.append(s, AnswerText::Run::code);
                break;
            case MD_TEXT_ENTITY:
                c.append(decodeEntity(s));
                break;
            case MD_TEXT_NULLCHAR:
                c.append(QString(QChar::ReplacementCharacter));
                break;
            case MD_TEXT_BR:
            case MD_TEXT_SOFTBR:
                c.append(QStringLiteral("\n"));
                break;
            default:
                c.append(s);
                break;
        }
        return 0;
    }
};

QString escaped(const QString& text) {
    return text.toHtmlEscaped();
}

// A label that remembers its heights for the last few widths asked. Layouts ask every block for its
// height at several widths (the area's, the one beside a scroll bar, a bullet's item column) whenever any
// block changes; a word-wrapped label lays its text out anew for each question, which for a long answer
// costs more than everything else per streamed piece.
class BlockLabel : public QLabel {
public:
    explicit BlockLabel(QWidget* parent) : QLabel(parent) {
        setWordWrap(true);
        setAlignment(Qt::AlignLeft | Qt::AlignTop);
        // A long word (a path, an address) must not widen the whole answer past the panel.
        setMinimumWidth(1);
    }

    int heightForWidth(int width) const override {
        // The text is shared, not copied, and compares at once when its length changed.
        if (text() != cachedText_) {
            cachedText_ = text();
            heights_.fill({-1, 0});
        }
        for (const auto& [cachedWidth, height] : heights_) {
            if (cachedWidth == width) {
                return height;
            }
        }
        const int height = QLabel::heightForWidth(width);
        heights_[next_] = {width, height};
        next_ = (next_ + 1) % heights_.size();
        return height;
    }

protected:
    void changeEvent(QEvent* event) override {
        heights_.fill({-1, 0});
        QLabel::changeEvent(event);
    }

private:
    mutable QString cachedText_;
    mutable std::array<std::pair<int, int>, 4> heights_{{{-1, 0}, {-1, 0}, {-1, 0}, {-1, 0}}};
    mutable std::size_t next_ = 0;
};

BlockLabel* makeTextLabel(QWidget* parent) {
    auto* label = new BlockLabel(parent);
    label->setTextFormat(Qt::RichText);
    label->setTextInteractionFlags(Qt::TextSelectableByMouse | Qt::LinksAccessibleByMouse);
    label->setOpenExternalLinks(true);
    label->setFont(M::font(M::textFontPx));
    return label;
}

// A fenced code block: monospaced, padded, on a dark rounded plate.
class CodeBlock : public BlockLabel {
public:
    explicit CodeBlock(QWidget* parent) : BlockLabel(parent) {
        setTextFormat(Qt::PlainText);
        setTextInteractionFlags(Qt::TextSelectableByMouse);
        setMargin(M::codePadding);
        QFont font = QFontDatabase::systemFont(QFontDatabase::FixedFont);
        font.setPixelSize(M::codeFontPx);
        setFont(font);
    }

protected:
    void paintEvent(QPaintEvent* event) override {
        {
            QPainter painter(this);
            painter.setRenderHint(QPainter::Antialiasing);
            painter.setPen(Qt::NoPen);
            painter.setBrush(M::codeBackground);
            painter.drawRoundedRect(rect(), M::codeRadius, M::codeRadius);
        }
        QLabel::paintEvent(event);
    }
};

}  // namespace

QList<AnswerText::Block> AnswerText::blocks(QStringView markdown) {
    QList<Block> out;
    if (markdown.isEmpty()) {
        return out;
    }
    bool inCode = false;
    QStringList code;
    for (const QStringView line : QStringTokenizer(markdown, u'\n')) {
        const QStringView t = trimmedHorizontally(line);
        if (t.startsWith(u"```")) {
            if (inCode) {
                out.append({Block::Kind::code, code.join(u'\n')});
                code.clear();
            }
            inCode = !inCode;
            continue;
        }
        if (inCode) {
            code.append(line.toString());
        } else if (t.isEmpty()) {
            continue;
        } else if (t.startsWith(u"- ") || t.startsWith(u"* ") || t.startsWith(u"\u2022 ")) {
            out.append({Block::Kind::bullet, t.sliced(2).toString()});
        } else {
            out.append({Block::Kind::text, t.toString()});
        }
    }
    if (inCode) {
        out.append({Block::Kind::code, code.join(u'\n')});
    }
    return out;
}

QList<AnswerText::Run> AnswerText::inlineRuns(const QString& text) {
    // md4c reads whole documents, so block syntax at the start of the line ("# Title", "1. step",
    // "> quote", "[id]: url") would turn it into a heading, list, quote or reference. A punctuation
    // character put in front makes every line a paragraph and leaves the delimiter rules at the start
    // of the text as they were; it is dropped again from the output. The spaces at both ends are kept
    // as given, so they stay out of the parse, which would trim them.
    qsizetype begin = 0;
    qsizetype end = text.size();
    while (begin < end && text[begin].isSpace()) {
        ++begin;
    }
    while (end > begin && text[end - 1].isSpace()) {
        --end;
    }
    QList<Run> plainText{{text, Run::plain, {}}};
    if (begin == end) {
        return text.isEmpty() ? QList<Run>{} : plainText;
    }

    const QByteArray source = "." + QStringView(text).sliced(begin, end - begin).toUtf8();
    MD_PARSER parser{};
    parser.flags = MD_FLAG_NOHTML | MD_FLAG_NOINDENTEDCODEBLOCKS | MD_FLAG_STRIKETHROUGH;
    parser.enter_block = &InlineCollector::enterBlock;
    parser.leave_block = &InlineCollector::leaveBlock;
    parser.enter_span = &InlineCollector::enterSpan;
    parser.leave_span = &InlineCollector::leaveSpan;
    parser.text = &InlineCollector::text;
    InlineCollector collector;
    if (md_parse(source.constData(), static_cast<MD_SIZE>(source.size()), &parser, &collector) != 0 ||
        collector.refused) {
        return plainText;
    }
    QList<Run> runs;
    if (begin > 0) {
        runs.append({text.first(begin), Run::plain, {}});
    }
    for (Run& run : collector.runs) {
        if (!runs.isEmpty() && runs.last().styles == run.styles && runs.last().link == run.link) {
            runs.last().text += run.text;
        } else {
            runs.append(std::move(run));
        }
    }
    if (end < text.size()) {
        const QString tail = text.sliced(end);
        if (!runs.isEmpty() && runs.last().styles == Run::plain && runs.last().link.isEmpty()) {
            runs.last().text += tail;
        } else {
            runs.append({tail, Run::plain, {}});
        }
    }
    return runs;
}

QString AnswerText::html(const QList<Run>& runs) {
    static const QString fixedFamily = QFontDatabase::systemFont(QFontDatabase::FixedFont).family();
    QString out = QStringLiteral("<span style=\"white-space:pre-wrap\">");
    for (const Run& run : runs) {
        QString open;
        QString close;
        const auto wrap = [&](const QString& start, const QString& stop) {
            open += start;
            close.prepend(stop);
        };
        if (!run.link.isEmpty()) {
            wrap(QStringLiteral("<a href=\"") + escaped(run.link) + QStringLiteral("\">"),
                 QStringLiteral("</a>"));
        }
        if (run.styles & Run::bold) {
            wrap(QStringLiteral("<b>"), QStringLiteral("</b>"));
        }
        if (run.styles & Run::italic) {
            wrap(QStringLiteral("<i>"), QStringLiteral("</i>"));
        }
        if (run.styles & Run::strikethrough) {
            wrap(QStringLiteral("<s>"), QStringLiteral("</s>"));
        }
        if (run.styles & Run::code) {
            wrap(
                QStringLiteral("<span style=\"font-family:'") + escaped(fixedFamily) + QStringLiteral("'\">"),
                QStringLiteral("</span>"));
        }
        out += open + escaped(run.text) + close;
    }
    out += QStringLiteral("</span>");
    return out;
}

AnswerText::AnswerText(QWidget* parent) : QWidget(parent), layout_(new QVBoxLayout(this)) {
    layout_->setContentsMargins(0, 0, 0, 0);
    layout_->setSpacing(M::blockSpacing);
}

AnswerText::~AnswerText() = default;

void AnswerText::setMarkdown(const QString& markdown) {
    markdown_ = markdown;
    const QList<Block> next = blocks(markdown_);
    // Rows are matched by position: while an answer streams, only its last block changes or a new one
    // is added, so every other row is left alone.
    for (qsizetype i = 0; i < next.size(); ++i) {
        const auto index = static_cast<std::size_t>(i);
        if (index < rows_.size() && rows_[index].block.kind == next[i].kind) {
            if (rows_[index].block.content != next[i].content) {
                rows_[index].block = next[i];
                fill(rows_[index]);
            }
            continue;
        }
        Row row = makeRow(next[i]);
        if (index < rows_.size()) {
            layout_->replaceWidget(rows_[index].widget, row.widget);
            delete rows_[index].widget;
            rows_[index] = row;
        } else {
            layout_->addWidget(row.widget);
            rows_.push_back(row);
        }
        row.widget->show();
    }
    while (rows_.size() > static_cast<std::size_t>(next.size())) {
        delete rows_.back().widget;
        rows_.pop_back();
    }
}

AnswerText::Row AnswerText::makeRow(const Block& block) {
    Row row{block, nullptr, nullptr};
    switch (block.kind) {
        case Block::Kind::text:
            row.label = makeTextLabel(this);
            row.widget = row.label;
            break;
        case Block::Kind::bullet: {
            row.widget = new QWidget(this);
            auto* layout = new QHBoxLayout(row.widget);
            layout->setContentsMargins(0, 0, 0, 0);
            layout->setSpacing(M::bulletGap);
            auto* marker = new QLabel(QStringLiteral("\u2022"), row.widget);
            marker->setFont(M::font(M::textFontPx));
            QPalette palette = marker->palette();
            palette.setColor(QPalette::WindowText, M::secondary);
            marker->setPalette(palette);
            marker->setAccessibleName(QStringLiteral("\u2022"));
            // Same font as the item, so top alignment puts both on the first baseline.
            layout->addWidget(marker, 0, Qt::AlignTop);
            row.label = makeTextLabel(row.widget);
            layout->addWidget(row.label, 1);
            break;
        }
        case Block::Kind::code:
            row.label = new CodeBlock(this);
            row.widget = row.label;
            break;
    }
    fill(row);
    return row;
}

void AnswerText::fill(Row& row) {
    if (row.block.kind == Block::Kind::code) {
        row.label->setText(row.block.content);
    } else {
        row.label->setText(html(inlineRuns(row.block.content)));
    }
}
