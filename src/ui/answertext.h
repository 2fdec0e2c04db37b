#pragma once

#include <QList>
#include <QString>
#include <QStringView>
#include <QWidget>

#include <vector>

class QLabel;
class QVBoxLayout;

// Draws an answer written in light Markdown (paragraphs, dash or star bullets, inline emphasis and code,
// fenced code blocks) as a column of blocks. The whole text is split again on every change, so a
// half-received answer is always drawn as well as it can be; only the blocks whose content changed are
// touched, which keeps a streaming answer cheap however long it grows.
class AnswerText : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QString markdown READ markdown WRITE setMarkdown)

public:
    struct Block {
        enum class Kind { text, bullet, code };
        Kind kind = Kind::text;
        // A paragraph line or bullet item with its inline Markdown, or the lines of a code block.
        QString content;

        bool operator==(const Block&) const = default;
    };

    // One stretch of styled text of a paragraph or bullet.
    struct Run {
        enum Style { plain = 0, bold = 1, italic = 2, code = 4, strikethrough = 8 };
        QString text;
        int styles = plain;
        QString link;  // the target of a link, else empty

        bool operator==(const Run&) const = default;
    };

    // The blocks of `markdown` in text order. Only fences, bullets and blank lines are read at block level:
    // headings, numbered lists and quotes stay text lines with their characters as written.
    static QList<Block> blocks(QStringView markdown);
    // The styled form of one paragraph or bullet: inline constructs only, whitespace kept as given. Text
    // that cannot be parsed comes back as one plain run.
    static QList<Run> inlineRuns(const QString& text);
    // `runs` as rich text for a label.
    static QString html(const QList<Run>& runs);

    explicit AnswerText(QWidget* parent = nullptr);
    ~AnswerText() override;

    const QString& markdown() const { return markdown_; }
    void setMarkdown(const QString& markdown);

private:
    struct Row {
        Block block;
        QWidget* widget = nullptr;  // owned by this widget
        QLabel* label = nullptr;    // where the block's text goes: the widget itself or its item label
    };

    Row makeRow(const Block& block);
    void fill(Row& row);

    QString markdown_;
    QVBoxLayout* layout_ = nullptr;
    std::vector<Row> rows_;
};
