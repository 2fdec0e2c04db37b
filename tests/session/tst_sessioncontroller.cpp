#include "appsettings.h"
#include "sessioncontroller.h"
#include "sessionfakes.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace std::chrono_literals;
using Health = SessionController::Health;
using Event = SpeechStream::Event;
using namespace Qt::StringLiterals;

namespace {

const QString interviewer = QStringLiteral("Interviewer");
const QString you = QStringLiteral("You");
const QString micOffNotice =
    QStringLiteral("Microphone access is off, so Tallowind only hears the interviewer.");
const QString cantHearNotice = QStringLiteral(
    "Tallowind can't hear your computer's audio. Check that your sound settings have an output device, "
    "then start listening again.");
const QString reconnecting = QStringLiteral("Reconnecting to speech service…");
const BackendError noDisplay = BackendError::server("No display found to capture audio from.");

// A controller over fakes, with its settings in a file of its own.
struct Rig {
    QTemporaryDir dir;
    AppSettings settings{dir.filePath(QStringLiteral("settings.ini"))};
    FakeStreams streams;
    std::shared_ptr<FakeCapture::Record> system = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeCapture::Record> mic = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeBackend::Record> backend = std::make_shared<FakeBackend::Record>();
    std::shared_ptr<FakeMicrophoneAccess::Record> access = std::make_shared<FakeMicrophoneAccess::Record>();
    std::shared_ptr<ManualClock::Record> clock = std::make_shared<ManualClock::Record>();
    std::unique_ptr<SessionController> session;

    explicit Rig(bool useMic = false, bool autoAnswer = false) {
        settings.setUseMic(useMic);
        settings.setAutoAnswer(autoAnswer);
        SessionController::Parts parts;
        parts.settings = &settings;
        parts.backend = std::make_unique<FakeBackend>(backend);
        parts.makeStream = streams.factory();
        parts.systemCapture = std::make_unique<FakeCapture>(system);
        parts.micCapture = std::make_unique<FakeCapture>(mic);
        parts.microphoneAccess = std::make_unique<FakeMicrophoneAccess>(access);
        parts.clock = std::make_unique<ManualClock>(clock);
        session = std::make_unique<SessionController>(std::move(parts));
    }

    // Starts a session whose captures are running; the microphone's too when it is used.
    void listen() {
        session->start();
        FakeCapture::finishStart(*system, Done{});
        if (settings.useMic()) {
            access->answerAll(true);
            FakeCapture::finishStart(*mic, Done{});
        }
    }

    // Stream events, each handed over through the event loop: "I final A", "M final! B" (end of
    // utterance), "I interim C", "M utteranceEnd", "I connected", "I failed message"; and "stop".
    void run(const QStringList& steps) {
        for (const QString& step : steps) {
            if (step == QLatin1String("stop")) {
                session->stop();
                continue;
            }
            const QString kind = step.section(QLatin1Char(' '), 1, 1);
            const QString text = step.section(QLatin1Char(' '), 2);
            const QMap<QString, Event> events{
                {"final", Event::final(text, false)}, {"final!", Event::final(text, true)},
                {"interim", Event::interim(text)},    {"utteranceEnd", Event::utteranceEnd()},
                {"connected", Event::connected()},    {"failed", Event::failed(text)}};
            QVERIFY2(events.contains(kind), qPrintable(step));
            const Event event = events.value(kind);
            streams.report(step.startsWith(QLatin1Char('M')) ? you : interviewer, event);
            QCoreApplication::sendPostedEvents();
        }
    }

    // "I:text" and "M:text" for each committed line, then "I~text" and "M~text" for words still heard.
    QStringList transcript() const {
        QStringList out;
        for (const TranscriptLine& line : session->lines()) {
            out << (line.speaker == Speaker::me ? QStringLiteral("M:") : QStringLiteral("I:")) + line.text;
        }
        if (!session->interimInterviewer().isEmpty()) {
            out << QStringLiteral("I~") + session->interimInterviewer();
        }
        if (!session->interimMe().isEmpty()) {
            out << QStringLiteral("M~") + session->interimMe();
        }
        return out;
    }

