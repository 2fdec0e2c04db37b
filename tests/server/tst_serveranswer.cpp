// Streamed answers: the server relays a fake OpenAI-compatible model as its own
// event stream, many at once, and answers offline from the resume when no model
// is configured.

#include "runningserver.h"
#include "testhttpserver.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QTest>

namespace {

QByteArray delta(const QString& text) {
    const QJsonObject event{
        {QStringLiteral("choices"),
         QJsonArray{QJsonObject{{QStringLiteral("delta"), QJsonObject{{QStringLiteral("content"), text}}}}}}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

// A model that streams `pieces`, each after its delay, then "[DONE]".
TestHttpServer::Response modelStream(const QList<QPair<QString, int>>& pieces) {
    // Models open with a delta that carries the role and empty content; it is no
    // piece of the answer.
    QList<TestHttpServer::Piece> body{{R"(data: {"choices":[{"delta":{"role":"assistant","content":""}}]})"
                                       "\n\n",
                                       0}};
    for (const auto& [text, delayMs] : pieces) {
        body.append({delta(text), delayMs});
    }
    // ...and some close with a delta whose content is null.
    body.append({R"(data: {"choices":[{"delta":{"content":null},"finish_reason":"stop"}]})"
                 "\n\ndata: [DONE]\n\n",
                 0});
    return TestHttpServer::Response::stream(body);
}

const QByteArray question =
    R"({"question":"Tell me about a time you fixed a production outage.","transcript":[)"
    R"({"speaker":"interviewer","text":"Thanks for joining us today."},{"speaker":"me","text":"Happy to be here."}],)"
    R"("resume":"Site reliability engineer at Norrland Rail\n- Cut paging volume by 60 percent\n)"
    R"(- Led the fix of a production outage in the signalling system",)"
    R"("jobDescription":"We run a payments platform on Kubernetes.","extraInstructions":"Keep it under a minute."})";

// What one answer stream delivered: its text pieces, and "done" or the error
// message it ended with.
struct Answer {
    QStringList pieces;
    QString end;
    QList<int> modelDoneAtPiece;  // how many model responses had completed when
                                  // each piece arrived
};

}  // namespace

Q_DECLARE_METATYPE(TestHttpServer::Response)

class TestServerAnswer : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestHttpServer> model_;
    std::unique_ptr<RunningServer> server_;
    std::atomic<int> modelDone_ = 0;

    void startServer(const QString& modelUrl,
                     std::chrono::milliseconds timeout = std::chrono::milliseconds(1500)) {
        auto config = RunningServer::devConfig();
        if (!modelUrl.isEmpty()) {
            config.llmUrl = modelUrl.toStdString() + "/v1";
            config.llmKey = "upstream-key";
            config.llmModel = "test-model";
            config.llmTimeout = timeout;
        }
        server_ = std::make_unique<RunningServer>(config);
    }

    // Asks for an answer and reads its events as they come; hangs up after
    // `piecesWanted` pieces.
    Answer ask(int piecesWanted = -1) {
        Answer answer;
        QByteArray buffer;
        auto reply = httpAsync(
            server_->port(), "POST", "/answer", devSignIn(server_->port(), "pat@example.org"), question,
            [&](const QByteArray& piece) {
                for (buffer += piece; buffer.contains("\n\n"); buffer.remove(0, buffer.indexOf("\n\n") + 2)) {
                    const QByteArray event = buffer.left(buffer.indexOf("\n\n"));
                    const QJsonObject data = QJsonDocument::fromJson(event.mid(6)).object();
                    if (event.startsWith(':')) {
                        continue;
                    } else if (!event.startsWith(R"(data: {"type":)")) {
                        answer.end = QStringLiteral("unreadable: ") + QString::fromUtf8(event);
                    } else if (data.value(QStringLiteral("type")) == QStringLiteral("text")) {
                        answer.pieces.append(data.value(QStringLiteral("text")).toString());
                        answer.modelDoneAtPiece.append(modelDone_.load());
                    } else {
                        answer.end = data.value(QStringLiteral("type")) == QStringLiteral("done")
                                         ? QStringLiteral("done")
                                         : data.value(QStringLiteral("message")).toString();
                    }
                }
                return answer.pieces.size() != piecesWanted;
            });
        const HttpCall call = awaitReply(std::move(reply));
        if (piecesWanted < 0 && (call.status != 200 || call.contentType != "text/event-stream")) {
            answer.end = QStringLiteral("status %1, %2")
                             .arg(call.status)
                             .arg(QString::fromStdString(call.contentType));
        }
        return answer;
    }

