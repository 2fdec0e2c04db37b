#include "backendclient.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QSignalSpy>
#include <QTest>

Q_DECLARE_METATYPE(AnswerLine)

namespace {

// What a consumer saw of one stream.
struct Outcome {
    QStringList chunks;
    bool finished = false;
    std::optional<Failure> failure;
    bool ended() const { return finished || failure.has_value(); }
};

void record(AnswerStream& stream, Outcome& outcome) {
    QObject::connect(&stream, &AnswerStream::chunk,
                     [&outcome](const QString& text) { outcome.chunks.append(text); });
    QObject::connect(&stream, &AnswerStream::finished, [&outcome] { outcome.finished = true; });
    QObject::connect(&stream, &AnswerStream::failed,
                     [&outcome](const Failure& failure) { outcome.failure = failure; });
}

BackendClient::AnswerRequest sampleRequest() {
    return {QStringLiteral("Why this role?"),
            {TranscriptLine(Speaker::interviewer, QStringLiteral("Hello.")),
             TranscriptLine(Speaker::me, QStringLiteral("Hi, thanks for having me."))},
            QStringLiteral("Ten years of C++."),
            QStringLiteral("Senior engineer"),
            QStringLiteral("Be brief.")};
}

}  // namespace

class AnswerStreamTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void lineRules_data();
    void lineRules();
    void splitsLinesAtEveryByte_data();
    void splitsLinesAtEveryByte();

    void requestShape();
    void streamsPiecesAsTheyArrive();
    void endings_data();
    void endings();
    void refusals_data();
    void refusals();
    void noTokenFailsBeforeSending();
    void connectionRefused();
    void connectionDropsMidBody();
    void cancelAfterFirstPieceAbandonsRequest();
    void droppingTheStreamAbandonsRequest();

private:
    std::unique_ptr<TestHome> home_;
    std::unique_ptr<TestHttpServer> server_;
    std::unique_ptr<BackendClient> client_;
};

void AnswerStreamTest::init() {
    home_ = std::make_unique<TestHome>();
    server_ = std::make_unique<TestHttpServer>();
    QVERIFY(server_->listen());
    home_->environment().set("TALLOWIND_SERVER", server_->url().toString().toUtf8());
    home_->environment().set("TALLOWIND_TOKEN", "tok");
    client_ = std::make_unique<BackendClient>();
}

void AnswerStreamTest::cleanup() {
    client_.reset();
    server_.reset();
    home_.reset();
}

void AnswerStreamTest::lineRules_data() {
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<AnswerLine>("expected");
    using K = AnswerLine::Kind;

    QTest::newRow("text") << QByteArray(R"(data: {"type":"text","text":"Hello"})")
                          << AnswerLine{K::text, "Hello"};
    QTest::newRow("text kept untrimmed")
        << QByteArray(R"(data: {"type":"text","text":"  two  "})") << AnswerLine{K::text, "  two  "};
    QTest::newRow("text absent") << QByteArray(R"(data: {"type":"text"})") << AnswerLine{K::text, ""};
    QTest::newRow("text null") << QByteArray(R"(data: {"type":"text","text":null})")
                               << AnswerLine{K::text, ""};
    QTest::newRow("text not a string") << QByteArray(R"(data: {"type":"text","text":5})") << AnswerLine{};
    QTest::newRow("extra keys ignored")
        << QByteArray(R"(data: {"type":"text","text":"x","id":7})") << AnswerLine{K::text, "x"};
    QTest::newRow("error with message") << QByteArray(R"(data: {"type":"error","message":"Quota used up."})")
                                        << AnswerLine{K::error, "Quota used up."};
    QTest::newRow("error without message")
        << QByteArray(R"(data: {"type":"error"})") << AnswerLine{K::error, "Something went wrong."};
    QTest::newRow("error null message") << QByteArray(R"(data: {"type":"error","message":null})")
                                        << AnswerLine{K::error, "Something went wrong."};
    QTest::newRow("error numeric message")
        << QByteArray(R"(data: {"type":"error","message":3})") << AnswerLine{};
    QTest::newRow("unknown type") << QByteArray(R"(data: {"type":"done"})") << AnswerLine{};
    QTest::newRow("type missing") << QByteArray(R"(data: {"text":"x"})") << AnswerLine{};
    QTest::newRow("type not a string") << QByteArray(R"(data: {"type":1,"text":"x"})") << AnswerLine{};
    QTest::newRow("no space after colon") << QByteArray(R"(data:{"type":"text","text":"x"})") << AnswerLine{};
    QTest::newRow("two spaces") << QByteArray(R"(data:  {"type":"text","text":"x"})")
                                << AnswerLine{K::text, "x"};
    QTest::newRow("prefix in capitals") << QByteArray(R"(DATA: {"type":"text","text":"x"})") << AnswerLine{};
    QTest::newRow("invalid JSON") << QByteArray(R"(data: {"type":"text",)") << AnswerLine{};
    QTest::newRow("JSON array") << QByteArray(R"(data: ["text"])") << AnswerLine{};
    QTest::newRow("blank") << QByteArray() << AnswerLine{};
    QTest::newRow("comment") << QByteArray(": keep-alive") << AnswerLine{};
    QTest::newRow("other field") << QByteArray("event: message") << AnswerLine{};
    QTest::newRow("unicode") << QByteArray(R"(data: {"type":"text","text":"caf\u00e9 ✓"})")
                             << AnswerLine{K::text, QString::fromUtf8("café ✓")};
}

