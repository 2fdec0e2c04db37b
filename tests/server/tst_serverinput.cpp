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
        QTest::addColumn<QByteArray>("request");  // method and path
        QTest::addColumn<Auth>("auth");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("error");
        const auto row = [](const char* name, const char* request, Auth auth, const QByteArray& body,
                            int status, const QString& error) {
            QTest::newRow(name) << QByteArray(request) << auth << body << status << error;
        };
        const QString notJson = QStringLiteral("The request body isn't valid JSON.");
        const QString signedOut = QStringLiteral("Your sign-in has ended. Sign in again.");
        const QString seconds = QStringLiteral("The field \"sttSeconds\" must be from 1 to 120 seconds.");
        const QString line = QStringLiteral(
            "Each transcript line needs a \"speaker\" (\"interviewer\" or \"me\") and a \"text\" string.");
        const QString nothingHere =
            QStringLiteral("There is nothing at this address on the Tallowind server.");
        const char* start = "POST /auth/start";
        const char* usage = "POST /usage";
        const char* answer = "POST /answer";
        row("start: empty body", start, Auth::none, {}, 400,
            QStringLiteral("The request needs a JSON object as its body."));
        row("start: cut-off JSON", start, Auth::none, R"({"email":)", 400, notJson);
        row("start: invalid UTF-8", start, Auth::none, "{\"email\":\"a\xff@b.co\"}", 400, notJson);
        row("start: an array", start, Auth::none, R"(["a@b.co"])", 400,
            QStringLiteral("The request body must be a JSON object."));
        row("start: no email", start, Auth::none, "{}", 400,
            QStringLiteral("The request lacks the field \"email\"."));
        row("start: email a number", start, Auth::none, R"({"email":5})", 400,
            QStringLiteral("The field \"email\" must be a string."));
        row("start: not an address", start, Auth::none, R"({"email":"nobody"})", 400,
            QStringLiteral("Enter a valid e-mail address."));
        row("start: oversized", start, Auth::none, R"({"email":")" + QByteArray(2 << 20, 'a') + R"("})", 413,
            QStringLiteral("The request is too large: this server accepts at most 1048576 bytes."));
        row("verify: no code", "POST /auth/verify", Auth::none, R"({"email":"a@b.co"})", 400,
            QStringLiteral("The request lacks the field \"code\"."));
        row("verify: nothing requested", "POST /auth/verify", Auth::none,
            R"({"email":"a@b.co","code":"123456"})", 400,
            QStringLiteral("This code has expired or was already used. Request a new code."));
        row("sign-out: unknown token", "POST /auth/signout", Auth::unknown, "{}", 401, signedOut);
        row("me: unknown token", "GET /me", Auth::unknown, {}, 401, signedOut);
        row("speech token: no token", "GET /stt-token", Auth::none, {}, 401, signedOut);
        row("usage: no seconds", usage, Auth::valid, "{}", 400,
            QStringLiteral("The request lacks the field \"sttSeconds\"."));
        row("usage: seconds as text", usage, Auth::valid, R"({"sttSeconds":"5"})", 400,
            QStringLiteral("The field \"sttSeconds\" must be a number."));
        row("usage: under a second", usage, Auth::valid, R"({"sttSeconds":0.5})", 400, seconds);
        row("usage: more than a report can hold", usage, Auth::valid, R"({"sttSeconds":121})", 400, seconds);
        row("usage: beyond a double", usage, Auth::valid, R"({"sttSeconds":1e400})", 400, notJson);
        row("answer: no token", answer, Auth::none, answerBody(), 401, signedOut);
        row("answer: no question", answer, Auth::valid, answerBody(R"("question":"Why us?",)", ""), 400,
            QStringLiteral("The request lacks the field \"question\"."));
        row("answer: blank question", answer, Auth::valid, answerBody("Why us?", " \\n "), 400,
            QStringLiteral("There is no question to answer."));
        row("answer: resume a list", answer, Auth::valid, answerBody(R"("Go developer")", R"(["Go"])"), 400,
            QStringLiteral("The field \"resume\" must be a string."));
        row("answer: transcript a string", answer, Auth::valid,
            answerBody(R"([{"speaker":"interviewer","text":"Hi"}])", R"("Hi")"), 400,
            QStringLiteral("The field \"transcript\" must be a list of lines."));
        row("answer: unknown speaker", answer, Auth::valid, answerBody("interviewer", "narrator"), 400, line);
        row("answer: line without text", answer, Auth::valid, answerBody(R"(,"text":"Hi")", ""), 400, line);
        row("unknown path", "GET /admin", Auth::valid, {}, 404, nothingHere);
        row("releases when none are configured", "GET /releases/latest.json", Auth::none, {}, 404,
            nothingHere);
    }

    void badRequestsAreRefusedWithASentence() {
        QFETCH(QByteArray, request);
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

        const QList<QByteArray> methodAndPath = request.split(' ');
        const HttpCall reply = httpCall(server.port(), methodAndPath[0].toStdString(),
                                        methodAndPath[1].toStdString(), token, body);
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
