// Streamed answers: the server relays a fake OpenAI-compatible model to the program's own answer stream,
// and answers offline from the resume when no model is configured.

#include "backendclient.h"
#include "keychain.h"
#include "offlineengine.h"
#include "runningserver.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

#include <chrono>

namespace {

QByteArray delta(const QString& text) {
    const QJsonObject event{
        {QStringLiteral("choices"),
         QJsonArray{QJsonObject{{QStringLiteral("delta"), QJsonObject{{QStringLiteral("content"), text}}}}}}};
    return "data: " + QJsonDocument(event).toJson(QJsonDocument::Compact) + "\n\n";
}

// A model that streams `pieces`, each after its delay, then "[DONE]".
TestHttpServer::Response modelStream(const QList<QPair<QString, int>>& pieces) {
    // Models open with a delta that carries the role and empty content; it is no piece of the answer.
    QList<TestHttpServer::Piece> body{{R"(data: {"choices":[{"delta":{"role":"assistant","content":""}}]})"
                                       "\n\n",
                                       0}};
    for (const auto& [text, delayMs] : pieces) {
        body.append({delta(text), delayMs});
    }
    body.append({"data: [DONE]\n\n", 0});
    auto response = TestHttpServer::Response::stream(body);
    response.headers.append(qMakePair(QByteArray("content-type"), QByteArray("text/event-stream")));
    return response;
}

BackendClient::AnswerRequest sampleRequest() {
    return {QStringLiteral("Tell me about a time you fixed a production outage."),
            {TranscriptLine(Speaker::interviewer, QStringLiteral("Thanks for joining us today.")),
             TranscriptLine(Speaker::me, QStringLiteral("Happy to be here."))},
            QStringLiteral("Site reliability engineer at Norrland Rail\n- Cut paging volume by 60 percent\n"
                           "- Led the fix of a production outage in the signalling system"),
            QStringLiteral("We run a payments platform on Kubernetes."),
            QStringLiteral("Keep it under a minute.")};
}

// What one answer stream delivered.
struct Received {
    QStringList chunks;
    std::optional<Failure> failure;
    bool finished = false;
    int upstreamDone = 0;
    // How many model responses had completed when each chunk arrived.
    QList<int> upstreamDoneAtChunk;
};

server::ServerConfig withModel(const QUrl& url) {
    auto config = RunningServer::devConfig();
    config.llmUrl = url.toString().toStdString() + "/v1";
    config.llmKey = "upstream-key";
    config.llmModel = "test-model";
    config.llmTimeout = std::chrono::milliseconds(1500);
    return config;
}

// A server that relays the model in `upstream`, with the program's client signed in to it.
struct Rig {
    TestHome home;
    TestHttpServer upstream;
    std::unique_ptr<RunningServer> server;
    BackendClient client;
    Received received;

    bool up(const server::ServerConfig& config) {
        server = std::make_unique<RunningServer>(config);
        home.environment().set("TALLOWIND_SERVER", server->url().toString().toUtf8());
        bool done = false;
        client.startLogin(QStringLiteral("pat@example.org"), [&](Result<std::optional<QString>> code) {
            if (!code || !code.value()) {
                done = true;
                return;
            }
            client.verifyLogin(QStringLiteral("pat@example.org"), *code.value(),
                               [&](Result<QString>) { done = true; });
        });
        return QTest::qWaitFor([&] { return done; }, 10'000) && isSignedIn();
    }

    std::unique_ptr<AnswerStream> start() {
        auto stream = client.answer(sampleRequest());
        QObject::connect(&upstream, &TestHttpServer::responseCompleted, stream.get(),
                         [this] { ++received.upstreamDone; });
        QObject::connect(stream.get(), &AnswerStream::chunk, stream.get(), [this](const QString& text) {
            received.chunks.append(text);
            received.upstreamDoneAtChunk.append(received.upstreamDone);
        });
        QObject::connect(stream.get(), &AnswerStream::finished, stream.get(),
                         [this] { received.finished = true; });
        QObject::connect(stream.get(), &AnswerStream::failed, stream.get(),
                         [this](const Failure& failure) { received.failure = failure; });
        return stream;
    }

    bool ended() {
        return QTest::qWaitFor([this] { return received.finished || received.failure; }, 10'000);
    }
};

}  // namespace

class TestServerAnswer : public QObject {
    Q_OBJECT

private slots:
    void piecesArriveInOrderWhileTheModelIsStillWriting() {
        Rig rig;
        QVERIFY(rig.upstream.listen());
        rig.upstream.respondWith(modelStream({{QStringLiteral("I led"), 0},
                                              {QStringLiteral(" the fix"), 200},
                                              {QStringLiteral(" of\n- the outage"), 200},
                                              {QStringLiteral("."), 1000}}));
        QVERIFY(rig.up(withModel(rig.upstream.url())));
        const auto stream = rig.start();
        QVERIFY(rig.ended());
        const Received& received = rig.received;
        QVERIFY(received.finished);
        QCOMPARE(received.chunks, (QStringList{QStringLiteral("I led"), QStringLiteral(" the fix"),
                                               QStringLiteral(" of\n- the outage"), QStringLiteral(".")}));
        // The first three pieces were on screen before the model had sent its last one.
        QCOMPARE(received.upstreamDoneAtChunk.mid(0, 3), (QList<int>{0, 0, 0}));
    }

