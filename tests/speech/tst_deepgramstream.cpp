#include "deepgramstream.h"
#include "recognitionmessage.h"
#include "testenvironment.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>

#include <atomic>
#include <thread>

using namespace std::chrono_literals;

namespace {

// A speech event as one readable word, so that a failed comparison shows what arrived.
QString eventText(const SpeechStream::Event& event) {
    static const char* const kinds[] = {"interim", "final", "failed", "connected", "utteranceEnd"};
    return QStringLiteral("%1(%2%3)")
        .arg(QLatin1String(kinds[int(event.kind)]), event.text,
             QLatin1String(event.endOfUtterance ? ", end" : ""));
}

QString results(const QString& transcript, const QString& flags = {}) {
    return QStringLiteral(R"({"type":"Results","channel":{"alternatives":[{"transcript":"%1"}]}%2})")
        .arg(transcript, flags);
}

QString finalWith(const QString& channel) {
    return QStringLiteral(R"({"type":"Results","is_final":true,"channel":%1})").arg(channel);
}

const QByteArray listenQuery =
    "?model=nova-3&encoding=linear16&sample_rate=16000&channels=1&interim_results=true&smart_format=true"
    "&punctuate=true&endpointing=300&utterance_end_ms=1000&vad_events=true";
const QString reconnecting = QStringLiteral(u"failed(Reconnecting to speech service\u2026)");
constexpr auto unit = 10ms;  // one second of reconnection delay

// The service on loopback, a stream pointed at it with a scripted token provider, and what it reports.
struct Rig {
    TestWebSocketServer server;
    ScopedEnvironment environment;
    // The token provider's answer to every request; with holdTokens the test answers them itself.
    Result<QString> answer{QStringLiteral("token-1")};
    bool holdTokens = false;
    QList<Completion<QString>> held;
    QElapsedTimer clock;
    QList<qint64> askedAt;
    QStringList events;
    QList<std::uint64_t> retryDelays;  // the stream's delay at each failed event
    std::unique_ptr<DeepgramStream> stream;

    explicit Rig(std::chrono::milliseconds handshakeTimeout = 5s) {
        if (!server.listen())
            qFatal("no loopback port for the test server");
        environment.set("TALLOWIND_STT_URL", server.url().toEncoded());
        clock.start();
        const auto tokens = [this](Completion<QString> done) {
            askedAt.append(clock.elapsed());
            if (holdTokens)
                return held.append(std::move(done));
            QMetaObject::invokeMethod(
                qApp, [done, answer = answer] { done(answer); }, Qt::QueuedConnection);
        };
        stream =
            std::make_unique<DeepgramStream>(QStringLiteral("Interviewer"), tokens,
                                             DeepgramStream::Timing{unit, 50ms, 250ms, handshakeTimeout});
        stream->setOnEvent([this](const SpeechStream::Event& event) {
            events.append(eventText(event));
            if (event.kind == SpeechStream::Event::Kind::failed)
                retryDelays.append(stream->retryDelay());
        });
    }

    const TestWebSocketServer::Connection& connection(int index) { return server.connections().at(index); }
};

}  // namespace

