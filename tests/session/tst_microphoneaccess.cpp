#include "microphoneaccess.h"
#include "pulseserver.h"
#include "testenvironment.h"

#include <QLocalServer>
#include <QLocalSocket>
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
    QTest::addColumn<QString>("server");  // "devices", "empty", "none" or "wedged"
    QTest::addColumn<bool>("granted");

    QTest::newRow("server with a default input") << "devices" << true;
    QTest::newRow("server without any device") << "empty" << false;
    QTest::newRow("no server at all") << "none" << false;
    QTest::newRow("a server that never answers") << "wedged" << false;
}

void MicrophoneAccessTest::grantedWithDefaultSource() {
    QFETCH(QString, server);
    QFETCH(bool, granted);

    std::optional<PulseServer> pulse;
    QTemporaryDir nowhere;
    ScopedEnvironment environment;
    // Accepts the connection and then says nothing.
    QLocalServer wedged;
    QList<QLocalSocket*> held;
    connect(&wedged, &QLocalServer::newConnection, this,
            [&] { held.append(wedged.nextPendingConnection()); });
    if (server == QLatin1String("wedged")) {
        QVERIFY(wedged.listen(nowhere.filePath(QStringLiteral("socket"))));
    }
    if (server == QLatin1String("none") || server == QLatin1String("wedged")) {
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
    QTRY_VERIFY_WITH_TIMEOUT(answer.has_value(), 8000);
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