    void thePromptCarriesEverythingTheCandidateGave() {
        Rig rig;
        QVERIFY(rig.upstream.listen());
        rig.upstream.respondWith(modelStream({{QStringLiteral("Sure."), 0}}));
        QVERIFY(rig.up(withModel(rig.upstream.url())));
        const auto stream = rig.start();
        QVERIFY(rig.ended());
        QCOMPARE(rig.upstream.received().size(), 1);
        const auto& request = rig.upstream.received()[0];
        QCOMPARE(request.method + ' ' + request.target, QByteArray("POST /v1/chat/completions"));
        QCOMPARE(request.header("authorization"), QByteArray("Bearer upstream-key"));

        const QJsonObject body = QJsonDocument::fromJson(request.body).object();
        QCOMPARE(body.value(QStringLiteral("model")).toString(), QStringLiteral("test-model"));
        QCOMPARE(body.value(QStringLiteral("stream")).toBool(), true);
        const QJsonArray messages = body.value(QStringLiteral("messages")).toArray();
        QCOMPARE(messages.size(), 2);
        const QString system = messages[0].toObject().value(QStringLiteral("content")).toString();
        const QString user = messages[1].toObject().value(QStringLiteral("content")).toString();
        const auto sample = sampleRequest();
        for (const QString& expected :
             {sample.resume, sample.jobDescription, sample.extraInstructions, QStringLiteral("first person"),
              QStringLiteral("Never invent"), QStringLiteral("STAR"), QStringLiteral("fenced code block"),
              QStringLiteral("bullet points")}) {
            QVERIFY2(system.contains(expected), qPrintable(expected));
        }
        for (const QString& expected :
             {sample.question, QStringLiteral("Interviewer: Thanks for joining us today."),
              QStringLiteral("Candidate: Happy to be here.")}) {
            QVERIFY2(user.contains(expected), qPrintable(expected));
        }
    }

    void modelFailuresEndTheStreamWithAReadableError_data() {
        QTest::addColumn<QString>("scenario");
        QTest::addColumn<QStringList>("chunks");
        QTest::addColumn<QString>("message");
        QTest::newRow("refused with a reason") << QStringLiteral("refused") << QStringList()
                                               << QStringLiteral(
                                                      "The language model refused the request (status 401): "
                                                      "Incorrect API key provided.");
        QTest::newRow("error event mid-answer")
            << QStringLiteral("error event") << QStringList{QStringLiteral("Partly")}
            << QStringLiteral("The language model stopped with an error: The model is overloaded.");
        QTest::newRow("silent past the time-out")
            << QStringLiteral("silent") << QStringList{QStringLiteral("Early")}
            << QStringLiteral("The language model didn't respond in time. Try again.");
        QTest::newRow("connection dropped") << QStringLiteral("dropped") << QStringList{QStringLiteral("Cut")}
                                            << QStringLiteral("The connection to the language model failed");
        QTest::newRow("nobody listening") << QStringLiteral("unreachable") << QStringList()
                                          << QStringLiteral("The connection to the language model failed");
    }

    void modelFailuresEndTheStreamWithAReadableError() {
        QFETCH(QString, scenario);
        QFETCH(QStringList, chunks);
        QFETCH(QString, message);
        Rig rig;
        TestHttpServer& upstream = rig.upstream;
        QVERIFY(upstream.listen());
        if (scenario == QStringLiteral("refused")) {
            upstream.respondWith(TestHttpServer::Response::json(
                401,
                R"({"error":{"message":"Incorrect API key provided.","type":"invalid_request_error"}})"));
        } else if (scenario == QStringLiteral("error event")) {
            upstream.respondWith(
                TestHttpServer::Response::stream({{delta(QStringLiteral("Partly")), 0},
                                                  {R"(data: {"error":{"message":"The model is overloaded."}})"
                                                   "\n\n",
                                                   50},
                                                  {delta(QStringLiteral("never read")), 50}}));
        } else if (scenario == QStringLiteral("silent")) {
            upstream.respondWith(modelStream({{QStringLiteral("Early"), 0}, {QStringLiteral("Late"), 4000}}));
        } else if (scenario == QStringLiteral("dropped")) {
            auto response =
                TestHttpServer::Response::stream({{delta(QStringLiteral("Cut")), 0}, {"data: {", 100}});
            response.drop = true;
            upstream.respondWith(response);
        }
        QUrl url = upstream.url();
        if (scenario == QStringLiteral("unreachable")) {
            TestHttpServer closed;
            QVERIFY(closed.listen());
            url = closed.url();
        }
        QVERIFY(rig.up(withModel(url)));
        const auto stream = rig.start();
        QVERIFY(rig.ended());
        const Received& received = rig.received;
        QCOMPARE(received.chunks, chunks);
        QVERIFY(received.failure);
        QVERIFY2(received.failure->description().startsWith(message),
                 qPrintable(received.failure->description()));
    }

