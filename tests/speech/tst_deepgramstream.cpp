#include "deepgramstream.h"
#include "eventtext.h"
#include "testenvironment.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTest>

#include <thread>

using namespace std::chrono_literals;

namespace {

const QByteArray listenQuery =
    "?model=nova-3&encoding=linear16&sample_rate=16000&channels=1&interim_results=true&smart_format=true"
    "&punctuate=true&endpointing=300&utterance_end_ms=1000&vad_events=true";
const QByteArray keepAlive = R"({"type":"KeepAlive"})";
const QString closeStream = QStringLiteral(R"({"type":"CloseStream"})");
const QString reconnecting = QStringLiteral(u"failed(Reconnecting to speech service\u2026)");

// One second of reconnection delay lasts this long here.
constexpr auto unit = 10ms;

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
        const DeepgramStream::Timing timing{second, 50ms, 250ms, handshakeTimeout};
        stream = std::make_unique<DeepgramStream>(
            QStringLiteral("Interviewer"),
            [this](Completion<QString> done) {
                askedAt.append(clock.elapsed());
                if (holdTokens)
                    return held.append(std::move(done));
                // A moment later on the main thread, as the backend answers.
                const Result<QString> answer = answers[std::min(asked(), answers.size()) - 1];
                QMetaObject::invokeMethod(
                    qApp, [done, answer] { done(answer); }, Qt::QueuedConnection);
            },
            timing);
        stream->setOnEvent([this](const SpeechStream::Event& event) {
            events.append(eventText(event));
            if (event.kind == SpeechStream::Event::Kind::failed)
                retryDelays.append(stream->retryDelay());
        });
    }

    qsizetype asked() const { return askedAt.size(); }
};

enum class Breakage { refused, silentHandshake, tokenFailure };

}  // namespace

class TestDeepgramStream : public QObject {
    Q_OBJECT

private slots:
    void connectsAndDeliversTheServiceEventsInOrder() {
        Rig rig;
        rig.answers = {QStringLiteral("eyJ0.abc-DEF_123")};
        // Under a path with a trailing slash, as a self-hosted service may be reached.
        rig.environment.set("TALLOWIND_STT_URL", rig.server.url().toEncoded() + "/speech/");
        rig.server.setGreeting({
            R"({"type":"Results","is_final":false,"channel":{"alternatives":[{"transcript":"  tell me  "}]}})",
            "not json at all",
            R"({"type":"UtteranceEnd","last_word_end":1.2})",
        });
        rig.stream->start();
        QTRY_COMPARE(rig.events, (QStringList{"connected()", "interim(tell me)", "utteranceEnd()"}));
        QCOMPARE(rig.server.connections().first().target, "/speech/v1/listen" + listenQuery);
        QCOMPARE(rig.server.connections().first().header("Authorization"), "Bearer eyJ0.abc-DEF_123");

        // A binary message from the service is ignored and the stream goes on listening.
        rig.server.sendBinary(0, QByteArray(16, '\x01'));
        rig.server.sendText(0, R"({"type":"Results","is_final":true,"channel":{"alternatives":[]}})");
        QTRY_COMPARE(rig.events.size(), 4);
        QCOMPARE(rig.events.last(), "final()");
    }

    void sendsAudioUnchangedAndInOrderOnlyOnceTheSocketIsOpen() {
        Rig rig;
        rig.holdTokens = true;
        rig.stream->send("before start");
        rig.stream->start();
        rig.stream->send("waiting for the token");
        QCOMPARE(rig.held.size(), 1);
        rig.held.takeFirst()(QStringLiteral("token"));
        rig.stream->send("during the handshake");
        QTRY_COMPARE(rig.events, QStringList{"connected()"});

        QList<QByteArray> sent{QByteArray(64 * 1024, '\x5a'), QByteArray(3200, '\0')};
        for (int i = 0; i < 200; ++i) sent.append(QByteArray::number(i));
        // From the capture's thread, as in the program.
        std::thread([&] {
            for (const QByteArray& buffer : sent) rig.stream->send(buffer);
        }).join();
        QTRY_COMPARE(rig.server.connections().first().binaries(), sent);
    }

    void keepsAnIdleConnectionAliveButNotWhileAudioFlows() {
        Rig rig;
        rig.stream->start();
        QTRY_COMPARE(rig.events, QStringList{"connected()"});
        // a: audio, k: keep-alive.
        const auto frames = [&rig] {
            QString kinds;
            for (const auto& frame : rig.server.connections().first().frames)
                kinds += frame.binary ? u'a' : frame.payload == keepAlive ? u'k' : u'?';
            return kinds;
        };
        // No audio since the stream was made, so the ticks send keep-alives.
        QTRY_VERIFY(frames().startsWith("kkk"));
        // Audio every 20 ms, well inside the idle threshold, across many ticks; then silence again.
        for (int i = 0; i < 18; ++i) {
            rig.stream->send("audio");
            QTest::qWait(20);
        }
        const QRegularExpression expected(QStringLiteral("^k+a{18}k$"));
        QTRY_VERIFY2(expected.match(frames()).hasMatch(), qPrintable(frames()));
    }

