// Streamed answers: the server relays a fake OpenAI-compatible model as its own event stream, several at
// once, and answers offline from the resume when no model is configured. Under the relay, the line
// splitter: lines survive however the body is cut into reads.

#include "runningserver.h"
#include "streamlines.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QTest>

namespace {

// `text` goes into the JSON as it stands: escape what JSON needs.
QByteArray delta(const QByteArray& text) {
    return R"(data: {"choices":[{"delta":{"content":")" + text + "\"}}]}\n\n";
}

// A model that streams `pieces`, each after its delay, then "[DONE]". Models open with a delta that
// carries the role and empty content, and some close with a delta whose content is null: neither is text.
TestHttpServer::Response modelStream(const QList<QPair<QByteArray, int>>& pieces) {
    QList<TestHttpServer::Piece> body{
        {delta("").replace(R"({"content")", R"({"role":"assistant","content")"), 0}};
    for (const auto& [text, delayMs] : pieces) {
        body.append({delta(text), delayMs});
    }
    body.append({delta("").replace(R"("")", "null") + "data: [DONE]\n\n", 0});
    return TestHttpServer::Response::stream(body);
}

const QByteArray question =
    R"({"question":"Tell me about a time you fixed a production outage.","transcript":[)"
    R"({"speaker":"interviewer","text":"Thanks for joining us today."},{"speaker":"me","text":"Happy to be here."}],)"
    R"("resume":"Site reliability engineer at Norrland Rail\n- Cut paging volume by 60 percent\n)"
    R"(- Led the fix of a production outage in the signalling system",)"
    R"("jobDescription":"We run a payments platform on Kubernetes.","extraInstructions":"Keep it under a minute."})";

}  // namespace

Q_DECLARE_METATYPE(TestHttpServer::Response)
Q_DECLARE_METATYPE(std::vector<std::string>)

class TestServerAnswer : public QObject {
    Q_OBJECT

private:
    std::unique_ptr<TestHttpServer> model_;
    std::unique_ptr<RunningServer> server_;
    std::atomic<int> modelDone_ = 0;

    void startServer(const QString& url,
                     std::chrono::milliseconds timeout = std::chrono::milliseconds(1500)) {
        server::ServerConfig config;
        config.llmUrl = url.toStdString();
        config.llmKey = "upstream-key";
        config.llmModel = url.isEmpty() ? "" : "test-model";
        config.llmTimeout = timeout;
        server_ = std::make_unique<RunningServer>(config);
    }

    // What the answer stream said: its text pieces, and "done" or the error message it ended with.
    // `onPiece` sees the body as it comes.
    std::pair<QStringList, QString> ask(BodyPiece onPiece = {}) {
        const HttpCall call =
            awaitReply(httpAsync(server_->port(), "POST", "/answer",
                                 devSignIn(server_->port(), "pat@example.org"), question, onPiece));
        std::pair<QStringList, QString> said{{}, "status " + QString::number(call.status)};
        for (const QByteArray& line : call.body.split('\n')) {
            const QJsonObject event = QJsonDocument::fromJson(line.mid(6)).object();
            if (event["type"] == "text") {
                said.first.append(event["text"].toString());
            } else if (!event.isEmpty()) {
                said.second = event["type"] == "done" ? "done" : event["message"].toString();
            }
        }
        return said;
    }

private slots:
    void init() {
        model_ = std::make_unique<TestHttpServer>();
        QVERIFY(model_->listen());
        modelDone_ = 0;
        connect(model_.get(), &TestHttpServer::responseCompleted, this, [this] { ++modelDone_; });
    }

    void linesAreTheSameWhereverTheBodyIsCut_data() {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<std::vector<std::string>>("lines");

        const auto row = [](const char* name, const QByteArray& body, const std::vector<std::string>& lines) {
            QTest::newRow(name) << body << lines;
        };
        row("line feeds", "data: a\n\ndata: b\n", {"data: a", "", "data: b"});
        row("carriage return and line feed", "data: a\r\n\r\ndata: b\r\n", {"data: a", "", "data: b"});
        row("lone carriage returns", "data: a\r\rdata: b\r", {"data: a", "", "data: b"});
        row("no terminator at the end", "data: a\ndata: [DONE]", {"data: a", "data: [DONE]"});
        row("multi-byte text", "data: caf\xc3\xa9 \xe2\x80\xa6\n", {"data: caf\xc3\xa9 \xe2\x80\xa6"});
        row("empty body", {}, {});
    }

    void linesAreTheSameWhereverTheBodyIsCut() {
        QFETCH(QByteArray, body);
        QFETCH(std::vector<std::string>, lines);
        const std::string_view all(body.constData(), static_cast<std::size_t>(body.size()));
        for (std::size_t cut = 0; cut <= all.size(); ++cut) {
            server::StreamLines splitter;
            auto got = splitter.feed(all.substr(0, cut));
            for (auto& line : splitter.feed(all.substr(cut))) {
                got.push_back(std::move(line));
            }
            if (auto last = splitter.finish(); !last.empty()) {
                got.push_back(std::move(last));
            }
            QVERIFY2(got == lines, qPrintable(QStringLiteral("cut at byte %1").arg(cut)));
        }
    }