    void anAbandonedAnswerStopsTheModelRequest() {
        Rig rig;
        QVERIFY(rig.upstream.listen());
        rig.upstream.respondWith(modelStream({{QStringLiteral("First"), 0},
                                              {QStringLiteral(" second"), 3000},
                                              {QStringLiteral(" third"), 3000}}));
        QVERIFY(rig.up(withModel(rig.upstream.url())));
        auto stream = rig.start();
        QTRY_COMPARE_WITH_TIMEOUT(rig.received.chunks.size(), 1, 10'000);
        stream.reset();
        // The server notices the hang-up while the model is silent and drops its own request, long before
        // the model's 1.5 s time-out or its end.
        QTRY_COMPARE_WITH_TIMEOUT(rig.upstream.abandoned(), 1, 1200);
        QCOMPARE(rig.received.chunks, QStringList{QStringLiteral("First")});
    }

    void theOfflineEngineAnswersFromTheMostRelevantResumeLines() {
        Rig rig;
        QVERIFY(rig.up(RunningServer::devConfig()));
        const auto stream = rig.start();
        QVERIFY(rig.ended());
        QVERIFY(rig.received.finished && rig.received.chunks.size() > 3);
        const QString text = rig.received.chunks.join(QString());
        QVERIFY(text.startsWith(QStringLiteral("I'm answering offline")));
        QVERIFY2(text.endsWith(QStringLiteral(
                     "question:\n\n- Led the fix of a production outage in the signalling system\n")),
                 qPrintable(text));
    }

    void resumeLinesAreRankedByOverlapWithTheQuestion_data() {
        QTest::addColumn<QString>("question");
        QTest::addColumn<QString>("resume");
        QTest::addColumn<QStringList>("expected");

        const QString resume = QStringLiteral(
            "Jane Doe, Backend Engineer\n"
            "- Migrated 40 services from VMs to Kubernetes at Acme\n"
            "- Wrote the billing service in Go\n"
            "\n"
            "* Mentored four junior engineers through their first year\n"
            "- Ran the Kubernetes upgrade rota and Kubernetes cost reviews\n"
            "Skills: Go, Python, PostgreSQL, Kubernetes\n");
        QTest::newRow("the term named most often in a short line wins")
            << QStringLiteral("What have you done with Kubernetes?") << resume
            << QStringList{QStringLiteral("Ran the Kubernetes upgrade rota and Kubernetes cost reviews"),
                           QStringLiteral("Skills: Go, Python, PostgreSQL, Kubernetes"),
                           QStringLiteral("Migrated 40 services from VMs to Kubernetes at Acme")};
        QTest::newRow("rare terms outweigh common ones")
            << QStringLiteral("Tell me about mentoring engineers") << resume
            << QStringList{QStringLiteral("Mentored four junior engineers through their first year"),
                           QStringLiteral("Jane Doe, Backend Engineer")};
        QTest::newRow("plurals and case meet")
            << QStringLiteral("Which SERVICE did you write?") << resume
            << QStringList{QStringLiteral("Wrote the billing service in Go"),
                           QStringLiteral("Migrated 40 services from VMs to Kubernetes at Acme")};
        QTest::newRow("only stop words match nothing")
            << QStringLiteral("Tell me about a time when you did that.") << resume << QStringList();
    }

    void resumeLinesAreRankedByOverlapWithTheQuestion() {
        QFETCH(QString, question);
        QFETCH(QString, resume);
        QFETCH(QStringList, expected);
        QStringList lines;
        for (const auto& line :
             server::relevantResumeLines(question.toStdString(), resume.toStdString(), 3)) {
            lines.append(QString::fromStdString(line));
        }
        QCOMPARE(lines, expected);
    }
};

QTEST_GUILESS_MAIN(TestServerAnswer)
#include "tst_serveranswer.moc"
