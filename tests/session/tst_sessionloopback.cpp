#include "appsettings.h"
#include "backendclient.h"
#include "sessionfakes.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testwebsocketserver.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

// The session with its real backend client and real speech stream, against a loopback backend and a
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
        QMap<QByteArray, QJsonObject> sent;  // the last request to each target
        backend.setHandler([&sent](const TestHttpServer::Received& request) {
            sent[request.target] = QJsonDocument::fromJson(request.body).object();
            return request.target != "/answer"
                       ? TestHttpServer::Response::json(200, R"({"token":"speech-token-1"})")
                       : TestHttpServer::Response::stream(
                             {{"data: {\"type\":\"text\",\"text\":\"Stay calm.\"}\n\n"}});
        });
        connect(&speech, &TestWebSocketServer::frameReceived, this, [&speech](int connection) {
            if (speech.connections().at(connection).binaries().size() == 1) {
                speech.sendText(connection,
                                R"({"type":"Results","is_final":true,"speech_final":true,)"
                                R"("channel":{"alternatives":[{"transcript":"Tell me about it"}]}})");
            }
        });

        AppSettings settings(home.configPath() + QStringLiteral("/settings.ini"));
        settings.setUseMic(false);
        settings.setAutoAnswer(true);
        settings.setResume(QStringLiteral("Kernel hacker"));
        BackendClient client;
        auto system = std::make_shared<FakeCapture::Record>();
        SessionController session(
            {&settings, SessionBackend::over(client), nullptr, std::make_unique<FakeCapture>(system),
             std::make_unique<FakeCapture>(std::make_shared<CaptureRecord>()), nullptr, nullptr});

        session.start();
        FakeCapture::finishStart(*system, Done{});
        QTRY_COMPARE(session.systemAudio(), SessionController::Health::ok);
        FakeCapture::deliver(*system, 80000, 1);  // 2.5 seconds of audio
        QTRY_COMPARE(session.answer(), "Stay calm.");
        QCOMPARE(sent["/answer"]["question"].toString(), "Tell me about it");
        QCOMPARE(sent["/answer"]["resume"].toString(), "Kernel hacker");
        QTRY_VERIFY(!session.isAnswering());

        session.stop();
        QTRY_COMPARE(sent["/usage"]["sttSeconds"].toDouble(), 2.5);
    }
};

QTEST_GUILESS_MAIN(SessionLoopbackTest)
#include "tst_sessionloopback.moc"
