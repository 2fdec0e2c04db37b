#include "answertext.h"

#include <QLabel>
#include <QLayout>
#include <QTest>

using Block = AnswerText::Block;
using Run = AnswerText::Run;
using namespace Qt::StringLiterals;

namespace {

// "T:text", "B:item", "C:code" per block.
QStringList describe(const QList<Block>& blocks) {
    QStringList out;
    for (const Block& block : blocks) {
        const char* kind = block.kind == Block::Kind::text     ? "T:"
                           : block.kind == Block::Kind::bullet ? "B:"
                                                               : "C:";
        out << QLatin1String(kind) + block.content;
    }
    return out;
}

// "-:text" for plain text; style letters b, i, c, s in place of "-"; "@target" before the colon for a link.
QStringList describe(const QList<Run>& runs) {
    QStringList out;
    for (const Run& run : runs) {
        QString styles;
        for (const auto& [flag, letter] :
             {std::pair{Run::bold, 'b'}, {Run::italic, 'i'}, {Run::code, 'c'}, {Run::strikethrough, 's'}}) {
            if (run.styles & flag) {
                styles += QLatin1Char(letter);
            }
        }
        out << (styles.isEmpty() ? QStringLiteral("-") : styles) +
                   (run.link.isEmpty() ? QString() : QLatin1Char('@') + run.link) + QLatin1Char(':') +
                   run.text;
    }
    return out;
}

QList<QWidget*> rowWidgets(AnswerText& text) {
    QList<QWidget*> out;
    for (int i = 0; i < text.layout()->count(); ++i) {
        out << text.layout()->itemAt(i)->widget();
    }
    return out;
}

}  // namespace

class AnswerTextTest : public QObject {
    Q_OBJECT

private slots:
    void blockSplitting_data();
    void blockSplitting();
    void inlineStyling_data();
    void inlineStyling();
    void streamingReusesUnchangedRows();
};

void AnswerTextTest::blockSplitting_data() {
    QTest::addColumn<QString>("markdown");
    QTest::addColumn<QStringList>("blocks");

    QTest::newRow("paragraphs and the three bullet markers, blank lines dropped")
        << u"Hello\n\n- one\n* two\n\u2022 three\nBye"_s
        << QStringList{u"T:Hello"_s, u"B:one"_s, u"B:two"_s, u"B:three"_s, u"T:Bye"_s};
    QTest::newRow("fenced code keeps indentation and ignores the language name")
        << u"```swift\nlet a = 1\n  indented\n```"_s << QStringList{u"C:let a = 1\n  indented"_s};
    QTest::newRow("two fence lines make one empty code block") << u"```\n```"_s << QStringList{u"C:"_s};
    QTest::newRow("an unclosed fence while streaming is already code")
        << u"intro\n```\npartial"_s << QStringList{u"T:intro"_s, u"C:partial"_s};
    QTest::newRow("an indented bullet is trimmed on both sides")
        << u"  \t- spaced item   "_s << QStringList{u"B:spaced item"_s};
    QTest::newRow("a marker without a space, numbers, headings and quotes stay text")
        << u"-item\n1. step\n# Title\n> quote"_s
        << QStringList{u"T:-item"_s, u"T:1. step"_s, u"T:# Title"_s, u"T:> quote"_s};
    QTest::newRow("an indented fence still opens and closes code")
        << u"  ```\ncode\n\t```\nafter"_s << QStringList{u"C:code"_s, u"T:after"_s};
    QTest::newRow("blank lines inside code are kept") << u"```\na\n\nb\n```"_s << QStringList{u"C:a\n\nb"_s};
    QTest::newRow("only blank lines show nothing") << u"\n  \n\t\n"_s << QStringList{};
    QTest::newRow("empty answer") << QString() << QStringList{};
}

void AnswerTextTest::blockSplitting() {
    QFETCH(QString, markdown);
    QFETCH(QStringList, blocks);
    QCOMPARE(describe(AnswerText::blocks(markdown)), blocks);
}

void AnswerTextTest::inlineStyling_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<QStringList>("runs");

    QTest::newRow("bold and a code span")
        << u"Use **async** and `await` here"_s
        << QStringList{u"-:Use "_s, u"b:async"_s, u"-: and "_s, u"c:await"_s, u"-: here"_s};
    QTest::newRow("link") << u"See [the docs](https://example.com/a) now"_s
                          << QStringList{u"-:See "_s, u"-@https://example.com/a:the docs"_s, u"-: now"_s};
    QTest::newRow("emphasis at the very start still opens")
        << u"_Quick_ wins and ~~gone~~"_s << QStringList{u"i:Quick"_s, u"-: wins and "_s, u"s:gone"_s};
    QTest::newRow("a heading line keeps its number signs") << u"## Title"_s << QStringList{u"-:## Title"_s};
    QTest::newRow("a numbered line keeps its number, inline styles still apply")
        << u"1. step with *care*"_s << QStringList{u"-:1. step with "_s, u"i:care"_s};
    QTest::newRow("a quote, a rule and a reference definition stay as written")
        << u"> quoted --- [id]: https://x"_s << QStringList{u"-:> quoted --- [id]: https://x"_s};
    QTest::newRow("a reference definition alone stays as written")
        << u"[id]: https://x"_s << QStringList{u"-:[id]: https://x"_s};
    QTest::newRow("unparsable emphasis is shown exactly as written")
        << u"**unclosed and `open"_s << QStringList{u"-:**unclosed and `open"_s};
    QTest::newRow("spaces are kept as given, also at both ends")
        << u"    two  spaces  "_s << QStringList{u"-:    two  spaces  "_s};
    QTest::newRow("entities and escapes are read")
        << u"AT&amp;T \\*not\\*"_s << QStringList{u"-:AT&T *not*"_s};
    QTest::newRow("markup-like text is not HTML") << u"a <b>tag</b>"_s << QStringList{u"-:a <b>tag</b>"_s};
    QTest::newRow("a carriage return and a dash do not make the line a heading that vanishes")
        << u"Title\r-"_s << QStringList{u"-:Title\r-"_s};
}

void AnswerTextTest::inlineStyling() {
    QFETCH(QString, text);
    QFETCH(QStringList, runs);
    QCOMPARE(describe(AnswerText::inlineRuns(text)), runs);
}

// A streamed answer re-read on every piece must keep the rows whose blocks did not change, or a long
// answer rebuilds every label per piece.
void AnswerTextTest::streamingReusesUnchangedRows() {
    AnswerText text;
    text.setMarkdown(u"Intro\n- first"_s);
    const QList<QWidget*> before = rowWidgets(text);
    QCOMPARE(before.size(), 2);

    text.setMarkdown(u"Intro\n- first item\n- second"_s);
    const QList<QWidget*> grown = rowWidgets(text);
    QCOMPARE(grown.size(), 3);
    QCOMPARE(grown.mid(0, 2), before);
    QVERIFY(grown[1]->findChildren<QLabel*>().last()->text().contains(u"first item"_s));

    // A block that changes its kind gets a new row; the rows after the last block go.
    text.setMarkdown(u"Intro\n```\nlet x"_s);
    const QList<QWidget*> replaced = rowWidgets(text);
    QCOMPARE(replaced.size(), 2);
    QCOMPARE(replaced[0], before[0]);
    QVERIFY(!before.contains(replaced[1]));
    QCOMPARE(qobject_cast<QLabel*>(replaced[1])->text(), u"let x"_s);
}

QTEST_MAIN(AnswerTextTest)
#include "tst_answertext.moc"
