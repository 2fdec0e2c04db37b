#include "appsettings.h"
#include "backendclient.h"
#include "sessionfakes.h"
#include "sessiontext.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QMetaEnum>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using Event = SpeechStream::Event;
using Health = SessionController::Health;

namespace {

const QString micOff = "Microphone access is off, so Tallowind only hears the interviewer.";
const QString cantHear =
    "Tallowind can't hear your computer's audio. Check that your sound settings have an output device, "
    "then start listening again.";

// A controller over fakes, with its settings in a file of its own, driven by a script and read back as text.
struct Rig {
    QTemporaryDir dir;
    AppSettings settings{dir.filePath("settings.ini")};
    FakeStreams streams;
    std::shared_ptr<FakeCapture::Record> system = std::make_shared<FakeCapture::Record>(),
                                         mic = std::make_shared<FakeCapture::Record>();
    std::shared_ptr<FakeBackend::Record> backend = std::make_shared<FakeBackend::Record>();
    std::shared_ptr<FakeMicrophoneAccess::Record> access = std::make_shared<FakeMicrophoneAccess::Record>();
    std::shared_ptr<ManualClock::Record> clock = std::make_shared<ManualClock::Record>();
    std::unique_ptr<SessionController> session;
    std::vector<std::pair<QByteArray, std::unique_ptr<QSignalSpy>>> notifications;

    // Over the real backend `client` and real speech streams when given one.
    explicit Rig(BackendClient* client = nullptr) {
        settings.setUseMic(false);
        settings.setAutoAnswer(false);
        session = std::make_unique<SessionController>(SessionController::Parts{
            &settings, client ? SessionBackend::over(*client) : std::make_unique<FakeBackend>(backend),
            client ? SessionController::StreamFactory() : streams.factory(),
            std::make_unique<FakeCapture>(system), std::make_unique<FakeCapture>(mic),
            std::make_unique<FakeMicrophoneAccess>(access), std::make_unique<ManualClock>(clock)});
    }

    // Steps separated by "; ", named after what they do to the session, its settings, its captures
    // ("system|mic ok|fail|end REASON|audio COUNT BYTES"), its streams ("I|M EVENT TEXT"; "final!" ends the
    // utterance) or every answer so far ("piece|end|fail"). "seconds N": N seconds of audio from both
    // captures; "mark": count notifications from here. The event loop runs after each step not "queued".
    void run(const QString& script) {
        for (QString step : script.split("; ", Qt::SkipEmptyParts)) {
            const bool queued = step.startsWith("queued ");
            step = step.mid(queued ? 7 : 0);
            const QString verb = step.section(' ', 0, 0), arg = step.section(' ', 1);
            const QString word = arg.section(' ', 0, 0), rest = arg.section(' ', 1);
            const QMap<QString, Event> events{
                {"final", Event::final(rest, false)}, {"final!", Event::final(rest, true)},
                {"interim", Event::interim(rest)},    {"utteranceEnd", Event::utteranceEnd()},
                {"connected", Event::connected()},    {"failed", Event::failed(rest)}};
            const QString second = "system audio 1 32000; mic audio 1 32000; wait 1";
            const auto capture = [&](FakeCapture::Record& capture) {
                word == "audio" ? FakeCapture::deliver(capture, rest.section(' ', 1).toInt(),
                                                       rest.section(' ', 0, 0).toInt())
                : word == "end" ? FakeCapture::end(capture, Failure::other(rest))
                                : FakeCapture::finishStart(
                                      capture, word == "ok" ? Result<Done>(Done{})
                                                            : BackendError::server("No device found."));
            };
            const auto answers = [&](const std::optional<Failure>& failure = {}, bool ended = true) {
                for (const auto& answer : backend->answers) ended ? answer->end(failure) : answer->piece(arg);
            };
            const QMap<QString, std::function<void()>> steps{
                {"useMic", [&] { settings.setUseMic(true); }},
                {"autoAnswer", [&] { settings.setAutoAnswer(true); }},
                {"signedOut", [&] { backend->signedIn = false; }},
                {"start", [&] { session->start(); }},
                {"stop", [&] { session->stop(); }},
                {"answerNow", [&] { session->answerNow(); }},
                {"clear", [&] { session->clear(); }},
                {"ask", [&] { session->ask(arg); }},
                {"listen", [&] { run("start; system ok; access yes; mic ok"); }},
                {"system", [&] { capture(*system); }},
                {"mic", [&] { capture(*mic); }},
                {"access", [&] { access->answerAll(arg == "yes"); }},
                {"seconds", [&] { run(QStringList(arg.toInt(), second).join("; ")); }},
                {"wait", [&] { clock->advance(std::chrono::milliseconds(qRound64(arg.toDouble() * 1000))); }},
                {"I", [&] { streams.report("Interviewer", events.value(word)); }},
                {"M", [&] { streams.report("You", events.value(word)); }},
                {"piece", [&] { answers({}, false); }},
                {"end", [&] { answers(); }},
                {"fail", [&] { answers(BackendError::network(arg)); }},
                {"mark",
                 [&] {
                     const QMetaObject& meta = SessionController::staticMetaObject;
                     for (int i = meta.propertyOffset(); i < meta.propertyCount(); ++i) {
                         notifications.emplace_back(
                             meta.property(i).name(),
                             new QSignalSpy(session.get(), meta.property(i).notifySignal()));
                     }
                 }},
            };
            QVERIFY2(steps.contains(verb) && (verb.size() > 1 || events.contains(word)), qPrintable(step));
            steps[verb]();
            if (!queued)
                QCoreApplication::sendPostedEvents();
        }
    }