    QStringList questionsAsked() const {
        QStringList out;
        for (const auto& answer : backend->answers) {
            out << answer->request.question;
        }
        return out;
    }
};

}  // namespace

class SessionControllerTest : public QObject {
    Q_OBJECT

private slots:
    void everyAssignmentNotifiesOnce();
    void toggleStartsAndStops();
    void toggleWhileSignedOutOnlyShowsNotice();
    void microphone_data();
    void microphone();
    void microphoneAccessAfterStopDoesNothing();
    void systemCaptureFailure_data();
    void systemCaptureFailure();
    void systemCaptureEndedByServer_data();
    void systemCaptureEndedByServer();
    void quickStartStopLeavesNothingCaptured();
    void quickStopStartKeepsNewSession();
    void restartKeepsTranscriptAndAnswer();

    void transcriptAssembly_data();
    void transcriptAssembly();
    void transcriptWindow_data();
    void transcriptWindow();
    void streamStatus_data();
    void streamStatus();
    void eventsScheduledBeforeStopAreIgnored();

    void automaticAnswer_data();
    void automaticAnswer();
    void twoAutomaticTriggersInARow();
    void answerRequestAndPieces();
    void clearDuringStreaming();
    void errorAfterSomePieces();
    void answerNow_data();
    void answerNow();

    void metering_data();
    void metering();
};

void SessionControllerTest::everyAssignmentNotifiesOnce() {
    Rig rig;
    SessionController& session = *rig.session;
    QSignalSpy notice(&session, &SessionController::noticeChanged);
    QSignalSpy question(&session, &SessionController::questionChanged);
    QSignalSpy answer(&session, &SessionController::answerChanged);
    QSignalSpy answering(&session, &SessionController::isAnsweringChanged);

    session.answerNow();
    session.answerNow();
    QCOMPARE(notice.count(), 2);
    QCOMPARE(session.notice(), QStringLiteral("Start listening first (Ctrl+Alt+S)."));
    session.clear();
    session.clear();
    QCOMPARE(notice.count(), 4);
    QCOMPARE(question.count(), 2);
    QCOMPARE(answer.count(), 2);
    QCOMPARE(answering.count(), 2);
}

void SessionControllerTest::toggleStartsAndStops() {
    Rig rig;
    SessionController& session = *rig.session;
    QSignalSpy running(&session, &SessionController::isRunningChanged);
    session.stop();  // when idle: changes nothing
    QCOMPARE(running.count(), 0);
    QCOMPARE(rig.system->stops, 0);
    QVERIFY(rig.backend->usage.isEmpty());
    QCOMPARE(rig.streams.count(), 0);

    session.toggle();
    QVERIFY(session.isRunning());
    QCOMPARE(session.systemAudio(), Health::connecting);
    QCOMPARE(session.mic(), Health::off);
    QCOMPARE(rig.streams.count(), 1);
    FakeStreams::Record& stream = *rig.streams.latest(interviewer);
    QCOMPARE(stream.label, interviewer);
    QCOMPARE(stream.starts, 1);
    QCOMPARE(rig.system->state, FakeCapture::State::starting);
    QCOMPARE(rig.clock->liveTimers(), 1);

    FakeCapture::finishStart(*rig.system, Done{});
    QCOMPARE(session.systemAudio(), Health::connecting);
    FakeCapture::deliver(*rig.system, 640);
    QCOMPARE(stream.sent().size(), 1);

    session.toggle();
    QVERIFY(!session.isRunning());
    QCOMPARE(running.count(), 2);
    QCOMPARE(rig.system->state, FakeCapture::State::idle);
    QCOMPARE(rig.mic->stops, 1);  // stopped also when not used
    QCOMPARE(stream.stops, 1);
    QVERIFY(!stream.alive);
    QCOMPARE(rig.clock->liveTimers(), 0);
    QCOMPARE(session.systemAudio(), Health::off);
    QCOMPARE(session.mic(), Health::off);
}

