#include "answertext.h"

#include <QLabel>
#include <QTest>

using Block = AnswerText::Block;
using Run = AnswerText::Run;
using namespace Qt::StringLiterals;

namespace {

// A block as "T:text", "B:item" or "C:code"; a run as its style letters (b, i, c, s, or "-" for none),
// "@target" for a link, then ":text"; separated by " | ".
QString describe(const QList<Block>& blocks) {
    QStringList out;
    for (const Block& block : blocks) {
        out << u"T:B:C:"_s.mid(2 * int(block.kind), 2) + block.content;
    }
    return out.join(" | "_L1);
}

QString describe(const QList<Run>& runs) {
    QStringList out;
    for (const Run& run : runs) {
        QString styles;
        for (int bit = 0; bit < 4; ++bit) {
            styles += run.styles & (1 << bit) ? QString(QLatin1Char("bics"[bit])) : QString();
        }
        out << (styles.isEmpty() ? u"-"_s : styles) + (run.link.isEmpty() ? u""_s : u'@' + run.link) + u':' +
                   run.text;
    }
    return out.join(" | "_L1);
}

}  // namespace

class AnswerTextTest : public QObject {
    Q_OBJECT

private slots:
    void blockKinds_data() {
        QTest::addColumn<QString>("markdown");
        QTest::addColumn<QString>("blocks");
        QTest::newRow("paragraphs and the three bullet markers, an indented bullet trimmed")
            << u"Hello\n\n- one\n* two\n  \t\u2022 three  \nBye"_s
            << u"T:Hello | B:one | B:two | B:three | T:Bye"_s;
        QTest::newRow(
            "indented fences open and close code, the language is ignored, two fences are empty code")
            << u"```swift\nlet a\n  ```\n\t```\n```\nafter"_s << u"C:let a | C: | T:after"_s;
        QTest::newRow("an unclosed fence while streaming is already code")
            << u"intro\n```\npartial"_s << u"T:intro | C:partial"_s;
        QTest::newRow("a marker without a space, numbers, headings and quotes stay text")
            << u"-item\n1. step\n# Title\n> quote"_s << u"T:-item | T:1. step | T:# Title | T:> quote"_s;
    }

    void blockKinds() {
        QFETCH(QString, markdown);
        QFETCH(QString, blocks);
        QCOMPARE(describe(AnswerText::blocks(markdown)), blocks);
    }

    void inlineStyling_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("runs");
        QTest::newRow("bold, a code span and a link")
            << u"Use **async** and `await`, see [docs](https://example.com/a) now"_s
            << u"-:Use  | b:async | -: and  | c:await | -:, see  | -@https://example.com/a:docs | -: now"_s;
        QTest::newRow("emphasis at the very start still opens")
            << u"_Quick_ wins and ~~gone~~"_s << u"i:Quick | -: wins and  | s:gone"_s;
        QTest::newRow("headings, numbers, quotes, rules and references stay as written, inline styles apply")
            << u"## 1. step with *care* > --- [id]: https://x"_s
            << u"-:## 1. step with  | i:care | -: > --- [id]: https://x"_s;
        QTest::newRow("a reference definition alone stays as written")
            << u"[id]: https://x"_s << u"-:[id]: https://x"_s;
        QTest::newRow("unparsable emphasis is shown exactly as written")
            << u"**unclosed and `open"_s << u"-:**unclosed and `open"_s;
        QTest::newRow("spaces are kept as given, also at both ends around styled text")
            << u"  two  **spaces**  "_s << u"-:  two   | b:spaces | -:  "_s;
        QTest::newRow("entities and escapes are read, markup-like text is not HTML")
            << u"AT&amp;T \\*not\\* a <b>tag</b>"_s << u"-:AT&T *not* a <b>tag</b>"_s;
        QTest::newRow("a carriage return and a dash do not make the line a heading that vanishes")
            << u"Title\r-"_s << u"-:Title\r-"_s;
    }

    void inlineStyling() {
        QFETCH(QString, text);
        QFETCH(QString, runs);
        QCOMPARE(describe(AnswerText::inlineRuns(text)), runs);
    }

    // A streamed answer re-read on every piece must keep the rows whose blocks did not change, or a long
    // answer rebuilds every label per piece.
    void streamingReusesUnchangedRows() {
        AnswerText text;
        text.setMarkdown(u"Intro `x<y`\n- first"_s);
        const QList<QWidget*> before = text.findChildren<QWidget*>(Qt::FindDirectChildrenOnly);
        QCOMPARE(before.size(), 2);
        QVERIFY(qobject_cast<QLabel*>(before[0])->text().contains(u"Intro <span style=\"font-family:"_s));

        text.setMarkdown(u"Intro `x<y`\n- first item\n- second"_s);
        const QList<QWidget*> grown = text.findChildren<QWidget*>(Qt::FindDirectChildrenOnly);
        QCOMPARE(grown.size(), 3);
        QCOMPARE(grown.mid(0, 2), before);
        QVERIFY(grown[1]->findChildren<QLabel*>().last()->text().contains(u"first item"_s));

        // A block that changes its kind gets a new row; the rows after the last block go.
        text.setMarkdown(u"Intro `x<y`\n```\nlet x"_s);
        const QList<QWidget*> replaced = text.findChildren<QWidget*>(Qt::FindDirectChildrenOnly);
        QCOMPARE(replaced.size(), 2);
        QCOMPARE(replaced[0], before[0]);
        QVERIFY(!before.contains(replaced[1]));
        QCOMPARE(qobject_cast<QLabel*>(replaced[1])->text(), u"let x"_s);
    }
};

QTEST_MAIN(AnswerTextTest)
#include "tst_answertext.moc"
