#include "keychain.h"
#include "testenvironment.h"
#include "tokenstore.h"

#include <QFile>
#include <QTest>

class TokenStoreTest : public QObject {
    Q_OBJECT

private slots:
    void fileStoreKeepsTheExactBytesPrivate_data();
    void fileStoreKeepsTheExactBytesPrivate();
    void keychainUsesOnlyTheChosenStore_data();
    void keychainUsesOnlyTheChosenStore();
};

void TokenStoreTest::fileStoreKeepsTheExactBytesPrivate_data() {
    QTest::addColumn<QByteArray>("contents");  // what is on disk before load
    QTest::addColumn<QVariant>("expected");    // invalid: no token
    QTest::newRow("token") << QByteArray("t0k\xc3\xa9n") << QVariant(QStringLiteral("t0k\u00e9n"));
    QTest::newRow("empty file") << QByteArray("") << QVariant("");
    QTest::newRow("not UTF-8") << QByteArray("\xff\xfe\x00z", 4) << QVariant();
    QTest::newRow("trailing newline is part of the token") << QByteArray("abc\n") << QVariant("abc\n");
}

void TokenStoreTest::fileStoreKeepsTheExactBytesPrivate() {
    QFETCH(QByteArray, contents);
    QFETCH(QVariant, expected);
    TestHome home;
    const QString path = home.path() + "/nested/dir/session-token";
    auto store = makeFileTokenStore(path);
    QCOMPARE(store->load().token, std::nullopt);
    QCOMPARE(store->save(QStringLiteral("t0k\u00e9n")), TokenStore::Availability::answered);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadWrite));
    QCOMPARE(file.readAll(), QByteArray("t0k\xc3\xa9n"));
    QCOMPARE(file.permissions() & ~(QFileDevice::ReadUser | QFileDevice::WriteUser),
             QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    file.resize(0);
    file.write(contents);
    file.close();
    const auto lookup = store->load();
    QCOMPARE(lookup.token.has_value(), expected.isValid());
    QCOMPARE(lookup.token.value_or(QString()), expected.toString());
    QCOMPARE(store->remove(), TokenStore::Availability::answered);
    QVERIFY(!QFile::exists(path));
}

void TokenStoreTest::keychainUsesOnlyTheChosenStore_data() {
    QTest::addColumn<QByteArray>("choice");
    QTest::addColumn<bool>("inSecretService");
    QTest::newRow("file forced") << QByteArray("file") << false;
    QTest::newRow("secret service forced") << QByteArray("secret-service") << true;
    QTest::newRow("automatic with a Secret Service") << QByteArray() << true;
}

void TokenStoreTest::keychainUsesOnlyTheChosenStore() {
    QFETCH(QByteArray, choice);
    QFETCH(bool, inSecretService);
    if (!qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS")) {
        QSKIP("needs a session bus with a Secret Service (the test command starts one)");
    }
    // How many items the Secret Service holds for the program, as an outside tool sees them.
    const auto secretItems = [] {
        QProcess tool;
        tool.start(QStringLiteral("secret-tool"),
                   {"search", "--all", "server", "app.tallowind.Tallowind", "user", "session-token"});
        tool.waitForFinished(5000);
        return ("\n" + tool.readAllStandardOutput() + tool.readAllStandardError()).count("\n[/");
    };
    TestHome home;
    if (choice.isEmpty()) {
        home.environment().unset("TALLOWIND_TOKEN_STORE");
    } else {
        home.environment().set("TALLOWIND_TOKEN_STORE", choice);
    }
    Keychain::save(QStringLiteral("kept"));
    Keychain::save(QStringLiteral("replaced \u2713"));
    QCOMPARE(Keychain::load(), std::optional(QStringLiteral("replaced \u2713")));
    QCOMPARE(QFile::exists(Keychain::tokenFilePath()), !inSecretService);
    QCOMPARE(secretItems(), inSecretService ? 1 : 0);
    Keychain::remove();
    QCOMPARE(Keychain::load(), std::nullopt);
    QVERIFY(!QFile::exists(Keychain::tokenFilePath()));
    QCOMPARE(secretItems(), 0);
}

QTEST_GUILESS_MAIN(TokenStoreTest)
#include "tst_tokenstore.moc"