void SessionControllerTest::toggleWhileSignedOutOnlyShowsNotice() {
    Rig rig;
    rig.backend->signedIn = false;
    QSignalSpy notice(rig.session.get(), &SessionController::noticeChanged);
    for (int i = 1; i <= 2; ++i) {
        rig.session->toggle();
        QVERIFY(!rig.session->isRunning());
        QCOMPARE(rig.session->notice(), QStringLiteral("Sign in to start listening."));
        QCOMPARE(notice.count(), i);
    }
    QCOMPARE(rig.streams.count(), 0);
    QCOMPARE(rig.system->starts, 0);
    QCOMPARE(rig.session->systemAudio(), Health::off);
    QCOMPARE(rig.clock->liveTimers(), 0);
}

void SessionControllerTest::microphone_data() {
    QTest::addColumn<bool>("useMic");
    QTest::addColumn<QVariant>("granted");        // invalid: not answered yet
    QTest::addColumn<QVariant>("captureStarts");  // invalid: not completed yet
    QTest::addColumn<Health>("health");
    QTest::addColumn<QString>("notice");
    QTest::addColumn<int>("userStreamStarts");  // -1: no stream made
    QTest::addColumn<int>("captureStartCalls");

    const QVariant open;
    QTest::newRow("not used: no stream, no request") << false << open << open << Health::off << "" << -1 << 0;
    QTest::newRow("waiting for access: stream made, not started")
        << true << open << open << Health::connecting << "" << 0 << 0;
    QTest::newRow("granted, capture running: stream connects")
        << true << QVariant(true) << QVariant(true) << Health::connecting << "" << 1 << 1;
    QTest::newRow("refused") << true << QVariant(false) << open << Health::problem << micOffNotice << 0 << 0;
    QTest::newRow("capture fails: no notice")
        << true << QVariant(true) << QVariant(false) << Health::problem << "" << 0 << 1;
}

void SessionControllerTest::microphone() {
    QFETCH(bool, useMic);
    QFETCH(QVariant, granted);
    QFETCH(QVariant, captureStarts);
    QFETCH(Health, health);
    QFETCH(QString, notice);
    QFETCH(int, userStreamStarts);
    QFETCH(int, captureStartCalls);

    Rig rig(useMic);
    rig.session->start();
    QCOMPARE(rig.access->requests, useMic ? 1 : 0);
    if (granted.isValid()) {
        rig.access->answerAll(granted.toBool());
    }
    if (captureStarts.isValid()) {
        FakeCapture::finishStart(*rig.mic, captureStarts.toBool()
                                               ? Result<Done>(Done{})
                                               : Result<Done>(BackendError::server("No microphone found.")));
    }
    QCOMPARE(rig.session->mic(), health);
    QCOMPARE(rig.session->notice(), notice);
    QCOMPARE(rig.mic->starts, captureStartCalls);
    FakeStreams::Record* stream = rig.streams.latest(you);
    QCOMPARE(stream ? stream->starts : -1, userStreamStarts);
    // The interviewer's side does not wait for the microphone.
    QCOMPARE(rig.streams.latest(interviewer)->starts, 1);
    QCOMPARE(rig.session->systemAudio(), Health::connecting);

    if (userStreamStarts == 1) {
        FakeCapture::deliver(*rig.mic, 320, 3);
        QCOMPARE(stream->sent().size(), 3);
        QCOMPARE(rig.streams.latest(interviewer)->sent().size(), 0);
    }
}

void SessionControllerTest::microphoneAccessAfterStopDoesNothing() {
    Rig rig(true);
    rig.session->start();
    FakeCapture::finishStart(*rig.system, Done{});
    rig.session->stop();
    QSignalSpy notice(rig.session.get(), &SessionController::noticeChanged);

    rig.access->answerAll(true);
    QCOMPARE(rig.mic->starts, 0);
    rig.session->start();
    rig.access->answerAll(false);  // both the stale answer and the new one arrive now
    QCOMPARE(rig.session->mic(), Health::problem);
    QCOMPARE(rig.session->notice(), micOffNotice);
    QCOMPARE(notice.count(), 2);  // cleared by start, then set once: the stale answer did nothing
}

