#include "answertext.h"
#include "fakesession.h"
#include "overlayview.h"

#include <QAbstractButton>
#include <QAccessible>
#include <QLabel>
#include <QScrollArea>
#include <QScrollBar>
#include <QSignalSpy>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

struct Rig {
    FakeSession fake;
    OverlayView view{fake.session(), fake.settings()};

    Rig() {
        view.resize(320, 400);
        view.show();
    }

    template <typename T = QWidget>
    T* part(const char* name) {
        auto* found = view.findChild<T*>(QLatin1String(name));
        if (!found) {
            qFatal("no part named %s", name);
        }
        return found;
    }

    // Steps: "listen", "say I text" / "say M text" (a committed line), "hear I text" (words being heard),
    // "streamfail I message", "ask question", "piece text", "fail message", "clear", "mic off",
    // "click-through on".
    void run(const QStringList& steps) {
        for (const QString& step : steps) {
            const QString verb = step.section(u' ', 0, 0);
            const QString rest = step.section(u' ', 1);
            const Speaker speaker = rest.startsWith(u'M') ? Speaker::me : Speaker::interviewer;
            const QString spoken = rest.section(u' ', 1);
            if (verb == "listen"_L1) {
                fake.listen();
            } else if (verb == "say"_L1) {
                fake.say(speaker, spoken);
            } else if (verb == "hear"_L1) {
                fake.hear(speaker, spoken);
            } else if (verb == "streamfail"_L1) {
                fake.failStream(speaker, spoken);
            } else if (verb == "ask"_L1) {
                fake.ask(rest);
            } else if (verb == "piece"_L1) {
                fake.answerPiece(rest);
            } else if (verb == "fail"_L1) {
                fake.answerFails(rest);
            } else if (verb == "clear"_L1) {
                fake.session().clear();
            } else if (step == "mic off"_L1) {
                fake.settings().setUseMic(false);
            } else if (step == "click-through on"_L1) {
                fake.settings().setClickThrough(true);
            } else {
                qFatal("unknown step %s", qPrintable(step));
            }
        }
    }

    // What the view shows, read from its widgets, top to bottom.
    QStringList shown() {
        QStringList out;
        out << "switch: "_L1 + part<QAbstractButton>("listeningSwitch")->text();
        for (const char* dot : {"callDot", "micDot"}) {
            if (part(dot)->isVisible()) {
                out << part(dot)->toolTip();
            }
        }
        out << "click-through: "_L1 + part("clickThroughButton")->property("symbol").toString();
        if (part("stripPlaceholder")->isVisible()) {
            out << "strip: "_L1 + part<QLabel>("stripPlaceholder")->text();
        }
        for (QWidget* row : view.findChildren<QWidget*>(u"transcriptRow"_s)) {
            if (row->isVisible()) {
                out << row->property("tag").toString() +
                           (row->property("live").toBool() ? "~ "_L1 : ": "_L1) +
                           row->property("text").toString();
            }
        }
        if (part("question")->isVisible()) {
            out << "question: "_L1 + part<QLabel>("question")->text();
        }
        if (part("answerSpinner")->isVisible()) {
            out << u"spinner"_s;
        }
        if (part("answerText")->isVisible()) {
            out << "answer: "_L1 + part<AnswerText>("answerText")->markdown();
        }
        if (part("answerPlaceholder")->isVisible()) {
            out << "answer placeholder: "_L1 + part<QLabel>("answerPlaceholder")->text();
        }
        if (part("noticeBar")->isVisible()) {
            out << "notice: "_L1 + part<QLabel>("notice")->text();
        }
        return out;
    }
};

const QString idleHeader = u"switch: Start"_s;
const QString pressToStart = u"strip: Press Ctrl+Alt+S to start listening."_s;
const QString answersAppear =
    u"answer placeholder: Answers appear here as soon as the interviewer asks a question."_s;

}  // namespace

class OverlayViewTest : public QObject {
    Q_OBJECT

private slots:
    void showsTheSessionState_data();
    void showsTheSessionState();
    void longUtteranceKeepsItsNewestWords();
    void growingAnswerStaysScrolledToItsEnd();
    void buttonsForwardTheirPress_data();
    void buttonsForwardTheirPress();
};