    void theModelGetsTheWholePromptAndItsPiecesStreamInOrder() {
        model_->respondWith(
            modelStream({{"I led", 0}, {" the fix", 200}, {" of\\n- the outage", 200}, {".", 1000}}));
        startServer(model_->url().toString() + "/v1");
        QList<int> modelDoneAtPiece;
        const auto [pieces, end] = ask([&](const QByteArray& piece) {
            for (auto texts = piece.count(R"("type":"text")"); texts > 0; --texts) {
                modelDoneAtPiece.append(modelDone_);
            }
            return true;
        });
        QCOMPARE(end, QStringLiteral("done"));
        QCOMPARE(pieces, (QStringList{"I led", " the fix", " of\n- the outage", "."}));
        // The first three pieces were passed on before the model had sent its last one.
        QCOMPARE(modelDoneAtPiece.mid(0, 3), (QList<int>{0, 0, 0}));
        const auto& request = model_->received().last();
        QCOMPARE(request.method + ' ' + request.target + ' ' + request.header("authorization"),
                 "POST /v1/chat/completions Bearer upstream-key");
        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QVERIFY(body["model"] == "test-model" && body["stream"] == true);
        const QString system = body["messages"][0]["content"].toString();
        for (const char* expected :
             {"- Led the fix of a production outage in the signalling system",
              "payments platform on Kubernetes", "Keep it under a minute.", "first person", "Never invent",
              "STAR", "fenced code block", "bullet points"}) {
            QVERIFY2(system.contains(QLatin1String(expected)), expected);
        }
        QCOMPARE(
            body["messages"][1]["content"].toString(),
            "The conversation so far:\nInterviewer: Thanks for joining us today.\nCandidate: Happy to be "
            "here.\n\nThe question to answer now:\nTell me about a time you fixed a production outage.");
    }

    void modelFailuresEndTheStreamWithAReadableError_data() {
        QTest::addColumn<TestHttpServer::Response>("response");
        QTest::addColumn<QStringList>("pieces");
        QTest::addColumn<QString>("message");
        using R = TestHttpServer::Response;
        QTest::newRow("refused with a reason")
            << R::json(401, R"({"error":{"message":"Incorrect API key provided."}})") << QStringList()
            << "The language model refused the request (status 401): Incorrect API key provided.";
        QTest::newRow("error event mid-answer")
            << R::stream({{delta("Partly"), 0},
                          {"data: {\"error\":{\"message\":\"Overloaded.\"}}\n\n", 50},
                          {delta("never read"), 50}})
            << QStringList{"Partly"} << "The language model stopped with an error: Overloaded.";
        QTest::newRow("silent past the time-out")
            << modelStream({{"Early", 0}, {"Late", 4000}}) << QStringList{"Early"}
            << "The language model didn't respond in time. Try again.";
        QTest::newRow("connection dropped")
            << R{200, {}, {{delta("Cut"), 0}, {"data: {", 100}}, true, true} << QStringList{"Cut"}
            << "The connection to the language model failed";
        QTest::newRow("nobody listening")
            << R() << QStringList() << "The connection to the language model failed";
    }

    void modelFailuresEndTheStreamWithAReadableError() {
        QFETCH(TestHttpServer::Response, response);
        QFETCH(QStringList, pieces);
        QFETCH(QString, message);
        model_->respondWith(response);
        // Port 1 on loopback: nothing of ours listens there.
        startServer(QTest::currentDataTag() == QByteArray("nobody listening") ? "http://127.0.0.1:1"
                                                                              : model_->url().toString());
        const auto [said, end] = ask();
        QCOMPARE(said, pieces);
        QVERIFY2(end.startsWith(message), qPrintable(end));
    }

    void anAbandonedAnswerStopsTheModelRequest() {
        model_->respondWith(modelStream({{"First", 0}, {" second", 5000}, {" third", 5000}}));
        startServer(model_->url().toString(), std::chrono::seconds(4));
        QCOMPARE(ask([](const QByteArray&) { return false; }).first, QStringList{"First"});
        // The server drops its model request on the hang-up, long before the model's 4 s time-out or its
        // next piece. It looks for its client every half second, but only when libcurl calls back, which
        // a quiet transfer does about once a second.
        QTRY_COMPARE_WITH_TIMEOUT(model_->abandoned(), 1, 3000);
    }

    // Each answer holds a request thread for as long as the model writes; none waits for another.
    void answersStreamSideBySide() {
        model_->respondWith(modelStream({{"I write ", 0}, {"stress tests.", 3000}}));
        startServer(model_->url().toString(), std::chrono::seconds(30));
        const std::string token = devSignIn(server_->port(), "tia@example.org");
        std::vector<std::future<HttpCall>> replies;
        for (int i = 0; i < 8; ++i) {
            replies.push_back(httpAsync(server_->port(), "POST", "/answer", token, question));
        }
        QTRY_COMPARE_WITH_TIMEOUT(model_->received().size(), 8, 2500);
        QCOMPARE(modelDone_, 0);
        for (auto& reply : replies) {
            QVERIFY(awaitReply(std::move(reply))
                        .body.endsWith("\"stress tests.\"}\n\ndata: {\"type\":\"done\"}\n\n"));
        }
    }

    void theOfflineEngineAnswersFromTheMostRelevantResumeLines() {
        startServer({});
        const auto [pieces, end] = ask();
        const QString text = pieces.join(QString());
        QVERIFY(end == "done" && pieces.size() > 3 && text.startsWith("I'm answering offline"));
        QVERIFY2(
            text.endsWith("question:\n\n- Led the fix of a production outage in the signalling system\n"),
            qPrintable(text));
    }
};

QTEST_GUILESS_MAIN(TestServerAnswer)
#include "tst_serveranswer.moc"
