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

    QWidget* part(const QString& name) { return view.findChild<QWidget*>(name); }
    QScrollBar* bar() { return view.findChild<QScrollArea*>(u"answerArea"_s)->verticalScrollBar(); }

    // Steps separated by "; ": a verb, then its text, where "I" or "M" first names the interviewer or me.
    void run(const QString& steps) {
        const QHash<QString, void (FakeSession::*)(Speaker, const QString&)> spoken{
            {u"say"_s, &FakeSession::say},
            {u"hear"_s, &FakeSession::hear},
            {u"streamfail"_s, &FakeSession::failStream}};
        const QHash<QString, void (FakeSession::*)(const QString&)> typed{
            {u"ask"_s, &FakeSession::ask},
            {u"piece"_s, &FakeSession::answerPiece},
            {u"fail"_s, &FakeSession::answerFails}};
        for (const QString& step : steps.split(u"; "_s, Qt::SkipEmptyParts)) {
            const QString verb = step.section(u' ', 0, 0);
            const QString text = step.section(u' ', 1);
            if (spoken.contains(verb)) {
                (fake.*spoken[verb])(text[0] == u'M' ? Speaker::me : Speaker::interviewer, text.mid(2));
            } else if (typed.contains(verb)) {
                (fake.*typed[verb])(text);
            } else if (verb == "listen"_L1) {
                fake.listen();
            } else if (verb == "set"_L1) {
                fake.settings().setProperty(text.section(u' ', 0, 0).toLatin1(), text.endsWith("on"_L1));
            } else if (verb == "press"_L1) {
                QTest::mouseClick(part(text), Qt::LeftButton);
            } else if (verb == "scroll-back-and-widen"_L1) {
                bar()->triggerAction(QAbstractSlider::SliderToMinimum);
                view.resize(340, 400);
            }
            for (int i = 0; verb == "points"_L1 && i < text.toInt(); ++i) {
                fake.answerPiece(u"- Point %1, long enough to wrap in the panel.\n"_s.arg(i));
                QCoreApplication::sendPostedEvents();
            }
            QCoreApplication::sendPostedEvents();
        }
    }

    // What the view shows, read from its widgets top to bottom, and what it asked the shell for. A row
    // cut at its beginning shows as the ellipsis and its last two words; an answer as its last line.
    QString shown() {
        QStringList out{qobject_cast<QAbstractButton*>(part(u"listeningSwitch"_s))->text()};
        for (const QString& dot : {u"callDot"_s, u"micDot"_s}) {
            out << (part(dot)->isVisible() ? part(dot)->toolTip() : QString());
        }
        out << part(u"clickThroughButton"_s)->property("symbol").toString();
        for (QWidget* row : view.findChildren<QWidget*>(u"transcriptRow"_s)) {
            const QString text = row->property("shownText").toString();
            out << (!row->isVisible()
                        ? QString()
                        : row->property("tag").toString() + (row->property("live").toBool() ? u'~' : u':') +
                              u' ' + (text.startsWith(u'\u2026') ? text.section(u' ', -2) : text));
        }
        for (const QString& label :
             {u"stripPlaceholder"_s, u"question"_s, u"answerPlaceholder"_s, u"notice"_s}) {
            out << (part(label)->isVisibleTo(&view)
                        ? label + ": "_L1 + part(label)->property("text").toString()
                        : QString());
        }
        out << (part(u"answerSpinner"_s)->isVisible() ? u"spinner"_s : QString());
        if (part(u"answerText"_s)->isVisible()) {
            const QString markdown = part(u"answerText"_s)->property("markdown").toString();
            out << "answer: "_L1 + markdown.section(u'\n', -1, -1, QString::SectionSkipEmpty);
        }
        if (bar()->maximum() > 0) {
            out << (bar()->value() == bar()->maximum() ? u"at the end"_s : u"scrolled back"_s);
        }
        out.removeAll(QString());
        return (out + requested).join(" | "_L1);
    }
};

}  // namespace