    void reconnectsWithAFreshTokenAfterTheServerDropsTheConnection() {
        Rig rig;
        rig.answers = {QStringLiteral("first"), QStringLiteral("second")};
        rig.stream->start();
        QTRY_COMPARE(rig.events, QStringList{"connected()"});
        rig.server.drop(0);
        QTRY_COMPARE(rig.events, (QStringList{"connected()", reconnecting, "connected()"}));
        QCOMPARE(rig.server.connections().at(1).header("Authorization"), "Bearer second");
        rig.stream->send("after reconnecting");
        QTRY_COMPARE(rig.server.connections().at(1).binaries(), QList<QByteArray>{"after reconnecting"});
    }

    void failedAttemptsAreReportedOnceAndRetriedWithDoublingDelays_data() {
        QTest::addColumn<Breakage>("breakage");
        QTest::addColumn<Failure>("failure");  // the token provider's answer
        QTest::addColumn<QString>("event");
        QTest::addColumn<bool>("retried");

        const Failure none = Failure::other({});
        // Qt signals a refused connection twice.
        QTest::newRow("connection refused") << Breakage::refused << none << reconnecting << true;
        QTest::newRow("handshake never completes")
            << Breakage::silentHandshake << none << reconnecting << true;
        QTest::newRow("token: network error")
            << Breakage::tokenFailure << Failure(BackendError::network("The network is down."))
            << "failed(The network is down.)" << true;
        // Asking again cannot help until the owner starts over.
        QTest::newRow("token: server error")
            << Breakage::tokenFailure << Failure(BackendError::server("Minute limit reached."))
            << "failed(Minute limit reached.)" << false;
        QTest::newRow("token: signed out") << Breakage::tokenFailure << Failure(BackendError::signedOut())
                                           << "failed(Please sign in again.)" << false;
    }

    void failedAttemptsAreReportedOnceAndRetriedWithDoublingDelays() {
        QFETCH(Breakage, breakage);
        QFETCH(Failure, failure);
        QFETCH(QString, event);
        QFETCH(bool, retried);

        Rig rig(unit, 100ms);
        const quint16 port = rig.server.port();
        QTcpServer silent;  // accepts the connection and then says nothing
        if (breakage == Breakage::refused)
            rig.server.close();
        if (breakage == Breakage::silentHandshake) {
            QVERIFY(silent.listen(QHostAddress::LocalHost));
            rig.environment.set("TALLOWIND_STT_URL",
                                "ws://127.0.0.1:" + QByteArray::number(silent.serverPort()));
        }
        if (breakage == Breakage::tokenFailure)
            rig.answers = {failure};
        rig.stream->start();
        if (!retried) {
            QTest::qWait(20 * unit.count());
            QCOMPARE(rig.events, QStringList{event});
            QCOMPARE(rig.asked(), 1);
            return;
        }

        QTRY_VERIFY_WITH_TIMEOUT(rig.asked() >= 7, 10'000);
        const QList<std::uint64_t> delays{1, 2, 4, 8, 16, 16};
        QCOMPARE(rig.retryDelays.first(delays.size()), delays);
        for (qsizetype i = 0; i < delays.size(); ++i)
            QVERIFY(rig.askedAt[i + 1] - rig.askedAt[i] >= qint64(delays[i]) * unit.count());

        // Once the service is back the stream connects and starts the doubling over.
        rig.answers = {QStringLiteral("token")};
        if (breakage == Breakage::refused)
            QVERIFY(rig.server.listen(port));
        rig.environment.set("TALLOWIND_STT_URL", rig.server.url().toEncoded());
        QTRY_COMPARE(rig.events.last(), "connected()");
        QCOMPARE(rig.events.count(event), rig.asked() - 1);
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
        QCOMPARE(rig.asked(), 2);
        QCOMPARE(rig.events, QStringList{"failed(offline)"});
        QVERIFY(rig.server.connections().isEmpty());
    }

    void startingAgainLeavesOneSilentOldSocketAndOneOpenNewOne_data() {
        QTest::addColumn<bool>("stopFirst");
        QTest::addColumn<int>("closeCode");  // of the first connection; -1: cut off
        // CloseStream lets the service send its last results.
        QTest::newRow("after stop, which closes with CloseStream") << true << 1000;
        QTest::newRow("while running") << false << -1;
    }

    void startingAgainLeavesOneSilentOldSocketAndOneOpenNewOne() {
        QFETCH(bool, stopFirst);
        QFETCH(int, closeCode);

        Rig rig;
        rig.stream->start();
        QTRY_COMPARE(rig.events, QStringList{"connected()"});
        rig.stream->send("audio");
        QTRY_COMPARE(rig.server.connections().first().binaries().size(), 1);
        if (stopFirst) {
            rig.stream->stop();
            rig.stream->send("after stop");
        }
        rig.stream->start();
        QTRY_VERIFY(!rig.server.connections().first().open);
        QCOMPARE(rig.server.connections().first().closeCode.value_or(-1), closeCode);
        QCOMPARE(rig.server.connections().first().texts().endsWith(closeStream), stopFirst);
        // The old socket's end is not taken for a broken connection, not even after several retry waits.
        QTRY_COMPARE(rig.events, (QStringList{"connected()", "connected()"}));
        QTest::qWait(20 * unit.count());
        QCOMPARE(rig.events.size(), 2);
        QCOMPARE(rig.server.connections().size(), 2);
        rig.stream->send("again");
        QTRY_COMPARE(rig.server.connections().at(1).binaries(), QList<QByteArray>{"again"});
        QCOMPARE(rig.server.connections().first().binaries(), QList<QByteArray>{"audio"});
    }
};

QTEST_GUILESS_MAIN(TestDeepgramStream)
#include "tst_deepgramstream.moc"