void SessionControllerTest::systemCaptureFailure_data() {
    QTest::addColumn<QStringList>("steps");  // "fail" (the capture's start), "connected", "stop"
    QTest::addColumn<Health>("health");
    QTest::addColumn<bool>("running");

    QTest::newRow("failure, then connected") << QStringList{"fail", "connected"} << Health::ok << true;
    QTest::newRow("connected, then failure") << QStringList{"connected", "fail"} << Health::problem << true;
    QTest::newRow("failure after a quick stop") << QStringList{"stop", "fail"} << Health::problem << false;
}

void SessionControllerTest::systemCaptureFailure() {
    QFETCH(QStringList, steps);
    QFETCH(Health, health);
    QFETCH(bool, running);

    Rig rig;
    rig.session->start();
    for (const QString& step : steps) {
        if (step == QLatin1String("fail")) {
            FakeCapture::finishStart(*rig.system, noDisplay);
            QCOMPARE(rig.session->systemAudio(), Health::problem);
        } else if (step == QLatin1String("connected")) {
            rig.run({"I connected"});
        } else {
            rig.session->stop();
            QCOMPARE(rig.session->systemAudio(), Health::off);
        }
    }
    QCOMPARE(rig.session->systemAudio(), health);
    QCOMPARE(rig.session->isRunning(), running);
    QCOMPARE(rig.session->notice(), cantHearNotice);
}

void SessionControllerTest::systemCaptureEndedByServer_data() {
    QTest::addColumn<QString>("reason");
    QTest::addColumn<QString>("notice");

    QTest::newRow("with the server's reason")
        << "The device went away"
        << "System audio stopped: The device went away. Press Ctrl+Alt+S twice to restart.";
    QTest::newRow("without a reason")
        << ""
        << "System audio stopped: unknown reason. Press Ctrl+Alt+S twice to restart.";
}

void SessionControllerTest::systemCaptureEndedByServer() {
    QFETCH(QString, reason);
    QFETCH(QString, notice);

    Rig rig;
    rig.listen();
    rig.run({"I connected"});
    FakeCapture::end(*rig.system, Failure::other(reason));
    QCOMPARE(rig.session->systemAudio(), Health::problem);
    QCOMPARE(rig.session->notice(), notice);
    QVERIFY(rig.session->isRunning());

    // After stop the capture's end is no news.
    rig.session->stop();
    FakeCapture::end(*rig.system, Failure::other(reason));
    QCOMPARE(rig.session->systemAudio(), Health::off);
}

void SessionControllerTest::quickStartStopLeavesNothingCaptured() {
    Rig rig;
    rig.session->start();
    FakeStreams::Record& stream = *rig.streams.latest(interviewer);
    rig.session->stop();
    // The recording delivers before its start has been reported to the session.
    FakeCapture::deliver(*rig.system, 32000, 5);
    QCOMPARE(stream.sent().size(), 0);
    FakeCapture::finishStart(*rig.system, Done{});
    QCOMPARE(rig.system->state, FakeCapture::State::idle);
    QCOMPARE(rig.session->systemAudio(), Health::off);
    QCOMPARE(rig.session->notice(), QString());

    // Nothing was counted: a later session reports only its own audio.
    rig.listen();
    FakeCapture::deliver(*rig.system, 32000, 2);
    rig.session->stop();
    QCOMPARE(rig.backend->usage, QList<double>{2.0});
}

void SessionControllerTest::quickStopStartKeepsNewSession() {
    Rig rig;
    rig.session->start();
    rig.session->stop();
    rig.session->start();  // the capture drops the first start, which then fails
    QCoreApplication::sendPostedEvents();
    QCOMPARE(rig.session->systemAudio(), Health::connecting);
    QCOMPARE(rig.session->notice(), QString());
    FakeCapture::finishStart(*rig.system, Done{});
    QCOMPARE(rig.system->state, FakeCapture::State::running);
    FakeCapture::deliver(*rig.system, 320);
    QCOMPARE(rig.streams.latest(interviewer)->sent().size(), 1);
}

