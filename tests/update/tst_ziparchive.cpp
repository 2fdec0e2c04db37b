#include "testzip.h"
#include "ziparchive.h"

#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <sys/stat.h>

namespace {

TestZipEntry file(const char* name, int mode = 0644) {
    return {name, "data", mode};
}
TestZipEntry folder(const char* name, int mode = 0755) {
    return {name, {}, mode, TestZipEntry::Kind::folder};
}
TestZipEntry linkTo(const char* name, const char* target) {
    return {name, target, 0777, TestZipEntry::Kind::link};
}

// Everything below `root` but the work folder and its parent, relative to the work folder (so that an
// escape shows as "../"), each with its permission bits or its link's target.
QStringList tree(const QString& root, const QDir& work) {
    QStringList out;
    QDirIterator it(root, QDir::AllEntries | QDir::NoDotAndDotDot | QDir::Hidden | QDir::System,
                    QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QFileInfo entry(it.next());
        struct stat status {};
        if (!(work.path() + u'/').startsWith(entry.filePath() + u'/') &&
            lstat(QFile::encodeName(entry.filePath()).constData(), &status) == 0) {
            out << work.relativeFilePath(entry.filePath()) +
                       (entry.isSymLink()
                            ? QStringLiteral(" -> ") + work.relativeFilePath(entry.symLinkTarget())
                            : QStringLiteral(" %1").arg(status.st_mode & 0777, 0, 8));
        }
    }
    out.sort();
    return out;
}

}  // namespace

class ZipArchiveTest : public QObject {
    Q_OBJECT

private slots:
    void unpacksBundlesAndRefusesArchivesReachingOutside_data();
    void unpacksBundlesAndRefusesArchivesReachingOutside();
};

void ZipArchiveTest::unpacksBundlesAndRefusesArchivesReachingOutside_data() {
    QTest::addColumn<TestZipEntries>("entries");
    QTest::addColumn<bool>("damaged");  // one byte of the first entry's data flipped
    QTest::addColumn<QString>("unpacked");
    const QString refused = QStringLiteral("refused");
    QTest::newRow("a bundle keeps its permission bits and its links, also through \"..\" inside it")
        << TestZipEntries{folder("T.app/"),
                          folder("T.app/lib/", 0700),
                          file("T.app/bin/t", 0755),
                          file("T.app/lib/x.so.1", 0640),
                          linkTo("T.app/lib/x.so", "x.so.1"),
                          linkTo("T.app/share", "lib/../bin"),
                          file("notes", 0)}
        << false
        << QStringLiteral(
               "T.app 755, T.app/bin 755, T.app/bin/t 755, T.app/lib 700, T.app/lib/x.so -> "
               "T.app/lib/x.so.1, T.app/lib/x.so.1 640, T.app/share -> T.app/bin, notes 666");
    QTest::newRow("a damaged entry") << TestZipEntries{file("t", 0755)} << true << refused;
    QTest::newRow("a path climbing out")
        << TestZipEntries{file("t"), file("T.app/../../x")} << false << refused;
    QTest::newRow("an absolute path") << TestZipEntries{file("t"), file("/abs")} << false << refused;
    QTest::newRow("a link climbing out")
        << TestZipEntries{file("t"), linkTo("T.app/out", "../../x")} << false << refused;
    QTest::newRow("a file written through links leading out")
        << TestZipEntries{linkTo("here", "."), linkTo("out", "here/.."), file("out/evil")} << false
        << refused;
}

void ZipArchiveTest::unpacksBundlesAndRefusesArchivesReachingOutside() {
    QFETCH(TestZipEntries, entries);
    QFETCH(bool, damaged);
    QFETCH(QString, unpacked);
    QByteArray bytes = makeZip(entries);
    if (damaged) {
        // Past the 30-byte local header and the name: the data no longer matches its checksum.
        const qsizetype data = 30 + entries[0].name.size() + 2;
        bytes[data] = char(bytes[data] ^ 0x5a);
    }
    // The work folder sits two levels down, so that every escape lands where the test looks.
    QTemporaryDir root;
    const QString work = root.filePath(QStringLiteral("outer/work"));
    QVERIFY(QDir().mkpath(work));
    QFile archive(root.filePath(QStringLiteral("a.zip")));
    QVERIFY(archive.open(QIODevice::WriteOnly) && archive.write(bytes) == bytes.size());
    archive.close();
    const bool extracted = ZipArchive::extract(archive.fileName(), work);
    archive.remove();
    const QStringList found = tree(root.path(), QDir(work));
    QCOMPARE(extracted ? found.join(QStringLiteral(", ")) : QStringLiteral("refused"), unpacked);
    QCOMPARE(found.filter(QRegularExpression(QStringLiteral("^\\.\\./"))), QStringList());
    QVERIFY(!QFileInfo::exists(QStringLiteral("/abs")));
}

QTEST_GUILESS_MAIN(ZipArchiveTest)
#include "tst_ziparchive.moc"
