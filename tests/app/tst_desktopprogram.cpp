#include "loopbackservices.h"
#include "testenvironment.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSettings>
#include <QStandardPaths>
#include <QTest>

// The desktop program as a user runs it, on the test display, against loopback services.
class TestDesktopProgram : public QObject {
    Q_OBJECT

    // Starts the program in `home` (onboarded or not, hearing only the call, so that every byte the speech
    // service receives was metered) and spins the event loop until xdotool finds `window`.
    static bool start(QProcess& program, const TestHome& home, const LoopbackServices& services,
                      bool onboarded, const QString& window) {
        QSettings settings(home.configPath() + "/Tallowind/settings.ini", QSettings::IniFormat);
        settings.setValue("onboarded", onboarded);
        settings.setValue("useMic", false);
        settings.sync();
        QProcessEnvironment environment = services.environment();
        environment.insert("XDG_CONFIG_HOME", home.configPath());
        environment.insert("XDG_RUNTIME_DIR", home.path() + "/run");
        program.setProcessEnvironment(environment);
        program.start(tallowindBinary(), {});
        const QStringList search{"search", "--name", window};
        return QTest::qWaitFor([&] { return QProcess::execute("xdotool", search) == 0; }, 30'000);
    }

    static bool endsCleanly(QProcess& program) {
        program.terminate();
        return QTest::qWaitFor([&] { return program.state() == QProcess::NotRunning; }, 10'000) &&
               program.exitStatus() == QProcess::NormalExit && program.exitCode() == 0;
    }

private slots:
    void initTestCase() {
        const QByteArray display = qgetenv("TALLOWIND_TEST_DISPLAY");
        if (display.isEmpty() || QStandardPaths::findExecutable(QStringLiteral("xdotool")).isEmpty()) {
            QSKIP("needs the test display and xdotool (scripts/test.sh provides both)");
        }
        qputenv("DISPLAY", display);
        qputenv("QT_QPA_PLATFORM", "xcb");
    }

    void quittingWhileListeningReportsTheLastUsageBeforeTheProcessEnds() {
        TestHome home;
        LoopbackServices services;
        QProcess program;
        QVERIFY(start(program, home, services, true, QStringLiteral("Tallowind Overlay")));

        QProcess::execute("xdotool", {"key", "ctrl+alt+s"});
        // A second and a half of the call's audio has reached the speech service, so at least that much
        // was captured and counted.
        const auto audioBytes = [&] {
            qsizetype bytes = 0;
            for (const auto& connection : services.speech().connections()) {
                for (const QByteArray& audio : connection.binaries()) {
                    bytes += audio.size();
                }
            }
            return bytes;
        };
        QTRY_VERIFY_WITH_TIMEOUT(audioBytes() >= 48'000, 20'000);
        QVERIFY(services.requests("/usage").isEmpty());

        QVERIFY(endsCleanly(program));
        const auto reports = services.requests("/usage");
        QCOMPARE(reports.size(), 1);
        QVERIFY(QJsonDocument::fromJson(reports.first().body).object().value("sttSeconds").toDouble() >= 1.0);
    }

    void aSecondStartHandsOverToTheRunningProgramAndExits() {
        TestHome home;
        LoopbackServices services;
        QProcess first;
        QVERIFY(start(first, home, services, false, QStringLiteral("^Tallowind$")));

        QProcess second;
        QVERIFY(start(second, home, services, false, QStringLiteral("^Tallowind$")));
        QVERIFY(QTest::qWaitFor([&] { return second.state() == QProcess::NotRunning; }, 10'000));
        QCOMPARE(second.exitCode(), 0);
        QCOMPARE(first.state(), QProcess::Running);
        QVERIFY(endsCleanly(first));
    }
};

QTEST_GUILESS_MAIN(TestDesktopProgram)
#include "tst_desktopprogram.moc"