void AnswerStreamTest::lineRules() {
    QFETCH(QByteArray, line);
    QFETCH(AnswerLine, expected);
    QCOMPARE(parseAnswerLine(line), expected);
}

void AnswerStreamTest::splitsLinesAtEveryByte_data() {
    QTest::addColumn<QByteArray>("terminator");
    QTest::newRow("line feed") << QByteArray("\n");
    QTest::newRow("carriage return") << QByteArray("\r");
    QTest::newRow("carriage return and line feed") << QByteArray("\r\n");
}

void AnswerStreamTest::splitsLinesAtEveryByte() {
    QFETCH(QByteArray, terminator);
    const QByteArray body = "data: one" + terminator + terminator + "data: tw\xc3\xb6" + terminator + "last";
    QList<QByteArray> whole;
    {
        LineSplitter splitter;
        whole = splitter.feed(body);
        whole.append(splitter.finish());
    }
    auto nonEmpty = [](QList<QByteArray> lines) {
        lines.removeAll(QByteArray());
        return lines;
    };
    QCOMPARE(nonEmpty(whole), (QList<QByteArray>{"data: one", "data: tw\xc3\xb6", "last"}));

    for (qsizetype cut = 0; cut <= body.size(); ++cut) {
        LineSplitter splitter;
        QList<QByteArray> lines = splitter.feed(body.left(cut));
        lines += splitter.feed(body.mid(cut));
        lines.append(splitter.finish());
        QCOMPARE(nonEmpty(lines), nonEmpty(whole));
    }
}

void AnswerStreamTest::requestShape() {
    server_->respondWith(TestHttpServer::Response::stream({}));
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    QTRY_VERIFY(outcome.ended());

    QCOMPARE(server_->received().size(), 1);
    const auto& received = server_->received().first();
    QCOMPARE(received.method, QByteArray("POST"));
    QCOMPARE(received.target, QByteArray("/answer"));
    QCOMPARE(received.header("authorization"), QByteArray("Bearer tok"));
    QCOMPARE(received.header("accept-encoding"), QByteArray("identity"));
    const QJsonObject body = QJsonDocument::fromJson(received.body).object();
    QCOMPARE(body.keys(),
             (QStringList{"extraInstructions", "jobDescription", "question", "resume", "transcript"}));
    QCOMPARE(body.value("question").toString(), QStringLiteral("Why this role?"));
    QCOMPARE(body.value("resume").toString(), QStringLiteral("Ten years of C++."));
    QCOMPARE(body.value("jobDescription").toString(), QStringLiteral("Senior engineer"));
    QCOMPARE(body.value("extraInstructions").toString(), QStringLiteral("Be brief."));
    const QJsonArray transcript = body.value("transcript").toArray();
    QCOMPARE(transcript.size(), 2);
    QCOMPARE(transcript[0].toObject(), (QJsonObject{{"speaker", "interviewer"}, {"text", "Hello."}}));
    QCOMPARE(transcript[1].toObject(),
             (QJsonObject{{"speaker", "me"}, {"text", "Hi, thanks for having me."}}));
}

