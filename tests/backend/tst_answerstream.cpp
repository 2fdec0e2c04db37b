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

QByteArray textLine(const char* text) {
    return QByteArray(R"(data: {"type":"text","text":")") + text + "\"}\n";
}

}  // namespace

class AnswerStreamTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();

    void answerLinesAreReadStrictly_data();
    void answerLinesAreReadStrictly();
    void linesSurviveACutAtEveryByte_data();
    void linesSurviveACutAtEveryByte();
    void requestCarriesTheWholeQuestion();
    void piecesShowBeforeTheBodyEnds();
    void streamEndsOnceWithTheRightOutcome_data();
    void streamEndsOnceWithTheRightOutcome();
    void refusalsReportTheServersReason_data();
    void refusalsReportTheServersReason();
    void noTokenFailsWithoutSending();
    void transportFailuresAreNotBackendErrors_data();
    void transportFailuresAreNotBackendErrors();
    void cancellingOrDroppingAbandonsTheRequest_data();
    void cancellingOrDroppingAbandonsTheRequest();

private:
    std::unique_ptr<AnswerStream> start(Outcome& outcome);

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

std::unique_ptr<AnswerStream> AnswerStreamTest::start(Outcome& outcome) {
    auto stream = client_->answer({QStringLiteral("Why this role?"),
                                   {TranscriptLine(Speaker::interviewer, QStringLiteral("Hello.")),
                                    TranscriptLine(Speaker::me, QStringLiteral("Hi."))},
                                   QStringLiteral("Ten years of C++."),
                                   QStringLiteral("Senior engineer"),
                                   QStringLiteral("Be brief.")});
    // Connected after answer() returned: a failure before sending must still arrive.
    connect(stream.get(), &AnswerStream::chunk, this,
            [&outcome](const QString& text) { outcome.chunks << text; });
    connect(stream.get(), &AnswerStream::finished, this, [&outcome] { outcome.finished = true; });
    connect(stream.get(), &AnswerStream::failed, this, [&outcome](const Failure& f) { outcome.failure = f; });
    return stream;
}

void AnswerStreamTest::answerLinesAreReadStrictly_data() {
    QTest::addColumn<QByteArray>("line");
    QTest::addColumn<AnswerLine>("expected");
    using K = AnswerLine::Kind;
    QTest::newRow("text kept untrimmed")
        << QByteArray(R"(data: {"type":"text","text":"  two  ","id":7})") << AnswerLine{K::text, "  two  "};
    QTest::newRow("text null") << QByteArray(R"(data: {"type":"text","text":null})")
                               << AnswerLine{K::text, ""};
    QTest::newRow("text not a string") << QByteArray(R"(data: {"type":"text","text":5})") << AnswerLine{};
    QTest::newRow("error with message") << QByteArray(R"(data: {"type":"error","message":"Quota used up."})")
                                        << AnswerLine{K::error, "Quota used up."};
    QTest::newRow("error without message")
        << QByteArray(R"(data: {"type":"error"})") << AnswerLine{K::error, "Something went wrong."};
    QTest::newRow("error numeric message")
        << QByteArray(R"(data: {"type":"error","message":3})") << AnswerLine{};
    QTest::newRow("unknown type") << QByteArray(R"(data: {"type":"done"})") << AnswerLine{};
    QTest::newRow("type not a string") << QByteArray(R"(data: {"type":1,"text":"x"})") << AnswerLine{};
    QTest::newRow("no space after colon") << QByteArray(R"(data:{"type":"text","text":"x"})") << AnswerLine{};
    QTest::newRow("JSON array") << QByteArray(R"(data: ["text"])") << AnswerLine{};
    QTest::newRow("comment") << QByteArray(": keep-alive") << AnswerLine{};
}

void AnswerStreamTest::answerLinesAreReadStrictly() {
    QFETCH(QByteArray, line);
    QFETCH(AnswerLine, expected);
    QCOMPARE(parseAnswerLine(line), expected);
}

void AnswerStreamTest::linesSurviveACutAtEveryByte_data() {
    QTest::addColumn<QByteArray>("terminator");
    QTest::newRow("line feed") << QByteArray("\n");
    QTest::newRow("carriage return") << QByteArray("\r");
    QTest::newRow("carriage return and line feed") << QByteArray("\r\n");
}