    // What the overlay shows, what the backend was sent and what announced a change since "mark" (how
    // often), each only when not at rest; health when not implied (connecting while used, else off).
    QString summary() const {
        const SessionController& s = *session;
        const auto labelled = [](const QString& label, const QString& value) {
            return value.isEmpty() ? value : label + value;
        };
        const auto health = [&s](const QString& name, Health health, bool used) {
            const bool implied = health == (s.isRunning() && used ? Health::connecting : Health::off);
            return implied ? QString() : name + QMetaEnum::fromType<Health>().valueToKey(int(health));
        };
        QStringList out{s.isRunning() ? "running" : "", health("system ", s.systemAudio(), true),
                        health("mic ", s.mic(), settings.useMic())};
        for (const TranscriptLine& line : s.lines())
            out << (line.speaker == Speaker::me ? "M: " : "I: ") + line.text;
        QStringList asked;
        for (const auto& answer : backend->answers)
            asked << answer->request.question + (answer->abandoned ? " (dropped)" : "");
        // What a stopped session must have let go of.
        const bool held = system->state == CaptureRecord::State::running ||
                          mic->state == CaptureRecord::State::running ||
                          std::ranges::any_of(streams.made, [](const auto& r) { return r->alive; });
        out << (held && !s.isRunning() ? "audio held" : "");
        out << labelled("I~ ", s.interimInterviewer()) << labelled("M~ ", s.interimMe())
            << labelled("Q: ", s.question()) << labelled("A: ", s.answer())
            << (s.isAnswering() ? "answering" : "") << labelled("notice: ", s.notice())
            << labelled("asked: ", asked.join(" / ")) << labelled("usage: ", backend->usage.join(' '));
        for (const auto& [name, spy] : notifications)
            out << (spy->isEmpty() ? QString() : name + " x" + QString::number(spy->count()));
        out.removeAll(QString());
        return out.join(" | ");
    }
};

void columns() {
    QTest::addColumn<QString>("script");
    QTest::addColumn<QString>("expected");
}

template <typename... Values>
void row(const char* name, const Values&... values) {
    (QTest::newRow(name) << ... << QString(values));
}

}  // namespace

class SessionControllerTest : public QObject {
    Q_OBJECT

    // Runs `before` and the row's script on a fresh rig and compares the summary.
    static void check(const QString& before = {}) {
        QFETCH(QString, script);
        QFETCH(QString, expected);
        Rig rig;
        rig.run(before + script);
        QCOMPARE(rig.summary(), expected);
    }

private slots:
    void capturesStreamsAndNoticesFollowStartAndStop_data() {
        columns();
        const QString ended = "running | system problem | notice: System audio stopped: ",
                      restart = ". Press Ctrl+Alt+S twice to restart.";
        row("signed out: only a notice", "signedOut; start", "notice: Sign in to start listening.");
        row("stop lets go of captures and streams", "useMic; listen; stop", "");
        row("microphone refused", "useMic; start; access no", "running | mic problem | notice: " + micOff);
        row("microphone access after stop starts nothing", "useMic; start; stop; access yes; mic ok", "");
        row("a capture that starts after stop is stopped", "start; stop; system ok", "");
        row("a start cut short by a new one does not fail it", "start; stop; start; system ok", "running");
        row("capture fails, then stream connects", "start; system fail; I connected",
            "running | system ok | notice: " + cantHear);
        row("capture fails after a quick stop", "start; stop; system fail",
            "system problem | notice: " + cantHear);
        row("capture ended by the server", "listen; system end It went away",
            ended + "It went away" + restart);
        row("capture ended without a reason", "listen; system end", ended + "unknown reason" + restart);
        row("capture ending after stop is no news", "listen; stop; system end gone", "");
        row("microphone capture fails without a notice", "useMic; start; access yes; mic fail",
            "running | mic problem");
        row("reconnecting notice goes at connected",
            "listen; I failed Reconnecting to speech service…; I connected", "running | system ok");
        row("other failures stay after connected", "useMic; listen; M failed Sign in again.; M connected",
            "running | mic ok | notice: Sign in again.");
        row("events handed over before stop are ignored",
            "autoAnswer; useMic; listen; queued I final! Hi?; queued I connected; queued M failed no; stop",
            "");
    }
    void capturesStreamsAndNoticesFollowStartAndStop() { check(); }