void AnswerStreamTest::streamsPiecesAsTheyArrive() {
    server_->respondWith(TestHttpServer::Response::stream({
        {"data: {\"type\":\"text\",\"text\":\"First\"}\n", 0},
        {"data: {\"type\":\"text\",\"text\":\" second\"}\n", 400},
    }));
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    // The first piece is on screen while the server still holds back the second.
    QTRY_COMPARE(outcome.chunks, QStringList{"First"});
    QVERIFY(!outcome.ended());
    QTRY_VERIFY(outcome.finished);
    QCOMPARE(outcome.chunks, (QStringList{"First", " second"}));
}

void AnswerStreamTest::endings_data() {
    QTest::addColumn<QList<QByteArray>>("pieces");
    QTest::addColumn<QStringList>("chunks");
    QTest::addColumn<QString>("failure");  // empty: finished normally

    QTest::newRow("only blank and other lines")
        << QList<QByteArray>{"\n\nevent: ping\n: comment\n\n"} << QStringList{} << "";
    QTest::newRow("unknown type between texts")
        << QList<QByteArray>{"data: {\"type\":\"text\",\"text\":\"a\"}\ndata: {\"type\":\"progress\"}\n",
                             "data: {\"type\":\"text\",\"text\":\"b\"}\n"}
        << QStringList{"a", "b"} << "";
    QTest::newRow("closing event then end of body")
        << QList<QByteArray>{"data: {\"type\":\"text\",\"text\":\"a\"}\r\ndata: {\"type\":\"done\"}\r\n"}
        << QStringList{"a"} << "";
    QTest::newRow("error stops reading")
        << QList<QByteArray>{"data: {\"type\":\"text\",\"text\":\"a\"}\rdata: {\"type\":\"error\"}\r"
                             "data: {\"type\":\"text\",\"text\":\"never\"}\r"}
        << QStringList{"a"} << "Something went wrong.";
    QTest::newRow("error with message")
        << QList<QByteArray>{"data: {\"type\":\"error\",\"message\":\"Model busy.\"}\n"} << QStringList{}
        << "Model busy.";
    QTest::newRow("last line without terminator")
        << QList<QByteArray>{"data: {\"type\":\"text\",\"text\":\"a\"}\ndata: {\"type\":\"text\",\"text\":\"b\"}"}
        << QStringList{"a", "b"} << "";
    QTest::newRow("invalid JSON skipped")
        << QList<QByteArray>{"data: {oops\ndata: {\"type\":\"text\"}\n"} << QStringList{""} << "";
    QTest::newRow("line split across reads")
        << QList<QByteArray>{"data: {\"type\":\"te", "xt\",\"text\":\"caf\xc3", "\xa9\"}\r", "\n"}
        << QStringList{QString::fromUtf8("café")} << "";
}

void AnswerStreamTest::endings() {
    QFETCH(QList<QByteArray>, pieces);
    QFETCH(QStringList, chunks);
    QFETCH(QString, failure);
    QList<TestHttpServer::Piece> scripted;
    for (const auto& piece : pieces) {
        scripted.append({piece, 20});
    }
    server_->respondWith(TestHttpServer::Response::stream(scripted));
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    QTRY_VERIFY(outcome.ended());
    QCOMPARE(outcome.chunks, chunks);
    if (failure.isEmpty()) {
        QVERIFY(outcome.finished);
    } else {
        QVERIFY(outcome.failure);
        QVERIFY(outcome.failure->is(BackendError::Kind::server));
        QCOMPARE(outcome.failure->description(), failure);
    }
}

