#include "appsettings.h"
#include "testenvironment.h"

#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

class AppSettingsTest : public QObject {
    Q_OBJECT

private slots:
    void freshStoreHasDefaults();
    void writesPersistAndNotify_data();
    void writesPersistAndNotify();
    void secondPathSeesWritesAtOnce();
    void keysAndTypesInTheFile();
    void sharedStoreLivesUnderConfigHome();
};

void AppSettingsTest::freshStoreHasDefaults() {
    TestHome home;
    AppSettings settings(home.path() + "/settings.ini");
    QCOMPARE(settings.onboarded(), false);
    QCOMPARE(settings.email(), QString());
    QCOMPARE(settings.resume(), QString());
    QCOMPARE(settings.jobDescription(), QString());
    QCOMPARE(settings.extraInstructions(), QString());
    QCOMPARE(settings.autoAnswer(), true);
    QCOMPARE(settings.useMic(), true);
    QCOMPARE(settings.overlayOpacity(), 0.92);
    QCOMPARE(settings.clickThrough(), false);
    // Reading a default does not write it back.
    QVERIFY(settings.store().allKeys().isEmpty());
}

void AppSettingsTest::writesPersistAndNotify_data() {
    QTest::addColumn<QByteArray>("property");
    QTest::addColumn<QVariant>("value");
    QTest::newRow("onboarded") << QByteArray("onboarded") << QVariant(true);
    QTest::newRow("email") << QByteArray("email") << QVariant("ada@example.test");
    QTest::newRow("resume") << QByteArray("resume")
                            << QVariant("Line one\nLine two, with commas; and = signs");
    QTest::newRow("jobDescription") << QByteArray("jobDescription") << QVariant("Staff engineer");
    QTest::newRow("extraInstructions") << QByteArray("extraInstructions") << QVariant("Keep it short.");
    QTest::newRow("autoAnswer") << QByteArray("autoAnswer") << QVariant(false);
    QTest::newRow("useMic") << QByteArray("useMic") << QVariant(false);
    QTest::newRow("overlayOpacity") << QByteArray("overlayOpacity") << QVariant(0.55);
    QTest::newRow("overlayOpacity unclamped") << QByteArray("overlayOpacity") << QVariant(1.5);
    QTest::newRow("clickThrough") << QByteArray("clickThrough") << QVariant(true);
}

void AppSettingsTest::writesPersistAndNotify() {
    QFETCH(QByteArray, property);
    QFETCH(QVariant, value);
    TestHome home;
    const QString path = home.path() + "/settings.ini";
    {
        AppSettings settings(path);
        const QMetaProperty meta =
            settings.metaObject()->property(settings.metaObject()->indexOfProperty(property));
        QVERIFY(meta.isValid());
        QVERIFY(meta.hasNotifySignal());
        QSignalSpy changed(&settings, meta.notifySignal());
        QVERIFY(meta.write(&settings, value));
        QCOMPARE(changed.count(), 1);
        // Writing the same value again still tells observers.
        QVERIFY(meta.write(&settings, value));
        QCOMPARE(changed.count(), 2);
    }
    AppSettings reopened(path);
    QCOMPARE(reopened.property(property), value);
}

void AppSettingsTest::secondPathSeesWritesAtOnce() {
    TestHome home;
    const QString path = home.path() + "/settings.ini";
    AppSettings window(path);
    AppSettings hotKey(path);
    hotKey.setClickThrough(!window.clickThrough());
    QCOMPARE(window.clickThrough(), true);
    window.setResume(QStringLiteral("new resume"));
    QCOMPARE(hotKey.resume(), QStringLiteral("new resume"));
}

void AppSettingsTest::keysAndTypesInTheFile() {
    TestHome home;
    const QString path = home.path() + "/settings.ini";
    {
        AppSettings settings(path);
        settings.setOverlayOpacity(0.8);
        settings.setUseMic(false);
        settings.setEmail(QStringLiteral("true"));
        // On disk at once, for another process (the settings window of a second instance) to read.
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly) && file.readAll().contains("useMic=false"));
    }
    QSettings raw(path, QSettings::IniFormat);
    QCOMPARE(raw.allKeys(), (QStringList{"email", "overlayOpacity", "useMic"}));
    AppSettings settings(path);
    // A string that looks like a Bool stays a string, and the Bool stays a Bool.
    QCOMPARE(settings.email(), QStringLiteral("true"));
    QCOMPARE(settings.useMic(), false);
    QCOMPARE(settings.overlayOpacity(), 0.8);
}

void AppSettingsTest::sharedStoreLivesUnderConfigHome() {
    TestHome home;
    QCOMPARE(AppSettings::defaultPath(), home.configPath() + "/Tallowind/settings.ini");
}

QTEST_GUILESS_MAIN(AppSettingsTest)
#include "tst_appsettings.moc"
