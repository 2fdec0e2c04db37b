// The server's HTTP API on a loopback port, request by request: sign-in, the account's minutes, speech
// tokens, sign-out, what survives a restart, and every refusal as a status with an {"error"} sentence.
// Run once on SQLite and once on PostgreSQL.

#include "runningserver.h"
#include "serverconfig.h"
#include "testhttpserver.h"

#include <QFile>
#include <QRegularExpression>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTest>

namespace {

const QByteArray answerBody = R"({"question":"Why us?","transcript":[{"speaker":"interviewer","text":"Hi"}],)"
                              R"("resume":"Go developer","jobDescription":"","extraInstructions":""})";

}  // namespace

class TestServerApi : public QObject {
    Q_OBJECT

private:
    TestHttpServer speechService_;
    QTcpServer smtp_;  // says yes to everything but recipients named "bounce"
    QByteArray mailed_;
    QTemporaryDir releases_;

private slots:
    void initTestCase() {
        QVERIFY(speechService_.listen() && smtp_.listen(QHostAddress::LocalHost));
        connect(&smtp_, &QTcpServer::newConnection, this, [this] {
            QTcpSocket* socket = smtp_.nextPendingConnection();
            socket->write("220 fake\r\n");
            connect(socket, &QTcpSocket::readyRead, socket, [this, socket, inData = false]() mutable {
                for (QByteArray line; socket->canReadLine();) {
                    mailed_ += line = socket->readLine();
                    if (!inData || line == ".\r\n") {
                        const bool bounced = line.startsWith("RCPT") && line.contains("bounce");
                        socket->write(line.startsWith("DATA") ? "354 go on\r\n"
                                      : bounced               ? "550 no such mailbox\r\n"
                                                              : "250 ok\r\n");
                    }
                    inData = line.startsWith("DATA") || (inData && line != ".\r\n");
                }
            });
        });
        speechService_.setHandler([](const TestHttpServer::Received& request) {
            return request.target == "/v1/auth/grant" && request.header("authorization") == "Token secret-key"
                       ? TestHttpServer::Response::json(200,
                                                        R"({"access_token":"short-lived","expires_in":60})")
                       : TestHttpServer::Response::json(401, "{}");
        });
        QFile latest(releases_.filePath("latest.json"));
        QVERIFY(latest.open(QIODevice::WriteOnly) && latest.write(R"({"version":"1.2.0"})") > 0);
    }

