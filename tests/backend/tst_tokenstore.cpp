#include "keychain.h"
#include "testenvironment.h"
#include "tokenstore.h"

#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QTest>

using namespace std::chrono_literals;

namespace {

const QString service = QStringLiteral("app.tallowind.Tallowind.test");
const QString account = QStringLiteral("session-token");

// How many items the Secret Service holds for our service and account, as an outside tool sees them.
int secretItems(const QString& serviceName) {
    QProcess tool;
    tool.start(QStringLiteral("secret-tool"), {"search", "--all", "server", serviceName, "user", account});
    tool.waitForFinished(5000);
    const QByteArray listing = tool.readAllStandardOutput() + tool.readAllStandardError();
    int items = 0;
    for (const QByteArray& line : listing.split('\n')) {
        items += line.startsWith("[/") ? 1 : 0;
    }
    return items;
}

bool haveSecretService() {
    return qEnvironmentVariableIsSet("DBUS_SESSION_BUS_ADDRESS");
}

}  // namespace

class TokenStoreTest : public QObject {
    Q_OBJECT

private slots:
    void fileStoreKeepsTokenPrivate();
    void fileStoreRoundTrip_data();
    void fileStoreRoundTrip();
    void secretServiceRoundTrip();
    void keychainFollowsChosenStore_data();
    void keychainFollowsChosenStore();
    void tokenAndSignInState_data();
    void tokenAndSignInState();
};

void TokenStoreTest::fileStoreKeepsTokenPrivate() {
    TestHome home;
    const QString path = home.path() + "/nested/dir/session-token";
    auto store = makeFileTokenStore(path);
    QCOMPARE(store->save(QStringLiteral("t0k\u00e9n")), TokenStore::Availability::answered);
    QFile file(path);
    QVERIFY(file.open(QIODevice::ReadOnly));
    QCOMPARE(file.readAll(), QStringLiteral("t0k\u00e9n").toUtf8());
    QCOMPARE(file.permissions() & (QFileDevice::ReadGroup | QFileDevice::ReadOther | QFileDevice::WriteGroup |
                                   QFileDevice::WriteOther),
             QFileDevice::Permissions());
    QVERIFY(file.permissions() & QFileDevice::ReadOwner);
}

void TokenStoreTest::fileStoreRoundTrip_data() {
    QTest::addColumn<QByteArray>("contents");  // what is on disk before load; empty name: no file
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("token") << QByteArray("abc.def") << QVariant("abc.def");
    QTest::newRow("empty file") << QByteArray("") << QVariant("");
    QTest::newRow("not UTF-8") << QByteArray(
                                      "\xff\xfe\x00"
                                      "bad",
                                      6)
                               << QVariant();
    QTest::newRow("trailing newline is part of the token") << QByteArray("abc\n") << QVariant("abc\n");
}

void TokenStoreTest::fileStoreRoundTrip() {
    QFETCH(QByteArray, contents);
    QFETCH(QVariant, expected);
    TestHome home;
    const QString path = home.path() + "/session-token";
    auto store = makeFileTokenStore(path);
    QCOMPARE(store->load().token, std::nullopt);

    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(contents);
    file.close();
    const auto lookup = store->load();
    QCOMPARE(lookup.token.has_value(), expected.isValid());
    if (expected.isValid()) {
        QCOMPARE(*lookup.token, expected.toString());
    }
    store->remove();
    QVERIFY(!QFile::exists(path));
    QCOMPARE(store->remove(), TokenStore::Availability::answered);
}