void AnswerStreamTest::linesSurviveACutAtEveryByte() {
    QFETCH(QByteArray, terminator);
    const QByteArray body = "data: one" + terminator + terminator + "data: tw\xc3\xb6" + terminator + "last";
    for (qsizetype cut = 0; cut <= body.size(); ++cut) {
        LineSplitter splitter;
        QList<QByteArray> lines = splitter.feed(body.left(cut));
        lines += splitter.feed(body.mid(cut));
        lines.append(splitter.finish());
        lines.removeAll(QByteArray());
        QCOMPARE(lines, (QList<QByteArray>{"data: one", "data: tw\xc3\xb6", "last"}));
    }
}

void AnswerStreamTest::requestCarriesTheWholeQuestion() {
    server_->respondWith(TestHttpServer::Response::stream({}));
    Outcome outcome;
    auto stream = start(outcome);
    QTRY_VERIFY(outcome.finished);
    QCOMPARE(server_->received().size(), 1);
    const auto& received = server_->received().first();
    QCOMPARE(received.method + ' ' + received.target, QByteArray("POST /answer"));
    QCOMPARE(received.header("authorization"), QByteArray("Bearer tok"));
    QCOMPARE(received.header("accept-encoding"), QByteArray("identity"));
    const QJsonObject expected{
        {"question", "Why this role?"},
        {"resume", "Ten years of C++."},
        {"jobDescription", "Senior engineer"},
        {"extraInstructions", "Be brief."},
        {"transcript", QJsonArray{QJsonObject{{"speaker", "interviewer"}, {"text", "Hello."}},
                                  QJsonObject{{"speaker", "me"}, {"text", "Hi."}}}}};
    QCOMPARE(QJsonDocument::fromJson(received.body).object(), expected);
}

void AnswerStreamTest::piecesShowBeforeTheBodyEnds() {
    server_->respondWith(
        TestHttpServer::Response::stream({{textLine("First"), 0}, {textLine(" second"), 400}}));
    Outcome outcome;
    auto stream = start(outcome);
    QTRY_COMPARE(outcome.chunks, QStringList{"First"});
    QVERIFY(!outcome.ended());
    QTRY_VERIFY(outcome.finished);
    QCOMPARE(outcome.chunks, (QStringList{"First", " second"}));
}

void AnswerStreamTest::streamEndsOnceWithTheRightOutcome_data() {
    QTest::addColumn<QList<QByteArray>>("pieces");
    QTest::addColumn<QStringList>("chunks");
    QTest::addColumn<QString>("failure");  // empty: finished normally
    QTest::newRow("other lines and unknown types skipped")
        << QList<QByteArray>{"\nevent: ping\n: c\n" + textLine("a") + "data: {\"type\":\"progress\"}\n",
                             textLine("b")}
        << QStringList{"a", "b"} << "";
    QTest::newRow("error stops reading")
        << QList<QByteArray>{"data: {\"type\":\"text\",\"text\":\"a\"}\rdata: {\"type\":\"error\"}\r" +
                             textLine("x")}
        << QStringList{"a"} << "Something went wrong.";
    QTest::newRow("last line without terminator")
        << QList<QByteArray>{textLine("a") + "data: {\"type\":\"text\",\"text\":\"b\"}"}
        << QStringList{"a", "b"} << "";
    QTest::newRow("line split across reads")
        << QList<QByteArray>{"data: {\"type\":\"te", "xt\",\"text\":\"caf\xc3", "\xa9\"}\r", "\n"}
        << QStringList{QString::fromUtf8("café")} << "";
}

void AnswerStreamTest::streamEndsOnceWithTheRightOutcome() {
    QFETCH(QList<QByteArray>, pieces);
    QFETCH(QStringList, chunks);
    QFETCH(QString, failure);
    QList<TestHttpServer::Piece> scripted;
    for (const auto& piece : pieces) {
        scripted.append({piece, 20});
    }
    server_->respondWith(TestHttpServer::Response::stream(scripted));
    Outcome outcome;
    auto stream = start(outcome);
    QTRY_VERIFY(outcome.ended());
    QTest::qWait(50);
    QCOMPARE(outcome.chunks, chunks);
    QCOMPARE(outcome.finished, failure.isEmpty());
    if (outcome.failure) {
        QVERIFY(outcome.failure->is(BackendError::Kind::server));
        QCOMPARE(outcome.failure->description(), failure);
    }
}