class OverlayViewTest : public QObject {
    Q_OBJECT

private slots:
    void showsTheSessionStateAndForwardsPresses_data() {
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QString>("shown");
        const QString start = u" | stripPlaceholder: Press Ctrl+Alt+S to start listening."_s;
        const QString idle = u"Start | Call: off | Mic: off | hand.raised"_s + start;
        const QString listening = u"Listening | Call: working | Mic: working | hand.raised"_s;
        const QString waiting = u" | stripPlaceholder: Listening for the interviewer\u2026"_s;
        const QString noAnswer =
            u" | answerPlaceholder: Answers appear here as soon as the interviewer asks a question."_s;
        const QString point =
            u" | question: Why? | answer: - Point 29, long enough to wrap in the panel. | "_s;
        QTest::newRow("the listening switch starts the session")
            << u"press listeningSwitch"_s
            << u"Listening | Call: connecting | Mic: connecting | hand.raised"_s + waiting + noAnswer;
        QTest::newRow("last two lines, then dimmed rows of both speakers")
            << u"listen; say I one; say M two; say I three; hear I four; hear M five"_s
            << listening + u" | YOU: two | THEM: three | THEM~ four | YOU~ five"_s + noAnswer;
        QTest::newRow("an utterance longer than two lines keeps its newest words")
            << "listen; hear I "_L1 + u"many words "_s.repeated(40) + u"last"_s
            << listening + u" | THEM~ words last"_s + noAnswer;
        QTest::newRow("microphone off hides its dot, click-through on crosses out the hand")
            << u"set useMic off; set clickThrough on"_s
            << u"Start | Call: off | hand.raised.slash"_s + start + noAnswer;
        QTest::newRow("a stream problem turns its dot red and shows the notice")
            << u"listen; streamfail I Speech service unavailable."_s
            << u"Listening | Call: problem \u2014 see the message below | Mic: working | hand.raised"_s +
                   waiting + noAnswer + u" | notice: Speech service unavailable."_s;
        QTest::newRow("answer requested, nothing received: question and spinner")
            << u"ask Why?"_s << idle + u" | question: Why? | spinner"_s;
        QTest::newRow("a failed request keeps the question, nothing under it, and notices")
            << u"ask Why?; fail The network is down."_s
            << idle + u" | question: Why? | notice: The network is down."_s;
        QTest::newRow("clear takes the answer and the notice away")
            << u"ask Why?; fail The network is down.; press clearButton"_s << idle + noAnswer;
        QTest::newRow("a growing answer replaces the spinner and stays scrolled to its end")
            << u"ask Why?; points 30"_s << idle + point + u"at the end"_s;
        QTest::newRow("scrolling back to read is respected while the panel changes size")
            << u"ask Why?; points 30; scroll-back-and-widen"_s << idle + point + u"scrolled back"_s;
        QTest::newRow("more answer scrolls to its end again")
            << u"ask Why?; points 30; scroll-back-and-widen; piece The end."_s
            << idle + u" | question: Why? | answer: The end. | at the end"_s;
        QTest::newRow("answer now before listening says to start; the shell's buttons go to the shell")
            << u"press answerNowButton; press clickThroughButton; press settingsButton; press hideButton"_s
            << idle + noAnswer +
                   u" | notice: Start listening first (Ctrl+Alt+S). | click-through | settings | hide"_s;
    }

    void showsTheSessionStateAndForwardsPresses() {
        QFETCH(QString, steps);
        QFETCH(QString, shown);
        Rig rig;
        rig.run(steps);
        QCOMPARE(rig.shown(), shown);
        // Every state fits the panel's smallest size.
        QVERIFY(rig.view.minimumSizeHint().width() <= 320);
    }
};

QTEST_MAIN(OverlayViewTest)
#include "tst_overlayview.moc"