void TokenStoreTest::secretServiceRoundTrip() {
    if (!haveSecretService()) {
        QSKIP("needs a session bus with a Secret Service (the test command starts one)");
    }
    auto store = makeSecretServiceTokenStore(service, account, 3s);
    store->remove();
    QCOMPARE(store->load().availability, TokenStore::Availability::answered);
    QCOMPARE(store->load().token, std::nullopt);

    QCOMPARE(store->save(QStringLiteral("first")), TokenStore::Availability::answered);
    QCOMPARE(store->load().token, std::optional(QStringLiteral("first")));
    QCOMPARE(store->save(QStringLiteral("second \u2713")), TokenStore::Availability::answered);
    QCOMPARE(store->load().token, std::optional(QStringLiteral("second \u2713")));
    QCOMPARE(secretItems(service), 1);

    // A second store object sees the same item: nothing is cached in the object.
    QCOMPARE(makeSecretServiceTokenStore(service, account, 3s)->load().token,
             std::optional(QStringLiteral("second \u2713")));

    QCOMPARE(store->remove(), TokenStore::Availability::answered);
    QCOMPARE(store->load().token, std::nullopt);
    QCOMPARE(secretItems(service), 0);
}

void TokenStoreTest::keychainFollowsChosenStore_data() {
    QTest::addColumn<QByteArray>("choice");
    QTest::addColumn<bool>("inFile");
    QTest::addColumn<bool>("inSecretService");
    QTest::newRow("file forced") << QByteArray("file") << true << false;
    QTest::newRow("secret service forced") << QByteArray("secret-service") << false << true;
    QTest::newRow("automatic with a Secret Service") << QByteArray() << false << true;
}

void TokenStoreTest::keychainFollowsChosenStore() {
    QFETCH(QByteArray, choice);
    QFETCH(bool, inFile);
    QFETCH(bool, inSecretService);
    if (inSecretService && !haveSecretService()) {
        QSKIP("needs a session bus with a Secret Service (the test command starts one)");
    }
    TestHome home;
    if (choice.isEmpty()) {
        home.environment().unset("TALLOWIND_TOKEN_STORE");
    } else {
        home.environment().set("TALLOWIND_TOKEN_STORE", choice);
    }
    const QString program = QStringLiteral("app.tallowind.Tallowind");

    Keychain::save(QStringLiteral("kept"));
    QCOMPARE(Keychain::load(), std::optional(QStringLiteral("kept")));
    QCOMPARE(QFile::exists(Keychain::tokenFilePath()), inFile);
    if (haveSecretService()) {
        QCOMPARE(secretItems(program), inSecretService ? 1 : 0);
    }
    Keychain::save(QStringLiteral("replaced"));
    QCOMPARE(Keychain::load(), std::optional(QStringLiteral("replaced")));
    Keychain::remove();
    QCOMPARE(Keychain::load(), std::nullopt);
    QVERIFY(!QFile::exists(Keychain::tokenFilePath()));
    if (haveSecretService()) {
        QCOMPARE(secretItems(program), 0);
    }
}

void TokenStoreTest::tokenAndSignInState_data() {
    QTest::addColumn<QVariant>("environment");
    QTest::addColumn<QVariant>("stored");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("nothing") << QVariant() << QVariant() << QVariant();
    QTest::newRow("stored") << QVariant() << QVariant("s") << QVariant("s");
    QTest::newRow("environment overrides") << QVariant("e") << QVariant("s") << QVariant("e");
    QTest::newRow("empty environment counts") << QVariant("") << QVariant() << QVariant("");
}

void TokenStoreTest::tokenAndSignInState() {
    QFETCH(QVariant, environment);
    QFETCH(QVariant, stored);
    QFETCH(QVariant, expected);
    TestHome home;
    if (environment.isValid()) {
        home.environment().set("TALLOWIND_TOKEN", environment.toString().toUtf8());
    }
    if (stored.isValid()) {
        Keychain::save(stored.toString());
    }
    QCOMPARE(isSignedIn(), expected.isValid());
    QCOMPARE(token().has_value(), expected.isValid());
    if (expected.isValid()) {
        QCOMPARE(*token(), expected.toString());
    }
}

QTEST_GUILESS_MAIN(TokenStoreTest)
#include "tst_tokenstore.moc"
