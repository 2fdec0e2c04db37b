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
const QString bundled = u"/opt/Tallowind.app/bin/tallowind"_s;

// The manifest offering `version` as `archive`, to be downloaded from `link`.
QByteArray release(const QString& version, const QByteArray& archive,
                   const QString& link = u"releases/T.zip"_s) {
    const QByteArray digest = QCryptographicHash::hash(archive, QCryptographicHash::Sha256).toHex().toUpper();
    return uR"({"version":"%1","zip":"%2","sha256":"%3","notes":"Fixes."})"_s.arg(version, link, digest)
        .toUtf8();
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

// Answers every dialog with `answer` and records it as "message|informative text|buttons".
struct AnsweringDialogs : UpdateDialogs {
    int run(const UpdateDialog& dialog) override {
        shown << dialog.message + u'|' + dialog.informativeText + u'|' + dialog.buttons.join(u',');
        return answer;
    }
    QStringList shown;
    int answer = 1;  // "Later"
};

// A private home and temporary folder (named awkwardly for the swap script), a loopback backend serving
// `manifest` (an error page when empty) and `archive` at releases/T.zip, and an updater for a program at
// `executable` whose quitting is counted.
struct Rig {
    explicit Rig(const QString& executable = bundled, qint64 processId = 0)
        : temporary(home.path() + u"/it's \"a\" $TALLOWIND_TEST_UNSET `x` tmp"_s)
        , updater({InstallSteps::bundleOf(executable), processId}) {
        QDir().mkpath(temporary);
        home.environment().set("TMPDIR", QFile::encodeName(temporary));
        server.listen();
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        server.setHandler([this](const TestHttpServer::Received& request) {
            return request.target == "/releases/T.zip" ? TestHttpServer::Response{200, {}, {{archive, 0}}}
                   : request.target == "/releases/latest.json" && !manifest.isEmpty()
                       ? TestHttpServer::Response::json(200, manifest)
                       : TestHttpServer::Response::text(502, "<html>Bad</html>");
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
        QTest::newRow("letters, suffixes and spaces make the piece zero")
            << u"1.x.2-b. 5"_s << u"1"_s << false;
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

    // Only a program run from the bin/ of a folder named Tallowind.app can replace itself. When the backend
    // serves an archive, the offer is accepted; no row gets as far as a real swap (see below).
    void checkTellsTheUserWhatHappensNext_data() {
        QTest::addColumn<bool>("userInitiated");
        QTest::addColumn<QString>("executable");
        QTest::addColumn<QByteArray>("manifest");  // "unreachable": no server; empty: an error page
        QTest::addColumn<QByteArray>("archive");
        QTest::addColumn<QStringList>("shown");  // the start of each dialog
        const auto row = [](const char* name, bool user, const QString& executable,
                            const QByteArray& manifest, const QByteArray& archive, const QStringList& shown) {
            QTest::newRow(name) << user << executable << manifest << archive << shown;
        };
        const QString unreadable =
            u"Couldn't check for updates|Tallowind's server sent an answer that couldn't be read"_s;
        const QString offer = u"Tallowind %1 is available|Fixes.\n\n"_s.arg(newer);
        const QString accepted = offer + u"Tallowind will restart to finish updating.|Install Update,Later"_s;
        const QStringList package{offer + u"Update Tallowind with your package manager.|"_s};
        const auto failed = [&](const QString& why) {
            return QStringList{accepted, u"Update failed|"_s + why};
        };
        const QByteArray bundle = makeZip({"Tallowind.app/bin/tallowind 755"});
        const QByteArray unpackable = makeZip({"Tallowind.app/bin/tallowind 644"});
        row("user, error page", true, bundled, {}, {}, {unreadable});
        row("user, a release without its digest", true, bundled, R"({"version":"99","zip":"T.zip"})", {},
            {unreadable});
        row("user, up to date", true, bundled, release(Config::appVersion(), {}), {},
            {u"You're up to date|Tallowind %1 is the latest version.|"_s.arg(Config::appVersion())});
        row("background, unreachable", false, bundled, "unreachable", {}, {});
        row("background, later", false, bundled, release(newer, {}), {}, {accepted});
        row("installed by a package", false, u"/usr/bin/tallowind"_s, release(newer, bundle), bundle,
            package);
        row("not run from bin/", false, u"/opt/Tallowind.app/lib/tallowind"_s, release(newer, bundle), bundle,
            package);
        row("in a bundle of another name", false, u"/opt/Tallowind-old.app/bin/tallowind"_s,
            release(newer, bundle), bundle, package);
        row("bad link", false, bundled, release(newer, bundle, u"http://[::1"_s), bundle,
            failed(u"Bad update link."_s));
        row("transfer fails", false, bundled, release(newer, bundle, closedAddress() + u"/T.zip"_s), bundle,
            failed({}));
        row("error page instead of the archive", false, bundled,
            release(newer, bundle, u"SERVER/missing.zip"_s), bundle,
            failed(u"The download was damaged. Try again later."_s));
        row("not an archive", false, bundled, release(newer, "not a zip"), "not a zip",
            failed(u"Couldn't unpack the update."_s));
        row("bundle without its program", false, bundled, release(newer, unpackable), unpackable,
            failed(u"The update was incomplete."_s));
        row("the swap cannot start", false, bundled, release(newer, bundle), bundle, failed({}));
    }
    void checkTellsTheUserWhatHappensNext() {
        QFETCH(bool, userInitiated);
        QFETCH(QString, executable);
        QFETCH(QByteArray, manifest);
        QFETCH(QByteArray, archive);
        QFETCH(QStringList, shown);
        Rig rig(executable);
        // One environment string past the kernel's limit for it, so that the swap's shell cannot start.
        rig.home.environment().set("TALLOWIND_TEST_BULK", QByteArray(200'000, 'x'));
        rig.archive = archive;
        rig.dialogs->answer = archive.isEmpty() ? 1 : 0;
        rig.manifest = manifest.replace("SERVER/", rig.server.url().toEncoded() + '/');
        if (manifest == "unreachable") {
            rig.home.environment().set("TALLOWIND_SERVER", closedAddress().toUtf8());
        }
        rig.updater.check(userInitiated);
        QTest::qWait(300);  // long enough for a dialog too many to show
        QTRY_COMPARE(rig.dialogs->shown.size(), shown.size());
        for (qsizetype i = 0; i < shown.size(); ++i) {
            const QString& dialog = rig.dialogs->shown[i];
            QVERIFY2(dialog.startsWith(shown[i]) && !dialog.contains("||"_L1), qPrintable(dialog));
        }
        QCOMPARE(rig.quits, 0);
    }

    void checkingStartsAtOnceAndRepeatsDaily() {
        Rig rig;
        rig.manifest = release(Config::appVersion(), {});
        rig.updater.startChecking();
        QCOMPARE(rig.updater.timer()->interval(), 24 * 60 * 60 * 1000);
        QMetaObject::invokeMethod(rig.updater.timer(), "timeout");
        QTRY_COMPARE(rig.server.received().size(), 2);
    }

    void acceptedUpdateSwapsTheBundleOnlyAfterTheProgramEnds() {
        QProcess running;  // stands in for this program: the swap waits for it to end
        running.start(u"sleep"_s, {u"60"_s});
        QVERIFY(running.waitForStarted());
        // Quotes, dollars and spaces in every path the script handles. The variable is unset, so that even a
        // quoting mistake could only touch the test's own folders.
        QTemporaryDir apps;
        const QString bundle = apps.path() + u"/it's \"a\" $TALLOWIND_TEST_UNSET `x` dir/Tallowind.app"_s;
        QVERIFY(QDir().mkpath(bundle + u"/bin"_s));
        Rig rig(bundle + u"/bin/tallowind"_s, running.processId());
        rig.home.environment().unset("TALLOWIND_TEST_UNSET");
        rig.dialogs->answer = 0;
        // The new program notes the path it was started by beside itself.
        const QByteArray script = "#!/bin/sh\nprintf '%s' \"$0\" > \"$0.started\"\n";
        rig.archive = makeZip({"Tallowind.app/bin/tallowind 755"}, script);
        rig.manifest = release(newer, rig.archive);
        rig.updater.check(false);
        QTRY_COMPARE(rig.quits, 1);
        QVERIFY(rig.server.received().size() == 2 &&
                !rig.server.received()[1].headers.contains("authorization"));

        // The script polls every 0.2 seconds; while the program runs, its bundle stays as it is.
        QTest::qWait(700);
        QVERIFY(QFileInfo(bundle + u"/bin"_s).isDir() && !QFile::exists(bundle + u"/bin/tallowind"_s) &&
                !QDir(rig.temporary).isEmpty());
        running.kill();
        QVERIFY(running.waitForFinished());
        QTRY_COMPARE(contentsOf(bundle + u"/bin/tallowind.started"_s),
                     (bundle + u"/bin/tallowind"_s).toUtf8());
        QCOMPARE(contentsOf(bundle + u"/bin/tallowind"_s), script);
        QTRY_VERIFY(QDir(rig.temporary).isEmpty());
    }
};

QTEST_GUILESS_MAIN(UpdaterTest)
#include "tst_updater.moc"
