#include "answertext.h"
#include "fakesession.h"
#include "overlayview.h"

#include <QAbstractButton>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

struct Rig {
    FakeSession fake;
    OverlayView view{fake.session(), fake.settings()};
    QStringList requested;

    Rig() {
        view.resize(320, 400);
        view.show();
        for (const auto& [name, signal] :
             {std::pair{"click-through", &OverlayView::clickThroughToggleRequested},
              {"settings", &OverlayView::settingsRequested},
              {"hide", &OverlayView::hideRequested}}) {
            QObject::connect(&view, signal, &view, [this, name] { requested << QLatin1String(name); });
        }
    }

    template <typename T = QWidget>
    T* part(const QString& name) {
        return view.findChild<T*>(name);
    }

    // Steps separated by "; ": a verb, then its text, where "I" or "M" first names the interviewer or me.
    void run(const QString& steps) {
        const auto who = [](const QString& text) {
            return text[0] == u'M' ? Speaker::me : Speaker::interviewer;
        };
        const QHash<QString, std::function<void(const QString&)>> verbs{
            {u"listen"_s, [&](const QString&) { fake.listen(); }},
            {u"say"_s, [&](const QString& text) { fake.say(who(text), text.mid(2)); }},
            {u"hear"_s, [&](const QString& text) { fake.hear(who(text), text.mid(2)); }},
            {u"streamfail"_s, [&](const QString& text) { fake.failStream(who(text), text.mid(2)); }},
            {u"ask"_s, [&](const QString& text) { fake.ask(text); }},
            {u"piece"_s, [&](const QString& text) { fake.answerPiece(text); }},
            {u"fail"_s, [&](const QString& text) { fake.answerFails(text); }},
            {u"mic-off"_s, [&](const QString&) { fake.settings().setUseMic(false); }},
            {u"click-through"_s, [&](const QString&) { fake.settings().setClickThrough(true); }},
            {u"press"_s, [&](const QString& name) { QTest::mouseClick(part(name), Qt::LeftButton); }},
            {u"points"_s,
             [&](const QString& count) {
                 for (int i = 0; i < count.toInt(); ++i) {
                     fake.answerPiece(u"- Point %1, long enough to wrap in the panel.\n"_s.arg(i));
                     QCoreApplication::sendPostedEvents();
                 }
             }},
            {u"scroll-back"_s,
             [&](const QString&) { bar()->triggerAction(QAbstractSlider::SliderToMinimum); }},
            {u"widen"_s, [&](const QString&) { view.resize(340, 400); }}};
        for (const QString& step : steps.split(u"; "_s, Qt::SkipEmptyParts)) {
            verbs.value(step.section(u' ', 0, 0))(step.section(u' ', 1));
            QCoreApplication::sendPostedEvents();
        }
    }

    QScrollBar* bar() { return part<QScrollArea>(u"answerArea"_s)->verticalScrollBar(); }

    // What the view shows, read from its widgets top to bottom, and what it asked the shell for. A row
    // cut at its beginning shows as the ellipsis and its last two words; an answer as its last line.
    QString shown() {
        QStringList out{part<QAbstractButton>(u"listeningSwitch"_s)->text()};
        for (const QString& dot : {u"callDot"_s, u"micDot"_s}) {
            if (part(dot)->isVisible()) {
                out << part(dot)->toolTip();
            }
        }
        out << part(u"clickThroughButton"_s)->property("symbol").toString();
        for (QWidget* row : view.findChildren<QWidget*>(u"transcriptRow"_s)) {
            const QString shownText = row->property("shownText").toString();
            if (row->isVisible()) {
                out << row->property("tag").toString() +
                           (row->property("live").toBool() ? "~ "_L1 : ": "_L1) +
                           (shownText.startsWith(u'\u2026') ? u"\u2026 "_s + shownText.section(u' ', -2)
                                                            : shownText);
            }
        }
        for (const QString& label :
             {u"stripPlaceholder"_s, u"question"_s, u"answerPlaceholder"_s, u"notice"_s}) {
            if (part(label)->isVisibleTo(&view)) {
                out << label + ": "_L1 + part<QLabel>(label)->text();
            }
        }
        if (part(u"answerSpinner"_s)->isVisible()) {
            out << u"spinner"_s;
        }
        if (part(u"answerText"_s)->isVisible()) {
            out << "answer: "_L1 + part<AnswerText>(u"answerText"_s)
                                       ->markdown()
                                       .section(u'\n', -1, -1, QString::SectionSkipEmpty);
        }
        if (bar()->maximum() > 0) {
            out << (bar()->value() == bar()->maximum() ? u"at the end"_s : u"scrolled back"_s);
        }
        return (out + requested).join(" | "_L1);
    }
};

}  // namespace

