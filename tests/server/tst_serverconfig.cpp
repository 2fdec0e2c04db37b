// The server's settings from flags and environment variables, and the built executable's own start,
// refusal and stop.

#include "serverconfig.h"

#include <QMap>
#include <QProcess>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <httplib.h>
#include <csignal>

namespace {

QString describe(const server::ServerConfig& config) {
    return QStringLiteral("%1:%2 %3 dev=%4 minutes=%5 timeout=%6 threads=%7")
        .arg(QString::fromStdString(config.host))
        .arg(config.port)
        .arg(QString::fromStdString(config.dataDir))
        .arg(config.devMode)
        .arg(config.minutesLimit)
        .arg(config.llmTimeout.count())
        .arg(config.threads);
}

std::variant<server::ServerConfig, server::ConfigExit> parse(const QStringList& arguments,
                                                             const QStringList& variables) {
    QMap<QString, QString> environment{{QStringLiteral("HOME"), QStringLiteral("/home/ann")}};
    for (const QString& variable : variables) {
        environment.insert(variable.section(QLatin1Char('='), 0, 0), variable.section(QLatin1Char('='), 1));
    }
    std::vector<std::string> args;
    for (const QString& argument : arguments) {
        args.push_back(argument.toStdString());
    }
    return server::parseServerConfig(
        args, [environment](const std::string& name) -> std::optional<std::string> {
            const QString key = QString::fromStdString(name);
            return environment.contains(key) ? std::optional(environment.value(key).toStdString())
                                             : std::nullopt;
        });
}

QString serverBinary() {
    return qEnvironmentVariable("TALLOWIND_SERVER_BINARY");
}

}  // namespace

class TestServerConfig : public QObject {
    Q_OBJECT

private slots:
    void settingsComeFromFlagsThenVariablesThenDefaults_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("variables");
        QTest::addColumn<QString>("expected");

