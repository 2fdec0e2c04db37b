#include "eventtext.h"
#include "recognitionmessage.h"

#include <QTest>

namespace {

QString results(const QString& transcript, const QString& flags = {}) {
    return QStringLiteral(R"({"type":"Results","channel":{"alternatives":[{"transcript":"%1"}]}%2})")
        .arg(transcript, flags);
}

QString finalWith(const QString& channel) {
    return QStringLiteral(R"({"type":"Results","is_final":true,"channel":%1})").arg(channel);
}

}  // namespace

class TestRecognitionMessage : public QObject {
    Q_OBJECT

private slots:
    void messagesBecomeTheRightEvent_data() {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char* name, const QString& message, const char* expected) {
            QTest::newRow(name) << message << QString(expected);
        };
        const QString words = QStringLiteral("  hello there  ");
        row("interim words lose the spaces around them", results(words), "interim(hello there)");
        row("an empty interim says nothing", results(""), "nothing");
        row("speech_final without is_final is still interim", results("word", R"(,"speech_final":true)"),
            "interim(word)");
        row("a final that ends the utterance", results(words, R"(,"is_final":true,"speech_final":true)"),
            "final(hello there, end)");
        row("a final without speech_final does not end the utterance", results(words, R"(,"is_final":true)"),
            "final(hello there)");
        row("an empty final is still reported", results("", R"(,"is_final":true,"speech_final":true)"),
            "final(, end)");
        row("a final of only spaces is reported empty", results("   ", R"(,"is_final":true)"), "final()");
        row("is_final as a string does not count", results("word", R"(,"is_final":"true")"), "interim(word)");
        row("tabs are trimmed", results("\\tword\\t"), "interim(word)");
        row("no-break and ideographic spaces are trimmed", results(QStringLiteral(u"\u00a0\u3000word\u2003")),
            "interim(word)");
        row("line breaks at the ends are kept", results("\\nword \\n"), "interim(\nword \n)");
        // A transcript path that breaks anywhere counts as empty text.
        row("no channel", finalWith("null"), "final()");
        row("empty alternatives", finalWith(R"({"alternatives":[]})"), "final()");
        row("first alternative not an object", finalWith(R"({"alternatives":["x",{"transcript":"y"}]})"),
            "final()");
        row("transcript not a string", finalWith(R"({"alternatives":[{"transcript":5}]})"), "final()");
        row("only the first alternative counts",
            R"({"type":"Results","channel":{"alternatives":[{"transcript":"one"},{"transcript":"two"}]}})",
            "interim(one)");
        row("utterance end", R"({"type":"UtteranceEnd"})", "utteranceEnd()");
        row("another message type", R"({"type":"SpeechStarted","is_final":true})", "nothing");
        row("no type", R"({"is_final":true,"channel":{"alternatives":[{"transcript":"x"}]}})", "nothing");
        row("cut-off JSON", "{\"type\":\"UtteranceEnd\"", "nothing");
    }

    void messagesBecomeTheRightEvent() {
        QFETCH(QString, message);
        QFETCH(QString, expected);

        const std::optional<SpeechStream::Event> event = parseRecognitionMessage(message);
        QCOMPARE(event ? eventText(*event) : QStringLiteral("nothing"), expected);
    }
};

QTEST_APPLESS_MAIN(TestRecognitionMessage)
#include "tst_recognitionmessage.moc"
