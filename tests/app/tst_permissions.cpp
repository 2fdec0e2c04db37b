#include "permissions.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QTest>
#include <QThread>

#include <optional>

class PermissionsTest : public QObject {
    Q_OBJECT

private slots:
    void grantsFollowTheDefaultDevicesAndArriveOnTheMainThreadLater_data() {
        QTest::addColumn<int>("devices");  // -1: no sound server at all
        QTest::newRow("a default input and output grant both") << 1;
        QTest::newRow("a server without devices grants neither") << 0;
        QTest::newRow("no sound server grants neither") << -1;
    }
    void grantsFollowTheDefaultDevicesAndArriveOnTheMainThreadLater() {
        QFETCH(int, devices);
        std::optional<PulseServer> pulse;
        QTemporaryDir nowhere;
        if (devices >= 0) {
            QVERIFY(pulse.emplace(devices == 1).running());
        }
        ScopedEnvironment environment;
        environment.set("PULSE_SERVER", pulse
                                            ? pulse->address().toUtf8()
                                            : "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
        std::optional<Permissions::Grants> answer;
        const auto source = Permissions::soundServer();
        source->check([&](Permissions::Grants grants) {
            QCOMPARE(QThread::currentThread(), QCoreApplication::instance()->thread());
            answer = grants;
        });
        QVERIFY(!answer);
        QTRY_VERIFY(answer);
        QCOMPARE(*answer, (Permissions::Grants{devices == 1, devices == 1}));
    }
};

QTEST_GUILESS_MAIN(PermissionsTest)
#include "tst_permissions.moc"
