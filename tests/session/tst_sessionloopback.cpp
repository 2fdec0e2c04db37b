#include "appsettings.h"
#include "backendclient.h"
#include "sessioncontroller.h"
#include "sessionfakes.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

using Health = SessionController::Health;

namespace {

QString results(const QString& transcript, bool isFinal) {
    return QStringLiteral(
               R"({"type":"Results","is_final":%2,"speech_final":%2,"channel":{"alternatives":[{"transcript":"%1"}]}})")
        .arg(transcript, isFinal ? "true" : "false");
}

QByteArray answerLine(const QString& text) {
    const QJsonObject event{{QStringLiteral("type"), QStringLiteral("text")}, {QStringLiteral("text"), text}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

}  // namespace

// The session with its real backend client and real speech streams, against a loopback backend and a
// loopback speech service that recognises a question as soon as audio arrives. Only the captures are
// fakes, feeding silence.
class SessionLoopbackTest : public QObject {
    Q_OBJECT

private slots:
    void questionIsHeardAnsweredAndMetered();
};

void SessionLoopbackTest::questionIsHeardAnsweredAndMetered() {
    TestHome home;
    TestHttpServer backend;
    QVERIFY(backend.listen());
    TestWebSocketServer speech;
    QVERIFY(speech.listen());
    home.environment().set("TALLOWIND_SERVER", backend.url().toString().toUtf8());
    home.environment().set("TALLOWIND_STT_URL", speech.url().toString().toUtf8());
    home.environment().set("TALLOWIND_TOKEN", "session-token");

    backend.setHandler([](const TestHttpServer::Received& request) {
        if (request.target == "/stt-token") {
            return TestHttpServer::Response::json(200, R"({"token":"speech-token-1"})");
        }
        if (request.target == "/answer") {
            return TestHttpServer::Response::stream({
                {answerLine(QStringLiteral("Stay calm, ")), 0},
                {answerLine(QStringLiteral("then bisect.")), 20},
            });
        }
        return TestHttpServer::Response::json(200, "{}");
    });

    // The service answers the first audio of each connection with an utterance, as recognition would.
    QSet<int> answered;
    connect(&speech, &TestWebSocketServer::frameReceived, this, [&](int connection) {
        if (answered.contains(connection) || speech.connections().at(connection).binaries().isEmpty()) {
            return;
        }
        answered.insert(connection);
        speech.sendText(connection, results(QStringLiteral("Tell me about"), false));
        speech.sendText(connection, results(QStringLiteral("Tell me about a hard bug?"), true));
    });

    AppSettings settings(home.configPath() + QStringLiteral("/settings.ini"));
    settings.setUseMic(false);
    settings.setAutoAnswer(true);
    settings.setResume(QStringLiteral("Kernel hacker"));
    BackendClient client;
    auto system = std::make_shared<FakeCapture::Record>();
    SessionController::Parts parts;
    parts.settings = &settings;
    parts.backend = SessionBackend::over(client);
    parts.systemCapture = std::make_unique<FakeCapture>(system);
    parts.micCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
    parts.microphoneAccess =
        std::make_unique<FakeMicrophoneAccess>(std::make_shared<FakeMicrophoneAccess::Record>());
    SessionController session(std::move(parts));

    session.toggle();
    FakeCapture::finishStart(*system, Done{});
    QTRY_COMPARE(session.systemAudio(), Health::ok);
    QCOMPARE(speech.connections().size(), 1);
    QCOMPARE(speech.connections().at(0).header("authorization"), QByteArray("Bearer speech-token-1"));
    QCOMPARE(speech.connections().at(0).target.left(11), QByteArray("/v1/listen?"));

    FakeCapture::deliver(*system, 3200, 25);  // 2.5 seconds of audio

    QTRY_COMPARE(session.lines().size(), 1);
    QCOMPARE(session.lines().at(0).speaker, Speaker::interviewer);
    QCOMPARE(session.lines().at(0).text, QStringLiteral("Tell me about a hard bug?"));
    QCOMPARE(session.question(), QStringLiteral("Tell me about a hard bug?"));
    QTRY_COMPARE(session.answer(), QStringLiteral("Stay calm, then bisect."));
    QTRY_VERIFY(!session.isAnswering());
    QCOMPARE(session.notice(), QString());

    const auto requestTo = [&backend](const QByteArray& target) -> std::optional<TestHttpServer::Received> {
        const auto& all = backend.received();
        const auto it =
            std::find_if(all.begin(), all.end(), [&](const auto& r) { return r.target == target; });
        return it == all.end() ? std::nullopt : std::optional(*it);
    };
    QVERIFY(requestTo("/answer"));
    const QJsonObject body = QJsonDocument::fromJson(requestTo("/answer")->body).object();
    QCOMPARE(body.value(QLatin1String("question")).toString(), QStringLiteral("Tell me about a hard bug?"));
    QCOMPARE(body.value(QLatin1String("resume")).toString(), QStringLiteral("Kernel hacker"));
    const QJsonArray transcript = body.value(QLatin1String("transcript")).toArray();
    QCOMPARE(transcript.size(), 1);
    QCOMPARE(transcript.at(0).toObject().value(QLatin1String("speaker")).toString(),
             QStringLiteral("interviewer"));

    QCOMPARE(speech.connections().at(0).binaries().join().size(), 3200 * 25);

    session.toggle();
    QCOMPARE(session.systemAudio(), Health::off);
    QTRY_VERIFY(requestTo("/usage").has_value());
    QCOMPARE(QJsonDocument::fromJson(requestTo("/usage")->body)[QLatin1String("sttSeconds")].toDouble(), 2.5);
    QCOMPARE(requestTo("/usage")->header("authorization"), QByteArray("Bearer session-token"));
    // The stream closes its connection politely.
    QTRY_VERIFY(!speech.connections().at(0).open);
    QVERIFY(speech.connections().at(0).texts().contains(QStringLiteral(R"({"type":"CloseStream"})")));
}

QTEST_GUILESS_MAIN(SessionLoopbackTest)
#include "tst_sessionloopback.moc"
