#include "backendclient.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QTest>

namespace {

QByteArray textLine(const char* text) {
    return QByteArray(R"(data: {"type":"text","text":")") + text + "\"}\n";
}

}  // namespace

class AnswerStreamTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(server_.listen()); }
    void init();
    void cleanup() { home_.reset(); }

    void linesSurviveACutAtEveryByte_data();
    void linesSurviveACutAtEveryByte();
    void streamEndsOnceWithTheRightOutcome_data();
    void streamEndsOnceWithTheRightOutcome();
    void endingTheStreamFromItsChunkAbandonsTheRequest_data();
    void endingTheStreamFromItsChunkAbandonsTheRequest();

private:
    std::unique_ptr<AnswerStream> start();

    std::unique_ptr<TestHome> home_;
    TestHttpServer server_;
    BackendClient client_;
    QStringList chunks_;
    QString outcome_;  // "finished", or the failure's description; "(transport) ..." when not the server's
};

void AnswerStreamTest::init() {
    home_ = std::make_unique<TestHome>();
    home_->environment().set("TALLOWIND_SERVER", server_.url().toString().toUtf8());
    Keychain::save(QStringLiteral("tok"));
    chunks_.clear();
    outcome_.clear();
}

std::unique_ptr<AnswerStream> AnswerStreamTest::start() {
    auto stream = client_.answer({QStringLiteral("Why this role?"),
                                  {TranscriptLine(Speaker::interviewer, QStringLiteral("Hello.")),
                                   TranscriptLine(Speaker::me, QStringLiteral("Hi."))},
                                  QStringLiteral("Ten years of C++."),
                                  QStringLiteral("Senior engineer"),
                                  QStringLiteral("Be brief.")});
    // Connected after answer() returned: a failure before sending must still arrive.
    connect(stream.get(), &AnswerStream::chunk, this, [this](const QString& text) { chunks_ << text; });
    connect(stream.get(), &AnswerStream::finished, this, [this] { outcome_ += "finished"; });
    connect(stream.get(), &AnswerStream::failed, this, [this](const Failure& failure) {
        outcome_ += (failure.backendError() ? "" : "(transport) ") + failure.description();
    });
    return stream;
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

void AnswerStreamTest::streamEndsOnceWithTheRightOutcome_data() {
    QTest::addColumn<int>("status");  // 0: nothing listens; -1: not signed in
    QTest::addColumn<QList<QByteArray>>("pieces");
    QTest::addColumn<bool>("drop");
    QTest::addColumn<QStringList>("chunks");
    QTest::addColumn<QString>("outcome");
    const QList<QByteArray> none;
    QTest::newRow("other lines and unknown types skipped")
        << 200
        << QList<QByteArray>{"\nevent: ping\n: c\n" + textLine("a") + "data: {\"type\":\"done\"}\n",
                             textLine("b")}
        << false << QStringList{"a", "b"} << "finished";
    QTest::newRow("error stops reading")
        << 200
        << QList<QByteArray>{"data: {\"type\":\"text\",\"text\":\"a\"}\rdata: {\"type\":\"error\"}\r" +
                             textLine("x")}
        << false << QStringList{"a"} << "Something went wrong.";
    QTest::newRow("malformed lines skipped, text untrimmed")
        << 200
        << QList<QByteArray>{R"(data:{"type":"text","text":"x"})"
                             "\n"
                             R"(data: {"type":"text","text":5})"
                             "\n" +
                             textLine("  two  ") +
                             R"(data: {"type":"error","message":3})"
                             "\n" +
                             R"(data: ["text"])"}
        << false << QStringList{"  two  "} << "finished";
    QTest::newRow("last line without terminator")
        << 200 << QList<QByteArray>{textLine("a") + "data: {\"type\":\"text\",\"text\":\"b\"}"} << false
        << QStringList{"a", "b"} << "finished";
    QTest::newRow("line split across reads")
        << 200 << QList<QByteArray>{"data: {\"type\":\"te", "xt\",\"text\":\"caf\xc3", "\xa9\"}\r", "\n"}
        << false << QStringList{QString::fromUtf8("café")} << "finished";
    QTest::newRow("refusal with a reason, in pieces")
        << 429 << QList<QByteArray>{R"({"error":"Monthly )", R"(limit reached."})"} << false << QStringList{}
        << "Monthly limit reached.";
    QTest::newRow("refusal with a plain body")
        << 500 << QList<QByteArray>{"Internal ", "Server Error"} << false << QStringList{}
        << "Tallowind's server returned an error (500).";
    QTest::newRow("unauthorized") << 401 << QList<QByteArray>{R"({"error":)", R"("bad token"})"} << false
                                  << QStringList{} << "Please sign in again.";
    QTest::newRow("not signed in") << -1 << none << false << QStringList{} << "Please sign in again.";
    QTest::newRow("nothing listens") << 0 << none << false << QStringList{} << "(transport) ";
    QTest::newRow("connection drops mid-body")
        << 200 << QList<QByteArray>{textLine("kept"), "data: {\"type\":\"text\",\"t"} << true
        << QStringList{"kept"} << "(transport) ";
}

void AnswerStreamTest::streamEndsOnceWithTheRightOutcome() {
    QFETCH(int, status);
    QFETCH(QList<QByteArray>, pieces);
    QFETCH(bool, drop);
    QFETCH(QStringList, chunks);
    QFETCH(QString, outcome);
    QList<TestHttpServer::Piece> scripted;
    for (const auto& piece : pieces) {
        scripted.append({piece, 20});
    }
    auto response = TestHttpServer::Response::stream(scripted, status);
    response.drop = drop;
    server_.respondWith(response);
    if (status == 0) {
        TestHttpServer closed;
        QVERIFY(closed.listen());
        home_->environment().set("TALLOWIND_SERVER", closed.url().toString().toUtf8());
    } else if (status < 0) {
        Keychain::remove();
    }
    const qsizetype before = server_.received().size();
    auto stream = start();
    QTRY_VERIFY(!outcome_.isEmpty());
    QTest::qWait(50);
    QCOMPARE(chunks_, chunks);
    QVERIFY2(outcome_.startsWith(outcome), qPrintable(outcome_));
    QCOMPARE(Keychain::load().has_value(), status >= 0 && status != 401);
    QCOMPARE(server_.received().size() - before, status > 0 ? 1 : 0);
    if (status > 0) {
        const auto& received = server_.received().last();
        QCOMPARE(received.method + ' ' + received.target, QByteArray("POST /answer"));
        QCOMPARE(received.header("authorization"), QByteArray("Bearer tok"));
        QCOMPARE(received.header("accept-encoding"), QByteArray("identity"));
        QCOMPARE(received.body,
                 R"({"extraInstructions":"Be brief.","jobDescription":"Senior engineer",)"
                 R"("question":"Why this role?","resume":"Ten years of C++.","transcript":)"
                 R"([{"speaker":"interviewer","text":"Hello."},{"speaker":"me","text":"Hi."}]})");
    }
}

void AnswerStreamTest::endingTheStreamFromItsChunkAbandonsTheRequest_data() {
    QTest::addColumn<bool>("cancel");
    QTest::newRow("cancelled") << true;
    QTest::newRow("destroyed") << false;
}

void AnswerStreamTest::endingTheStreamFromItsChunkAbandonsTheRequest() {
    QFETCH(bool, cancel);
    // Two lines in one read and a third later: ended from the slot that receives the first piece, the
    // stream reads neither of the others, and the server sees the client hang up before the body ends.
    server_.respondWith(
        TestHttpServer::Response::stream({{textLine("one") + textLine("two"), 0}, {textLine("three"), 500}}));
    const int abandoned = server_.abandoned();
    auto stream = start();
    connect(stream.get(), &AnswerStream::chunk, this, [&] { cancel ? stream->cancel() : stream.reset(); });
    QTRY_COMPARE(server_.abandoned(), abandoned + 1);
    QVERIFY(!stream || !stream->isActive());
    QCOMPARE(chunks_, QStringList{"one"});
    QVERIFY(outcome_.isEmpty());
}

QTEST_GUILESS_MAIN(AnswerStreamTest)
#include "tst_answerstream.moc"
