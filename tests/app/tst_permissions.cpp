#include "permissions.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QTest>
#include <QThread>

#include <optional>

// What the desktop lets the program hear: both devices come from the sound server, and its settings open
// with the first tool the desktop has.
class PermissionsTest : public QObject {
    Q_OBJECT

private slots:
    void grantsFollowTheDefaultDevicesAndArriveOnTheMainThreadLater_data() {
        QTest::addColumn<QString>("server");
        QTest::addColumn<bool>("granted");
        QTest::newRow("a default input and output grant both") << "devices" << true;
        QTest::newRow("a server without devices grants neither") << "empty" << false;
        QTest::newRow("no sound server grants neither") << "none" << false;
    }
    void grantsFollowTheDefaultDevicesAndArriveOnTheMainThreadLater() {
        QFETCH(QString, server);
        QFETCH(bool, granted);
        std::optional<PulseServer> pulse;
        QTemporaryDir nowhere;
        ScopedEnvironment environment;
        if (server == QLatin1String("none")) {
            environment.set("PULSE_SERVER", "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
        } else {
            QVERIFY(pulse.emplace(server == QLatin1String("devices")).running());
            environment.set("PULSE_SERVER", pulse->address().toUtf8());
        }

        auto source = Permissions::soundServer();
        std::optional<Permissions::Grants> answer;
        source->check([&](Permissions::Grants grants) {
            QCOMPARE(QThread::currentThread(), QCoreApplication::instance()->thread());
            answer = grants;
        });
        QVERIFY(!answer);
        QTRY_VERIFY(answer);
        QCOMPARE(*answer, (Permissions::Grants{granted, granted}));
    }

    void soundSettingsOpenWithTheFirstToolThatExists() {
        const auto command = [](const QStringList& installed) {
            return Permissions::soundSettingsCommand(
                [&](const QString& tool) { return installed.contains(tool); });
        };
        QCOMPARE(command({"gnome-control-center", "pavucontrol", "systemsettings"}),
                 QStringList{"pavucontrol"});
        QCOMPARE(command({"systemsettings", "gnome-control-center"}),
                 (QStringList{"gnome-control-center", "sound"}));
        QCOMPARE(command({"systemsettings"}), (QStringList{"systemsettings", "kcm_pulseaudio"}));
        QCOMPARE(command({"xterm"}), QStringList());
    }
};

QTEST_GUILESS_MAIN(PermissionsTest)
#include "tst_permissions.moc"
