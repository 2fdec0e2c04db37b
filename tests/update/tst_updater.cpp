#include "config.h"
#include "installsteps.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testzip.h"
#include "updater.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

Q_DECLARE_METATYPE(UpdateDialog)

namespace {

const QString restartNote = QStringLiteral("Tallowind will restart to finish updating.");

// Answers every dialog with the button the test chose and remembers what was shown.
class AnsweringDialogs : public UpdateDialogs {
public:
    AnsweringDialogs(QList<UpdateDialog>& shown, const int& answer) : shown_(shown), answer_(answer) {}
    int run(const UpdateDialog& dialog) override {
        shown_.append(dialog);
        return answer_;
    }

private:
    QList<UpdateDialog>& shown_;
    const int& answer_;
};

QByteArray manifest(const QString& version, const QString& zip = QStringLiteral("releases/Tallowind.zip"),
                    const QString& sha256 = QString(64, QLatin1Char('0'))) {
    return QStringLiteral(R"({"version":"%1","zip":"%2","sha256":"%3"})").arg(version, zip, sha256).toUtf8();
}

QString digest(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

// A private home and temporary folder, a loopback backend, and an updater whose dialogs the test answers
// (by default "Later") and whose quitting is only counted.
struct Fixture {
    explicit Fixture(Updater::Host host = {QStringLiteral("/opt/Tallowind.app"), 0},
                     const QString& temporaryName = QStringLiteral("tmp")) {
        temporary = home.path() + QLatin1Char('/') + temporaryName;
        QDir().mkpath(temporary);
        home.environment().set("TMPDIR", QFile::encodeName(temporary));
        server.listen();
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        updater = std::make_unique<Updater>(std::move(host));
        updater->setDialogs(std::make_unique<AnsweringDialogs>(shown, answer));
        updater->setQuitHandler([this] { ++quits; });
    }

    TestHome home;
    QString temporary;
    TestHttpServer server;
    QList<UpdateDialog> shown;
    int answer = 1;
    int quits = 0;
    std::unique_ptr<Updater> updater;
};

// An address on which nothing listens any more.
QUrl closedAddress() {
    TestHttpServer gone;
    gone.listen();
    return gone.url();
}

}  // namespace

class UpdaterTest : public QObject {
    Q_OBJECT

private slots:
    void versionsCompareAsDottedNumbers_data();
    void versionsCompareAsDottedNumbers();
    void manifestNeedsItsThreeTexts_data();
    void manifestNeedsItsThreeTexts();
    void onlyAUserCheckReportsFailuresAndNoNews_data();
    void onlyAUserCheckReportsFailuresAndNoNews();
    void checkingStartsAtOnceAndRepeatsDaily();
    void offerSaysWhatHappensNext_data();
    void offerSaysWhatHappensNext();
    void onlyAProgramInItsOwnBundleCanReplaceItself_data();
    void onlyAProgramInItsOwnBundleCanReplaceItself();
    void failedInstallSaysWhyAndKeepsTheProgram_data();
    void failedInstallSaysWhyAndKeepsTheProgram();
    void acceptedUpdateSwapsTheBundleOnlyAfterTheProgramEnds();
};

void UpdaterTest::versionsCompareAsDottedNumbers_data() {
    QTest::addColumn<QString>("candidate");
    QTest::addColumn<QString>("current");
    QTest::addColumn<bool>("newer");
    QTest::newRow("one more piece") << "1.2.1"
                                    << "1.2" << true;
    QTest::newRow("a trailing zero is equal") << "1.2.0"
                                              << "1.2" << false;
    QTest::newRow("numbers, not text") << "1.10"
                                       << "1.9" << true;
    QTest::newRow("smaller major") << "2"
                                   << "10" << false;
    QTest::newRow("letters are zero") << "abc"
                                      << "0" << false;
    QTest::newRow("a letter piece") << "1.x"
                                    << "1" << false;
    QTest::newRow("suffix makes the piece zero") << "2.0-beta"
                                                 << "2.0" << false;
    QTest::newRow("leading space makes the piece zero") << "1. 5"
                                                        << "1.0" << false;
    QTest::newRow("both empty") << ""
                                << "" << false;
    QTest::newRow("only dots") << "..."
                               << "0" << false;
    QTest::newRow("empty pieces dropped") << "1..3"
                                          << "1.2" << true;
    QTest::newRow("leading and trailing dots") << ".2."
                                               << "1" << true;
    QTest::newRow("negative candidate") << "1.-1"
                                        << "1" << false;
    QTest::newRow("negative current") << "1"
                                      << "1.-1" << true;
    QTest::newRow("explicit plus") << "1.+2"
                                   << "1.1" << true;
    QTest::newRow("a lone sign is zero") << "1.-"
                                         << "1.0" << false;
    QTest::newRow("largest value") << "9223372036854775807"
                                   << "9223372036854775806" << true;
    QTest::newRow("overflow is zero") << "9223372036854775808"
                                      << "1" << false;
    QTest::newRow("smallest value") << "0"
                                    << "-9223372036854775808" << true;
    QTest::newRow("negative overflow is zero") << "-9223372036854775809"
                                               << "0" << false;
    QTest::newRow("non-ASCII digits are zero") << QStringLiteral("\u0662") << "1" << false;
}

void UpdaterTest::versionsCompareAsDottedNumbers() {
    QFETCH(QString, candidate);
    QFETCH(QString, current);
    QFETCH(bool, newer);
    QCOMPARE(Updater::isNewer(candidate, current), newer);
}

void UpdaterTest::manifestNeedsItsThreeTexts_data() {
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QVariant>("notes");   // invalid: no notes
    QTest::addColumn<QString>("failure");  // empty: the manifest is valid
    const QByteArray base = R"("version":"1.4.2","zip":"releases/T.zip","sha256":"AB")";
    QTest::newRow("notes missing, other keys ignored") << "{" + base + R"(,"size":12})" << QVariant() << "";
    QTest::newRow("notes null") << "{" + base + R"(,"notes":null})" << QVariant() << "";
    QTest::newRow("notes empty") << "{" + base + R"(,"notes":""})" << QVariant("") << "";
    QTest::newRow("notes text") << "{" + base + R"(,"notes":"Faster."})" << QVariant("Faster.") << "";
    QTest::newRow("sha256 missing") << QByteArray(R"({"version":"1","zip":"z"})") << QVariant()
                                    << R"("sha256" is missing)";
    QTest::newRow("version a number") << QByteArray(R"({"version":1,"zip":"z","sha256":"a"})") << QVariant()
                                      << R"("version" is not a string)";
    QTest::newRow("notes a list") << "{" + base + R"(,"notes":["a"]})" << QVariant()
                                  << R"("notes" is not a string)";
    QTest::newRow("an array") << QByteArray("[{}]") << QVariant() << "not a JSON object";
    QTest::newRow("an error page") << QByteArray("<html>502</html>") << QVariant() << "not JSON";
}

void UpdaterTest::manifestNeedsItsThreeTexts() {
    QFETCH(QByteArray, body);
    QFETCH(QVariant, notes);
    QFETCH(QString, failure);
    const auto release = Updater::Release::decode(body);
    if (!failure.isEmpty()) {
        QVERIFY(!release);
        QVERIFY2(release.failure().description().contains(failure),
                 qPrintable(release.failure().description()));
        return;
    }
    QVERIFY(release);
    const std::optional<QString> expectedNotes =
        notes.isValid() ? std::optional(notes.toString()) : std::nullopt;
    QCOMPARE(release.value(), (Updater::Release{QStringLiteral("1.4.2"), QStringLiteral("releases/T.zip"),
                                                QStringLiteral("AB"), expectedNotes}));
}

void UpdaterTest::onlyAUserCheckReportsFailuresAndNoNews_data() {
    QTest::addColumn<bool>("userInitiated");
    QTest::addColumn<QString>("serves");   // "nothing" (no server), "page", or a version
    QTest::addColumn<QString>("message");  // empty: no dialog
    QTest::addColumn<QString>("informative");
    const QString running = Config::appVersion();
    const QString newer = running + QStringLiteral(".1");
    const QString failed = QStringLiteral("Couldn't check for updates");
    const QString offer = QStringLiteral("Tallowind %1 is available").arg(newer);
    for (const bool user : {true, false}) {
        const char* who = user ? "user" : "background";
        QTest::addRow("%s, unreachable", who) << user << "nothing" << (user ? failed : "") << "";
        QTest::addRow("%s, error page", who) << user << "page" << (user ? failed : "")
                                             << "Tallowind's server sent an answer that couldn't be read";
        QTest::addRow("%s, up to date", who)
            << user << running << (user ? QStringLiteral("You're up to date") : "")
            << QStringLiteral("Tallowind %1 is the latest version.").arg(running);
        QTest::addRow("%s, newer", who) << user << newer << offer << restartNote;
    }
}

void UpdaterTest::onlyAUserCheckReportsFailuresAndNoNews() {
    QFETCH(bool, userInitiated);
    QFETCH(QString, serves);
    QFETCH(QString, message);
    QFETCH(QString, informative);
    Fixture fixture;
    if (serves == QLatin1String("nothing")) {
        fixture.home.environment().set("TALLOWIND_SERVER", closedAddress().toString().toUtf8());
    } else if (serves == QLatin1String("page")) {
        fixture.server.respondWith(TestHttpServer::Response::text(502, "<html>Bad gateway</html>"));
    } else {
        fixture.server.respondWith(TestHttpServer::Response::json(200, manifest(serves)));
    }

    fixture.updater->check(userInitiated);

    if (serves != QLatin1String("nothing")) {
        QTRY_COMPARE(fixture.server.received().size(), 1);
        QCOMPARE(fixture.server.received().constFirst().target, QByteArray("/releases/latest.json"));
        QVERIFY(!fixture.server.received().constFirst().headers.contains("authorization"));
    }
    if (message.isEmpty()) {
        // Long enough for the reply to arrive and be handled; a dialog would have been shown by then.
        QTest::qWait(300);
        QCOMPARE(fixture.shown.size(), 0);
        return;
    }
    QTRY_COMPARE(fixture.shown.size(), 1);
    QCOMPARE(fixture.shown.constFirst().message, message);
    QVERIFY2(fixture.shown.constFirst().informativeText.contains(informative),
             qPrintable(fixture.shown.constFirst().informativeText));
    QVERIFY(!fixture.shown.constFirst().informativeText.isEmpty());
    // "Later" leaves the release alone: nothing is downloaded.
    QTest::qWait(100);
    QCOMPARE(fixture.server.received().size(), serves == QLatin1String("nothing") ? 0 : 1);
}

void UpdaterTest::checkingStartsAtOnceAndRepeatsDaily() {
    Fixture fixture;
    fixture.server.respondWith(TestHttpServer::Response::json(200, manifest(Config::appVersion())));
    QVERIFY(!fixture.updater->timer());

    fixture.updater->startChecking();
    QTRY_COMPARE(fixture.server.received().size(), 1);
    QVERIFY(fixture.updater->timer()->isActive());
    QCOMPARE(fixture.updater->timer()->interval(), 24 * 60 * 60 * 1000);

    QVERIFY(QMetaObject::invokeMethod(fixture.updater->timer(), "timeout"));
    QTRY_COMPARE(fixture.server.received().size(), 2);
    QCOMPARE(fixture.shown.size(), 0);
}

void UpdaterTest::offerSaysWhatHappensNext_data() {
    QTest::addColumn<QVariant>("notes");  // invalid: none
    QTest::addColumn<bool>("inBundle");
    QTest::addColumn<UpdateDialog>("offer");
    const QString message = QStringLiteral("Tallowind 2.0 is available");
    const QStringList buttons{QStringLiteral("Install Update"), QStringLiteral("Later")};
    const QString manager = QStringLiteral("Update Tallowind with your package manager.");
    QTest::newRow("no notes") << QVariant() << true << UpdateDialog{message, restartNote, buttons};
    QTest::newRow("empty notes") << QVariant("") << true
                                 << UpdateDialog{message, "\n\n" + restartNote, buttons};
    QTest::newRow("notes") << QVariant("Fixes.") << true
                           << UpdateDialog{message, "Fixes.\n\n" + restartNote, buttons};
    QTest::newRow("package, no notes") << QVariant() << false << UpdateDialog{message, manager, {}};
    QTest::newRow("package, notes") << QVariant("Fixes.") << false
                                    << UpdateDialog{message, "Fixes.\n\n" + manager, {}};
}

void UpdaterTest::offerSaysWhatHappensNext() {
    QFETCH(QVariant, notes);
    QFETCH(bool, inBundle);
    QFETCH(UpdateDialog, offer);
    Fixture fixture({inBundle ? std::optional(QStringLiteral("/opt/Tallowind.app")) : std::nullopt,
                     QCoreApplication::applicationPid()});
    fixture.answer = 0;
    fixture.updater->promptToInstall({QStringLiteral("2.0"), QStringLiteral("releases/T.zip"),
                                      QStringLiteral("ab"),
                                      notes.isValid() ? std::optional(notes.toString()) : std::nullopt});
    QCOMPARE(fixture.shown, QList<UpdateDialog>{offer});
    // Accepting installs (here: fails at the download); the package-manager offer only informs.
    if (inBundle) {
        QTRY_COMPARE(fixture.shown.size(), 2);
        QCOMPARE(fixture.shown.constLast().message, QStringLiteral("Update failed"));
    } else {
        QTest::qWait(100);
        QCOMPARE(fixture.shown.size(), 1);
    }
}

void UpdaterTest::onlyAProgramInItsOwnBundleCanReplaceItself_data() {
    QTest::addColumn<QString>("executable");
    QTest::addColumn<QString>("bundle");  // empty: none
    QTest::newRow("bundle") << "/home/a/Apps/Tallowind.app/bin/tallowind"
                            << "/home/a/Apps/Tallowind.app";
    QTest::newRow("package") << "/usr/bin/tallowind"
                             << "";
    QTest::newRow("build folder") << "/src/build/tallowind"
                                  << "";
    QTest::newRow("renamed bundle") << "/opt/Tallowind-old.app/bin/tallowind"
                                    << "";
}

void UpdaterTest::onlyAProgramInItsOwnBundleCanReplaceItself() {
    QFETCH(QString, executable);
    QFETCH(QString, bundle);
    QCOMPARE(InstallSteps::bundleOf(executable).value_or(QString()), bundle);
}

void UpdaterTest::failedInstallSaysWhyAndKeepsTheProgram_data() {
    QTest::addColumn<QString>("zip");  // "SERVER/" and "CLOSED/" stand for those addresses
    QTest::addColumn<TestZipEntries>("archive");
    QTest::addColumn<bool>("digestOfArchive");  // false: the manifest's digest is of other bytes
    QTest::addColumn<bool>("inBundle");
    QTest::addColumn<bool>("temporaryIsAFile");
    QTest::addColumn<QString>("informative");  // empty: the platform's own description
    QTest::addColumn<bool>("workFolderMade");
    const TestZipEntries good{{"Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755}};
    const QString damaged = QStringLiteral("The download was damaged. Try again later.");
    QTest::newRow("no bundle to replace") << "releases/T.zip" << good << true << false << false
                                          << "Update Tallowind with your package manager." << false;
    QTest::newRow("bad link") << "http://[::1" << good << true << true << false << "Bad update link."
                              << false;
    QTest::newRow("empty link") << "" << good << true << true << false << "Bad update link." << false;
    QTest::newRow("transfer fails") << "CLOSED/releases/T.zip" << good << true << true << false << ""
                                    << false;
    QTest::newRow("digest differs") << "releases/T.zip" << good << false << true << false << damaged << false;
    QTest::newRow("error page instead of the archive")
        << "SERVER/missing.zip" << good << true << true << false << damaged << false;
    QTest::newRow("work folder cannot be made")
        << "releases/T.zip" << good << true << true << true << "" << false;
    QTest::newRow("archive reaching outside")
        << "SERVER/releases/T.zip" << TestZipEntries{{"../x", "evil", 0644}} << true << true << false
        << "Couldn't unpack the update." << true;
    QTest::newRow("not an archive") << "releases/T.zip" << TestZipEntries{} << true << true << false
                                    << "Couldn't unpack the update." << true;
    QTest::newRow("bundle under another name")
        << "releases/T.zip" << TestZipEntries{{"Other.app/bin/tallowind", "#!/bin/sh\n", 0755}} << true
        << true << false << "The update was incomplete." << true;
    QTest::newRow("bundle inside a folder")
        << "releases/T.zip" << TestZipEntries{{"x/Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755}} << true
        << true << false << "The update was incomplete." << true;
    QTest::newRow("bundle without its program")
        << "releases/T.zip" << TestZipEntries{{"Tallowind.app/README", "hi", 0644}} << true << true << false
        << "The update was incomplete." << true;
}

void UpdaterTest::failedInstallSaysWhyAndKeepsTheProgram() {
    QFETCH(QString, zip);
    QFETCH(TestZipEntries, archive);
    QFETCH(bool, digestOfArchive);
    QFETCH(bool, inBundle);
    QFETCH(bool, temporaryIsAFile);
    QFETCH(QString, informative);
    QFETCH(bool, workFolderMade);
    Fixture fixture({inBundle ? std::optional(QStringLiteral("/opt/Tallowind.app")) : std::nullopt, 0});
    const QByteArray bytes = archive.isEmpty() ? QByteArray("not a zip") : makeZip(archive);
    fixture.server.setHandler([&](const TestHttpServer::Received& request) {
        return request.target == "/releases/T.zip"
                   ? TestHttpServer::Response{200, {}, {{bytes, 0}}}
                   : TestHttpServer::Response::text(404, "<html>Not found</html>");
    });
    QString temporary = fixture.temporary;
    if (temporaryIsAFile) {
        temporary += QStringLiteral("/file");
        QFile file(temporary);
        QVERIFY(file.open(QIODevice::WriteOnly));
        fixture.home.environment().set("TMPDIR", QFile::encodeName(temporary));
    }
    zip.replace(QStringLiteral("SERVER/"), fixture.server.url().toString() + QLatin1Char('/'));
    zip.replace(QStringLiteral("CLOSED/"), closedAddress().toString() + QLatin1Char('/'));

    fixture.updater->install(
        {QStringLiteral("9.9"), zip, digestOfArchive ? digest(bytes) : digest("other"), {}});

    QTRY_COMPARE(fixture.shown.size(), 1);
    QCOMPARE(fixture.shown.constFirst().message, QStringLiteral("Update failed"));
    if (informative.isEmpty()) {
        QVERIFY(!fixture.shown.constFirst().informativeText.isEmpty());
    } else {
        QCOMPARE(fixture.shown.constFirst().informativeText, informative);
    }
    QCOMPARE(fixture.shown.constFirst().buttons, QStringList());
    QCOMPARE(fixture.quits, 0);
    const QStringList made = temporaryIsAFile ? QStringList() : entriesOf(fixture.temporary);
    QCOMPARE(made.size(), workFolderMade ? 1 : 0);
    if (workFolderMade) {
        QVERIFY2(
            QRegularExpression(QStringLiteral("^tallowind-update-[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"))
                .match(made.constFirst())
                .hasMatch(),
            qPrintable(made.constFirst()));
    }
}

void UpdaterTest::acceptedUpdateSwapsTheBundleOnlyAfterTheProgramEnds() {
    // Quotes, dollars and spaces in every path the script handles.
    // The variable is unset, so that even a quoting mistake could only touch the test's own folders.
    const QString awkward = QStringLiteral("it's \"a\" $TALLOWIND_TEST_UNSET `x` dir");
    QProcess running;  // stands in for this program: the swap waits for it to end
    running.start(QStringLiteral("sleep"), {QStringLiteral("60")});
    QVERIFY(running.waitForStarted());
    QTemporaryDir apps;
    const QString bundle = apps.path() + QLatin1Char('/') + awkward + QStringLiteral("/Tallowind.app");
    QVERIFY(QDir().mkpath(bundle + QStringLiteral("/bin")));
    QFile old(bundle + QStringLiteral("/bin/tallowind"));
    QVERIFY(old.open(QIODevice::WriteOnly) && old.write("old") == 3);
    old.close();

    Fixture fixture({bundle, running.processId()}, awkward + QStringLiteral(" tmp"));
    fixture.answer = 0;
    const QString marker = fixture.home.path() + QStringLiteral("/started");
    fixture.home.environment().set("TALLOWIND_TEST_MARKER", QFile::encodeName(marker));
    fixture.home.environment().set("TALLOWIND_TOKEN", "secret");
    fixture.home.environment().unset("TALLOWIND_TEST_UNSET");
    const QByteArray program = "#!/bin/sh\nprintf '%s' \"$0\" > \"$TALLOWIND_TEST_MARKER\"\n";
    const QByteArray archive =
        makeZip({{"Tallowind.app/", {}, 0755, TestZipEntry::Kind::folder},
                 {"Tallowind.app/bin/tallowind", program, 0755},
                 {"Tallowind.app/bin/tallowind-link", "tallowind", 0777, TestZipEntry::Kind::link}});
    const QString newer = Config::appVersion() + QStringLiteral(".1");
    fixture.server.setHandler([&](const TestHttpServer::Received& request) {
        if (request.target == "/releases/Tallowind.zip") {
            return TestHttpServer::Response{200, {}, {{archive, 0}}};
        }
        return TestHttpServer::Response::json(
            200, manifest(newer, QStringLiteral("releases/Tallowind.zip"), digest(archive).toUpper()));
    });

    fixture.updater->check(false);
    QTRY_COMPARE(fixture.quits, 1);
    QCOMPARE(fixture.shown.size(), 1);
    QCOMPARE(fixture.server.received().size(), 2);
    QCOMPARE(fixture.server.received().constLast().target, QByteArray("/releases/Tallowind.zip"));
    QVERIFY(!fixture.server.received().constLast().headers.contains("authorization"));

    // The script polls every 0.2 seconds; while the program runs, its bundle stays as it is.
    QTest::qWait(700);
    QVERIFY(old.open(QIODevice::ReadOnly));
    QCOMPARE(old.readAll(), QByteArray("old"));
    old.close();
    QCOMPARE(entriesOf(fixture.temporary).size(), 1);

    running.kill();
    QVERIFY(running.waitForFinished());
    QTRY_VERIFY(QFile::exists(marker));
    QFile started(marker);
    QVERIFY(started.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(started.readAll()), bundle + QStringLiteral("/bin/tallowind"));
    QVERIFY(old.open(QIODevice::ReadOnly));
    QCOMPARE(old.readAll(), program);
    QVERIFY(QFileInfo(bundle + QStringLiteral("/bin/tallowind-link")).isSymLink());
    QTRY_COMPARE(entriesOf(fixture.temporary), QStringList());
}

QTEST_GUILESS_MAIN(UpdaterTest)
#include "tst_updater.moc"
