#include "config.h"
#include "installsteps.h"
#include "testenvironment.h"
#include "testhttpserver.h"
#include "testzip.h"
#include "updater.h"

#include <QCryptographicHash>
#include <QDir>
#include <QProcess>
#include <QTest>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

const QString newer = Config::appVersion() + u".1"_s;

// The manifest offering `version` as `zip`, to be downloaded from `at`.
QByteArray release(const QString& version, const QByteArray& zip, const QString& at = u"releases/T.zip"_s) {
    const QString sha = QCryptographicHash::hash(zip, QCryptographicHash::Sha256).toHex().toUpper();
    return uR"({"version":"%1","zip":"%2","sha256":"%3","notes":"Fixes."})"_s.arg(version, at, sha).toUtf8();
}

// Answers every dialog with `answer`, noting it down as "message|informative text|buttons".
struct AnsweringDialogs : UpdateDialogs {
    int run(const UpdateDialog& dialog) override {
        shown << dialog.message + u'|' + dialog.informativeText + u'|' + dialog.buttons.join(u',');
        return answer;
    }
    QStringList shown;
    int answer = 0;  // "Install Update"
};

// A private home with an awkwardly named temporary folder, a loopback backend serving `manifest` (an error
// page when empty) and `archive`, and an updater for a program at `executable` in the home, counting quits.
struct Rig {
    explicit Rig(const QString& executable, qint64 processId = 0)
        : temporary(home.path() + u"/it's \"a\" $TALLOWIND_TEST_UNSET `x` tmp"_s)
        , updater({InstallSteps::bundleOf(home.path() + u'/' + executable), processId}) {
        QDir().mkpath(temporary);
        home.environment().set("TMPDIR", QFile::encodeName(temporary));
        home.environment().unset("TALLOWIND_TEST_UNSET");  // so that a quoting mistake stays in our folders
        server.listen();
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        server.setHandler([this](const TestHttpServer::Received& request) {
            const bool zip = request.target == "/releases/T.zip";
            return TestHttpServer::Response{
                zip || manifest.size() ? 200 : 502, {}, {{zip ? archive : manifest, 0}}};
        });
        updater.setDialogs(std::unique_ptr<UpdateDialogs>(dialogs));
        updater.setQuitHandler([this] { ++quits; });
    }

    TestHome home;
    QString temporary;
    TestHttpServer server;
    QByteArray manifest;
    QByteArray archive;
    AnsweringDialogs* dialogs = new AnsweringDialogs;  // owned by the updater
    int quits = 0;
    Updater updater;
};

}  // namespace

class UpdaterTest : public QObject {
    Q_OBJECT

private slots:
    void versionsCompareAsDottedNumbers_data() {
        QTest::addColumn<QString>("candidate");
        QTest::addColumn<QString>("current");
        QTest::addColumn<bool>("newer");
        QTest::newRow("one more piece") << u"1.2.1"_s << u"1.2"_s << true;
        QTest::newRow("numbers, not text") << u"1.10"_s << u"1.9"_s << true;
        QTest::newRow("letters, suffixes and spaces are zero") << u"1.x.2-b. 5"_s << u"1"_s << false;
        QTest::newRow("empty pieces are dropped") << u"1..3"_s << u"1.2"_s << true;
        QTest::newRow("overflow is zero") << u"9223372036854775808"_s << u"1"_s << false;
        QTest::newRow("non-ASCII digits are zero") << u"\u0662"_s << u"1"_s << false;
    }
    void versionsCompareAsDottedNumbers() {
        QFETCH(QString, candidate);
        QFETCH(QString, current);
        QFETCH(bool, newer);
        QCOMPARE(Updater::isNewer(candidate, current), newer);
    }