void OverlayViewTest::showsTheSessionState_data() {
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QStringList>("shown");

    const QStringList idleDots{u"Call: off"_s, u"Mic: off"_s};
    const QString hand = u"click-through: hand.raised"_s;

    QTest::newRow("fresh start, not listening")
        << QStringList{}
        << QStringList{idleHeader, idleDots[0], idleDots[1], hand, pressToStart, answersAppear};
    QTest::newRow("listening with an empty transcript")
        << QStringList{u"listen"_s}
        << QStringList{u"switch: Listening"_s,
                       u"Call: working"_s,
                       u"Mic: working"_s,
                       hand,
                       u"strip: Listening for the interviewer\u2026"_s,
                       answersAppear};
    QTest::newRow("last two lines, then dimmed rows of both speakers")
        << QStringList{u"listen"_s,      u"say I one"_s,   u"say M two"_s,
                       u"say I three"_s, u"hear I four"_s, u"hear M five"_s}
        << QStringList{u"switch: Listening"_s, u"Call: working"_s, u"Mic: working"_s, hand,
                       u"YOU: two"_s,          u"THEM: three"_s,   u"THEM~ four"_s,   u"YOU~ five"_s,
                       answersAppear};
    QTest::newRow("microphone off hides its dot")
        << QStringList{u"mic off"_s}
        << QStringList{idleHeader, idleDots[0], hand, pressToStart, answersAppear};
    QTest::newRow("click-through on crosses out the hand")
        << QStringList{u"click-through on"_s}
        << QStringList{idleHeader,   idleDots[0],  idleDots[1], u"click-through: hand.raised.slash"_s,
                       pressToStart, answersAppear};
    QTest::newRow("a stream problem turns its dot red and shows the notice")
        << QStringList{u"listen"_s, u"streamfail I Speech service unavailable."_s}
        << QStringList{u"switch: Listening"_s,
                       u"Call: problem \u2014 see the message below"_s,
                       u"Mic: working"_s,
                       hand,
                       u"strip: Listening for the interviewer\u2026"_s,
                       answersAppear,
                       u"notice: Speech service unavailable."_s};
    QTest::newRow("answer requested, nothing received: question and spinner")
        << QStringList{u"ask Why this role?"_s}
        << QStringList{idleHeader,  idleDots[0],  idleDots[1],
                       hand,        pressToStart, u"question: Why this role?"_s,
                       u"spinner"_s};
    QTest::newRow("the first piece replaces the spinner")
        << QStringList{u"ask Why this role?"_s, u"piece Because **it fits**"_s}
        << QStringList{idleHeader,
                       idleDots[0],
                       idleDots[1],
                       hand,
                       pressToStart,
                       u"question: Why this role?"_s,
                       u"answer: Because **it fits**"_s};
    QTest::newRow("a failed request keeps the question, nothing under it, and notices")
        << QStringList{u"ask Why this role?"_s, u"fail The network is down."_s}
        << QStringList{idleHeader,
                       idleDots[0],
                       idleDots[1],
                       hand,
                       pressToStart,
                       u"question: Why this role?"_s,
                       u"notice: The network is down."_s};
    QTest::newRow("the notice goes when the notice becomes none")
        << QStringList{u"ask Why this role?"_s, u"fail The network is down."_s, u"clear"_s}
        << QStringList{idleHeader, idleDots[0], idleDots[1], hand, pressToStart, answersAppear};
}

void OverlayViewTest::showsTheSessionState() {
    QFETCH(QStringList, steps);
    QFETCH(QStringList, shown);
    Rig rig;
    rig.run(steps);
    QCOMPARE(rig.shown(), shown);
    // Every state fits the panel's smallest size.
    QVERIFY(rig.view.minimumSizeHint().width() <= 320);
}

// An utterance longer than the strip's two lines is cut at its beginning, so the newest words show.
void OverlayViewTest::longUtteranceKeepsItsNewestWords() {
    Rig rig;
    QString words;
    for (int i = 0; i < 60; ++i) {
        words += u"word%1 "_s.arg(i);
    }
    words = words.trimmed();
    rig.run({u"listen"_s, "hear I "_L1 + words});
    QWidget* row = rig.view.findChildren<QWidget*>(u"transcriptRow"_s).first();
    const QString cut = row->property("shownText").toString();
    QVERIFY2(cut.startsWith(u'\u2026'), qPrintable(cut));
    QVERIFY(cut.endsWith(u"word59"_s));
    QVERIFY(cut.size() < words.size());
    QCOMPARE(row->height(),
             2 * QFontMetrics(rig.view.findChild<QLabel*>(u"stripPlaceholder"_s)->font()).height());

    // Words that fit again are shown whole.
    rig.run({"hear I short again"_L1});
    QCOMPARE(row->property("shownText").toString(), u"short again"_s);
}