class TestDeepgramStream : public QObject {
    Q_OBJECT

private slots:
    void recognitionMessagesBecomeTheRightEvent_data() {
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

    void recognitionMessagesBecomeTheRightEvent() {
        QFETCH(QString, message);
        QFETCH(QString, expected);

        const std::optional<SpeechStream::Event> event = parseRecognitionMessage(message);
        QCOMPARE(event ? eventText(*event) : QStringLiteral("nothing"), expected);
    }

    void connectsWithItsTokenDeliversEventsAndSendsAudioOrElseKeepAlives() {
        Rig rig;
        rig.holdTokens = true;
        // Under a path with a trailing slash, as a self-hosted service may be reached.
        rig.environment.set("TALLOWIND_STT_URL", rig.server.url().toEncoded() + "/speech/");
        rig.server.setGreeting(
            {R"({"type":"Results","channel":{"alternatives":[{"transcript":"  tell me  "}]}})",
             "not json at all", R"({"type":"UtteranceEnd"})"});
        rig.stream->send("before start");
        rig.stream->start();
        rig.stream->send("waiting for the token");
        rig.held.takeFirst()(QStringLiteral("eyJ0.abc-DEF_123"));
        rig.stream->send("during the handshake");
        QTRY_COMPARE(rig.events, (QStringList{"connected()", "interim(tell me)", "utteranceEnd()"}));
        QCOMPARE(rig.connection(0).target, "/speech/v1/listen" + listenQuery);
        QCOMPARE(rig.connection(0).header("Authorization"), "Bearer eyJ0.abc-DEF_123");

        const auto frames = [&rig] {  // a: audio, k: keep-alive
            QString kinds;
            for (const auto& frame : rig.connection(0).frames)
                kinds += frame.binary ? u'a' : frame.payload == R"({"type":"KeepAlive"})" ? u'k' : u'?';
            return kinds;
        };
        QTRY_VERIFY(frames().startsWith("kkk"));
        // From the capture's thread, as in the program, every 20 ms: inside the idle threshold, across ticks.
        QList<QByteArray> sent;
        std::atomic<bool> done = false;
        std::thread capture([&] {
            for (int i = 0; i < 18; ++i, std::this_thread::sleep_for(20ms))
                rig.stream->send(sent.emplaceBack(QByteArray::number(i)));
            done = true;
        });
        QTRY_VERIFY(done);
        capture.join();
        // Keep-alives resume once the audio stops; how many have gone out when we look is up to the clock.
        QTRY_VERIFY2(QRegularExpression("^k+a{18}k+$").match(frames()).hasMatch(), qPrintable(frames()));
        QCOMPARE(rig.connection(0).binaries(), sent);
    }

    void failedAttemptsAreReportedOnceAndRetriedWithDoublingDelays_data() {
        QTest::addColumn<QString>("breakage");
        QTest::addColumn<Failure>("failure");  // the token provider's answer
        QTest::addColumn<bool>("retried");

        // Qt signals a refused connection twice.
        QTest::newRow("connection refused") << "refused" << Failure::other({}) << true;
        QTest::newRow("handshake never completes") << "silent handshake" << Failure::other({}) << true;
        QTest::newRow("token: network error") << "token" << Failure(BackendError::network("Down.")) << true;
        // Asking again cannot help until the owner starts over.
        QTest::newRow("token: server error") << "token" << Failure(BackendError::server("Limit.")) << false;
        QTest::newRow("token: signed out") << "token" << Failure(BackendError::signedOut()) << false;
    }

    void failedAttemptsAreReportedOnceAndRetriedWithDoublingDelays() {
        QFETCH(QString, breakage);
        QFETCH(Failure, failure);
        QFETCH(bool, retried);
        const QString event = breakage == "token"
                                  ? eventText(SpeechStream::Event::failed(failure.description()))
                                  : reconnecting;

        Rig rig(100ms);
        const quint16 port = rig.server.port();
        QTcpServer silent;  // accepts the connection and then says nothing
        if (breakage == "refused")
            rig.server.close();
        if (breakage == "silent handshake" && silent.listen(QHostAddress::LocalHost))
            rig.environment.set("TALLOWIND_STT_URL",
                                "ws://127.0.0.1:" + QByteArray::number(silent.serverPort()));
        if (breakage == "token")
            rig.answer = failure;
        rig.stream->start();
        if (!retried) {
            QTest::qWait(20 * unit.count());
            QCOMPARE(rig.events, QStringList{event});
            QCOMPARE(rig.askedAt.size(), 1);
            return;
        }
        QTRY_VERIFY_WITH_TIMEOUT(rig.askedAt.size() >= 7, 10'000);
        const QList<std::uint64_t> delays{1, 2, 4, 8, 16, 16};
        QCOMPARE(rig.retryDelays.first(delays.size()), delays);
        for (qsizetype i = 0; i < delays.size(); ++i)
            QVERIFY(rig.askedAt[i + 1] - rig.askedAt[i] >= qint64(delays[i]) * unit.count());

        rig.answer = QStringLiteral("fresh");
        if (breakage == "refused")
            QVERIFY(rig.server.listen(port));
        rig.environment.set("TALLOWIND_STT_URL", rig.server.url().toEncoded());
        QTRY_COMPARE(rig.events.last(), "connected()");
        QCOMPARE(rig.events.count(event), rig.askedAt.size() - 1);
        QCOMPARE(rig.server.connections().last().header("Authorization"), "Bearer fresh");
        QCOMPARE(rig.stream->retryDelay(), 1u);
    }

    void stopClosesWithCloseStreamAndAStartLeavesTheOldSocketSilent() {
        Rig rig;
        rig.stream->start();
        QTRY_COMPARE(rig.events, QStringList{"connected()"});
        rig.stream->send("audio");
        QTRY_COMPARE(rig.connection(0).binaries().size(), 1);
        rig.stream->stop();
        rig.stream->send("after stop");
        // CloseStream lets the service send its last results.
        QTRY_VERIFY(!rig.connection(0).open);
        QCOMPARE(rig.connection(0).closeCode, 1000);
        QVERIFY(rig.connection(0).texts().endsWith(R"({"type":"CloseStream"})"));
        QCOMPARE(rig.connection(0).binaries(), QList<QByteArray>{"audio"});
        // Started again after stop, then while running: an old socket's end is no broken connection.
        rig.stream->start();
        QTRY_COMPARE(rig.events.size(), 2);
        rig.stream->start();
        QTRY_VERIFY(!rig.connection(1).open);
        QTRY_COMPARE(rig.events.size(), 3);
        QTest::qWait(20 * unit.count());
        QCOMPARE(rig.events, (QStringList{"connected()", "connected()", "connected()"}));
        QCOMPARE(rig.server.openConnections(), 1);
        rig.stream->send("again");
        QTRY_COMPARE(rig.connection(2).binaries(), QList<QByteArray>{"again"});
    }
};

QTEST_GUILESS_MAIN(TestDeepgramStream)
#include "tst_deepgramstream.moc"
