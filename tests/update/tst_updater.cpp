#include "config.h"
#include "installsteps.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testzip.h"
#include "updater.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

const QString packageNote = u"Update Tallowind with your package manager."_s;
const QString newer = Config::appVersion() + u".1"_s;

QString digest(const QByteArray& bytes) {
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Sha256).toHex());
}

QStringList entriesOf(const QString& folder) {
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden);
}

QByteArray contentsOf(const QString& path) {
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("missing");
}

QString closedAddress() {
    TestHttpServer gone;
    gone.listen();
    return gone.url().toString();
}

// Answers every dialog with the button the test chose and remembers what was shown.
struct AnsweringDialogs : UpdateDialogs {
    AnsweringDialogs(QList<UpdateDialog>& shown, const int& answer) : shown(shown), answer(answer) {}
    int run(const UpdateDialog& dialog) override {
        shown.append(dialog);
        return answer;
    }
    QList<UpdateDialog>& shown;
    const int& answer;
};

// A private home and temporary folder, a loopback backend serving `manifest` (an error page when empty)
// and `archive` at releases/T.zip, and an updater whose dialogs answer `answer` ("Later" by default) and
// whose quitting is only counted.
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
    // Notes follow the version after a colon.
    void offer(const QString& version, const QString& sha256 = QString(64, u'0')) {
        manifest =
            uR"({"version":"%1","zip":"releases/T.zip","sha256":"%2"%3})"_s
                .arg(version.section(u':', 0, 0), sha256,
                     version.contains(u':') ? uR"(,"notes":"%1")"_s.arg(version.section(u':', 1)) : QString())
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
    QTest::newRow("numbers, not text") << u"1.10"_s << u"1.9"_s << true;
    QTest::newRow("letters, suffixes and spaces make the piece zero") << u"1.x.2-b. 5"_s << u"1"_s << false;
    QTest::newRow("empty pieces are dropped") << u"1..3"_s << u"1.2"_s << true;
    QTest::newRow("overflow is zero") << u"9223372036854775808"_s << u"1"_s << false;
    QTest::newRow("non-ASCII digits are zero") << u"\u0662"_s << u"1"_s << false;
}

void UpdaterTest::versionsCompareAsDottedNumbers() {
    QFETCH(QString, candidate);
    QFETCH(QString, current);
    QFETCH(bool, newer);
    QCOMPARE(Updater::isNewer(candidate, current), newer);
}

