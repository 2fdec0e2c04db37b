// Many clients at once: fifty relayed answers stream side by side, and usage reports that race each other
// lose no seconds.

#include "httpcall.h"
#include "runningserver.h"
#include "testhttpserver.h"

#include <QJsonDocument>
#include <QTest>

#include <atomic>
#include <thread>
#include <vector>

namespace {

constexpr int clients = 50;

const QByteArray answerRequest = R"({"question":"How do you test concurrent code?","transcript":[],)"
                                 R"("resume":"- Wrote a lock-free queue","jobDescription":"",)"
                                 R"("extraInstructions":""})";

// The text of an answer body: the "text" events joined, and whether it ended with "done".
std::pair<QString, bool> readAnswer(const QByteArray& body) {
    QString text;
    bool done = false;
    for (const QByteArray& line : body.split('\n')) {
        if (!line.startsWith("data: ")) {
            continue;
        }
        const QJsonObject event = QJsonDocument::fromJson(line.mid(6)).object();
        if (event.value(QStringLiteral("type")).toString() == QStringLiteral("text")) {
            text += event.value(QStringLiteral("text")).toString();
        }
        done = event.value(QStringLiteral("type")).toString() == QStringLiteral("done");
    }
    return {text, done};
}

}  // namespace

class TestServerLoad : public QObject {
    Q_OBJECT

private:
    // Starts `clients` answer requests on threads of their own; the event loop keeps running meanwhile
    // for fakes that live on this thread.
    std::vector<std::thread> askAll(int port, const std::string& token, std::vector<HttpCall>& replies,
                                    std::atomic<int>& finished) {
        std::vector<std::thread> threads;
        for (int i = 0; i < clients; ++i) {
            threads.emplace_back([&replies, &finished, port, token, i] {
                replies[i] = httpCall(port, "POST", "/answer", token, answerRequest);
                ++finished;
            });
        }
        return threads;
    }

private slots:
    void fiftyRelayedAnswersStreamSideBySide() {
        TestHttpServer model;
        QVERIFY(model.listen());
        auto response = TestHttpServer::Response::stream({
            {R"(data: {"choices":[{"delta":{"content":"I write "}}]})"
             "\n\n",
             0},
            {R"(data: {"choices":[{"delta":{"content":"stress tests."}}]})"
             "\n\n",
             4000},
            {"data: [DONE]\n\n", 0},
        });
        model.respondWith(response);
        int completedWhenAllArrived = -1;
        int completed = 0;
        connect(&model, &TestHttpServer::responseCompleted, this, [&] { ++completed; });
        connect(&model, &TestHttpServer::requestReceived, this, [&] {
            if (model.received().size() == clients) {
                completedWhenAllArrived = completed;
            }
        });
        auto config = RunningServer::devConfig();
        config.llmUrl = model.url().toString().toStdString();
        config.llmModel = "fake";
        RunningServer server(config);
        const std::string token = devSignIn(server.port(), "tia@example.org");

        std::vector<HttpCall> replies(clients);
        std::atomic<int> finished = 0;
        auto threads = askAll(server.port(), token, replies, finished);
        QTRY_COMPARE_WITH_TIMEOUT(finished.load(), clients, 60'000);
        for (auto& thread : threads) {
            thread.join();
        }
        // Every request reached the model while the first answer was still being written.
        QCOMPARE(completedWhenAllArrived, 0);
        for (const HttpCall& reply : replies) {
            QVERIFY2(reply.status == 200, reply.failure.c_str());
            const auto [text, done] = readAnswer(reply.body);
            QVERIFY(done);
            QCOMPARE(text, QStringLiteral("I write stress tests."));
        }
    }

    void racingUsageReportsLoseNoSeconds() {
        RunningServer server;
        const std::string token = devSignIn(server.port(), "uma@example.org");
        constexpr int threads = 20;
        constexpr int reportsEach = 30;
        std::atomic<int> accepted = 0;
        std::vector<std::thread> reporters;
        for (int i = 0; i < threads; ++i) {
            reporters.emplace_back([&] {
                for (int report = 0; report < reportsEach; ++report) {
                    const auto reply =
                        httpCall(server.port(), "POST", "/usage", token, R"({"sttSeconds":2.0})");
                    if (reply.status == 200) {
                        ++accepted;
                    } else {
                        qWarning() << reply.failure.c_str();
                    }
                }
            });
        }
        for (auto& reporter : reporters) {
            reporter.join();
        }
        QCOMPARE(accepted.load(), threads * reportsEach);
        // 1,200 seconds: a single lost report would leave 19 minutes.
        const HttpCall me = httpCall(server.port(), "GET", "/me", token);
        QCOMPARE(me.json().value(QStringLiteral("minutesUsed")).toInteger(), 20);
    }
};

QTEST_GUILESS_MAIN(TestServerLoad)
#include "tst_serverload.moc"