    // What a check the user started shows. Only a program run from the bin/ of a folder named Tallowind.app
    // can replace itself. The offer is accepted when the backend serves an archive.
    void checkTellsTheUserWhatHappensNext_data() {
        QTest::addColumn<QString>("executable");
        QTest::addColumn<QString>("serves");  // "" (an error page), a manifest, or "version [link]"
        QTest::addColumn<QByteArray>("archive");
        QTest::addColumn<QStringList>("shown");  // the start of each dialog
        const auto row = [](const char* name, const char* executable, const QString& serves,
                            const QByteArray& archive, const QStringList& shown) {
            QTest::newRow(name) << QString::fromUtf8(executable) << serves << archive << shown;
        };
        const QString unreadable = u"Couldn't check for updates|Tallowind's server sent an answer"_s;
        const QString offer = u"Tallowind %1 is available|Fixes.\n\n"_s.arg(newer);
        const QString accepted = offer + u"Tallowind will restart to finish updating.|Install Update,Later"_s;
        const QStringList package{offer + u"Update Tallowind with your package manager.|"_s};
        const auto failed = [&](const char* why) { return QStringList{accepted, u"Update failed|"_s + why}; };
        const QByteArray bundle = makeZip("Tallowind.app/bin/tallowind 755");
        const char* app = "opt/Tallowind.app/bin/tallowind";
        const QString closed = [] {
            TestHttpServer gone;
            gone.listen();
            return gone.url().toString();
        }();
        row("error page", app, {}, {}, {unreadable});
        row("a release without its digest", app, uR"({"version":"99","zip":"T.zip"})"_s, {}, {unreadable});
        row("up to date", app, Config::appVersion(), {},
            {u"You're up to date|Tallowind %1 is the latest version.|"_s.arg(Config::appVersion())});
        row("later", app, newer, {}, {accepted});
        row("not run from bin/", "opt/Tallowind.app/lib/tallowind", newer, bundle, package);
        row("in a bundle of another name", "opt/Tallowind-old.app/bin/tallowind", newer, bundle, package);
        row("bad link", app, newer + u" http://[::1"_s, bundle, failed("Bad update link."));
        row("transfer fails", app, newer + u' ' + closed + u"/T.zip"_s, bundle, failed("Connection refused"));
        row("something else instead of the archive", app, newer + u" x.zip"_s, bundle,
            failed("The download was damaged."));
        row("not an archive", app, newer, "not a zip", failed("Couldn't unpack the update."));
        row("a program that cannot run", app, newer, makeZip("Tallowind.app/bin/tallowind 644"),
            failed("The update was incomplete."));
        row("the swap cannot start", app, newer, bundle, failed(""));
    }
    void checkTellsTheUserWhatHappensNext() {
        QFETCH(QString, executable);
        QFETCH(QString, serves);
        QFETCH(QByteArray, archive);
        QFETCH(QStringList, shown);
        Rig rig(executable);
        // One environment string past the kernel's limit for it, so that the swap's shell cannot start.
        rig.home.environment().set("TALLOWIND_TEST_BULK", QByteArray(200'000, 'x'));
        rig.archive = archive;
        rig.dialogs->answer = archive.isEmpty() ? 1 : 0;
        const QStringList offer = serves.split(u' ');  // no manifest here holds a space
        rig.manifest = serves.isEmpty() || serves.startsWith(u'{')
                           ? serves.toUtf8()
                           : release(offer[0], archive, offer.value(1, u"releases/T.zip"_s));
        rig.updater.check(true);
        QTest::qWait(300);  // long enough for a dialog too many to show
        QTRY_COMPARE(rig.dialogs->shown.size(), shown.size());
        for (qsizetype i = 0; i < shown.size(); ++i) {
            const QString& dialog = rig.dialogs->shown[i];
            QVERIFY2(dialog.startsWith(shown[i]) && !dialog.contains("||"_L1), qPrintable(dialog));
        }
        QCOMPARE(rig.quits, 0);
    }

    void checkingStartsAtOnceAndRepeatsDailyQuietly() {
        Rig rig(u"opt/Tallowind.app/bin/tallowind"_s);
        rig.updater.startChecking();
        QCOMPARE(rig.updater.timer()->interval(), 24 * 60 * 60 * 1000);
        QMetaObject::invokeMethod(rig.updater.timer(), "timeout");
        QTRY_COMPARE(rig.server.received().size(), 2);
        QTest::qWait(300);  // a check that fails in the background shows nothing
        QCOMPARE(rig.dialogs->shown, QStringList());
    }

    void acceptedUpdateSwapsTheBundleOnlyAfterTheProgramEnds() {
        QProcess running;  // stands in for this program: the swap waits for it to end
        running.start(u"sleep"_s, {u"60"_s});
        QVERIFY(running.waitForStarted());
        // Quotes, dollars and spaces in every path the script handles.
        const QString inHome = u"it's \"a\" $TALLOWIND_TEST_UNSET `x` dir/Tallowind.app/bin/tallowind"_s;
        Rig rig(inHome, running.processId());
        const QString program = rig.home.path() + u'/' + inHome;
        QVERIFY(QDir().mkpath(QFileInfo(program).path()));
        // The new program leaves a note beside the path it was started by.
        rig.archive = makeZip("Tallowind.app/bin/tallowind 755", "#!/bin/sh\ntouch \"$0.started\"\n");
        rig.manifest = release(newer, rig.archive);
        rig.updater.check(false);
        QTRY_COMPARE(rig.quits, 1);
        QCOMPARE(rig.server.received()[0].target, "/releases/latest.json");
        QVERIFY(!rig.server.received()[1].headers.contains("authorization"));

        // The script polls every 0.2 seconds; while the program runs, its bundle stays as it is.
        QTest::qWait(700);
        QVERIFY(!QFile::exists(program) && !QDir(rig.temporary).isEmpty());
        running.kill();
        QVERIFY(running.waitForFinished());
        QTRY_VERIFY(QFile::exists(program + u".started"_s));
        QTRY_VERIFY(QDir(rig.temporary).isEmpty());
    }
};

QTEST_GUILESS_MAIN(UpdaterTest)
#include "tst_updater.moc"
