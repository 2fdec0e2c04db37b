#include "sessioncontroller.h"
#include "sessiontext.h"

#include <QTest>

using namespace Qt::StringLiterals;

// How the transcript is joined and which lines make the question is proven through the controller.
class SessionTextTest : public QObject {
    Q_OBJECT

private slots:
    void questionsAreToldFromRemarks_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("question");
        const auto row = [](const char* name, const QString& text, bool question) {
            QTest::newRow(name) << text << question;
        };
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
};

QTEST_APPLESS_MAIN(SessionTextTest)
#include "tst_sessiontext.moc"