void SessionControllerTest::restartKeepsTranscriptAndAnswer() {
    Rig rig(false, true);
    rig.listen();
    rig.run({"I final! What is your name?"});
    rig.backend->answers.back()->piece(QStringLiteral("Ada"));
    rig.backend->answers.back()->end();
    rig.session->stop();
    rig.listen();
    QCOMPARE(rig.transcript(), QStringList{"I:What is your name?"});
    QCOMPARE(rig.session->question(), QStringLiteral("What is your name?"));
    QCOMPARE(rig.session->answer(), QStringLiteral("Ada"));
    QCOMPARE(rig.streams.count(), 2);
}

void SessionControllerTest::transcriptAssembly_data() {
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QStringList>("transcript");

    using L = QStringList;
    QTest::newRow("final without end, then interim") << L{"I final A", "I interim B"} << L{"I~A B"};
    QTest::newRow("interim replaces interim") << L{"I interim a", "I interim a b"} << L{"I~a b"};
    QTest::newRow("empty final with end clears interim") << L{"I interim B", "I final! "} << L{};
    QTest::newRow("utterance end with no final clears interim") << L{"M interim um", "M utteranceEnd"} << L{};
    QTest::newRow("utterance end commits gathered finals")
        << L{"I final A", "I final B", "I utteranceEnd"} << L{"I:A B"};
    QTest::newRow("speakers interleave, lines in commit order")
        << L{"I final A", "M final X", "M interim Y", "I final! B", "M final! Z", "I interim C"}
        << L{"I:A B", "M:X Z", "I~C"};
    QTest::newRow("one speaker's end leaves the other pending")
        << L{"I final A", "M final X", "M utteranceEnd"} << L{"M:X", "I~A"};
    QTest::newRow("stop commits what both speakers were saying")
        << L{"I final Why did you", "I final leave?", "M interim well",
             "M final Well",        "I interim so",   "stop"}
        << L{"I:Why did you leave?", "M:Well"};
}

void SessionControllerTest::transcriptAssembly() {
    QFETCH(QStringList, steps);
    QFETCH(QStringList, transcript);

    Rig rig(true);
    rig.listen();
    rig.run(steps);
    QCOMPARE(rig.transcript(), transcript);
}

void SessionControllerTest::transcriptWindow_data() {
    QTest::addColumn<int>("ageMs");  // of the first line when the second is committed
    QTest::addColumn<QStringList>("lines");

    QTest::newRow("exactly 600 seconds") << 600'000 << QStringList{"I:first", "M:second"};
    QTest::newRow("just over 600 seconds") << 600'001 << QStringList{"M:second"};
}

void SessionControllerTest::transcriptWindow() {
    QFETCH(int, ageMs);
    QFETCH(QStringList, lines);

    Rig rig(true);
    rig.listen();
    rig.run({"I final! first"});
    // Nothing ages out while nothing is committed.
    rig.clock->advance(std::chrono::milliseconds(ageMs));
    QCOMPARE(rig.session->lines().size(), 1);
    QSignalSpy changed(rig.session.get(), &SessionController::linesChanged);
    rig.run({"M final! second"});
    QCOMPARE(rig.transcript(), lines);
    QCOMPARE(changed.count(), 2);  // the append, then one for the whole pruning pass
}

void SessionControllerTest::streamStatus_data() {
    QTest::addColumn<bool>("refuseMic");
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<Health>("systemAudio");
    QTest::addColumn<Health>("mic");
    QTest::addColumn<QString>("notice");

    using L = QStringList;
    QTest::newRow("connected") << false << L{"I connected", "M connected"} << Health::ok << Health::ok << "";
    QTest::newRow("failure shows its message as given")
        << false << L{"I connected", "I failed " + reconnecting} << Health::problem << Health::connecting
        << reconnecting;
    QTest::newRow("reconnected clears the reconnecting notice")
        << false << L{"I failed " + reconnecting, "I connected"} << Health::ok << Health::connecting << "";
    QTest::newRow("other failures stay after connected")
        << false << L{"M failed Please sign in again.", "M connected"} << Health::connecting << Health::ok
        << "Please sign in again.";
    QTest::newRow("microphone notice stays after connected")
        << true << L{"I connected"} << Health::ok << Health::problem << micOffNotice;
}