    // A step: "METHOD PATH [BODY] -> STATUS [a piece of the reply]", "wait SECONDS", "restart" or "mail TEXT"
    // (the mail server got TEXT). "$code" stands for the newest sign-in code and "$wrong" for another one.
    void requestsGetTheirStatusAndReply_data() {
        QTest::addColumn<QStringList>("settings");
        QTest::addColumn<QByteArrayList>("script");
        const auto row = [](const char* name, const QByteArrayList& script,
                            const QStringList& settings = {}) { QTest::newRow(name) << settings << script; };
        const auto start = [](const QByteArray& email, const QByteArray& expect) {
            return "POST /auth/start {\"email\":\"" + email + "\"} -> " + expect;
        };
        const auto verify = [](const QByteArray& email, const QByteArray& code, const QByteArray& expect) {
            return "POST /auth/verify {\"email\":\"" + email + "\",\"code\":\"" + code + "\"} -> " + expect;
        };
        const auto signedIn = [&](const QByteArrayList& script) {
            return QByteArrayList{start("q@b.co", "200"), verify("q@b.co", "$code", "200")} + script;
        };
        const auto answer = [](const QByteArray& replace, const QByteArray& with, const QByteArray& expect) {
            return "POST /answer " + QByteArray(answerBody).replace(replace, with) + " -> " + expect;
        };
        const QByteArray signedOut = "401 Your sign-in has ended. Sign in again.";
        const QByteArray seconds = R"(400 The field \"sttSeconds\" must be from 1 to 120 seconds.)";
        const QByteArray line = R"(400 Each transcript line needs a \"speaker\" (\"interviewer\" or \"me\"))";
        const QByteArray nothing = "404 There is nothing at this address on the Tallowind server.";
        const QByteArray expired = "400 This code has expired or was already used. Request a new code.";
        const QByteArray wrong = "400 That code isn't right.";

        row("a sign-in needs an e-mail address in a JSON object, and the account a token",
            {"GET /stt-token -> " + signedOut, start("a\xff@b.co", "400 The request body isn't valid JSON."),
             R"(POST /auth/start ["a@b.co"] -> 400 must be a JSON object.)",
             R"(POST /auth/start {} -> 400 The request lacks the field \"email\".)",
             R"(POST /auth/start {"email":5} -> 400 \"email\" must be a string.)",
             start("nobody", "400 Enter a valid e-mail address."),
             start(QByteArray(2 << 20, 'a'), "413 accepts at most 1048576 bytes."),
             verify("a@b.co", "123456", expired)});
        row("a usage report needs 1 to 120 seconds, and a question its transcript of lines",
            signedIn({R"(POST /usage {} -> 400 lacks the field \"sttSeconds\")",
                      R"(POST /usage {"sttSeconds":"5"} -> 400 must be a number.)",
                      R"(POST /usage {"sttSeconds":0.5} -> )" + seconds,
                      R"(POST /usage {"sttSeconds":121} -> )" + seconds,
                      answer("Why us?", " \\n ", "400 There is no question to answer."),
                      answer(R"([{"speaker":"interviewer","text":"Hi"}])", R"("Hi")",
                             "400 must be a list of lines"),
                      answer("interviewer", "narrator", line), answer(R"(,"text":"Hi")", "", line),
                      "GET /admin -> " + nothing}));
        row("releases from their folder, and nothing beside it",
            {R"(GET /releases/latest.json -> 200 {"version":"1.2.0"})",
             "GET /releases/../tallowind.sqlite3 -> " + nothing},
            {"--releases=$releases"});

        row("a development code signs in once, for the address as typed",
            {start("Ada@Example.org ", R"(200 "devCode")"),
             verify("ada@example.org", " $code ", R"(200 "email":"ada@example.org")"),
             R"(GET /me -> 200 {"email":"ada@example.org","minutesLimit":600,"minutesUsed":0})",
             verify("ada@example.org", "$code", expired)});
        row("a code lasts ten minutes",
            {start("c@b.co", "200"), "wait 599", verify("c@b.co", "$wrong", wrong), "wait 1",
             verify("c@b.co", "$code", expired)});
        row("five wrong tries use the code up, and a new code starts a new count",
            QByteArrayList{start("d@b.co", "200")} + QByteArrayList(4, verify("d@b.co", "$wrong", wrong)) +
                QByteArrayList{verify("d@b.co", "$wrong", "400 no tries left"),
                               verify("d@b.co", "$code", expired), start("d@b.co", "200"),
                               verify("d@b.co", "$code", "200")});
        row("codes are limited per address and per machine, over a sliding hour",
            {start("f@b.co", "200"), start("f@b.co", "200"),
             start("f@b.co", "429 Too many sign-in codes were requested."), start("g@b.co", "200"),
             start("n@b.co", "429"), "wait 3601", start("f@b.co", "200")},
            {"--codes-per-email=2", "--codes-per-address=4"});
        const QStringList mailServer{"--smtp-url=smtp://127.0.0.1:$smtp",
                                     "--smtp-from=signin@tallowind.test"};
        row("without development mode the code is mailed, not returned",
            {start("Flo@b.co", "200 {}"), "mail MAIL FROM:<signin@tallowind.test>", "mail RCPT TO:<flo@b.co>",
             "mail Subject: Your Tallowind sign-in code: $code\r\n", verify("flo@b.co", "$code", "200")},
            mailServer);
        row("a mail server that refuses the address leaves no code behind",
            {start("bounce@b.co", "502 The sign-in e-mail couldn't be sent."),
             verify("bounce@b.co", "123456", expired)},
            mailServer);
        row("usage adds up to whole minutes of the month",
            signedIn({R"(POST /usage {"sttSeconds":59.5} -> 200)", R"(GET /me -> 200 "minutesUsed":0)",
                      R"(POST /usage {"sttSeconds":1} -> 200)", R"(GET /me -> 200 "minutesUsed":1)",
                      "wait 2764800", R"(GET /me -> 200 "minutesUsed":0)"}));
        row("tokens and minutes survive a restart, and signing out revokes the token everywhere",
            signedIn({R"(POST /usage {"sttSeconds":120} -> 200)", "restart",
                      R"(GET /me -> 200 "minutesUsed":2)", "POST /auth/signout {} -> 200",
                      "GET /me -> " + signedOut, "POST /auth/signout {} -> " + signedOut,
                      R"(POST /usage {"sttSeconds":5} -> )" + signedOut, "GET /stt-token -> " + signedOut,
                      answer({}, {}, signedOut)}));
        row("the speech token needs a key",
            signedIn({"GET /stt-token -> 503 Speech recognition is not set up"}));
        row("the speech token needs minutes left",
            signedIn({R"(GET /stt-token -> 200 {"token":"short-lived"})",
                      R"(POST /usage {"sttSeconds":61} -> 200)",
                      "GET /stt-token -> 403 You've used all 1 listening minutes of this month."}),
            {"--minutes-limit=1", "--speech-key=secret-key", "--speech-url=$speech"});
    }