private slots:
    void init() {
        model_ = std::make_unique<TestHttpServer>();
        QVERIFY(model_->listen());
        modelDone_ = 0;
        connect(model_.get(), &TestHttpServer::responseCompleted, this, [this] { ++modelDone_; });
    }

    void cleanup() { server_.reset(); }

    void theModelGetsTheWholePromptAndItsPiecesStreamInOrder() {
        model_->respondWith(
            modelStream({{"I led", 0}, {" the fix", 200}, {" of\n- the outage", 200}, {".", 1000}}));
        startServer(model_->url().toString());
        const Answer answer = ask();
        QCOMPARE(answer.end, QStringLiteral("done"));
        QCOMPARE(answer.pieces, (QStringList{"I led", " the fix", " of\n- the outage", "."}));
        // The first three pieces were passed on before the model had sent its last
        // one.
        QCOMPARE(answer.modelDoneAtPiece.mid(0, 3), (QList<int>{0, 0, 0}));

        QCOMPARE(model_->received().size(), 1);
        const auto& request = model_->received()[0];
        QCOMPARE(request.method + ' ' + request.target, QByteArray("POST /v1/chat/completions"));
        QCOMPARE(request.header("authorization"), QByteArray("Bearer upstream-key"));
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(body.value(QStringLiteral("model")).toString(), QStringLiteral("test-model"));
        QCOMPARE(body.value(QStringLiteral("stream")).toBool(), true);
        const QJsonArray messages = body.value(QStringLiteral("messages")).toArray();
        QCOMPARE(messages.size(), 2);
        const QString system = messages[0].toObject().value(QStringLiteral("content")).toString();
        for (const char* expected :
             {"- Led the fix of a production outage in the signalling system",
              "payments platform on Kubernetes", "Keep it under a minute.", "first person", "Never invent",
              "STAR", "fenced code block", "bullet points"}) {
            QVERIFY2(system.contains(QLatin1String(expected)), expected);
        }
        QCOMPARE(messages[1].toObject().value(QStringLiteral("content")).toString(),
                 QStringLiteral("The conversation so far:\nInterviewer: Thanks for joining us "
                                "today.\n"
                                "Candidate: Happy to be here.\n\nThe question to answer now:\n"
                                "Tell me about a time you fixed a production outage."));
    }

    void modelFailuresEndTheStreamWithAReadableError_data() {
        QTest::addColumn<TestHttpServer::Response>("response");
        QTest::addColumn<QStringList>("pieces");
        QTest::addColumn<QString>("message");
        QTest::newRow("refused with a reason")
            << TestHttpServer::Response::json(
                   401,
                   R"({"error":{"message":"Incorrect API key provided.","type":"invalid_request_error"}})")
            << QStringList()
            << QStringLiteral(
                   "The language model refused the request (status "
                   "401): Incorrect API key provided.");
        QTest::newRow("error event mid-answer")
            << TestHttpServer::Response::stream({{delta("Partly"), 0},
                                                 {R"(data: {"error":{"message":"The model is overloaded."}})"
                                                  "\n\n",
                                                  50},
                                                 {delta("never read"), 50}})
            << QStringList{"Partly"}
            << QStringLiteral(
                   "The language model stopped with an error: The model "
                   "is overloaded.");
        QTest::newRow("silent past the time-out")
            << modelStream({{"Early", 0}, {"Late", 4000}}) << QStringList{"Early"}
            << QStringLiteral("The language model didn't respond in time. Try again.");
        auto dropped = TestHttpServer::Response::stream({{delta("Cut"), 0}, {"data: {", 100}});
        dropped.drop = true;
        QTest::newRow("connection dropped")
            << dropped << QStringList{"Cut"} << QStringLiteral("The connection to the language model failed");
        QTest::newRow("nobody listening") << TestHttpServer::Response() << QStringList()
                                          << QStringLiteral("The connection to the language model failed");
    }

    void modelFailuresEndTheStreamWithAReadableError() {
        QFETCH(TestHttpServer::Response, response);
        QFETCH(QStringList, pieces);
        QFETCH(QString, message);
        model_->respondWith(response);
        // Port 1 on loopback: nothing of ours listens there.
        startServer(QTest::currentDataTag() == QByteArray("nobody listening")
                        ? QStringLiteral("http://127.0.0.1:1")
                        : model_->url().toString());
        const Answer answer = ask();
        QCOMPARE(answer.pieces, pieces);
        QVERIFY2(answer.end.startsWith(message), qPrintable(answer.end));
    }

    void anAbandonedAnswerStopsTheModelRequest() {
        model_->respondWith(modelStream({{"First", 0}, {" second", 3000}, {" third", 3000}}));
        startServer(model_->url().toString());
        QCOMPARE(ask(1).pieces, QStringList{"First"});
        // The server notices the hang-up while the model is silent and drops its
        // own request, long before the model's 1.5 s time-out or its end.
        QTRY_COMPARE_WITH_TIMEOUT(model_->abandoned(), 1, 1200);
    }

    void fiftyRelayedAnswersStreamSideBySide() {
        model_->respondWith(modelStream({{"I write ", 0}, {"stress tests.", 4000}}));
        int completedWhenAllArrived = -1;
        connect(model_.get(), &TestHttpServer::requestReceived, this, [&] {
            if (model_->received().size() == 50) {
                completedWhenAllArrived = modelDone_;
            }
        });
        startServer(model_->url().toString(), std::chrono::seconds(30));
        const std::string token = devSignIn(server_->port(), "tia@example.org");
        std::vector<std::future<HttpCall>> replies;
        for (int i = 0; i < 50; ++i) {
            replies.push_back(httpAsync(server_->port(), "POST", "/answer", token, question));
        }
        for (auto& reply : replies) {
            const QByteArray body = awaitReply(std::move(reply)).body;
            QVERIFY2(body.startsWith(R"(data: {"type":"text","text":"I write "})") &&
                         body.endsWith("\"stress tests.\"}\n\ndata: {\"type\":\"done\"}\n\n"),
                     body.constData());
        }
        // Every request reached the model while the first answer was still being written.
        QCOMPARE(completedWhenAllArrived, 0);
    }

    void theOfflineEngineAnswersFromTheMostRelevantResumeLines() {
        startServer({});
        const Answer answer = ask();
        QCOMPARE(answer.end, QStringLiteral("done"));
        const QString text = answer.pieces.join(QString());
        QVERIFY(answer.pieces.size() > 3 && text.startsWith(QStringLiteral("I'm answering offline")));
        QVERIFY2(text.endsWith(QStringLiteral("question:\n\n- Led the fix of a production "
                                              "outage in the signalling system\n")),
                 qPrintable(text));
    }
};

QTEST_GUILESS_MAIN(TestServerAnswer)
#include "tst_serveranswer.moc"
