#include "backendclient.h"
#include "keychain.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QTest>

using namespace Qt::StringLiterals;

namespace {

QByteArray textLine(const char* text) {
    return QByteArray(R"(data: {"type":"text","text":")") + text + "\"}\n";
}

}  // namespace

class AnswerStreamTest : public QObject {
    Q_OBJECT

private slots:
    void initTestCase() { QVERIFY(server_.listen()); }
    void init() {
        home_ = std::make_unique<TestHome>();
        home_->environment().set("TALLOWIND_SERVER", server_.url().toString().toUtf8());
        Keychain::save(u"tok"_s);
        chunks_.clear();
        outcome_.clear();
    }
    void cleanup() { home_.reset(); }

    void linesSurviveACutAtEveryByte() {
        for (const QByteArray terminator : {"\n", "\r", "\r\n"}) {
            const QByteArray body =
                "data: one" + terminator + terminator + "data: tw\xc3\xb6" + terminator + "last";
            for (qsizetype cut = 0; cut <= body.size(); ++cut) {
                LineSplitter splitter;
                QList<QByteArray> lines = splitter.feed(body.left(cut));
                lines += splitter.feed(body.mid(cut));
                lines.append(splitter.finish());
                lines.removeAll(QByteArray());
                QCOMPARE(lines, (QList<QByteArray>{"data: one", "data: tw\xc3\xb6", "last"}));
            }
        }
    }

    void streamEndsOnceWithTheRightOutcome_data() {
        QTest::addColumn<int>("status");  // 0: nothing listens; -1: not signed in
        QTest::addColumn<QList<QByteArray>>("pieces");
        QTest::addColumn<bool>("drop");
        QTest::addColumn<QStringList>("chunks");
        QTest::addColumn<QString>("outcome");
        const auto row = [](const char* name, int status, const QList<QByteArray>& pieces,
                            const QStringList& chunks, const QString& outcome, bool drop = false) {
            QTest::newRow(name) << status << pieces << drop << chunks << outcome;
        };
        row("other, unknown and malformed lines skipped, text untrimmed", 200,
            {"\nevent: ping\n: c\n" + textLine("  a  ") + "data: {\"type\":\"done\"}\n",
             "data:{\"type\":\"text\",\"text\":\"x\"}\ndata: {\"type\":\"text\",\"text\":5}\n"
             "data: {\"type\":\"error\",\"message\":3}\ndata: [\"text\"]\n" +
                 textLine("b")},
            {"  a  ", "b"}, "finished");
        row("error stops reading", 200,
            {"data: {\"type\":\"text\",\"text\":\"a\"}\rdata: {\"type\":\"error\"}\r" + textLine("x")}, {"a"},
            "Something went wrong.");
        row("lines split across reads, the last without terminator", 200,
            {"data: {\"type\":\"te", "xt\",\"text\":\"caf\xc3", "\xa9\"}\r",
             "\ndata: {\"type\":\"text\",\"text\":\"b\"}"},
            {QString::fromUtf8("café"), "b"}, "finished");
        row("refusal with a reason, in pieces", 429, {R"({"error":"Monthly )", R"(limit reached."})"}, {},
            "Monthly limit reached.");
        row("refusal with a plain body", 500, {"Internal ", "Server Error"}, {},
            "Tallowind's server returned an error (500).");
        row("unauthorized", 401, {R"({"error":)", R"("bad token"})"}, {}, "Please sign in again.");
        row("not signed in", -1, {}, {}, "Please sign in again.");
        row("nothing listens", 0, {}, {}, "(transport) ");
        row("connection drops mid-body", 200, {textLine("kept"), "data: {\"type\":\"text\",\"t"}, {"kept"},
            "(transport) ", true);
    }

    void streamEndsOnceWithTheRightOutcome() {
        QFETCH(int, status);
        QFETCH(QList<QByteArray>, pieces);
        QFETCH(bool, drop);
        QFETCH(QStringList, chunks);
        QFETCH(QString, outcome);
        QList<TestHttpServer::Piece> scripted;
        for (const auto& piece : pieces) scripted.append({piece, 20});
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
        for (const auto& received : server_.received().sliced(before)) {
            QCOMPARE(received.method + ' ' + received.target, QByteArray("POST /answer"));
            QCOMPARE(received.header("authorization"), QByteArray("Bearer tok"));
            QCOMPARE(received.header("accept-encoding"), QByteArray("identity"));
            QCOMPARE(received.body,
                     R"({"extraInstructions":"Be brief.","jobDescription":"Senior engineer",)"
                     R"("question":"Why this role?","resume":"Ten years of C++.","transcript":)"
                     R"([{"speaker":"interviewer","text":"Hello."},{"speaker":"me","text":"Hi."}]})");
        }
    }

    void endingTheStreamFromItsChunkAbandonsTheRequest() {
        // Two lines in one read and a third later: ended from the slot that receives the first piece, the
        // stream reads neither of the others, and the server sees the client hang up before the body ends.
        server_.respondWith(TestHttpServer::Response::stream(
            {{textLine("one") + textLine("two"), 0}, {textLine("three"), 500}}));
        for (const bool cancel : {true, false}) {
            const int abandoned = server_.abandoned();
            chunks_.clear();
            auto stream = start();
            connect(stream.get(), &AnswerStream::chunk, this,
                    [&] { cancel ? stream->cancel() : stream.reset(); });
            QTRY_COMPARE(server_.abandoned(), abandoned + 1);
            QVERIFY(!stream || !stream->isActive());
            QCOMPARE(chunks_, QStringList{"one"});
            QVERIFY(outcome_.isEmpty());
        }
    }

private:
    std::unique_ptr<AnswerStream> start() {
        auto stream = client_.answer({u"Why this role?"_s,
                                      {{Speaker::interviewer, u"Hello."_s}, {Speaker::me, u"Hi."_s}},
                                      u"Ten years of C++."_s,
                                      u"Senior engineer"_s,
                                      u"Be brief."_s});
        // Connected after answer() returned: a failure before sending must still arrive.
        connect(stream.get(), &AnswerStream::chunk, this, [this](const QString& text) { chunks_ << text; });
        connect(stream.get(), &AnswerStream::finished, this, [this] { outcome_ += "finished"; });
        connect(stream.get(), &AnswerStream::failed, this, [this](const Failure& failure) {
            outcome_ += (failure.backendError() ? "" : "(transport) ") + failure.description();
        });
        return stream;
    }

    std::unique_ptr<TestHome> home_;
    TestHttpServer server_;
    BackendClient client_;
    QStringList chunks_;
    QString outcome_;  // "finished", or the failure's description; "(transport) ..." when not the server's
};

QTEST_GUILESS_MAIN(AnswerStreamTest)
#include "tst_answerstream.moc"
