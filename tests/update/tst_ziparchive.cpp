#include "testzip.h"
#include "ziparchive.h"

#include <QDirIterator>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

using namespace Qt::StringLiterals;

class ZipArchiveTest : public QObject {
    Q_OBJECT

private slots:
    void unpacksBundlesAndRefusesArchivesReachingOutside_data();
    void unpacksBundlesAndRefusesArchivesReachingOutside();
};

void ZipArchiveTest::unpacksBundlesAndRefusesArchivesReachingOutside_data() {
    QTest::addColumn<QByteArrayList>("entries");
    QTest::addColumn<bool>("damaged");  // one byte of the first entry's data flipped
    QTest::addColumn<QString>("unpacked");
    const QString refused = u"refused"_s;
    QTest::newRow("a bundle keeps its permission bits and its links, also through \"..\" inside it")
        << QByteArrayList{"T.app/ 755",
                          "T.app/lib/ 700",
                          "T.app/bin/t 755",
                          "T.app/lib/x.so.1 640",
                          "T.app/lib/x.so -> x.so.1",
                          "T.app/share -> lib/../bin",
                          "notes"}
        << false
        << u"T.app 755, T.app/bin 755, T.app/bin/t 755, T.app/lib 700, T.app/lib/x.so -> T.app/lib/x.so.1, "
           "T.app/lib/x.so.1 640, T.app/share -> T.app/bin, notes 666"_s;
    QTest::newRow("a damaged entry") << QByteArrayList{"t 755"} << true << refused;
    QTest::newRow("a path climbing out") << QByteArrayList{"t", "T.app/../../x"} << false << refused;
    QTest::newRow("an absolute path") << QByteArrayList{"t", "/abs"} << false << refused;
    QTest::newRow("a link climbing out") << QByteArrayList{"t", "T.app/out -> ../../x"} << false << refused;
    QTest::newRow("a link leading out through another link")
        << QByteArrayList{"here -> .", "out -> here/.."} << false << refused;
    QTest::newRow("a file written through links leading out")
        << QByteArrayList{"here -> .", "out -> here/..", "out/evil"} << false << refused;
}

void ZipArchiveTest::unpacksBundlesAndRefusesArchivesReachingOutside() {
    QFETCH(QByteArrayList, entries);
    QFETCH(bool, damaged);
    QFETCH(QString, unpacked);
    QByteArray bytes = makeZip(entries);
    if (damaged) {
        // Past the 30-byte local header and the name: the data no longer matches its checksum.
        const qsizetype data = 30 + entries[0].indexOf(' ') + 2;
        bytes[data] = char(bytes[data] ^ 0x5a);
    }
    // The work folder sits two levels down, so that an escape stays inside the test's own folder.
    QTemporaryDir root;
    const QDir work(root.filePath(u"outer/work"_s));
    QFile archive(root.filePath(u"a.zip"_s));
    QVERIFY(work.mkpath(u"."_s) && archive.open(QIODevice::WriteOnly) &&
            archive.write(bytes) == bytes.size());
    archive.close();
    QStringList found{u"refused"_s};
    if (ZipArchive::extract(archive.fileName(), work.path())) {
        found.clear();
        QDirIterator it(work.path(), QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System,
                        QDirIterator::Subdirectories);
        while (it.hasNext()) {
            const QFileInfo entry(it.next());
            struct stat status {};
            lstat(QFile::encodeName(entry.filePath()).constData(), &status);
            found << work.relativeFilePath(entry.filePath()) +
                         (entry.isSymLink() ? u" -> "_s + work.relativeFilePath(entry.symLinkTarget())
                                            : u" %1"_s.arg(status.st_mode & 0777, 0, 8));
        }
        found.sort();
    }
    QCOMPARE(found.join(u", "_s), unpacked);
}

QTEST_GUILESS_MAIN(ZipArchiveTest)
#include "tst_ziparchive.moc"