    void requestsGetTheirStatusAndReply() {
        QFETCH(QStringList, settings);
        QFETCH(QByteArrayList, script);
        std::vector<std::string> arguments;
        for (QString setting : settings) {
            arguments.push_back(setting.replace("$speech", speechService_.url().toString())
                                    .replace("$smtp", QString::number(smtp_.serverPort()))
                                    .replace("$releases", releases_.path())
                                    .toStdString());
        }
        auto config = std::get<server::ServerConfig>(
            server::parseServerConfig(arguments, [](const std::string&) { return std::nullopt; }));
        RunningServer server(config);
        QVERIFY(server.port() != 0);
        std::string token;
        QByteArray code;
        for (const QByteArray& step : script) {
            const QByteArray verb = step.split(' ').first();
            QByteArray rest = step.mid(verb.size() + 1)
                                  .replace("$code", code)
                                  .replace("$wrong", code == "000000" ? "000001" : "000000");
            if (verb == "wait") {
                server.advance(std::chrono::seconds(rest.toLongLong()));
            } else if (verb == "restart") {
                server.restart();
            } else if (verb == "mail") {
                QVERIFY2(mailed_.contains(rest), mailed_.constData());
            } else {
                const QByteArray path = rest.split(' ').first();
                const qsizetype arrow = rest.lastIndexOf(" -> ");
                const QByteArray expected = rest.mid(arrow + 4);
                const HttpCall reply = httpCall(server.port(), verb.toStdString(), path.toStdString(), token,
                                                rest.left(arrow).mid(path.size() + 1));
                QVERIFY2(arrow > 0 && reply.status == expected.left(3).toInt() &&
                             reply.body.contains(expected.mid(4)),
                         qPrintable(step.left(200) + " -> " + QByteArray::number(reply.status) + ' ' +
                                    reply.body.left(300)));
                if (path == "/auth/start" && reply.status == 200) {
                    code = config.smtpUrl.empty()
                               ? reply.json()["devCode"].toString().toLatin1()
                               : mailed_.mid(mailed_.lastIndexOf("sign-in code is ") + 16, 6);
                }
                if (path == "/auth/verify" && reply.status == 200) {
                    token = reply.json()["token"].toString().toStdString();
                }
            }
        }
    }

    // curl -X POST sends neither a body nor a length; the connection must stay in step, and stay open
    // after an answer stream.
    void aConnectionStaysInStepThroughBodilessPostsAndAnswers() {
        RunningServer server;
        const QByteArray auth =
            "Authorization: Bearer " + QByteArray::fromStdString(devSignIn(server.port(), "r@b.co"));
        QTcpSocket socket;
        socket.connectToHost(QStringLiteral("127.0.0.1"), static_cast<quint16>(server.port()));
        QByteArray received;
        const QByteArray answer =
            "POST /answer HTTP/1.1\r\nContent-Length: " + QByteArray::number(answerBody.size());
        for (const QByteArray& request : QByteArrayList{"POST /usage HTTP/1.1", answer,
                                                        "POST /auth/signout HTTP/1.1", "GET /me HTTP/1.1"}) {
            socket.write(request + "\r\nHost: x\r\n" + auth + "\r\n\r\n" +
                         (request == answer ? answerBody : ""));
            const auto before = received.count("HTTP/1.1 ");
            while ((received.count("HTTP/1.1 ") == before ||
                    !(received.endsWith('}') || received.endsWith("0\r\n\r\n"))) &&
                   socket.waitForReadyRead(3000)) {
                received += socket.readAll();
            }
        }
        const QRegularExpression statuses(
            "^HTTP/1.1 400 .*needs a JSON object.*HTTP/1.1 200 .*\"done\".*HTTP/1.1 200 .*HTTP/1.1 401 ",
            QRegularExpression::DotMatchesEverythingOption);
        QVERIFY2(statuses.match(QString::fromLatin1(received)).hasMatch(), received.constData());
    }

    void racingUsageReportsLoseNoSeconds() {
        RunningServer server;
        const std::string token = devSignIn(server.port(), "u@b.co");
        std::vector<std::future<HttpCall>> reports;
        for (int i = 0; i < 40; ++i) {
            reports.push_back(httpAsync(server.port(), "POST", "/usage", token, R"({"sttSeconds":15})"));
        }
        for (auto& report : reports) {
            QCOMPARE(report.get().status, 200);
        }
        // 600 seconds: a single lost report would leave 9 minutes.
        QCOMPARE(httpCall(server.port(), "GET", "/me", token).json()["minutesUsed"].toInt(), 10);
    }
};

QTEST_GUILESS_MAIN(TestServerApi)
#include "tst_serverapi.moc"
