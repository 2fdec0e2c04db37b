#include "sessioncontroller.h"
#include "sessiontext.h"

#include <QTest>

class SessionTextTest : public QObject {
    Q_OBJECT

private slots:
    void joinKeepsTheTextAsDelivered_data() {
        QTest::addColumn<QString>("a");
        QTest::addColumn<QString>("b");
        QTest::addColumn<QString>("joined");
        QTest::newRow("both") << "so tell me"
                              << "about yourself"
                              << "so tell me about yourself";
        QTest::newRow("first empty") << ""
                                     << "hello"
                                     << "hello";
        QTest::newRow("second empty") << "hello"
                                      << ""
                                      << "hello";
        QTest::newRow("spaces kept as delivered") << "a "
                                                  << " b"
                                                  << "a   b";
        QTest::newRow("only white space is not empty") << " "
                                                       << "b"
                                                       << "  b";
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
        QTest::addColumn<QString>("latest");
        QTest::newRow("no lines") << QStringList() << ""
                                  << "";
        QTest::newRow("interviewer after the user") << QStringList{"I:A", "M:B", "I:C", "I:D"} << "C D"
                                                    << "D";
        QTest::newRow("newest line is the user's") << QStringList{"I:A", "I:B", "M:C"} << ""
                                                   << "B";
        QTest::newRow("only the user") << QStringList{"M:A"} << ""
                                       << "";
        QTest::newRow("only the last four of five")
            << QStringList{"I:1", "I:2", "I:3", "I:4", "I:5"} << "2 3 4 5"
            << "5";
        QTest::newRow("single interviewer line") << QStringList{"I:How are you?"} << "How are you?"
                                                 << "How are you?";
    }
    void questionIsTakenFromTheInterviewersLastLines() {
        QFETCH(QStringList, lines);
        QFETCH(QString, question);
        QFETCH(QString, latest);
        QList<TranscriptLine> transcript;
        for (const QString& line : lines) {
            transcript.append(
                TranscriptLine(line.startsWith(u'M') ? Speaker::me : Speaker::interviewer, line.mid(2)));
        }
        QCOMPARE(SessionText::currentQuestion(transcript), question);
        QCOMPARE(SessionText::latestInterviewerText(transcript), latest);
    }
};

QTEST_APPLESS_MAIN(SessionTextTest)
#include "tst_sessiontext.moc"
