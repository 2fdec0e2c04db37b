#include "deepgramstream.h"
#include "eventtext.h"
#include "testenvironment.h"
#include "testwebsocketserver.h"

#include <QElapsedTimer>
#include <QTcpServer>
#include <QTest>
#include <QThread>

#include <thread>

using namespace std::chrono_literals;
using Event = SpeechStream::Event;

namespace {

const QByteArray listenTarget =
    "/v1/listen?model=nova-3&encoding=linear16&sample_rate=16000&channels=1&interim_results=true"
    "&smart_format=true&punctuate=true&endpointing=300&utterance_end_ms=1000&vad_events=true";
const QString keepAlive = QStringLiteral(R"({"type":"KeepAlive"})");
const QString closeStream = QStringLiteral(R"({"type":"CloseStream"})");
const QString reconnecting = QStringLiteral(u"Reconnecting to speech service\u2026");

// One second of reconnection delay lasts this long here.
constexpr auto unit = 10ms;

DeepgramStream::Timing fastTiming() {
    DeepgramStream::Timing timing;
    timing.second = unit;
    timing.keepAlivePeriod = 50ms;
    timing.idleThreshold = 120ms;
    timing.handshakeTimeout = 5000ms;
    return timing;
}

// Collects what a stream reports, and notes whether anything arrived off the main thread.
struct Recorder {
    QStringList events;
    QList<std::uint64_t> retryDelays;  // the stream's delay at each failed event
    bool offMainThread = false;
    DeepgramStream* stream = nullptr;

    SpeechStream::EventHandler handler() {
        return [this](const Event& event) {
            offMainThread = offMainThread || QThread::currentThread() != qApp->thread();
            events.append(eventText(event));
            if (event.kind == Event::Kind::failed && stream) {
                retryDelays.append(stream->retryDelay());
            }
        };
    }
    qsizetype count(const QString& event) const { return events.count(event); }
};

// A token provider that answers from a script (the last answer repeats), a moment later on the main
// thread like the backend does, or holds the requests until the test answers them.
struct FakeTokens {
    QList<Result<QString>> answers{QStringLiteral("token-1")};
    bool hold = false;
    QList<Completion<QString>> held;
    QList<qint64> askedAt;
    QElapsedTimer clock;

    FakeTokens() { clock.start(); }
    qsizetype asked() const { return askedAt.size(); }

    TokenProvider provider() {
        return [this](Completion<QString> done) {
            askedAt.append(clock.elapsed());
            if (hold) {
                held.append(std::move(done));
                return;
            }
            const Result<QString> answer = answers[std::min(asked(), answers.size()) - 1];
            QMetaObject::invokeMethod(
                qApp, [done, answer] { done(answer); }, Qt::QueuedConnection);
        };
    }
};

// The server, the stream pointed at it, and what the stream reports.
struct Fixture {
    TestWebSocketServer server;
    ScopedEnvironment environment;
    FakeTokens tokens;
    Recorder recorder;
    std::unique_ptr<DeepgramStream> stream;

    explicit Fixture(DeepgramStream::Timing timing = fastTiming()) {
        if (!server.listen()) {
            qFatal("no loopback port for the test server");
        }
        environment.set("TALLOWIND_STT_URL", server.url().toEncoded());
        stream = std::make_unique<DeepgramStream>(QStringLiteral("Interviewer"), tokens.provider(), timing);
        recorder.stream = stream.get();
        stream->setOnEvent(recorder.handler());
    }
};

}  // namespace

class TestDeepgramStream : public QObject {
    Q_OBJECT

private slots:
    void endpoint_data();
    void endpoint();
    void connectsAndDeliversEventsInOrder();
    void sendsAudioAsGivenOnceTheSocketOpens();
    void keepsAnIdleConnectionAlive();
    void stopClosesWithCloseStreamAndNormalCode();
    void reconnectsAfterTheServerDropsTheConnection();
    void refusedAttemptsAreReportedOnceAndResetTheDelay();
    void giveUpOnAHandshakeThatNeverCompletes();
    void tokenFailures_data();
    void tokenFailures();
    void retryDelaysDoubleUpToSixteen();
    void stopWhileWaitingOpensNothing_data();
    void stopWhileWaitingOpensNothing();
    void startAgain_data();
    void startAgain();
};

void TestDeepgramStream::endpoint_data() {
    QTest::addColumn<QUrl>("base");
    QTest::addColumn<QString>("expected");

    const QString query = QString::fromLatin1(listenTarget.mid(listenTarget.indexOf('?')));
    QTest::newRow("a trailing slash")
        << QUrl("wss://api.deepgram.com/") << "wss://api.deepgram.com/v1/listen" + query;
    QTest::newRow("a local server under a path")
        << QUrl("ws://localhost:9/speech/") << "ws://localhost:9/speech/v1/listen" + query;
}