class OverlayViewTest : public QObject {
    Q_OBJECT

private slots:
    void showsTheSessionStateAndForwardsPresses_data();
    void showsTheSessionStateAndForwardsPresses();
};

void OverlayViewTest::showsTheSessionStateAndForwardsPresses_data() {
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QString>("shown");
    const QString idle =
        u"Start | Call: off | Mic: off | hand.raised | "
        "stripPlaceholder: Press Ctrl+Alt+S to start listening."_s;
    const QString listening = u"Listening | Call: working | Mic: working | hand.raised"_s;
    const QString waiting = u" | stripPlaceholder: Listening for the interviewer\u2026"_s;
    const QString noAnswer =
        u" | answerPlaceholder: Answers appear here as soon as the interviewer asks a question."_s;
    QTest::newRow("fresh start, not listening") << QString() << idle + noAnswer;
    QTest::newRow("the listening switch starts the session")
        << u"press listeningSwitch"_s
        << u"Listening | Call: connecting | Mic: connecting | hand.raised"_s + waiting + noAnswer;
    QTest::newRow("last two lines, then dimmed rows of both speakers")
        << u"listen; say I one; say M two; say I three; hear I four; hear M five"_s
        << listening + u" | YOU: two | THEM: three | THEM~ four | YOU~ five"_s + noAnswer;
    QTest::newRow("an utterance longer than two lines keeps its newest words")
        << "listen; hear I "_L1 + u"many words "_s.repeated(40) + u"last"_s
        << listening + u" | THEM~ \u2026 words last"_s + noAnswer;
    QTest::newRow("microphone off hides its dot, click-through on crosses out the hand")
        << u"mic-off; click-through"_s
        << u"Start | Call: off | hand.raised.slash | stripPlaceholder: Press Ctrl+Alt+S to start listening."_s +
               noAnswer;
    QTest::newRow("a stream problem turns its dot red and shows the notice")
        << u"listen; streamfail I Speech service unavailable."_s
        << u"Listening | Call: problem \u2014 see the message below | Mic: working | hand.raised"_s +
               waiting + noAnswer + u" | notice: Speech service unavailable."_s;
    QTest::newRow("answer requested, nothing received: question and spinner")
        << u"ask Why?"_s << idle + u" | question: Why? | spinner"_s;
    QTest::newRow("the first piece replaces the spinner")
        << u"ask Why?; piece Because **it fits**"_s
        << idle + u" | question: Why? | answer: Because **it fits**"_s;
    QTest::newRow("a failed request keeps the question, nothing under it, and notices")
        << u"ask Why?; fail The network is down."_s
        << idle + u" | question: Why? | notice: The network is down."_s;
    QTest::newRow("clear takes the answer and the notice away")
        << u"ask Why?; fail The network is down.; press clearButton"_s << idle + noAnswer;
    QTest::newRow("a growing answer stays scrolled to its end")
        << u"ask Why?; points 30"_s
        << idle + u" | question: Why? | answer: - Point 29, long enough to wrap in the panel. | at the end"_s;
    QTest::newRow("scrolling back to read is respected while the panel changes size")
        << u"ask Why?; points 30; scroll-back; widen"_s
        << idle +
               u" | question: Why? | answer: - Point 29, long enough to wrap in the panel. | scrolled back"_s;
    QTest::newRow("more answer scrolls to its end again")
        << u"ask Why?; points 30; scroll-back; piece The end."_s
        << idle + u" | question: Why? | answer: The end. | at the end"_s;
    QTest::newRow("answer now before listening says to start")
        << u"press answerNowButton"_s
        << idle + noAnswer + u" | notice: Start listening first (Ctrl+Alt+S)."_s;
    QTest::newRow("click-through, settings and hide go to the shell")
        << u"press clickThroughButton; press settingsButton; press hideButton"_s
        << idle + noAnswer + u" | click-through | settings | hide"_s;
}

void OverlayViewTest::showsTheSessionStateAndForwardsPresses() {
    QFETCH(QString, steps);
    QFETCH(QString, shown);
    Rig rig;
    rig.run(steps);
    QCOMPARE(rig.shown(), shown);
    // Every state fits the panel's smallest size.
    QVERIFY(rig.view.minimumSizeHint().width() <= 320);
}

QTEST_MAIN(OverlayViewTest)
#include "tst_overlayview.moc"
