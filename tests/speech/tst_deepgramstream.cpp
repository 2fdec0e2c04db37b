#include "deepgramstream.h"
#include "eventtext.h"
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

const QByteArray listenQuery =
    "?model=nova-3&encoding=linear16&sample_rate=16000&channels=1&interim_results=true&smart_format=true"
    "&punctuate=true&endpointing=300&utterance_end_ms=1000&vad_events=true";
const QString reconnecting = QStringLiteral(u"failed(Reconnecting to speech service\u2026)");
constexpr auto unit = 10ms;  // one second of reconnection delay

// The service on loopback, a stream pointed at it with a scripted token provider, and what it reports.
struct Rig {
    TestWebSocketServer server;
    ScopedEnvironment environment;
    // The token provider's answers, the last one repeating; with holdTokens the test answers them itself.
    QList<Result<QString>> answers{QStringLiteral("token-1")};
    bool holdTokens = false;
    QList<Completion<QString>> held;
    QElapsedTimer clock;
    QList<qint64> askedAt;
    QStringList events;
    QList<std::uint64_t> retryDelays;  // the stream's delay at each failed event
    std::unique_ptr<DeepgramStream> stream;

    explicit Rig(std::chrono::milliseconds second = unit, std::chrono::milliseconds handshakeTimeout = 5s) {
        if (!server.listen())
            qFatal("no loopback port for the test server");
        environment.set("TALLOWIND_STT_URL", server.url().toEncoded());
        clock.start();
        const auto tokens = [this](Completion<QString> done) {
            askedAt.append(clock.elapsed());
            if (holdTokens)
                return held.append(std::move(done));
            // A moment later on the main thread, as the backend answers.
            const Result<QString> answer = answers[std::min(askedAt.size(), answers.size()) - 1];
            QMetaObject::invokeMethod(
                qApp, [done, answer] { done(answer); }, Qt::QueuedConnection);
        };
        const DeepgramStream::Timing timing{second, 50ms, 250ms, handshakeTimeout};
        stream = std::make_unique<DeepgramStream>(QStringLiteral("Interviewer"), tokens, timing);
        stream->setOnEvent([this](const SpeechStream::Event& event) {
            events.append(eventText(event));
            if (event.kind == SpeechStream::Event::Kind::failed)
                retryDelays.append(stream->retryDelay());
        });
    }

    const TestWebSocketServer::Connection& connection(int index) { return server.connections().at(index); }
};

enum class Breakage { refused, silentHandshake, tokenFailure };

}  // namespace

class TestDeepgramStream : public QObject {
    Q_OBJECT

private slots:
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
        // A binary message from the service is ignored and the stream goes on listening.
        rig.server.sendBinary(0, "binary");
        rig.server.sendText(0, R"({"type":"Results","is_final":true})");
        QTRY_COMPARE(rig.events.size(), 4);
        QCOMPARE(rig.events.last(), "final()");

        const auto frames = [&rig] {  // a: audio, k: keep-alive
            QString kinds;
            for (const auto& frame : rig.connection(0).frames)
                kinds += frame.binary ? u'a' : frame.payload == R"({"type":"KeepAlive"})" ? u'k' : u'?';
            return kinds;
        };
        // No audio since the stream was made: the ticks send keep-alives.
        QTRY_VERIFY(frames().startsWith("kkk"));
        // Audio from the capture's thread, as in the program, every 20 ms: well inside the idle threshold and
        // across many ticks. Then silence again.
        QList<QByteArray> sent;
        std::atomic<bool> done = false;
        std::thread capture([&] {
            for (int i = 0; i < 18; ++i, std::this_thread::sleep_for(20ms))
                rig.stream->send(sent.emplaceBack(QByteArray::number(i)));
            done = true;
        });
        QTRY_VERIFY(done);
        capture.join();
        QTRY_VERIFY2(QRegularExpression("^k+a{18}k$").match(frames()).hasMatch(), qPrintable(frames()));
        QCOMPARE(rig.connection(0).binaries(), sent);
    }

    void failedAttemptsAreReportedOnceAndRetriedWithDoublingDelays_data() {
        QTest::addColumn<Breakage>("breakage");
        QTest::addColumn<Failure>("failure");  // the token provider's answer
        QTest::addColumn<bool>("retried");

        // Qt signals a refused connection twice.
        QTest::newRow("connection refused") << Breakage::refused << Failure::other({}) << true;
        QTest::newRow("handshake never completes") << Breakage::silentHandshake << Failure::other({}) << true;
        QTest::newRow("token: network error")
            << Breakage::tokenFailure << Failure(BackendError::network("Down.")) << true;
        // Asking again cannot help until the owner starts over.
        QTest::newRow("token: server error")
            << Breakage::tokenFailure << Failure(BackendError::server("Limit.")) << false;
        QTest::newRow("token: signed out")
            << Breakage::tokenFailure << Failure(BackendError::signedOut()) << false;
    }

    void failedAttemptsAreReportedOnceAndRetriedWithDoublingDelays() {
        QFETCH(Breakage, breakage);
        QFETCH(Failure, failure);
        QFETCH(bool, retried);
        const QString event = breakage == Breakage::tokenFailure
                                  ? eventText(SpeechStream::Event::failed(failure.description()))
                                  : reconnecting;

        Rig rig(unit, 100ms);
        const quint16 port = rig.server.port();
        QTcpServer silent;  // accepts the connection and then says nothing
        if (breakage == Breakage::refused)
            rig.server.close();
        if (breakage == Breakage::silentHandshake && silent.listen(QHostAddress::LocalHost))
            rig.environment.set("TALLOWIND_STT_URL",
                                "ws://127.0.0.1:" + QByteArray::number(silent.serverPort()));
        if (breakage == Breakage::tokenFailure)
            rig.answers = {failure};
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

        // Once the service is back the stream connects with a fresh token and starts the doubling over.
        rig.answers = {QStringLiteral("fresh")};
        if (breakage == Breakage::refused)
            QVERIFY(rig.server.listen(port));
        rig.environment.set("TALLOWIND_STT_URL", rig.server.url().toEncoded());
        QTRY_COMPARE(rig.events.last(), "connected()");
        QCOMPARE(rig.events.count(event), rig.askedAt.size() - 1);
        QCOMPARE(rig.server.connections().last().header("Authorization"), "Bearer fresh");
        QCOMPARE(rig.stream->retryDelay(), 1u);
    }

    void stopWhileWaitingForARetryOrATokenOpensNothing() {
        Rig rig(100ms);
        rig.answers = {BackendError::network("offline")};
        rig.stream->start();
        QTRY_COMPARE(rig.events.size(), 1);
        rig.stream->stop();
        // The wait counts as over: its doubling stands, the attempt after it is not made.
        QCOMPARE(rig.stream->retryDelay(), 2u);
        rig.holdTokens = true;
        rig.stream->start();
        rig.stream->stop();
        rig.held.takeFirst()(QStringLiteral("late"));
        QTest::qWait(300);
        QCOMPARE(rig.askedAt.size(), 2);
        QCOMPARE(rig.events, QStringList{"failed(offline)"});
        QVERIFY(rig.server.connections().isEmpty());
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
        // Started again after stop, then while running: the old socket's end is not taken for a broken
        // connection, not even after several retry waits.
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