void OverlayViewTest::growingAnswerStaysScrolledToItsEnd() {
    Rig rig;
    rig.run({u"ask Walk me through a project."_s});
    QScrollBar* bar = rig.part<QScrollArea>("answerArea")->verticalScrollBar();
    for (int i = 0; i < 30; ++i) {
        rig.fake.answerPiece(u"- Point %1 of the answer, long enough to wrap inside the panel.\n"_s.arg(i));
        QCoreApplication::sendPostedEvents();
        QCOMPARE(bar->value(), bar->maximum());
    }
    QVERIFY(bar->maximum() > 0);

    // Scrolling back to read is respected until the answer grows again.
    bar->triggerAction(QAbstractSlider::SliderToMinimum);
    rig.view.resize(340, 400);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(bar->value(), 0);
    rig.fake.answerPiece(u"- The end."_s);
    QCoreApplication::sendPostedEvents();
    QCOMPARE(bar->value(), bar->maximum());
}

void OverlayViewTest::buttonsForwardTheirPress_data() {
    QTest::addColumn<QString>("button");
    QTest::addColumn<QString>("accessibleName");
    QTest::addColumn<QString>("toolTip");
    QTest::addColumn<QStringList>("after");

    const QString asked = u"question: Why?"_s;
    QTest::newRow("listening switch starts the session")
        << u"listeningSwitch"_s << u"Start"_s << u"Start or stop listening (Ctrl+Alt+S)"_s
        << QStringList{u"running"_s, asked};
    QTest::newRow("answer now asks the session")
        << u"answerNowButton"_s << u"Answer now (Ctrl+Alt+Enter)"_s << u"Answer now (Ctrl+Alt+Enter)"_s
        << QStringList{asked, u"notice: Start listening first (Ctrl+Alt+S)."_s};
    QTest::newRow("clear empties the answer area")
        << u"clearButton"_s << u"Clear (Ctrl+Alt+K)"_s << u"Clear (Ctrl+Alt+K)"_s << QStringList{};
    QTest::newRow("click-through goes to the shell")
        << u"clickThroughButton"_s << u"Click-through (Ctrl+Alt+X)"_s << u"Click-through (Ctrl+Alt+X)"_s
        << QStringList{u"clickThroughToggleRequested"_s, asked};
    QTest::newRow("settings goes to the shell") << u"settingsButton"_s << u"Settings"_s << u"Settings"_s
                                                << QStringList{u"settingsRequested"_s, asked};
    QTest::newRow("hide goes to the shell")
        << u"hideButton"_s << u"Hide (Ctrl+Alt+Space)"_s << u"Hide (Ctrl+Alt+Space)"_s
        << QStringList{u"hideRequested"_s, asked};
}

void OverlayViewTest::buttonsForwardTheirPress() {
    QFETCH(QString, button);
    QFETCH(QString, accessibleName);
    QFETCH(QString, toolTip);
    QFETCH(QStringList, after);

    Rig rig;
    rig.run({u"ask Why?"_s});
    QStringList emitted;
    for (const auto& [name, signal] :
         {std::pair{"clickThroughToggleRequested", &OverlayView::clickThroughToggleRequested},
          {"settingsRequested", &OverlayView::settingsRequested},
          {"hideRequested", &OverlayView::hideRequested}}) {
        QObject::connect(&rig.view, signal, &rig.view, [&emitted, name] { emitted << QLatin1String(name); });
    }

    auto* pressed = rig.part<QAbstractButton>(button.toLatin1().constData());
    QCOMPARE(QAccessible::queryAccessibleInterface(pressed)->text(QAccessible::Name), accessibleName);
    QCOMPARE(pressed->toolTip(), toolTip);
    QTest::mouseClick(pressed, Qt::LeftButton);

    SessionController& session = rig.fake.session();
    if (session.isRunning()) {
        emitted << u"running"_s;
    }
    if (!session.question().isEmpty()) {
        emitted << "question: "_L1 + session.question();
    }
    if (!session.notice().isEmpty()) {
        emitted << "notice: "_L1 + session.notice();
    }
    QCOMPARE(emitted, after);
}

QTEST_MAIN(OverlayViewTest)
#include "tst_overlayview.moc"
