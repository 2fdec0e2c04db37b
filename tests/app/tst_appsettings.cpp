#include "appsettings.h"
#include "testenvironment.h"

#include <QFile>
#include <QSettings>
#include <QSignalSpy>
#include <QTest>

class AppSettingsTest : public QObject {
    Q_OBJECT

private slots:
    void eachSettingStartsAtItsDefaultAndAWriteReachesTheFileAndEveryReader_data() {
        // Each row is named after its property.
        QTest::addColumn<QVariant>("fallback");
        QTest::addColumn<QVariant>("value");
        QTest::newRow("onboarded") << QVariant(false) << QVariant(true);
        QTest::newRow("email") << QVariant(QString()) << QVariant("ada@example.test");
        QTest::newRow("resume") << QVariant(QString())
                                << QVariant("Line one\nLine two, with commas; and = signs");
        QTest::newRow("jobDescription") << QVariant(QString()) << QVariant("Staff engineer");
        QTest::newRow("extraInstructions") << QVariant(QString()) << QVariant("Keep it short.");
        QTest::newRow("autoAnswer") << QVariant(true) << QVariant(false);
        QTest::newRow("useMic") << QVariant(true) << QVariant(false);
        QTest::newRow("overlayOpacity") << QVariant(0.92) << QVariant(0.55);
        QTest::newRow("clickThrough") << QVariant(false) << QVariant(true);
    }
    void eachSettingStartsAtItsDefaultAndAWriteReachesTheFileAndEveryReader() {
        const char* property = QTest::currentDataTag();
        QFETCH(QVariant, fallback);
        QFETCH(QVariant, value);
        TestHome home;
        QCOMPARE(AppSettings::defaultPath(), home.configPath() + "/Tallowind/settings.ini");
        const QString path = AppSettings::defaultPath();
        {
            AppSettings writer(path);
            AppSettings reader(path);
            QCOMPARE(reader.property(property), fallback);
            // Reading a default does not write it back.
            QVERIFY(reader.store().allKeys().isEmpty());

            const QMetaProperty meta =
                writer.metaObject()->property(writer.metaObject()->indexOfProperty(property));
            QSignalSpy changed(&writer, meta.notifySignal());
            QVERIFY(meta.write(&writer, value));
            QVERIFY(meta.write(&writer, value));
            QCOMPARE(changed.count(), 2);
            QCOMPARE(reader.property(property), value);
            // On disk at once, for the settings window of a second instance to read.
            QFile file(path);
            QVERIFY(file.open(QIODevice::ReadOnly));
            QVERIFY(file.readAll().startsWith("[General]\n" + QByteArray(property) + '='));
        }
        QCOMPARE(AppSettings(path).property(property), value);
    }
};

QTEST_GUILESS_MAIN(AppSettingsTest)
#include "tst_appsettings.moc"
