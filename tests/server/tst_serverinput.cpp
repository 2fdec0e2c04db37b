// What the server answers to requests the program's client would never send, and the shape of what it
// serves: every refusal is a status with an {"error"} sentence.

#include "httpcall.h"
#include "runningserver.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QTest>

namespace {

enum class Auth { none, unknown, valid };

QByteArray oversized() {
    return R"({"email":")" + QByteArray(2 << 20, 'a') + R"("})";
}

QByteArray answerBody(const QByteArray& replace = {}, const QByteArray& with = {}) {
    QByteArray body =
        R"({"question":"Why us?","transcript":[{"speaker":"interviewer","text":"Hi"}],"resume":"Go developer",)"
        R"("jobDescription":"","extraInstructions":""})";
    if (!replace.isEmpty()) {
        body.replace(replace, with);
    }
    return body;
}

}  // namespace

Q_DECLARE_METATYPE(Auth)

class TestServerInput : public QObject {
    Q_OBJECT

private slots:
    void badRequestsAreRefusedWithASentence_data() {
        QTest::addColumn<QByteArray>("method");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<Auth>("auth");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");

        const QByteArray post = "POST";
        const QByteArray get = "GET";
        const QString notJson = QStringLiteral("The request body isn't valid JSON.");
        const QString signedOut = QStringLiteral("Your sign-in has ended. Sign in again.");
        const QString seconds = QStringLiteral("The field \"sttSeconds\" must be from 1 to 120 seconds.");
        const QString line = QStringLiteral(
            "Each transcript line needs a \"speaker\" (\"interviewer\" or \"me\") and a \"text\" string.");

        QTest::newRow("start: empty body")
            << post << QByteArray("/auth/start") << Auth::none << QByteArray() << 400
            << QStringLiteral("The request needs a JSON object as its body.");
        QTest::newRow("start: cut-off JSON") << post << QByteArray("/auth/start") << Auth::none
                                             << QByteArray(R"({"email":)") << 400 << notJson;
        QTest::newRow("start: invalid UTF-8") << post << QByteArray("/auth/start") << Auth::none
                                              << QByteArray("{\"email\":\"a\xff@b.co\"}") << 400 << notJson;
        QTest::newRow("start: an array")
            << post << QByteArray("/auth/start") << Auth::none << QByteArray(R"(["a@b.co"])") << 400
            << QStringLiteral("The request body must be a JSON object.");
        QTest::newRow("start: no email")
            << post << QByteArray("/auth/start") << Auth::none << QByteArray("{}") << 400
            << QStringLiteral("The request lacks the field \"email\".");
        QTest::newRow("start: email a number")
            << post << QByteArray("/auth/start") << Auth::none << QByteArray(R"({"email":5})") << 400
            << QStringLiteral("The field \"email\" must be a string.");
        QTest::newRow("start: not an address")
            << post << QByteArray("/auth/start") << Auth::none << QByteArray(R"({"email":"nobody"})") << 400
            << QStringLiteral("Enter a valid e-mail address.");
        QTest::newRow("start: oversized")
            << post << QByteArray("/auth/start") << Auth::none << oversized() << 413
            << QStringLiteral(
                   "The request is too large: this server accepts at most 1048576 "
                   "bytes.");
        QTest::newRow("verify: no code")
            << post << QByteArray("/auth/verify") << Auth::none << QByteArray(R"({"email":"a@b.co"})") << 400
            << QStringLiteral("The request lacks the field \"code\".");
        QTest::newRow("verify: code a number") << post << QByteArray("/auth/verify") << Auth::none
                                               << QByteArray(R"({"email":"a@b.co","code":123456})") << 400
                                               << QStringLiteral("The field \"code\" must be a string.");
        QTest::newRow("verify: nothing requested")
            << post << QByteArray("/auth/verify") << Auth::none
            << QByteArray(R"({"email":"a@b.co","code":"123456"})") << 400
            << QStringLiteral("This code has expired or was already used. Request a new code.");
        QTest::newRow("sign-out: no token")
            << post << QByteArray("/auth/signout") << Auth::none << QByteArray("{}") << 401 << signedOut;
        QTest::newRow("sign-out: unknown token")
            << post << QByteArray("/auth/signout") << Auth::unknown << QByteArray("{}") << 401 << signedOut;
        QTest::newRow("me: unknown token")
            << get << QByteArray("/me") << Auth::unknown << QByteArray() << 401 << signedOut;
        QTest::newRow("speech token: no token")
            << get << QByteArray("/stt-token") << Auth::none << QByteArray() << 401 << signedOut;
        QTest::newRow("usage: unknown token") << post << QByteArray("/usage") << Auth::unknown
                                              << QByteArray(R"({"sttSeconds":5})") << 401 << signedOut;
        QTest::newRow("usage: no seconds")
            << post << QByteArray("/usage") << Auth::valid << QByteArray("{}") << 400
            << QStringLiteral("The request lacks the field \"sttSeconds\".");
        QTest::newRow("usage: seconds as text")
            << post << QByteArray("/usage") << Auth::valid << QByteArray(R"({"sttSeconds":"5"})") << 400
            << QStringLiteral("The field \"sttSeconds\" must be a number.");
        QTest::newRow("usage: seconds as a boolean")
            << post << QByteArray("/usage") << Auth::valid << QByteArray(R"({"sttSeconds":true})") << 400
            << QStringLiteral("The field \"sttSeconds\" must be a number.");
        QTest::newRow("usage: under a second") << post << QByteArray("/usage") << Auth::valid
                                               << QByteArray(R"({"sttSeconds":0.5})") << 400 << seconds;
        QTest::newRow("usage: negative") << post << QByteArray("/usage") << Auth::valid
                                         << QByteArray(R"({"sttSeconds":-60})") << 400 << seconds;
        QTest::newRow("usage: more than a report can hold")
            << post << QByteArray("/usage") << Auth::valid << QByteArray(R"({"sttSeconds":121})") << 400
            << seconds;
        QTest::newRow("usage: beyond a double") << post << QByteArray("/usage") << Auth::valid
                                                << QByteArray(R"({"sttSeconds":1e400})") << 400 << notJson;
        QTest::newRow("answer: no token")
            << post << QByteArray("/answer") << Auth::none << answerBody() << 401 << signedOut;
        QTest::newRow("answer: no question")
            << post << QByteArray("/answer") << Auth::valid << answerBody(R"("question":"Why us?",)", "")
            << 400 << QStringLiteral("The request lacks the field \"question\".");
        QTest::newRow("answer: blank question")
            << post << QByteArray("/answer") << Auth::valid << answerBody("Why us?", " \\n ") << 400
            << QStringLiteral("There is no question to answer.");
        QTest::newRow("answer: resume a list")
            << post << QByteArray("/answer") << Auth::valid << answerBody(R"("Go developer")", R"(["Go"])")
            << 400 << QStringLiteral("The field \"resume\" must be a string.");
        QTest::newRow("answer: no transcript")
            << post << QByteArray("/answer") << Auth::valid
            << answerBody(R"("transcript":[{"speaker":"interviewer","text":"Hi"}],)", "") << 400
            << QStringLiteral("The request lacks the field \"transcript\".");
        QTest::newRow("answer: transcript a string")
            << post << QByteArray("/answer") << Auth::valid
            << answerBody(R"([{"speaker":"interviewer","text":"Hi"}])", R"("Hi")") << 400
            << QStringLiteral("The field \"transcript\" must be a list of lines.");
        QTest::newRow("answer: unknown speaker") << post << QByteArray("/answer") << Auth::valid
                                                 << answerBody("interviewer", "narrator") << 400 << line;
        QTest::newRow("answer: line without text") << post << QByteArray("/answer") << Auth::valid
                                                   << answerBody(R"(,"text":"Hi")", "") << 400 << line;
        QTest::newRow("answer: oversized")
            << post << QByteArray("/answer") << Auth::valid
            << answerBody("Go developer", QByteArray(2 << 20, 'x')) << 413
            << QStringLiteral(
                   "The request is too large: this server accepts at most 1048576 "
                   "bytes.");
        QTest::newRow("unknown path")
            << get << QByteArray("/admin") << Auth::valid << QByteArray() << 404
            << QStringLiteral("There is nothing at this address on the Tallowind server.");
        QTest::newRow("releases when none are configured")
            << get << QByteArray("/releases/latest.json") << Auth::none << QByteArray() << 404
            << QStringLiteral("There is nothing at this address on the Tallowind server.");
    }