void SessionControllerTest::streamStatus() {
    QFETCH(bool, refuseMic);
    QFETCH(QStringList, steps);
    QFETCH(Health, systemAudio);
    QFETCH(Health, mic);
    QFETCH(QString, notice);

    Rig rig(true);
    rig.session->start();
    FakeCapture::finishStart(*rig.system, Done{});
    rig.access->answerAll(!refuseMic);
    if (!refuseMic) {
        FakeCapture::finishStart(*rig.mic, Done{});
    }
    rig.run(steps);
    QCOMPARE(rig.session->systemAudio(), systemAudio);
    QCOMPARE(rig.session->mic(), mic);
    QCOMPARE(rig.session->notice(), notice);
}

void SessionControllerTest::eventsScheduledBeforeStopAreIgnored() {
    Rig rig(true, true);
    rig.listen();
    rig.streams.report(interviewer, Event::final(QStringLiteral("Are you there?"), true));
    rig.streams.report(interviewer, Event::connected());
    rig.streams.report(you, Event::failed(QStringLiteral("broken")));
    rig.session->stop();
    QSignalSpy anything(rig.session.get(), &SessionController::linesChanged);
    QCoreApplication::sendPostedEvents();
    QVERIFY(rig.session->lines().isEmpty());
    QCOMPARE(anything.count(), 0);
    QCOMPARE(rig.session->systemAudio(), Health::off);
    QCOMPARE(rig.session->mic(), Health::off);
    QCOMPARE(rig.session->notice(), QString());
    QVERIFY(rig.backend->answers.empty());
}

void SessionControllerTest::automaticAnswer_data() {
    QTest::addColumn<bool>("autoAnswer");
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QStringList>("questions");

    using L = QStringList;
    QTest::newRow("interviewer question")
        << true << L{"I final How would you", "I final! scale it"} << L{"How would you scale it"};
    QTest::newRow("automatic answering off") << false << L{"I final! How would you scale it?"} << L();
    QTest::newRow("the user's question never answers") << true << L{"M final! What do you mean?"} << L();
    QTest::newRow("a remark after a question asks again, joined")
        << true << L{"I final! Is it fast?", "I final! Take your time"}
        << L{"Is it fast?", "Is it fast? Take your time"};
    QTest::newRow("the user's line ends the run")
        << true << L{"I final! Is it fast?", "M final! Yes", "I final! Okay great thanks"}
        << L{"Is it fast?"};
    QTest::newRow("separate utterance end triggers too")
        << true << L{"I final Tell me about", "I final yourself", "I utteranceEnd"}
        << L{"Tell me about yourself"};
    QTest::newRow("what stop commits is not answered")
        << true << L{"I final Why did you leave?", "stop"} << L();
    QTest::newRow("only the last four lines")
        << true << L{"I final! Why?", "I final! a", "I final! b", "I final! c", "I final! d"}
        << L{"Why?", "Why? a", "Why? a b", "Why? a b c"};
}

void SessionControllerTest::automaticAnswer() {
    QFETCH(bool, autoAnswer);
    QFETCH(QStringList, steps);
    QFETCH(QStringList, questions);

    Rig rig(true, autoAnswer);
    rig.listen();
    rig.run(steps);
    QCOMPARE(rig.questionsAsked(), questions);
    QCOMPARE(rig.session->isAnswering(), !questions.isEmpty());
    QCOMPARE(rig.session->question(), questions.isEmpty() ? QString() : questions.last());
}