void TestDeepgramStream::endpoint() {
    QFETCH(QUrl, base);
    QFETCH(QString, expected);
    QCOMPARE(DeepgramStream::endpoint(base).toString(QUrl::FullyEncoded), expected);
}

void TestDeepgramStream::connectsAndDeliversEventsInOrder() {
    Fixture f;
    f.tokens.answers = {QStringLiteral("eyJ0.abc-DEF_123")};
    f.server.setGreeting({
        R"({"type":"Metadata","request_id":"r"})",
        R"({"type":"Results","is_final":false,"channel":{"alternatives":[{"transcript":"  tell me  "}]}})",
        "not json at all",
        R"({"type":"Results","is_final":true,"speech_final":true,"channel":{"alternatives":[{"transcript":"tell me about it"}]}})",
        R"({"type":"UtteranceEnd","last_word_end":1.2})",
    });
    QCOMPARE(f.stream->label(), QStringLiteral("Interviewer"));
    f.stream->start();
    QTRY_COMPARE(f.recorder.events.size(), 4);
    QCOMPARE(f.server.connections().size(), 1);
    QCOMPARE(f.server.connections().first().target, listenTarget);
    QCOMPARE(f.server.connections().first().header("Authorization"), QByteArray("Bearer eyJ0.abc-DEF_123"));
    QCOMPARE(f.tokens.asked(), 1);

    // A binary message from the service is ignored and the stream goes on listening.
    f.server.sendBinary(0, QByteArray(16, '\x01'));
    f.server.sendText(0, R"({"type":"Results","is_final":true,"channel":{"alternatives":[]}})");
    QTRY_COMPARE(f.recorder.events.size(), 5);
    QCOMPARE(f.recorder.events, (QStringList{"connected", "interim(tell me)", "final(tell me about it, end)",
                                             "utteranceEnd", "final(, open)"}));
    QVERIFY(!f.recorder.offMainThread);
    f.stream->stop();
}

void TestDeepgramStream::sendsAudioAsGivenOnceTheSocketOpens() {
    Fixture f;
    f.tokens.hold = true;
    f.stream->send("before start");
    f.stream->start();
    f.stream->send("waiting for the token");
    QTRY_COMPARE(f.tokens.held.size(), 1);
    f.tokens.held.takeFirst()(QStringLiteral("token"));
    // The handshake has begun but has not completed.
    f.stream->send("during the handshake");
    QTRY_COMPARE(f.recorder.events, QStringList{"connected"});

    // Every buffer in order and unchanged, from the capture's thread as in the program.
    QByteArray large(64 * 1024, '\0');
    for (qsizetype i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>(i * 7);
    }
    QList<QByteArray> sent{"first", large, QByteArray(3200, '\0')};
    for (int i = 0; i < 200; ++i) {
        sent.append(QByteArray::number(i));
    }
    std::thread capture([&f, &sent] {
        for (const QByteArray& buffer : sent) {
            f.stream->send(buffer);
        }
    });
    capture.join();
    QTRY_COMPARE(f.server.connections().first().binaries().size(), sent.size());
    QCOMPARE(f.server.connections().first().binaries(), sent);
    f.stream->stop();
}

void TestDeepgramStream::keepsAnIdleConnectionAlive() {
    DeepgramStream::Timing timing = fastTiming();
    timing.idleThreshold = 250ms;
    Fixture f(timing);
    f.stream->start();
    QTRY_COMPARE(f.recorder.events, QStringList{"connected"});
    const auto& connection = f.server.connections().first();
    // No audio since creation: ticks go on sending, since a keep-alive is not audio.
    QTRY_VERIFY(connection.texts().count(keepAlive) >= 3);
    QCOMPARE(connection.texts().count(keepAlive), connection.texts().size());

    // Audio every 20 ms, well inside the idle threshold, across many ticks: no keep-alive among it.
    for (int i = 0; i < 18; ++i) {
        f.stream->send("audio");
        QTest::qWait(20);
    }
    QTRY_COMPARE(connection.binaries().size(), 18);
    const auto isAudio = [](const TestWebSocketServer::Frame& frame) { return frame.binary; };
    const auto firstAudio = std::find_if(connection.frames.begin(), connection.frames.end(), isAudio);
    const auto lastAudio = std::find_if(connection.frames.rbegin(), connection.frames.rend(), isAudio).base();
    QVERIFY(std::all_of(firstAudio, lastAudio, isAudio));
    // Once the audio stops, the keep-alives start again.
    QTRY_VERIFY(!connection.frames.last().binary);
    QCOMPARE(connection.frames.last().payload, keepAlive.toUtf8());
    f.stream->stop();
}

