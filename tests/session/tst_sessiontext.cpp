#include "sessioncontroller.h"
#include "sessiontext.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

template <typename... Values>
void row(const char* name, const Values&... values) {
    (QTest::newRow(name) << ... << values);
}

}  // namespace

class SessionTextTest : public QObject {
    Q_OBJECT

private slots:
    void joinKeepsTheTextAsDelivered_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<QString>("joined");
        row("both", u"so tell me"_s, u"about yourself"_s, u"so tell me about yourself"_s);
        row("first empty", QString(), u"hello"_s, u"hello"_s);
        row("second empty", u"hello"_s, QString(), u"hello"_s);
        row("spaces kept as delivered", u"a "_s, u" b"_s, u"a   b"_s);
        row("only white space is not empty", u" "_s, u"b"_s, u"  b"_s);
    }
    void joinKeepsTheTextAsDelivered() {
        QFETCH(QString, a);
        QFETCH(QString, b);
        QFETCH(QString, joined);
        QCOMPARE(SessionText::join(a, b), joined);
    }

    void questionsAreToldFromRemarks_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("question");
        row("prefix tell me, 4 words", u"Tell me about yourself"_s, true);
        row("2 words although it has what", u"so what"_s, false);
        row("question mark", u"Really?"_s, true);
        row("exactly 7 words", u"one two three four five six seven"_s, true);
        row("6 words without prefix", u"one two three four five six"_s, false);
        row("opening letters, not whole words", u"Howdy folks, nice day"_s, true);
        row("prefix must open the text", u"So how was it"_s, false);
        row("line breaks separate words", u"one\ntwo\nthree\nfour\nfive\nsix\nseven"_s, true);
        row("runs of white space count once", u"Okay    great\t\tthanks"_s, false);
        row("no-break space separates words",
            u"one\u00a0two\u00a0three\u00a0four\u00a0five\u00a0six\u00a0seven"_s, true);
        row("fullwidth question mark is not ?", u"Ready\uff1f"_s, false);
        row("lower-casing beyond ASCII meets the prefix", u"D\u00c9SCRIBE your role please"_s, false);
        row("dotted capital I lower-cases to two code points", u"\u0130 think so yes"_s, false);
    }
    void questionsAreToldFromRemarks() {
        QFETCH(QString, text);
        QFETCH(bool, question);
        QCOMPARE(SessionText::looksLikeQuestion(text), question);
        QCOMPARE(SessionController::looksLikeQuestion(text), question);
    }

    // Lines are "I:text" for the interviewer and "M:text" for the user.
    void questionIsTakenFromTheInterviewersLastLines_data() {
        QTest::addColumn<QStringList>("lines");
        QTest::addColumn<QString>("question");
        row("no lines", QStringList(), QString());
        row("interviewer after the user", QStringList{"I:A", "M:B", "I:C", "I:D"}, u"C D"_s);
        row("newest line is the user's", QStringList{"I:A", "I:B", "M:C"}, QString());
        row("only the last four of five", QStringList{"I:1", "I:2", "I:3", "I:4", "I:5"}, u"2 3 4 5"_s);
    }
    void questionIsTakenFromTheInterviewersLastLines() {
        QFETCH(QStringList, lines);
        QFETCH(QString, question);
        QList<TranscriptLine> transcript;
        for (const QString& line : lines) {
            transcript.append(
                TranscriptLine(line.startsWith(u'M') ? Speaker::me : Speaker::interviewer, line.mid(2)));
        }
        QCOMPARE(SessionText::currentQuestion(transcript), question);
    }
};

QTEST_APPLESS_MAIN(SessionTextTest)
#include "tst_sessiontext.moc"
