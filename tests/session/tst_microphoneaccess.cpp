#include "microphoneaccess.h"
#include "permissions.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QLocalServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QThreadPool>

// Microphone access on Linux is granted exactly when the sound server names a default input; onboarding's
// grants ask the same question for the input and the output.
class MicrophoneAccessTest : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    const QString nowhere_ = dir_.filePath(QStringLiteral("socket"));
    ScopedEnvironment environment_;

private slots:
    void grantedWithDefaultDevices_data() {
        QTest::addColumn<QString>("server");  // "devices", "empty", "none" or "wedged"
        QTest::addColumn<bool>("granted");
        QTest::newRow("server with a default input and output") << "devices" << true;
        QTest::newRow("server without any device") << "empty" << false;
        QTest::newRow("no server at all") << "none" << false;
        QTest::newRow("a server that never answers") << "wedged" << false;
    }
    void grantedWithDefaultDevices() {
        QFETCH(QString, server);
        QFETCH(bool, granted);
        std::optional<PulseServer> pulse;
        QLocalServer wedged;  // accepts connections, holds them and says nothing
        if (server == "devices" || server == "empty")
            QVERIFY(pulse.emplace(server == "devices").running());
        QVERIFY(server != "wedged" || wedged.listen(nowhere_));
        environment_.set("PULSE_SERVER", (pulse ? pulse->address() : "unix:" + nowhere_).toUtf8());

        std::optional<bool> answer;
        std::optional<Permissions::Grants> grants;
        QList<QThread*> answeredOn;
        const auto access = MicrophoneAccess::pulse();
        const auto source = Permissions::soundServer();
        access->request([&](bool value) {
            answer = value;
            answeredOn << QThread::currentThread();
        });
        source->check([&](Permissions::Grants value) {
            grants = value;
            answeredOn << QThread::currentThread();
        });
        QVERIFY(!answer && !grants);  // never before the question returns
        QTRY_VERIFY_WITH_TIMEOUT(answer && grants, 8000);
        QCOMPARE(*answer, granted);
        QCOMPARE(*grants, (Permissions::Grants{granted, granted}));
        QCOMPARE(answeredOn, (QList<QThread*>{thread(), thread()}));
    }

    void answerIsDroppedOnceAccessIsGone() {
        environment_.set("PULSE_SERVER", ("unix:" + nowhere_).toUtf8());
        bool answered = false;
        MicrophoneAccess::pulse()->request([&answered](bool) { answered = true; });
        QThreadPool::globalInstance()->waitForDone();
        QCoreApplication::sendPostedEvents();
        QVERIFY(!answered);
    }
};

QTEST_GUILESS_MAIN(MicrophoneAccessTest)
#include "tst_microphoneaccess.moc"