void TestDeepgramStream::stopClosesWithCloseStreamAndNormalCode() {
    Fixture f;
    f.stream->start();
    QTRY_COMPARE(f.recorder.events, QStringList{"connected"});
    f.stream->send("audio");
    QTRY_COMPARE(f.server.connections().first().binaries().size(), 1);

    f.stream->stop();
    f.stream->send("after stop");
    QTRY_VERIFY(!f.server.connections().first().open);
    const auto& connection = f.server.connections().first();
    QCOMPARE(connection.closeCode, std::optional<int>(1000));
    QVERIFY(!connection.texts().isEmpty());
    QCOMPARE(connection.texts().last(), closeStream);
    QCOMPARE(connection.binaries().size(), 1);

    // Longer than several retry waits: the closing socket reports nothing and nothing reconnects.
    QTest::qWait(20 * unit.count());
    QCOMPARE(f.recorder.events, QStringList{"connected"});
    QCOMPARE(f.server.connections().size(), 1);
    QCOMPARE(f.tokens.asked(), 1);
}

void TestDeepgramStream::reconnectsAfterTheServerDropsTheConnection() {
    Fixture f;
    f.tokens.answers = {QStringLiteral("first"), QStringLiteral("second")};
    f.stream->start();
    QTRY_COMPARE(f.recorder.events, QStringList{"connected"});

    f.server.drop(0);
    QTRY_COMPARE(f.recorder.events.size(), 3);
    QCOMPARE(f.recorder.events, (QStringList{"connected", "failed(" + reconnecting + ")", "connected"}));
    QCOMPARE(f.server.connections().size(), 2);
    // A fresh token for every attempt.
    QCOMPARE(f.server.connections().at(1).header("authorization"), QByteArray("Bearer second"));
    QCOMPARE(f.tokens.asked(), 2);
    QCOMPARE(f.recorder.retryDelays, QList<std::uint64_t>{1});
    QCOMPARE(f.server.connections().first().closeCode, std::nullopt);

    f.stream->send("after reconnecting");
    QTRY_COMPARE(f.server.connections().at(1).binaries(), QList<QByteArray>{"after reconnecting"});
    f.stream->stop();
}

void TestDeepgramStream::refusedAttemptsAreReportedOnceAndResetTheDelay() {
    Fixture f;
    const quint16 port = f.server.port();
    f.server.close();
    f.stream->start();

    QTRY_VERIFY(f.stream->retryDelay() >= 8);
    f.server.listen(port);
    QTRY_VERIFY(f.recorder.events.contains("connected"));
    // Every refused attempt is reported exactly once, although Qt signals it twice.
    QCOMPARE(f.recorder.count("failed(" + reconnecting + ")"), f.tokens.asked() - 1);
    QCOMPARE(f.recorder.events.last(), QStringLiteral("connected"));
    // An open socket starts the doubling over.
    QCOMPARE(f.stream->retryDelay(), 1u);
    const qsizetype failuresBefore = f.recorder.retryDelays.size();
    f.server.drop(0);
    QTRY_COMPARE(f.server.connections().size(), 2);
    QCOMPARE(f.recorder.retryDelays.mid(failuresBefore), QList<std::uint64_t>{1});
    f.stream->stop();
}

void TestDeepgramStream::giveUpOnAHandshakeThatNeverCompletes() {
    // Accepts the TCP connection and then says nothing.
    QTcpServer silent;
    QVERIFY(silent.listen(QHostAddress::LocalHost));
    DeepgramStream::Timing timing = fastTiming();
    timing.handshakeTimeout = 100ms;
    Fixture f(timing);
    f.environment.set("TALLOWIND_STT_URL", "ws://127.0.0.1:" + QByteArray::number(silent.serverPort()));
    f.stream->start();

    QTRY_VERIFY(f.tokens.asked() >= 2);
    QCOMPARE(f.recorder.events.first(), "failed(" + reconnecting + ")");
    QVERIFY(!f.recorder.events.contains("connected"));
    f.stream->stop();
}

void TestDeepgramStream::tokenFailures_data() {
    QTest::addColumn<Failure>("failure");
    QTest::addColumn<QString>("message");
    QTest::addColumn<bool>("retried");

    QTest::newRow("network error") << Failure(BackendError::network("The network is down."))
                                   << "The network is down." << true;
    QTest::newRow("another failure") << Failure::other("Something else went wrong.")
                                     << "Something else went wrong." << true;
    QTest::newRow("server error") << Failure(BackendError::server("Minute limit reached."))
                                  << "Minute limit reached." << false;
    QTest::newRow("signed out") << Failure(BackendError::signedOut()) << "Please sign in again." << false;
}

