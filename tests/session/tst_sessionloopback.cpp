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
#include <QTest>

// The session with its real backend client and real speech streams, against a loopback backend and a
// loopback speech service that recognises a question as soon as audio arrives. Only the captures are
// fakes, feeding silence.
class SessionLoopbackTest : public QObject {
    Q_OBJECT

private slots:
    void questionIsHeardAnsweredAndMetered() {
        TestHome home;
        TestHttpServer backend;
        TestWebSocketServer speech;
        QVERIFY(backend.listen() && speech.listen());
        home.environment().set("TALLOWIND_SERVER", backend.url().toString().toUtf8());
        home.environment().set("TALLOWIND_STT_URL", speech.url().toString().toUtf8());
        home.environment().set("TALLOWIND_TOKEN", "session-token");
        QMap<QByteArray, TestHttpServer::Received> requests;  // the last one to each target
        backend.setHandler([&requests](const TestHttpServer::Received& request) {
            requests[request.target] = request;
            if (request.target == "/stt-token") {
                return TestHttpServer::Response::json(200, R"({"token":"speech-token-1"})");
            }
            const auto line = [](const char* text) {
                return "data: {\"type\":\"text\",\"text\":\"" + QByteArray(text) + "\"}\n\n";
            };
            return request.target == "/answer" ? TestHttpServer::Response::stream(
                                                     {{line("Stay calm, "), 0}, {line("then bisect."), 20}})
                                               : TestHttpServer::Response::json(200, "{}");
        });
        // Recognition of the first audio on the connection.
        connect(&speech, &TestWebSocketServer::frameReceived, this, [&speech](int connection) {
            if (speech.connections().at(connection).binaries().size() == 1) {
                const QString results = QStringLiteral(
                    R"({"type":"Results","is_final":%2,"speech_final":%2,"channel":{"alternatives":[{"transcript":"%1"}]}})");
                speech.sendText(connection, results.arg("Tell me about", "false"));
                speech.sendText(connection, results.arg("Tell me about a hard bug?", "true"));
            }
        });

        AppSettings settings(home.configPath() + QStringLiteral("/settings.ini"));
        settings.setUseMic(false);
        settings.setAutoAnswer(true);
        settings.setResume(QStringLiteral("Kernel hacker"));
        settings.setJobDescription(QStringLiteral("Audio engineer"));
        settings.setExtraInstructions(QStringLiteral("Be brief"));
        BackendClient client;
        auto system = std::make_shared<FakeCapture::Record>();
        SessionController::Parts parts;
        parts.settings = &settings;
        parts.backend = SessionBackend::over(client);
        parts.systemCapture = std::make_unique<FakeCapture>(system);
        parts.micCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
        SessionController session(std::move(parts));

        session.toggle();
        FakeCapture::finishStart(*system, Done{});
        QTRY_COMPARE(session.systemAudio(), SessionController::Health::ok);
        QCOMPARE(speech.connections().size(), 1);

        FakeCapture::deliver(*system, 3200, 25);  // 2.5 seconds of audio
        QTRY_COMPARE(session.lines().size(), 1);
        QCOMPARE(session.lines().at(0).text, "Tell me about a hard bug?");
        QCOMPARE(session.question(), "Tell me about a hard bug?");
        QTRY_VERIFY(!session.isAnswering());
        QCOMPARE(session.answer(), "Stay calm, then bisect.");
        QCOMPARE(session.notice(), QString());
        const QJsonObject asked = QJsonDocument::fromJson(requests["/answer"].body).object();
        QCOMPARE(asked["question"].toString(), "Tell me about a hard bug?");
        QCOMPARE(asked["resume"].toString(), "Kernel hacker");
        QCOMPARE(asked["jobDescription"].toString(), "Audio engineer");
        QCOMPARE(asked["extraInstructions"].toString(), "Be brief");
        QCOMPARE(asked["transcript"].toArray().size(), 1);
        QCOMPARE(asked["transcript"][0]["speaker"].toString(), "interviewer");
        QCOMPARE(speech.connections().at(0).binaries().join().size(), 3200 * 25);

        session.toggle();
        QCOMPARE(session.systemAudio(), SessionController::Health::off);
        QTRY_VERIFY(requests.contains("/usage"));
        QCOMPARE(QJsonDocument::fromJson(requests["/usage"].body)["sttSeconds"].toDouble(), 2.5);
    }
};

QTEST_GUILESS_MAIN(SessionLoopbackTest)
#include "tst_sessionloopback.moc"