    void transcriptKeepsWhatEachSpeakerFinished_data() {
        columns();
        row("final without end, then interim", "I final A; I interim B", "running | I~ A B");
        row("utterance end with no final clears interim", "M interim um; M utteranceEnd", "running");
        row("utterance end commits gathered finals", "I final A; I final B; I utteranceEnd",
            "running | I: A B");
        row("speakers interleave, lines in commit order",
            "I final A; M final X; M interim Y; I final! B; M final! Z; I interim C",
            "running | I: A B | M: X Z | I~ C");
        row("stop commits what both speakers were saying",
            "I final So; I final why?; M interim ok; M final Ok; stop", "I: So why? | M: Ok");
        row("words are joined as delivered", "I final a ; I final ; I interim  b", "running | I~ a   b");
        row("a line 600 seconds old stays", "I final! A; wait 600; M final! B", "running | I: A | M: B");
        row("an older line goes at the next commit", "I final! A; wait 600.001; M final! B",
            "running | M: B");
    }
    void transcriptKeepsWhatEachSpeakerFinished() { check("useMic; listen; "); }

    void answersFollowTheQuestionsAsked_data() {
        columns();
        const QString auto_ = "autoAnswer; useMic; listen; ", now = "useMic; listen; ";
        row("interviewer question", auto_ + "I final How are; I final! you",
            "running | I: How are you | Q: How are you | answering | asked: How are you");
        row("automatic answering off", now + "I final! Why?", "running | I: Why?");
        row("the user's question is never answered", auto_ + "M final! Why?", "running | M: Why?");
        row("what stop commits is not answered", auto_ + "I final Why?; stop", "I: Why?");
        row("a separate utterance end triggers too", auto_ + "I final Why; I final not?; I utteranceEnd",
            "running | I: Why not? | Q: Why not? | answering | asked: Why not?");
        row("a new question drops the answer under way",
            auto_ + "I final! Why?; piece Because; I final! Or not?; piece Both; piece  work.; fail late",
            "running | I: Why? | I: Or not? | Q: Why? Or not? | A: Both work. | notice: late | asked: Why? "
            "(dropped) / Why? Or not?");
        row("asking clears the notice, pieces are appended, the end stops answering",
            "answerNow; ask Why?; piece Res; piece ource ; piece ; piece **is**\n; end",
            "Q: Why? | A: Resource **is**\n | asked: Why?");
        row("clear drops the answer under way", "ask Why?; piece Because; clear; piece late; fail gone",
            "asked: Why? (dropped)");
        row("a new session keeps transcript and answer",
            auto_ + "I final! Why?; piece Ada; end; stop; listen",
            "running | I: Why? | Q: Why? | A: Ada | asked: Why?");
        row("answer now: with the words still heard",
            now + "I final! So; I final what; I interim next; answerNow",
            "running | I: So | I~ what next | Q: So what next | answering | asked: So what next");
        row("answer now: user spoke last, newest interviewer line",
            now + "I final! A; I final! B; M final! C; answerNow",
            "running | I: A | I: B | M: C | Q: B | answering | asked: B");
        row("answer now: the interviewer's last four lines",
            now + "I final! 1; I final! 2; I final! 3; I final! 4; I final! 5; answerNow",
            "running | I: 1 | I: 2 | I: 3 | I: 4 | I: 5 | Q: 2 3 4 5 | answering | asked: 2 3 4 5");
        row("answer now: nothing said while listening", now + "M final! Hi; answerNow",
            "running | M: Hi | notice: Waiting for the interviewer to say something.");
    }
    void answersFollowTheQuestionsAsked() { check(); }

    void systemAudioIsReportedEveryMinuteAndAtStop_data() {
        columns();
        // Long after stop, so that a report left to the timer would show twice.
        const QString later = "; stop; wait 180";
        row("30 seconds: once at stop", "listen; seconds 30" + later, "usage: 30");
        row("microphone audio is not counted", "useMic; listen; seconds 150" + later, "usage: 60 60 30");
        row("3 200 bytes are a tenth of a second", "listen; system audio 15 3200" + later, "usage: 1.5");
        row("under a second at a tick is dropped, not carried",
            "listen; system audio 1 16000; wait 60; system audio 1 19200" + later, "");
        row("audio before a late start is not counted",
            "start; stop; system audio 5 32000; system ok; listen; system audio 2 32000" + later, "usage: 2");
    }
    void systemAudioIsReportedEveryMinuteAndAtStop() { check(); }

