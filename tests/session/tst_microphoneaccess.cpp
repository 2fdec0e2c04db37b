#include "microphoneaccess.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QLocalServer>
#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QThreadPool>

// Microphone access on Linux: granted exactly when the sound server names a default input.
class MicrophoneAccessTest : public QObject {
    Q_OBJECT

    QTemporaryDir dir_;
    const QString nowhere_ = dir_.filePath(QStringLiteral("socket"));
    ScopedEnvironment environment_;

private slots:
    void grantedWithDefaultSource_data() {
        QTest::addColumn<QString>("server");  // "devices", "empty", "none" or "wedged"
        QTest::addColumn<bool>("granted");
        QTest::newRow("server with a default input") << "devices" << true;
        QTest::newRow("server without any device") << "empty" << false;
        QTest::newRow("no server at all") << "none" << false;
        QTest::newRow("a server that never answers") << "wedged" << false;
    }
    void grantedWithDefaultSource() {
        QFETCH(QString, server);
        QFETCH(bool, granted);
        std::optional<PulseServer> pulse;
        QLocalServer wedged;  // accepts connections, holds them and says nothing
        if (server == "devices" || server == "empty")
            QVERIFY(pulse.emplace(server == "devices").running());
        QVERIFY(server != "wedged" || wedged.listen(nowhere_));
        environment_.set("PULSE_SERVER", (pulse ? pulse->address() : "unix:" + nowhere_).toUtf8());

        std::optional<bool> answer;
        QThread* answeredOn = nullptr;
        const auto access = MicrophoneAccess::pulse();
        access->request([&](bool value) {
            answer = value;
            answeredOn = QThread::currentThread();
        });
        QVERIFY(!answer);  // never before request() returns
        QTRY_VERIFY_WITH_TIMEOUT(answer, 8000);
        QCOMPARE(*answer, granted);
        QCOMPARE(answeredOn, thread());
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