    void badRequestsAreRefusedWithASentence() {
        QFETCH(QByteArray, method);
        QFETCH(QByteArray, path);
        QFETCH(Auth, auth);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, error);
        RunningServer server;
        std::string token;
        if (auth == Auth::valid) {
            token = devSignIn(server.port(), "quinn@example.org");
            QVERIFY(!token.empty());
        } else if (auth == Auth::unknown) {
            token = std::string(64, 'f');
        }

        const HttpCall reply = httpCall(server.port(), method.toStdString(), path.toStdString(), token, body);
        QCOMPARE(reply.status, status);
        QCOMPARE(reply.contentType, std::string("application/json"));
        QCOMPARE(reply.error(), error);
    }

    void theAnswerIsAnEventStreamThatEndsWithDone() {
        RunningServer server;
        const std::string token = devSignIn(server.port(), "rae@example.org");
        const HttpCall reply = httpCall(server.port(), "POST", "/answer", token, answerBody());
        QCOMPARE(reply.status, 200);
        QCOMPARE(reply.contentType, std::string("text/event-stream"));

        QList<QJsonObject> events;
        for (const QByteArray& line : reply.body.split('\n')) {
            if (line.startsWith("data: ")) {
                events.append(QJsonDocument::fromJson(line.mid(6)).object());
            } else {
                QVERIFY2(line.isEmpty(), line.constData());
            }
        }
        QVERIFY(events.size() > 2);
        QCOMPARE(events.last(), (QJsonObject{{QStringLiteral("type"), QStringLiteral("done")}}));
        events.removeLast();
        for (const QJsonObject& event : events) {
            QCOMPARE(event.value(QStringLiteral("type")).toString(), QStringLiteral("text"));
            QVERIFY(event.value(QStringLiteral("text")).isString());
        }
        QVERIFY(reply.body.startsWith(R"(data: {"type":"text","text":)"));
    }

    void releasesAreServedFromTheirFolder() {
        QTemporaryDir releases;
        const QByteArray manifest =
            R"({"version":"1.2.0","zip":"releases/Tallowind-1.2.0.zip","sha256":"ab"})";
        const QByteArray zip = QByteArrayLiteral("PK\x03\x04 not really a zip");
        for (const auto& [name, bytes] : {std::pair{QStringLiteral("latest.json"), manifest},
                                          std::pair{QStringLiteral("Tallowind-1.2.0.zip"), zip}}) {
            QFile file(releases.filePath(name));
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(bytes);
        }
        auto config = RunningServer::devConfig();
        config.releasesDir = releases.path().toStdString();
        RunningServer server(config);

        const HttpCall latest = httpCall(server.port(), "GET", "/releases/latest.json");
        QCOMPARE(latest.status, 200);
        QCOMPARE(latest.body, manifest);
        const HttpCall package = httpCall(server.port(), "GET", "/releases/Tallowind-1.2.0.zip");
        QCOMPARE(package.status, 200);
        QCOMPARE(package.body, zip);
        // The database beside the releases folder stays out of reach.
        const HttpCall climbing = httpCall(server.port(), "GET", "/releases/../tallowind.sqlite3");
        QVERIFY(climbing.status >= 400);
        QVERIFY(!climbing.body.contains("SQLite"));
    }
};

QTEST_GUILESS_MAIN(TestServerInput)
#include "tst_serverinput.moc"
