#include "loopbackservices.h"
#include "testenvironment.h"

#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QSettings>
#include <QStandardPaths>
#include <QTest>

// The desktop program as a user runs it, on the test display, against loopback services.
class TestDesktopProgram : public QObject {
    Q_OBJECT

private:
    QString display_;

    QProcessEnvironment environment(const TestHome& home, const LoopbackServices& services) const {
        QProcessEnvironment environment = services.environment();
        environment.insert(QStringLiteral("DISPLAY"), display_);
        environment.insert(QStringLiteral("QT_QPA_PLATFORM"), QStringLiteral("xcb"));
        environment.insert(QStringLiteral("XDG_CONFIG_HOME"), home.configPath());
        environment.insert(QStringLiteral("XDG_RUNTIME_DIR"), home.path() + QStringLiteral("/run"));
        return environment;
    }

    static void writeSettings(const TestHome& home, bool onboarded) {
        QSettings settings(home.configPath() + QStringLiteral("/Tallowind/settings.ini"),
                           QSettings::IniFormat);
        settings.setValue(QStringLiteral("onboarded"), onboarded);
        // Only the interviewer's side is heard, so every byte the speech service receives was metered.
        settings.setValue(QStringLiteral("useMic"), false);
    }

    // Runs xdotool on the test display; its output, or nothing when it failed.
    QByteArray xdotool(const QStringList& arguments) const {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("DISPLAY"), display_);
        process.setProcessEnvironment(environment);
        process.start(QStringLiteral("xdotool"), arguments);
        process.waitForFinished(5000);
        return process.exitCode() == 0 ? process.readAllStandardOutput().trimmed() : QByteArray();
    }

    // Spins the event loop, so the loopback services keep answering, until xdotool finds a window.
    bool waitForWindow(const QString& title) const {
        for (int attempt = 0; attempt < 100; ++attempt) {
            if (!xdotool({QStringLiteral("search"), QStringLiteral("--name"), title}).isEmpty()) {
                return true;
            }
            QTest::qWait(100);
        }
        return false;
    }

    void start(QProcess& program, const TestHome& home, const LoopbackServices& services) const {
        program.setProcessEnvironment(environment(home, services));
        program.start(tallowindBinary(), {});
    }

    static qsizetype audioBytes(const TestWebSocketServer& speech) {
        qsizetype bytes = 0;
        for (const auto& connection : speech.connections()) {
            for (const QByteArray& audio : connection.binaries()) {
                bytes += audio.size();
            }
        }
        return bytes;
    }

private slots:
    void initTestCase() {
        display_ = qEnvironmentVariable("TALLOWIND_TEST_DISPLAY");
        if (display_.isEmpty() || QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()) {
            QSKIP("needs the test display and xdotool (scripts/test.sh provides both)");
        }
    }

    void quittingWhileListeningReportsTheLastUsageBeforeTheProcessEnds() {
        TestHome home;
        LoopbackServices services;
        writeSettings(home, true);
        QProcess program;
        start(program, home, services);
        QVERIFY(waitForWindow(QStringLiteral("Tallowind Overlay")));

        xdotool({QStringLiteral("key"), QStringLiteral("ctrl+alt+s")});
        // A second and a half of the call's audio has reached the speech service, so at least that much
        // was captured and counted.
        QTRY_VERIFY_WITH_TIMEOUT(audioBytes(services.speech()) >= 48'000, 20'000);
        QVERIFY(services.requests("/usage").isEmpty());

        program.terminate();
        QTRY_VERIFY_WITH_TIMEOUT(program.state() == QProcess::NotRunning, 10'000);
        QCOMPARE(program.exitStatus(), QProcess::NormalExit);
        QCOMPARE(program.exitCode(), 0);
        const auto reports = services.requests("/usage");
        QCOMPARE(reports.size(), 1);
        QVERIFY(QJsonDocument::fromJson(reports.first().body).object().value("sttSeconds").toDouble() >= 1.0);
    }

    void aSecondStartHandsOverToTheRunningProgramAndExits() {
        TestHome home;
        LoopbackServices services;
        writeSettings(home, false);
        QProcess first;
        start(first, home, services);
        QVERIFY(waitForWindow(QStringLiteral("^Tallowind$")));

        QProcess second;
        start(second, home, services);
        QTRY_VERIFY_WITH_TIMEOUT(second.state() == QProcess::NotRunning, 10'000);
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(first.state(), QProcess::Running);

        first.terminate();
        QTRY_VERIFY_WITH_TIMEOUT(first.state() == QProcess::NotRunning, 10'000);
        QCOMPARE(first.exitCode(), 0);
    }
};

QTEST_GUILESS_MAIN(TestDesktopProgram)
#include "tst_desktopprogram.moc"