    void everyAssignmentNotifiesOnce_data() {
        columns();
        row("stop and answer now while idle", "mark; stop; answerNow",
            "notice: Start listening first (Ctrl+Alt+S). | notice x1");
        row("clear twice", "mark; clear; clear", "question x2 | answer x2 | isAnswering x2 | notice x2");
        row("a commit, then one pass of pruning",
            "useMic; listen; I final! A; wait 600.001; mark; M final! B",
            "running | M: B | lines x2 | interimMe x2");
        row("a microphone answer for an earlier session", "useMic; start; stop; mark; start; access no",
            "running | mic problem | notice: " + micOff +
                " | isRunning x1 | systemAudio x1 | mic x2 | notice x2");
    }
    void everyAssignmentNotifiesOnce() { check(); }

    // With the real backend client and speech stream, against a loopback backend and a loopback speech
    // service that recognises a question as soon as audio arrives; only the captures feed silence.
    void questionIsHeardAnsweredAndMeteredOverLoopback() {
        TestHome home;
        TestHttpServer backend;
        TestWebSocketServer speech;
        QVERIFY(backend.listen() && speech.listen());
        home.environment().set("TALLOWIND_SERVER", backend.url().toString().toUtf8());
        home.environment().set("TALLOWIND_STT_URL", speech.url().toString().toUtf8());
        home.environment().set("TALLOWIND_TOKEN", "session-token");
        QMap<QByteArray, QJsonObject> sent;  // the last request to each target
        backend.setHandler([&sent](const TestHttpServer::Received& request) {
            sent[request.target] = QJsonDocument::fromJson(request.body).object();
            return request.target != "/answer"
                       ? TestHttpServer::Response::json(200, R"({"token":"speech-token-1"})")
                       : TestHttpServer::Response::stream(
                             {{"data: {\"type\":\"text\",\"text\":\"Stay calm.\"}\n\n"}});
        });
        connect(&speech, &TestWebSocketServer::frameReceived, this, [&speech](int connection) {
            if (speech.connections().at(connection).binaries().size() == 1)
                speech.sendText(connection,
                                R"({"type":"Results","is_final":true,"speech_final":true,)"
                                R"("channel":{"alternatives":[{"transcript":"Tell me about it"}]}})");
        });

        BackendClient client;
        Rig rig(&client);
        rig.settings.setResume(QStringLiteral("Kernel hacker"));
        rig.run("autoAnswer; start; system ok");
        QTRY_COMPARE(rig.session->systemAudio(), Health::ok);
        rig.run("system audio 1 80000");  // 2.5 seconds
        QTRY_COMPARE(rig.session->answer(), "Stay calm.");
        QCOMPARE(sent["/answer"]["question"].toString(), "Tell me about it");
        QCOMPARE(sent["/answer"]["resume"].toString(), "Kernel hacker");
        QTRY_VERIFY(!rig.session->isAnswering());
        rig.run("stop");
        QTRY_COMPARE(sent["/usage"]["sttSeconds"].toDouble(), 2.5);
    }

    void questionsAreToldFromRemarks_data() {
        QTest::addColumn<QString>("text");
        QTest::addColumn<bool>("question");
        const auto row = [](const char* name, const char16_t* text, bool question) {
            QTest::newRow(name) << QString::fromUtf16(text) << question;
        };
        row("prefix tell me, 4 words", u"Tell me about yourself", true);
        row("2 words although it has what", u"so what", false);
        row("question mark", u"Really?", true);
        row("6 words without prefix", u"one two three four five six", false);
        row("opening letters, not whole words", u"Howdy folks, nice day", true);
        row("prefix must open the text", u"So how was it", false);
        row("line breaks separate words", u"one\ntwo\nthree\nfour\nfive\nsix\nseven", true);
        row("runs of white space count once", u"Okay    great\t\tthanks", false);
        row("no-break space separates words",
            u"one\u00a0two\u00a0three\u00a0four\u00a0five\u00a0six\u00a0seven", true);
        row("fullwidth question mark is not ?", u"Ready\uff1f", false);
        row("lower-casing beyond ASCII meets the prefix", u"D\u00c9SCRIBE your role please", false);
        row("dotted capital I lower-cases to two code points", u"\u0130 think so yes", false);
    }
    void questionsAreToldFromRemarks() {
        QFETCH(QString, text);
        QFETCH(bool, question);
        QCOMPARE(SessionText::looksLikeQuestion(text), question);
        QCOMPARE(SessionController::looksLikeQuestion(text), question);
    }
};

QTEST_GUILESS_MAIN(SessionControllerTest)
#include "tst_sessioncontroller.moc"
