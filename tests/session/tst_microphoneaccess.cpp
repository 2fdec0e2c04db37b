#include "microphoneaccess.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QTemporaryDir>
#include <QTest>
#include <QThread>
#include <QThreadPool>

// Microphone access on Linux: granted exactly when the sound server names a default input.
class MicrophoneAccessTest : public QObject {
    Q_OBJECT

private slots:
    void grantedWithDefaultSource_data();
    void grantedWithDefaultSource();
    void answerIsDroppedOnceAccessIsGone();
};

void MicrophoneAccessTest::grantedWithDefaultSource_data() {
    QTest::addColumn<QString>("server");  // "devices", "empty" or "none"
    QTest::addColumn<bool>("granted");

    QTest::newRow("server with a default input") << "devices" << true;
    QTest::newRow("server without any device") << "empty" << false;
    QTest::newRow("no server at all") << "none" << false;
}

void MicrophoneAccessTest::grantedWithDefaultSource() {
    QFETCH(QString, server);
    QFETCH(bool, granted);

    std::optional<PulseServer> pulse;
    QTemporaryDir nowhere;
    ScopedEnvironment environment;
    if (server == QLatin1String("none")) {
        environment.set("PULSE_SERVER", "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
    } else {
        pulse.emplace(server == QLatin1String("devices"));
        QVERIFY(pulse->running());
        environment.set("PULSE_SERVER", pulse->address().toUtf8());
    }

    auto access = MicrophoneAccess::pulse();
    std::optional<bool> answer;
    bool answeredOnMainThread = false;
    access->request([&](bool value) {
        answer = value;
        answeredOnMainThread = QThread::currentThread() == QCoreApplication::instance()->thread();
    });
    QVERIFY(!answer.has_value());  // never before request() returns
    QTRY_VERIFY(answer.has_value());
    QCOMPARE(*answer, granted);
    QVERIFY(answeredOnMainThread);
}

void MicrophoneAccessTest::answerIsDroppedOnceAccessIsGone() {
    QTemporaryDir nowhere;
    ScopedEnvironment environment;
    environment.set("PULSE_SERVER", "unix:" + nowhere.filePath(QStringLiteral("socket")).toUtf8());
    bool answered = false;
    {
        auto access = MicrophoneAccess::pulse();
        access->request([&answered](bool) { answered = true; });
    }
    QThreadPool::globalInstance()->waitForDone();
    QCoreApplication::sendPostedEvents();
    QVERIFY(!answered);
}

QTEST_GUILESS_MAIN(MicrophoneAccessTest)
#include "tst_microphoneaccess.moc"
