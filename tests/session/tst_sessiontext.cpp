#include "sessiontext.h"

#include <QTest>

using Lines = QList<TranscriptLine>;
using namespace Qt::StringLiterals;

namespace {

// "I:text" is an interviewer line, "M:text" one of the user.
Lines transcript(const QStringList& entries) {
    Lines lines;
    for (const QString& entry : entries) {
        const Speaker speaker = entry.startsWith(QLatin1String("M:")) ? Speaker::me : Speaker::interviewer;
        lines.append(TranscriptLine(speaker, entry.mid(2)));
    }
    return lines;
}

}  // namespace

class SessionTextTest : public QObject {
    Q_OBJECT

private slots:
    void join_data();
    void join();
    void looksLikeQuestion_data();
    void looksLikeQuestion();
    void currentQuestion_data();
    void currentQuestion();
};

void SessionTextTest::join_data() {
    QTest::addColumn<QString>("a");
    QTest::addColumn<QString>("b");
    QTest::addColumn<QString>("joined");

    QTest::newRow("both") << u"so tell me"_s << u"about yourself"_s << u"so tell me about yourself"_s;
    QTest::newRow("first empty") << QString() << u"hello"_s << u"hello"_s;
    QTest::newRow("spaces kept as delivered") << u"a "_s << u" b"_s << u"a   b"_s;
    QTest::newRow("only white space is not empty") << u" "_s << u"b"_s << u"  b"_s;
}

void SessionTextTest::join() {
    QFETCH(QString, a);
    QFETCH(QString, b);
    QFETCH(QString, joined);
    QCOMPARE(SessionText::join(a, b), joined);
}

void SessionTextTest::looksLikeQuestion_data() {
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("question");

    QTest::newRow("prefix tell me, 4 words") << "Tell me about yourself" << true;
    QTest::newRow("2 words although it has what") << "so what" << false;
    QTest::newRow("question mark") << "Really?" << true;
    QTest::newRow("exactly 7 words") << "one two three four five six seven" << true;
    QTest::newRow("6 words without prefix") << "one two three four five six" << false;
    QTest::newRow("opening letters, not whole words") << "Howdy folks, nice day" << true;
    QTest::newRow("prefix must open the text") << "So how was it" << false;
    QTest::newRow("empty") << "" << false;
    QTest::newRow("line breaks separate words") << "one\ntwo\nthree\nfour\nfive\nsix\nseven" << true;
    QTest::newRow("runs of white space count once") << "Okay    great\t\tthanks" << false;
    QTest::newRow("no-break space separates words")
        << QStringLiteral("one\u00a0two\u00a0three\u00a0four\u00a0five\u00a0six\u00a0seven") << true;
    QTest::newRow("fullwidth question mark is not ?") << QStringLiteral("Ready\uff1f") << false;
    QTest::newRow("lower-casing beyond ASCII meets the prefix")
        << QStringLiteral("D\u00c9SCRIBE your role please") << false;
    QTest::newRow("dotted capital I lower-cases to two code points")
        << QStringLiteral("\u0130 think so yes") << false;
}

void SessionTextTest::looksLikeQuestion() {
    QFETCH(QString, text);
    QFETCH(bool, question);
    QCOMPARE(SessionText::looksLikeQuestion(text), question);
}

void SessionTextTest::currentQuestion_data() {
    QTest::addColumn<QStringList>("lines");
    QTest::addColumn<QString>("question");

    QTest::newRow("no lines") << QStringList() << "";
    QTest::newRow("interviewer after the user") << QStringList{"I:A", "M:B", "I:C", "I:D"} << "C D";
    QTest::newRow("newest line is the user's") << QStringList{"I:A", "I:B", "M:C"} << "";
    QTest::newRow("only the last four of five")
        << QStringList{"I:1", "I:2", "I:3", "I:4", "I:5"} << "2 3 4 5";
    QTest::newRow("single interviewer line") << QStringList{"I:How are you?"} << "How are you?";
}

void SessionTextTest::currentQuestion() {
    QFETCH(QStringList, lines);
    QFETCH(QString, question);
    QCOMPARE(SessionText::currentQuestion(transcript(lines)), question);
}

QTEST_APPLESS_MAIN(SessionTextTest)
#include "tst_sessiontext.moc"