void SessionControllerTest::twoAutomaticTriggersInARow() {
    Rig rig(false, true);
    rig.listen();
    rig.run({"I final! Why Rust?"});
    auto first = rig.backend->answers.back();
    first->piece(QStringLiteral("Because "));
    QCOMPARE(rig.session->answer(), QStringLiteral("Because "));

    QSignalSpy answer(rig.session.get(), &SessionController::answerChanged);
    rig.run({"I final! And not Go"});
    QVERIFY(first->abandoned);
    QCOMPARE(rig.session->answer(), QString());
    QCOMPARE(answer.count(), 1);
    auto second = rig.backend->answers.back();
    QCOMPARE(second->request.question, QStringLiteral("Why Rust? And not Go"));

    // Whatever the first request still delivers is not the session's any more.
    first->handlers.piece(QStringLiteral("stale"));
    first->handlers.ended(BackendError::network(QStringLiteral("gone")));
    second->piece(QStringLiteral("Both "));
    second->piece(QStringLiteral("work."));
    QCOMPARE(rig.session->answer(), QStringLiteral("Both work."));
    QVERIFY(rig.session->isAnswering());
    QCOMPARE(rig.session->notice(), QString());
    second->end();
    QVERIFY(!rig.session->isAnswering());
}

void SessionControllerTest::answerRequestAndPieces() {
    Rig rig(true);
    rig.settings.setResume(QStringLiteral("Ten years of C++"));
    rig.settings.setJobDescription(QStringLiteral("Audio engineer"));
    rig.settings.setExtraInstructions(QStringLiteral("Be brief"));
    rig.listen();
    rig.run({"I final! Hello there", "M final! Hi", "I failed " + reconnecting});
    QCOMPARE(rig.session->notice(), reconnecting);

    rig.session->ask(QStringLiteral("What is RAII?"));
    QCOMPARE(rig.session->notice(), QString());
    QVERIFY(rig.session->isAnswering());
    const SessionBackend::AnswerRequest& request = rig.backend->answers.back()->request;
    QCOMPARE(request.question, QStringLiteral("What is RAII?"));
    QCOMPARE(request.transcript, rig.session->lines());
    QCOMPARE(request.transcript.size(), 2);
    QCOMPARE(request.resume, QStringLiteral("Ten years of C++"));
    QCOMPARE(request.jobDescription, QStringLiteral("Audio engineer"));
    QCOMPARE(request.extraInstructions, QStringLiteral("Be brief"));

    auto& answer = *rig.backend->answers.back();
    for (const char* piece : {"Res", "ource ", "", "acquisition\n", "**is**"}) {
        answer.piece(QString::fromUtf8(piece));
    }
    QCOMPARE(rig.session->answer(), QStringLiteral("Resource acquisition\n**is**"));
    answer.end();
    QVERIFY(!rig.session->isAnswering());
    QCOMPARE(rig.session->answer(), QStringLiteral("Resource acquisition\n**is**"));

    // Answering works without a session, and goes on after stop.
    rig.session->stop();
    rig.session->ask(QStringLiteral("Test question"));
    QVERIFY(rig.session->isAnswering());
}

void SessionControllerTest::clearDuringStreaming() {
    Rig rig;
    rig.session->ask(QStringLiteral("Why?"));
    auto answer = rig.backend->answers.back();
    answer->piece(QStringLiteral("Because"));
    rig.session->clear();
    QCOMPARE(rig.session->answer(), QString());
    QCOMPARE(rig.session->question(), QString());
    QVERIFY(!rig.session->isAnswering());
    QVERIFY(answer->abandoned);
    answer->handlers.piece(QStringLiteral(" late"));
    answer->handlers.ended(std::nullopt);
    QCOMPARE(rig.session->answer(), QString());
    QVERIFY(!rig.session->isAnswering());
}

void SessionControllerTest::errorAfterSomePieces() {
    const QString offline = QStringLiteral("Can't reach Tallowind. Check your internet connection.");
    Rig rig;
    rig.session->ask(QStringLiteral("Why?"));
    auto& answer = *rig.backend->answers.back();
    answer.piece(QStringLiteral("Part one, "));
    answer.piece(QStringLiteral("part two"));
    answer.end(BackendError::network(offline));
    QCOMPARE(rig.session->answer(), QStringLiteral("Part one, part two"));
    QCOMPARE(rig.session->notice(), offline);
    QVERIFY(!rig.session->isAnswering());
}