void UpdaterTest::checkTellsTheUserWhatHappensNext_data() {
    QTest::addColumn<bool>("userInitiated");
    QTest::addColumn<bool>("inBundle");
    QTest::addColumn<QString>("serves");  // "nothing" (no server), "page", or a version with ":notes"
    QTest::addColumn<QString>("shown");   // the start of the dialog shown, if any
    const QString failed = u"Couldn't check for updates / "_s;
    const QString unreadable = u"Tallowind's server sent an answer that couldn't be read"_s;
    const QString offer = u"Tallowind %1 is available / "_s.arg(newer);
    const QString restart = u"Tallowind will restart to finish updating. [Install Update, Later]"_s;
    QTest::newRow("user, unreachable") << true << true << u"nothing"_s << failed;
    QTest::newRow("user, error page") << true << true << u"page"_s << failed + unreadable;
    QTest::newRow("user, a release without its digest")
        << true << true << u"manifest"_s << failed + unreadable;
    QTest::newRow("user, up to date")
        << true << true << Config::appVersion()
        << u"You're up to date / Tallowind %1 is the latest version. []"_s.arg(Config::appVersion());
    QTest::newRow("background, unreachable") << false << true << u"nothing"_s << QString();
    QTest::newRow("newer, notes") << false << true << newer + u":Fixes."_s << offer + "Fixes.\n\n" + restart;
    QTest::newRow("package, notes") << false << false << newer + u":Fixes."_s
                                    << offer + "Fixes.\n\n" + packageNote;
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
    } else if (serves == "manifest"_L1) {
        rig.manifest = R"({"version":"99","zip":"releases/T.zip","notes":"x"})";
    } else if (serves != "page"_L1) {
        rig.offer(serves);
    }
    rig.updater->check(userInitiated);
    const qsizetype requests = serves == "nothing"_L1 ? 0 : 1;
    QTRY_COMPARE(rig.server.received().size(), requests);
    // Long enough for the reply to be handled; "Later" leaves the release alone: nothing is downloaded.
    QTest::qWait(300);
    QCOMPARE(rig.server.received().size(), requests);
    for (const TestHttpServer::Received& request : rig.server.received()) {
        QVERIFY(request.target == "/releases/latest.json" && !request.headers.contains("authorization"));
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
    rig.updater->startChecking();
    QCOMPARE(rig.updater->timer()->interval(), 24 * 60 * 60 * 1000);
    QMetaObject::invokeMethod(rig.updater->timer(), "timeout");
    QTRY_COMPARE(rig.server.received().size(), 2);
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
    QTest::addColumn<bool>("inBundle");
    QTest::addColumn<QString>("informative");  // empty: the platform's own description
    const TestZipEntries good{{"Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755}};
    const QString unpack = u"Couldn't unpack the update."_s;
    QTest::newRow("no bundle to replace") << u"releases/T.zip"_s << good << false << packageNote;
    QTest::newRow("bad link") << u"http://[::1"_s << good << true << u"Bad update link."_s;
    QTest::newRow("transfer fails") << u"CLOSED/releases/T.zip"_s << good << true << u""_s;
    QTest::newRow("error page instead of the archive")
        << u"SERVER/missing.zip"_s << good << true << u"The download was damaged. Try again later."_s;
    QTest::newRow("not an archive") << u"releases/T.zip"_s << TestZipEntries{} << true << unpack;
    QTest::newRow("bundle without its program")
        << u"releases/T.zip"_s << TestZipEntries{{"Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0644}} << true
        << u"The update was incomplete."_s;
}

void UpdaterTest::failedInstallSaysWhyAndKeepsTheProgram() {
    QFETCH(QString, zip);
    QFETCH(TestZipEntries, archive);
    QFETCH(bool, inBundle);
    QFETCH(QString, informative);
    Rig rig({!inBundle ? std::nullopt : std::optional(u"/opt/Tallowind.app"_s), 0});
    rig.archive = archive.isEmpty() ? QByteArray("not a zip") : makeZip(archive);
    zip.replace(u"SERVER/"_s, rig.server.url().toString() + u'/')
        .replace(u"CLOSED/"_s, closedAddress() + u'/');

    rig.updater->install({u"9.9"_s, zip, digest(rig.archive), {}});

    QTRY_COMPARE(rig.shown.size(), 1);
    QVERIFY(!rig.shown[0].informativeText.isEmpty() && rig.shown[0].buttons.isEmpty() && rig.quits == 0);
    QCOMPARE(rig.shown[0].message + u'/' + (informative.isEmpty() ? QString() : rig.shown[0].informativeText),
             "Update failed/"_L1 + informative);
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
    rig.offer(newer, digest(rig.archive).toUpper());

    rig.updater->check(false);
    QTRY_COMPARE(rig.quits, 1);
    QVERIFY(rig.server.received().size() == 2 && !rig.server.received()[1].headers.contains("authorization"));

    // The script polls every 0.2 seconds; while the program runs, its bundle stays as it is.
    QTest::qWait(700);
    QCOMPARE(contentsOf(old.fileName()), QByteArray("old"));
    QCOMPARE(entriesOf(rig.temporary).size(), 1);

    running.kill();
    QVERIFY(running.waitForFinished());
    QTRY_COMPARE(contentsOf(marker), old.fileName().toUtf8());
    QCOMPARE(contentsOf(old.fileName()), program);
    QTRY_COMPARE(entriesOf(rig.temporary), QStringList());
}

QTEST_GUILESS_MAIN(UpdaterTest)
#include "tst_updater.moc"