void TestDeepgramStream::tokenFailures() {
    QFETCH(Failure, failure);
    QFETCH(QString, message);
    QFETCH(bool, retried);

    Fixture f;
    f.tokens.answers = {failure};
    f.stream->start();
    QTRY_COMPARE(f.recorder.events.size(), 1);
    QCOMPARE(f.recorder.events.first(), "failed(" + message + ")");

    if (retried) {
        QTRY_VERIFY(f.tokens.asked() >= 3);
        QCOMPARE(f.recorder.count("failed(" + message + ")"), f.recorder.events.size());
    } else {
        // Long past the first retry waits.
        QTest::qWait(20 * unit.count());
        QCOMPARE(f.tokens.asked(), 1);
        QCOMPARE(f.recorder.events.size(), 1);
    }
    QVERIFY(f.server.connections().isEmpty());
    f.stream->stop();
}

void TestDeepgramStream::retryDelaysDoubleUpToSixteen() {
    Fixture f;
    f.tokens.answers = {BackendError::network("offline")};
    f.stream->start();
    QTRY_VERIFY_WITH_TIMEOUT(f.tokens.asked() >= 8, 10000);
    f.stream->stop();

    const QList<std::uint64_t> expected{1, 2, 4, 8, 16, 16, 16};
    QCOMPARE(f.recorder.retryDelays.mid(0, expected.size()), expected);
    // Each attempt comes no sooner than the delay before it.
    for (qsizetype i = 0; i < expected.size(); ++i) {
        const qint64 gap = f.tokens.askedAt[i + 1] - f.tokens.askedAt[i];
        QVERIFY2(gap >= qint64(expected[i]) * unit.count(),
                 qPrintable(QStringLiteral("attempt %1 came after %2 ms").arg(i + 2).arg(gap)));
    }
}

void TestDeepgramStream::stopWhileWaitingOpensNothing_data() {
    QTest::addColumn<bool>("tokenHeld");
    QTest::addColumn<int>("events");
    QTest::addColumn<int>("retryDelay");

    QTest::newRow("stop during a retry wait: the wait counts as over, its doubling stands")
        << false << 1 << 2;
    QTest::newRow("a token arriving after stop") << true << 0 << 1;
}

void TestDeepgramStream::stopWhileWaitingOpensNothing() {
    QFETCH(bool, tokenHeld);
    QFETCH(int, events);
    QFETCH(int, retryDelay);

    DeepgramStream::Timing timing = fastTiming();
    timing.second = 100ms;
    Fixture f(timing);
    f.tokens.hold = tokenHeld;
    f.tokens.answers = {BackendError::network("offline"), QStringLiteral("token")};
    f.stream->start();
    if (tokenHeld) {
        QCOMPARE(f.tokens.held.size(), 1);
        f.stream->stop();
        f.tokens.held.takeFirst()(QStringLiteral("late"));
    } else {
        QTRY_COMPARE(f.recorder.events.size(), 1);
        f.stream->stop();
    }

    QTest::qWait(300);
    QCOMPARE(f.tokens.asked(), 1);
    QVERIFY(f.server.connections().isEmpty());
    QCOMPARE(f.recorder.events.size(), events);
    QCOMPARE(f.stream->retryDelay(), std::uint64_t(retryDelay));
}

void TestDeepgramStream::startAgain_data() {
    QTest::addColumn<bool>("stopFirst");
    QTest::newRow("after stop") << true;
    // The first socket is closed by the stream itself, and its end is not taken for a broken connection.
    QTest::newRow("while running: the replaced socket falls silent") << false;
}

void TestDeepgramStream::startAgain() {
    QFETCH(bool, stopFirst);

    Fixture f;
    f.stream->start();
    QTRY_COMPARE(f.recorder.events, QStringList{"connected"});
    if (stopFirst) {
        f.stream->stop();
    }
    f.stream->start();
    QTRY_COMPARE(f.recorder.events, (QStringList{"connected", "connected"}));
    QTRY_VERIFY(!f.server.connections().first().open);
    QTest::qWait(20 * unit.count());
    QCOMPARE(f.recorder.events, (QStringList{"connected", "connected"}));
    QCOMPARE(f.server.connections().size(), 2);
    QCOMPARE(f.server.openConnections(), 1);
    f.stream->send("again");
    QTRY_COMPARE(f.server.connections().at(1).binaries(), QList<QByteArray>{"again"});
    f.stream->stop();
}

QTEST_GUILESS_MAIN(TestDeepgramStream)
#include "tst_deepgramstream.moc"