void AnswerStreamTest::refusalsReportTheServersReason_data() {
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("description");
    QTest::newRow("error body") << 429 << QByteArray(R"({"error":"Monthly limit reached."})")
                                << "Monthly limit reached.";
    QTest::newRow("plain body") << 500 << QByteArray("Internal Server Error")
                                << "Tallowind's server returned an error (500).";
    QTest::newRow("signed out") << 401 << QByteArray(R"({"error":"bad token"})") << "Please sign in again.";
}

void AnswerStreamTest::refusalsReportTheServersReason() {
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(QString, description);
    home_->environment().unset("TALLOWIND_TOKEN");
    Keychain::save(QStringLiteral("stored"));
    // A refusal's body arrives in pieces too; the stream judges it once it is complete.
    server_->respondWith(TestHttpServer::Response::stream({{body.left(5), 0}, {body.mid(5), 50}}, status));
    Outcome outcome;
    auto stream = start(outcome);
    QTRY_VERIFY(outcome.ended());
    QVERIFY(outcome.chunks.isEmpty() && outcome.failure);
    QCOMPARE(outcome.failure->description(), description);
    QCOMPARE(Keychain::load().has_value(), status != 401);
}

void AnswerStreamTest::noTokenFailsWithoutSending() {
    home_->environment().unset("TALLOWIND_TOKEN");
    Outcome outcome;
    auto stream = start(outcome);
    QTRY_VERIFY(outcome.ended());
    QVERIFY(outcome.failure && outcome.failure->is(BackendError::Kind::signedOut));
    QTest::qWait(50);
    QVERIFY(server_->received().isEmpty());
}

void AnswerStreamTest::transportFailuresAreNotBackendErrors_data() {
    QTest::addColumn<bool>("refused");
    QTest::addColumn<QStringList>("chunks");
    QTest::newRow("connection refused") << true << QStringList{};
    QTest::newRow("connection drops mid-body") << false << QStringList{"kept"};
}

void AnswerStreamTest::transportFailuresAreNotBackendErrors() {
    QFETCH(bool, refused);
    QFETCH(QStringList, chunks);
    if (refused) {
        TestHttpServer closed;
        QVERIFY(closed.listen());
        home_->environment().set("TALLOWIND_SERVER", closed.url().toString().toUtf8());
    }
    auto response =
        TestHttpServer::Response::stream({{textLine("kept"), 0}, {"data: {\"type\":\"text\",\"t", 30}});
    response.drop = true;
    server_->respondWith(response);
    Outcome outcome;
    auto stream = start(outcome);
    QTRY_VERIFY(outcome.ended());
    QCOMPARE(outcome.chunks, chunks);
    QVERIFY(outcome.failure && !outcome.failure->backendError());
    QVERIFY(!outcome.failure->description().isEmpty());
}

void AnswerStreamTest::cancellingOrDroppingAbandonsTheRequest_data() {
    QTest::addColumn<bool>("cancel");
    QTest::newRow("cancel after the first piece") << true;
    QTest::newRow("stream destroyed") << false;
}

void AnswerStreamTest::cancellingOrDroppingAbandonsTheRequest() {
    QFETCH(bool, cancel);
    // Two lines in one read and a third later: ended from inside the slot that received the first piece,
    // the stream reads neither of the others.
    server_->respondWith(
        TestHttpServer::Response::stream({{textLine("one") + textLine("two"), 0}, {textLine("three"), 500}}));
    Outcome outcome;
    auto stream = start(outcome);
    connect(stream.get(), &AnswerStream::chunk, this, [&] { cancel ? stream->cancel() : stream.reset(); });
    QTRY_COMPARE(server_->abandoned(), 1);
    QVERIFY(!stream || !stream->isActive());
    QCOMPARE(outcome.chunks, QStringList{"one"});
    QVERIFY(!outcome.ended());
}

QTEST_GUILESS_MAIN(AnswerStreamTest)
#include "tst_answerstream.moc"