void SessionControllerTest::answerNow_data() {
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<QString>("question");  // empty: no request
    QTest::addColumn<QString>("notice");

    using L = QStringList;
    QTest::newRow("trailing interviewer lines")
        << L{"I final! Tell me", "M final! ok", "I final! more"} << u"more"_s << "";
    QTest::newRow("with the words still heard")
        << L{"I final! So", "I final what", "I interim next"} << u"So what next"_s << "";
    QTest::newRow("user spoke last: newest interviewer line")
        << L{"I final! A", "I final! A2", "M final! B", "M final! C"} << u"A2"_s << "";
    QTest::newRow("no question is needed") << L{"I final! Okay"} << u"Okay"_s << "";
    QTest::newRow("nothing said, listening")
        << L{"M final! Hello"} << QString() << "Waiting for the interviewer to say something.";
    QTest::newRow("nothing said, idle") << L{"stop"} << QString() << "Start listening first (Ctrl+Alt+S).";
    QTest::newRow("after stop, from the transcript") << L{"I final! Kept", "stop"} << u"Kept"_s << "";
}

void SessionControllerTest::answerNow() {
    QFETCH(QStringList, steps);
    QFETCH(QString, question);
    QFETCH(QString, notice);

    Rig rig(true);
    rig.listen();
    rig.run(steps);
    rig.session->answerNow();
    QCOMPARE(rig.questionsAsked(), question.isEmpty() ? QStringList() : QStringList{question});
    QCOMPARE(rig.session->notice(), notice);
    QCOMPARE(rig.session->isAnswering(), !question.isEmpty());
}

void SessionControllerTest::metering_data() {
    // "second N": N times a second of audio, then a second passes. "bytes B N": N buffers of B bytes.
    // "wait S": S seconds pass.
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<bool>("useMic");
    QTest::addColumn<QList<double>>("reports");

    QTest::newRow("30 seconds: once at stop") << QStringList{"second 30"} << false << QList<double>{30};
    QTest::newRow("microphone audio is not counted")
        << QStringList{"second 150"} << true << QList<double>{60, 60, 30};
    QTest::newRow("under a second: nothing") << QStringList{"bytes 31999 1"} << false << QList<double>();
    QTest::newRow("3 200 bytes are a tenth of a second")
        << QStringList{"bytes 3200 15"} << false << QList<double>{1.5};
    QTest::newRow("under a second at a tick is dropped, not carried")
        << QStringList{"bytes 16000 1", "wait 60", "bytes 19200 1"} << false << QList<double>();
    QTest::newRow("silence at a tick reports nothing")
        << QStringList{"wait 120", "second 2"} << false << QList<double>{2};
}

void SessionControllerTest::metering() {
    QFETCH(QStringList, steps);
    QFETCH(bool, useMic);
    QFETCH(QList<double>, reports);

    Rig rig(useMic);
    rig.listen();
    const auto deliver = [&rig, useMic](int bytes, int count) {
        FakeCapture::deliver(*rig.system, bytes, count);
        if (useMic) {
            FakeCapture::deliver(*rig.mic, bytes, count);
        }
    };
    for (const QString& step : steps) {
        const QStringList words = step.split(QLatin1Char(' '));
        if (words[0] == QLatin1String("second")) {
            for (int i = 0; i < words[1].toInt(); ++i) {
                deliver(32000, 1);
                rig.clock->advance(1s);
            }
        } else if (words[0] == QLatin1String("bytes")) {
            deliver(words[1].toInt(), words[2].toInt());
        } else {
            rig.clock->advance(std::chrono::seconds(words[1].toInt()));
        }
    }
    rig.session->stop();
    // The timer is gone: the last part is reported exactly once.
    rig.clock->advance(180s);
    QCOMPARE(rig.backend->usage.size(), reports.size());
    for (qsizetype i = 0; i < reports.size(); ++i) {
        QVERIFY2(qAbs(rig.backend->usage[i] - reports[i]) < 1e-9,
                 qPrintable(QStringLiteral("report %1 was %2").arg(i).arg(rig.backend->usage[i])));
    }
}

QTEST_GUILESS_MAIN(SessionControllerTest)
#include "tst_sessioncontroller.moc"