void AnswerStreamTest::refusals_data() {
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("description");
    QTest::newRow("error body") << 429 << QByteArray(R"({"error":"Monthly limit reached."})")
                                << "Monthly limit reached.";
    QTest::newRow("plain body") << 500 << QByteArray("Internal Server Error")
                                << "Tallowind's server returned an error (500).";
    QTest::newRow("signed out") << 401 << QByteArray(R"({"error":"bad token"})") << "Please sign in again.";
}

void AnswerStreamTest::refusals() {
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(QString, description);
    home_->environment().unset("TALLOWIND_TOKEN");
    Keychain::save(QStringLiteral("stored"));
    // A refusal's body arrives in pieces too; the stream judges it once it is complete.
    server_->respondWith(TestHttpServer::Response::stream({{body.left(5), 0}, {body.mid(5), 50}}, status));
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    QTRY_VERIFY(outcome.ended());
    QVERIFY(outcome.chunks.isEmpty());
    QVERIFY(outcome.failure);
    QCOMPARE(outcome.failure->description(), description);
    QCOMPARE(Keychain::load().has_value(), status != 401);
}

void AnswerStreamTest::noTokenFailsBeforeSending() {
    home_->environment().unset("TALLOWIND_TOKEN");
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);  // connected after answer() returned: the failure must still arrive
    QTRY_VERIFY(outcome.ended());
    QVERIFY(outcome.failure && outcome.failure->is(BackendError::Kind::signedOut));
    QCOMPARE(outcome.failure->description(), QStringLiteral("Please sign in again."));
    QTest::qWait(50);
    QVERIFY(server_->received().isEmpty());
}

void AnswerStreamTest::connectionRefused() {
    {
        TestHttpServer closed;
        QVERIFY(closed.listen());
        home_->environment().set("TALLOWIND_SERVER", closed.url().toString().toUtf8());
    }
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    QTRY_VERIFY(outcome.ended());
    QVERIFY(outcome.failure);
    // The transport's own description, not one of the backend's messages.
    QVERIFY(!outcome.failure->backendError());
    QVERIFY(!outcome.failure->description().isEmpty());
}

void AnswerStreamTest::connectionDropsMidBody() {
    auto response = TestHttpServer::Response::stream({{"data: {\"type\":\"text\",\"text\":\"kept\"}\n", 0},
                                                      {"data: {\"type\":\"text\",\"text\":\"lo", 30}});
    response.drop = true;
    server_->respondWith(response);
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    QTRY_VERIFY(outcome.ended());
    QCOMPARE(outcome.chunks, QStringList{"kept"});
    QVERIFY(outcome.failure);
    QVERIFY(!outcome.failure->backendError());
}

void AnswerStreamTest::cancelAfterFirstPieceAbandonsRequest() {
    server_->respondWith(TestHttpServer::Response::stream({
        {"data: {\"type\":\"text\",\"text\":\"one\"}\n", 0},
        {"data: {\"type\":\"text\",\"text\":\"two\"}\n", 500},
    }));
    auto stream = client_->answer(sampleRequest());
    Outcome outcome;
    record(*stream, outcome);
    QObject::connect(stream.get(), &AnswerStream::chunk, stream.get(), [&stream] { stream->cancel(); });
    QTRY_COMPARE(server_->abandoned(), 1);
    QCOMPARE(outcome.chunks, QStringList{"one"});
    QVERIFY(!outcome.ended());
    QVERIFY(!stream->isActive());
}

void AnswerStreamTest::droppingTheStreamAbandonsRequest() {
    server_->respondWith(TestHttpServer::Response::stream({
        {"data: {\"type\":\"text\",\"text\":\"one\"}\n", 0},
        {"data: {\"type\":\"text\",\"text\":\"two\"}\n", 500},
    }));
    auto stream = client_->answer(sampleRequest());
    QSignalSpy chunks(stream.get(), &AnswerStream::chunk);
    QVERIFY(chunks.wait());
    stream.reset();
    QTRY_COMPARE(server_->abandoned(), 1);
}

QTEST_GUILESS_MAIN(AnswerStreamTest)
#include "tst_answerstream.moc"