        const QString defaults = QStringLiteral(
            "/home/ann/.local/share/tallowind-server dev=0 minutes=600 timeout=30000 "
            "threads=64");
        QTest::newRow("defaults") << QStringList() << QStringList()
                                  << QStringLiteral("127.0.0.1:8787 ") + defaults;
        QTest::newRow("data under XDG_DATA_HOME")
            << QStringList() << QStringList{QStringLiteral("XDG_DATA_HOME=/srv/xdg")}
            << QStringLiteral(
                   "127.0.0.1:8787 /srv/xdg/tallowind-server dev=0 minutes=600 timeout=30000 threads=64");
        QTest::newRow("listen flag") << QStringList{QStringLiteral("--listen"),
                                                    QStringLiteral("0.0.0.0:9000")}
                                     << QStringList() << QStringLiteral("0.0.0.0:9000 ") + defaults;
        QTest::newRow("flag with equals sign") << QStringList{QStringLiteral("--listen=127.0.0.1:0")}
                                               << QStringList() << QStringLiteral("127.0.0.1:0 ") + defaults;
        QTest::newRow("variable") << QStringList()
                                  << QStringList{QStringLiteral("TALLOWIND_SERVER_LISTEN=10.0.0.5:80")}
                                  << QStringLiteral("10.0.0.5:80 ") + defaults;
        QTest::newRow("the flag beats the variable")
            << QStringList{QStringLiteral("--minutes-limit"), QStringLiteral("30")}
            << QStringList{QStringLiteral("TALLOWIND_SERVER_MINUTES_LIMIT=90")}
            << QStringLiteral(
                   "127.0.0.1:8787 /home/ann/.local/share/tallowind-server dev=0 minutes=30 timeout=30000 "
                   "threads=64");
        QTest::newRow("development mode on IPv6 loopback")
            << QStringList{QStringLiteral("--dev"), QStringLiteral("--listen"), QStringLiteral("[::1]:8787")}
            << QStringList()
            << QStringLiteral(
                   "::1:8787 /home/ann/.local/share/tallowind-server dev=1 minutes=600 timeout=30000 "
                   "threads=64");
        QTest::newRow("variables for everything else")
            << QStringList{QStringLiteral("--data"), QStringLiteral("/var/lib/tw")}
            << QStringList{QStringLiteral("TALLOWIND_SERVER_DEV=1"),
                           QStringLiteral("TALLOWIND_SERVER_LLM_TIMEOUT=2.5"),
                           QStringLiteral("TALLOWIND_SERVER_THREADS=8")}
            << QStringLiteral("127.0.0.1:8787 /var/lib/tw dev=1 minutes=600 timeout=2500 threads=8");
    }

    void settingsComeFromFlagsThenVariablesThenDefaults() {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, variables);
        QFETCH(QString, expected);
        const auto parsed = parse(arguments, variables);
        const auto* refused = std::get_if<server::ConfigExit>(&parsed);
        QVERIFY2(!refused, refused ? refused->text.c_str() : "");
        QCOMPARE(describe(std::get<server::ServerConfig>(parsed)), expected);
    }

    void unusableSettingsAreRefusedWithTheReason_data() {
        QTest::addColumn<QStringList>("arguments");
        QTest::addColumn<QStringList>("variables");
        QTest::addColumn<QString>("reason");

        QTest::newRow("development mode on every address")
            << QStringList{QStringLiteral("--dev"), QStringLiteral("--listen"),
                           QStringLiteral("0.0.0.0:8787")}
            << QStringList() << QStringLiteral("only listens on loopback");
        QTest::newRow("development mode from variables on a public address")
            << QStringList()
            << QStringList{QStringLiteral("TALLOWIND_SERVER_DEV=1"),
                           QStringLiteral("TALLOWIND_SERVER_LISTEN=192.168.1.2:8787")}
            << QStringLiteral("only listens on loopback");
        QTest::newRow("listen without a port")
            << QStringList{QStringLiteral("--listen"), QStringLiteral("localhost")} << QStringList()
            << QStringLiteral("expects HOST:PORT");
        QTest::newRow("port out of range")
            << QStringList{QStringLiteral("--listen=127.0.0.1:70000")} << QStringList()
            << QStringLiteral("expects a port from 0 to 65535");
        QTest::newRow("a word for a number")
            << QStringList() << QStringList{QStringLiteral("TALLOWIND_SERVER_MINUTES_LIMIT=lots")}
            << QStringLiteral("TALLOWIND_SERVER_MINUTES_LIMIT expects a whole number");
        QTest::newRow("a flag without its value") << QStringList{QStringLiteral("--data")} << QStringList()
                                                  << QStringLiteral("--data needs a value (DIR)");
        QTest::newRow("an unknown flag") << QStringList{QStringLiteral("--verbose")} << QStringList()
                                         << QStringLiteral("unknown option '--verbose'");
        QTest::newRow("a model address without a model")
            << QStringList{QStringLiteral("--llm-url"), QStringLiteral("http://127.0.0.1:11434/v1")}
            << QStringList() << QStringLiteral("--llm-url needs --llm-model too");
        QTest::newRow("a mail server without a sender")
            << QStringList{QStringLiteral("--smtp-url=smtp://127.0.0.1:25")} << QStringList()
            << QStringLiteral("--smtp-url needs --smtp-from too");
    }

    void unusableSettingsAreRefusedWithTheReason() {
        QFETCH(QStringList, arguments);
        QFETCH(QStringList, variables);
        QFETCH(QString, reason);
        const auto parsed = parse(arguments, variables);
        QVERIFY(std::holds_alternative<server::ConfigExit>(parsed));
        const auto& exit = std::get<server::ConfigExit>(parsed);
        QCOMPARE(exit.status, 2);
        QVERIFY2(QString::fromStdString(exit.text).contains(reason), exit.text.c_str());
    }

    void helpListsEveryFlagAndVariable() {
        QProcess process;
        process.start(serverBinary(), {QStringLiteral("--help")});
        QVERIFY(process.waitForFinished(10'000));
        QCOMPARE(process.exitCode(), 0);
        const QString help = QString::fromUtf8(process.readAllStandardOutput());
        for (const char* name : {"--listen", "--data", "--dev", "--minutes-limit", "--llm-url", "--llm-key",
                                 "--llm-model", "--llm-timeout", "--speech-key", "--speech-url", "--smtp-url",
                                 "--smtp-user", "--smtp-password", "--smtp-from", "--releases", "--max-body",
                                 "--threads", "--codes-per-email", "--codes-per-address"}) {
            QVERIFY2(help.contains(QLatin1String(name)), name);
            const QString variable =
                QStringLiteral("TALLOWIND_SERVER_") +
                QString::fromLatin1(name + 2).toUpper().replace(QLatin1Char('-'), QLatin1Char('_'));
            QVERIFY2(help.contains(variable), qPrintable(variable));
        }
    }

    void theExecutableServesUntilTerminated() {
        QTemporaryDir data;
        QProcess process;
        process.start(serverBinary(), {QStringLiteral("--dev"), QStringLiteral("--listen"),
                                       QStringLiteral("127.0.0.1:0"), QStringLiteral("--data"), data.path()});
        QVERIFY(process.waitForStarted());
        QByteArray log;
        QRegularExpressionMatch listening;
        QTRY_VERIFY_WITH_TIMEOUT(
            (log += process.readAllStandardError(),
             listening = QRegularExpression(QStringLiteral("listening on http://127.0.0.1:(\\d+)"))
                             .match(QString::fromUtf8(log)),
             listening.hasMatch()),
            10'000);
        httplib::Client client("127.0.0.1", listening.captured(1).toInt());
        const auto started = client.Post("/auth/start", R"({"email":"vic@example.org"})", "application/json");
        QVERIFY(started);
        QCOMPARE(started->status, 200);
        QVERIFY(started->body.find("devCode") != std::string::npos);
        QVERIFY(QFile::exists(data.filePath(QStringLiteral("tallowind.sqlite3"))));

        ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
        QVERIFY(process.waitForFinished(10'000));
        QCOMPARE(process.exitStatus(), QProcess::NormalExit);
        QCOMPARE(process.exitCode(), 0);
    }

    void theExecutableRefusesDevelopmentModeOnAPublicAddress() {
        QProcess process;
        process.start(serverBinary(),
                      {QStringLiteral("--dev"), QStringLiteral("--listen"), QStringLiteral("0.0.0.0:0")});
        QVERIFY(process.waitForFinished(10'000));
        QCOMPARE(process.exitCode(), 2);
        QVERIFY(process.readAllStandardError().contains("only listens on loopback"));
    }
};

QTEST_GUILESS_MAIN(TestServerConfig)
#include "tst_serverconfig.moc"
