#include "config.h"
#include "installsteps.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testzip.h"
#include "updater.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

Q_DECLARE_METATYPE(UpdateDialog)

namespace {

const QString restartNote = u"Tallowind will restart to finish updating."_s;
const QString packageNote = u"Update Tallowind with your package manager."_s;
const QString newer = Config::appVersion() + u".1"_s;
const TestZipEntries goodBundle{{"Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755}};

QString digest(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

// An address on which nothing listens any more.
QString closedAddress() {
    TestHttpServer gone;
    gone.listen();
    return gone.url().toString();
}

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

// A private home and temporary folder, a loopback backend serving `manifest` (an error page when empty)
// and `archive` at releases/T.zip, and an updater whose dialogs the test answers (by default "Later")
// and whose quitting is only counted.
struct Rig {
    explicit Rig(Updater::Host host = {u"/opt/Tallowind.app"_s, 0}, const QString& temporaryName = u"tmp"_s)
        : temporary(home.path() + u'/' + temporaryName) {
        QDir().mkpath(temporary);
        home.environment().set("TMPDIR", QFile::encodeName(temporary));
        server.listen();
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        server.setHandler([this](const TestHttpServer::Received& request) {
            if (request.target == "/releases/latest.json" && !manifest.isEmpty()) {
                return TestHttpServer::Response::json(200, manifest);
            }
            return request.target == "/releases/T.zip"
                       ? TestHttpServer::Response{200, {}, {{archive, 0}}}
                       : TestHttpServer::Response::text(502, "<html>Bad</html>");
        });
        updater = std::make_unique<Updater>(std::move(host));
        updater->setDialogs(std::make_unique<AnsweringDialogs>(shown, answer));
        updater->setQuitHandler([this] { ++quits; });
    }
    void offer(const QString& version, const QString& notes = {}, bool withNotes = false,
               const QString& sha256 = QString(64, u'0')) {
        manifest = uR"({"version":"%1","zip":"releases/T.zip","sha256":"%2"%3})"_s
                       .arg(version, sha256, withNotes ? uR"(,"notes":"%1")"_s.arg(notes) : QString())
                       .toUtf8();
    }

    TestHome home;
    QString temporary;
    TestHttpServer server;
    QByteArray manifest;
    QByteArray archive;
    QList<UpdateDialog> shown;
    int answer = 1;
    int quits = 0;
    std::unique_ptr<Updater> updater;
};

}  // namespace

class UpdaterTest : public QObject {
    Q_OBJECT

private slots:
    void versionsCompareAsDottedNumbers_data();
    void versionsCompareAsDottedNumbers();
    void manifestNeedsItsThreeTexts_data();
    void manifestNeedsItsThreeTexts();
    void checkTellsTheUserWhatHappensNext_data();
    void checkTellsTheUserWhatHappensNext();
    void checkingStartsAtOnceAndRepeatsDaily();
    void onlyAProgramInItsOwnBundleCanReplaceItself();
    void failedInstallSaysWhyAndKeepsTheProgram_data();
    void failedInstallSaysWhyAndKeepsTheProgram();
    void acceptedUpdateSwapsTheBundleOnlyAfterTheProgramEnds();
};

void UpdaterTest::versionsCompareAsDottedNumbers_data() {
    QTest::addColumn<QString>("candidate");
    QTest::addColumn<QString>("current");
    QTest::addColumn<bool>("newer");
    QTest::newRow("one more piece") << u"1.2.1"_s << u"1.2"_s << true;
    QTest::newRow("a trailing zero is equal") << u"1.2.0"_s << u"1.2"_s << false;
    QTest::newRow("numbers, not text") << u"1.10"_s << u"1.9"_s << true;
    QTest::newRow("letters, suffixes and spaces make the piece zero") << u"1.x.2-b. 5"_s << u"1"_s << false;
    QTest::newRow("empty pieces are dropped") << u"1..3"_s << u"1.2"_s << true;
    QTest::newRow("signs count, a lone sign is zero") << u"1.-1"_s << u"1.-"_s << false;
    QTest::newRow("a negative current") << u"1"_s << u"1.-1"_s << true;
    QTest::newRow("an explicit plus") << u"1.+2"_s << u"1.1"_s << true;
    QTest::newRow("largest value") << u"9223372036854775807"_s << u"9223372036854775806"_s << true;
    QTest::newRow("overflow is zero") << u"9223372036854775808"_s << u"1"_s << false;
    QTest::newRow("smallest value") << u"0"_s << u"-9223372036854775808"_s << true;
    QTest::newRow("negative overflow is zero") << u"-9223372036854775809"_s << u"-1"_s << true;
    QTest::newRow("non-ASCII digits are zero") << u"\u0662"_s << u"1"_s << false;
}

void UpdaterTest::versionsCompareAsDottedNumbers() {
    QFETCH(QString, candidate);
    QFETCH(QString, current);
    QFETCH(bool, newer);
    QCOMPARE(Updater::isNewer(candidate, current), newer);
}

void UpdaterTest::manifestNeedsItsThreeTexts_data() {
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("decoded");  // the notes, or words of the failure
    const QByteArray base = R"({"version":"1.4.2","zip":"releases/T.zip","sha256":"AB")";
    QTest::newRow("notes missing, other keys ignored")
        << base + QByteArray(R"(,"size":12})") << u"no notes"_s;
    QTest::newRow("notes null") << base + QByteArray(R"(,"notes":null})") << u"no notes"_s;
    QTest::newRow("notes empty") << base + QByteArray(R"(,"notes":""})") << u"notes: "_s;
    QTest::newRow("notes text") << base + QByteArray(R"(,"notes":"Faster."})") << u"notes: Faster."_s;
    QTest::newRow("notes a list") << base + QByteArray(R"(,"notes":["a"]})")
                                  << uR"("notes" is not a string)"_s;
    QTest::newRow("sha256 missing") << QByteArray(R"({"version":"1","zip":"z"})")
                                    << uR"("sha256" is missing)"_s;
    QTest::newRow("version a number")
        << QByteArray(R"({"version":1,"zip":"z","sha256":"a"})") << uR"("version" is not a string)"_s;
    QTest::newRow("an array") << QByteArray("[{}]") << u"not a JSON object"_s;
    QTest::newRow("an error page") << QByteArray("<html>502</html>") << u"not JSON"_s;
}

void UpdaterTest::manifestNeedsItsThreeTexts() {
    QFETCH(QByteArray, body);
    QFETCH(QString, decoded);
    const auto release = Updater::Release::decode(body);
    if (!release) {
        QVERIFY2(release.failure().description().contains(decoded),
                 qPrintable(release.failure().description()));
        return;
    }
    QCOMPARE(release.value().notes ? "notes: "_L1 + *release.value().notes : u"no notes"_s, decoded);
    QCOMPARE(release.value().version + u' ' + release.value().zip + u' ' + release.value().sha256,
             u"1.4.2 releases/T.zip AB"_s);
}

void UpdaterTest::checkTellsTheUserWhatHappensNext_data() {
    QTest::addColumn<bool>("userInitiated");
    QTest::addColumn<bool>("inBundle");
    QTest::addColumn<QString>(
        "serves");                       // "nothing" (no server), "page", "current", or "newer" with ":notes"
    QTest::addColumn<QString>("shown");  // the start of the dialog shown, if any
    const QString failed = u"Couldn't check for updates / "_s;
    const QString offer = u"Tallowind %1 is available / "_s.arg(newer);
    const QString later = u" [Install Update, Later]"_s;
    QTest::newRow("user, unreachable") << true << true << u"nothing"_s << failed;
    QTest::newRow("user, error page")
        << true << true << u"page"_s << failed + u"Tallowind's server sent an answer that couldn't be read"_s;
    QTest::newRow("user, up to date")
        << true << true << u"current"_s
        << u"You're up to date / Tallowind %1 is the latest version. []"_s.arg(Config::appVersion());
    QTest::newRow("background, unreachable") << false << true << u"nothing"_s << QString();
    QTest::newRow("background, error page") << false << true << u"page"_s << QString();
    QTest::newRow("background, up to date") << false << true << u"current"_s << QString();
    QTest::newRow("newer, no notes") << false << true << u"newer"_s << offer + restartNote + later;
    QTest::newRow("newer, empty notes")
        << false << true << u"newer:"_s << offer + "\n\n" + restartNote + later;
    QTest::newRow("newer, notes") << false << true << u"newer:Fixes."_s
                                  << offer + "Fixes.\n\n" + restartNote + later;
    QTest::newRow("package, no notes") << true << false << u"newer"_s << offer + packageNote + " []";
    QTest::newRow("package, notes") << false << false << u"newer:Fixes."_s
                                    << offer + "Fixes.\n\n" + packageNote + " []";
}

void UpdaterTest::checkTellsTheUserWhatHappensNext() {
    QFETCH(bool, userInitiated);
    QFETCH(bool, inBundle);
    QFETCH(QString, serves);
    QFETCH(QString, shown);
    Rig rig({inBundle ? std::optional(u"/opt/Tallowind.app"_s) : std::nullopt, 0});
    // The package manager's offer has no button to accept: whatever it answers, nothing is installed.
    rig.answer = inBundle ? 1 : 0;
    if (serves == "nothing"_L1) {
        rig.home.environment().set("TALLOWIND_SERVER", closedAddress().toUtf8());
    } else if (serves != "page"_L1) {
        rig.offer(serves == "current"_L1 ? Config::appVersion() : newer, serves.section(u':', 1),
                  serves.contains(u':'));
    }
    rig.updater->check(userInitiated);
    const qsizetype requests = serves == "nothing"_L1 ? 0 : 1;
    QTRY_COMPARE(rig.server.received().size(), requests);
    // Long enough for the reply to be handled; "Later" leaves the release alone: nothing is downloaded.
    QTest::qWait(300);
    QCOMPARE(rig.server.received().size(), requests);
    for (const TestHttpServer::Received& request : rig.server.received()) {
        QCOMPARE(request.target, QByteArray("/releases/latest.json"));
        QVERIFY(!request.headers.contains("authorization"));
    }
    QCOMPARE(rig.shown.size(), shown.isEmpty() ? 0 : 1);
    for (const UpdateDialog& dialog : rig.shown) {
        const QString actual = dialog.message + " / "_L1 + dialog.informativeText + " ["_L1 +
                               dialog.buttons.join(", "_L1) + u']';
        QVERIFY2(actual.startsWith(shown) && !dialog.informativeText.isEmpty(), qPrintable(actual));
    }
}

void UpdaterTest::checkingStartsAtOnceAndRepeatsDaily() {
    Rig rig;
    rig.offer(Config::appVersion());
    QVERIFY(!rig.updater->timer());
    rig.updater->startChecking();
    QTRY_COMPARE(rig.server.received().size(), 1);
    QVERIFY(rig.updater->timer()->isActive());
    QCOMPARE(rig.updater->timer()->interval(), 24 * 60 * 60 * 1000);
    QVERIFY(QMetaObject::invokeMethod(rig.updater->timer(), "timeout"));
    QTRY_COMPARE(rig.server.received().size(), 2);
    QCOMPARE(rig.shown.size(), 0);
}

void UpdaterTest::onlyAProgramInItsOwnBundleCanReplaceItself() {
    QStringList bundles;
    for (const char* executable : {"/home/a/Apps/Tallowind.app/bin/tallowind", "/usr/bin/tallowind",
                                   "/src/build/tallowind", "/opt/Tallowind-old.app/bin/tallowind"}) {
        bundles << InstallSteps::bundleOf(QLatin1String(executable)).value_or(u"none"_s);
    }
    QCOMPARE(bundles, (QStringList{u"/home/a/Apps/Tallowind.app"_s, u"none"_s, u"none"_s, u"none"_s}));
}

void UpdaterTest::failedInstallSaysWhyAndKeepsTheProgram_data() {
    QTest::addColumn<QString>("zip");  // "SERVER/" and "CLOSED/" stand for those addresses
    QTest::addColumn<TestZipEntries>("archive");
    QTest::addColumn<QString>("setup");        // "no bundle", "other digest", "temporary is a file"
    QTest::addColumn<QString>("informative");  // empty: the platform's own description
    QTest::addColumn<bool>("workFolderMade");
    const QString damaged = u"The download was damaged. Try again later."_s;
    const QString unpack = u"Couldn't unpack the update."_s;
    const QString incomplete = u"The update was incomplete."_s;
    QTest::newRow("no bundle to replace")
        << u"releases/T.zip"_s << goodBundle << u"no bundle"_s << packageNote << false;
    QTest::newRow("bad link") << u"http://[::1"_s << goodBundle << u""_s << u"Bad update link."_s << false;
    QTest::newRow("empty link") << u""_s << goodBundle << u""_s << u"Bad update link."_s << false;
    QTest::newRow("transfer fails") << u"CLOSED/releases/T.zip"_s << goodBundle << u""_s << u""_s << false;
    QTest::newRow("digest differs") << u"releases/T.zip"_s << goodBundle << u"other digest"_s << damaged
                                    << false;
    QTest::newRow("error page instead of the archive")
        << u"SERVER/missing.zip"_s << goodBundle << u""_s << damaged << false;
    QTest::newRow("work folder cannot be made")
        << u"releases/T.zip"_s << goodBundle << u"temporary is a file"_s << u""_s << false;
    QTest::newRow("archive reaching outside")
        << u"SERVER/releases/T.zip"_s << TestZipEntries{{"../x", "evil", 0644}} << u""_s << unpack << true;
    QTest::newRow("not an archive") << u"releases/T.zip"_s << TestZipEntries{} << u""_s << unpack << true;
    QTest::newRow("bundle inside a folder")
        << u"releases/T.zip"_s << TestZipEntries{{"x/Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755}}
        << u""_s << incomplete << true;
    QTest::newRow("bundle without its program")
        << u"releases/T.zip"_s << TestZipEntries{{"Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0644}}
        << u""_s << incomplete << true;
}

void UpdaterTest::failedInstallSaysWhyAndKeepsTheProgram() {
    QFETCH(QString, zip);
    QFETCH(TestZipEntries, archive);
    QFETCH(QString, setup);
    QFETCH(QString, informative);
    QFETCH(bool, workFolderMade);
    Rig rig({setup == "no bundle"_L1 ? std::nullopt : std::optional(u"/opt/Tallowind.app"_s), 0});
    rig.archive = archive.isEmpty() ? QByteArray("not a zip") : makeZip(archive);
    if (setup == "temporary is a file"_L1) {
        QFile file(rig.temporary + "/file"_L1);
        QVERIFY(file.open(QIODevice::WriteOnly));
        rig.home.environment().set("TMPDIR", QFile::encodeName(file.fileName()));
    }
    zip.replace(u"SERVER/"_s, rig.server.url().toString() + u'/')
        .replace(u"CLOSED/"_s, closedAddress() + u'/');

    rig.updater->install({u"9.9"_s, zip, digest(setup == "other digest"_L1 ? "other" : rig.archive), {}});

    QTRY_COMPARE(rig.shown.size(), 1);
    QVERIFY(!rig.shown[0].informativeText.isEmpty() && rig.shown[0].buttons.isEmpty() && rig.quits == 0);
    QCOMPARE(rig.shown[0].message + u'/' + (informative.isEmpty() ? QString() : rig.shown[0].informativeText),
             "Update failed/"_L1 + informative);
    const QStringList made = entriesOf(rig.temporary).filter(u"tallowind-update-"_s);
    QCOMPARE(made.size(), workFolderMade ? 1 : 0);
    const QRegularExpression name(u"^tallowind-update-[0-9A-F]{8}(-[0-9A-F]{4}){3}-[0-9A-F]{12}$"_s);
    QVERIFY(made.isEmpty() || name.match(made[0]).hasMatch());
}

void UpdaterTest::acceptedUpdateSwapsTheBundleOnlyAfterTheProgramEnds() {
    // Quotes, dollars and spaces in every path the script handles. The variable is unset, so that even a
    // quoting mistake could only touch the test's own folders.
    const QString awkward = u"it's \"a\" $TALLOWIND_TEST_UNSET `x` dir"_s;
    QProcess running;  // stands in for this program: the swap waits for it to end
    running.start(u"sleep"_s, {u"60"_s});
    QVERIFY(running.waitForStarted());
    QTemporaryDir apps;
    const QString bundle = apps.path() + u'/' + awkward + u"/Tallowind.app"_s;
    QVERIFY(QDir().mkpath(bundle + u"/bin"_s));
    QFile old(bundle + u"/bin/tallowind"_s);
    QVERIFY(old.open(QIODevice::WriteOnly) && old.write("old") == 3);
    old.close();

    Rig rig({bundle, running.processId()}, awkward + u" tmp"_s);
    rig.answer = 0;
    const QString marker = rig.home.path() + u"/started"_s;
    rig.home.environment().set("TALLOWIND_TEST_MARKER", QFile::encodeName(marker));
    rig.home.environment().unset("TALLOWIND_TEST_UNSET");
    const QByteArray program = "#!/bin/sh\nprintf '%s' \"$0\" > \"$TALLOWIND_TEST_MARKER\"\n";
    rig.archive =
        makeZip({{"Tallowind.app/", {}, 0755, TestZipEntry::Kind::folder},
                 {"Tallowind.app/bin/tallowind", program, 0755},
                 {"Tallowind.app/bin/tallowind-link", "tallowind", 0777, TestZipEntry::Kind::link}});
    rig.offer(newer, {}, false, digest(rig.archive).toUpper());

    rig.updater->check(false);
    QTRY_COMPARE(rig.quits, 1);
    QCOMPARE(rig.shown.size(), 1);
    QCOMPARE(rig.server.received().size(), 2);
    QVERIFY(!rig.server.received()[1].headers.contains("authorization"));

    // The script polls every 0.2 seconds; while the program runs, its bundle stays as it is.
    QTest::qWait(700);
    QVERIFY(old.open(QIODevice::ReadOnly));
    QCOMPARE(old.readAll(), QByteArray("old"));
    old.close();
    QCOMPARE(entriesOf(rig.temporary).size(), 1);

    running.kill();
    QVERIFY(running.waitForFinished());
    QTRY_VERIFY(QFile::exists(marker));
    QFile started(marker);
    QVERIFY(started.open(QIODevice::ReadOnly));
    QCOMPARE(QString::fromUtf8(started.readAll()), bundle + u"/bin/tallowind"_s);
    QVERIFY(old.open(QIODevice::ReadOnly));
    QCOMPARE(old.readAll(), program);
    QVERIFY(QFileInfo(bundle + u"/bin/tallowind-link"_s).isSymLink());
    QTRY_COMPARE(entriesOf(rig.temporary), QStringList());
}

QTEST_GUILESS_MAIN(UpdaterTest)
#include "tst_updater.moc"
