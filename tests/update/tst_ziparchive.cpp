#include "testzip.h"
#include "ziparchive.h"

#include <QTemporaryDir>
#include <QTest>

#include <filesystem>

using namespace Qt::StringLiterals;
namespace fs = std::filesystem;

class ZipArchiveTest : public QObject {
    Q_OBJECT

private slots:
    void unpacksBundlesAndRefusesArchivesReachingOutside_data() {
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
            << u"T.app 755, T.app/bin 755, T.app/bin/t 755, T.app/lib 700, T.app/lib/x.so -> x.so.1, "
               "T.app/lib/x.so.1 640, T.app/share -> lib/../bin, notes 666"_s;
        QTest::newRow("a damaged entry") << QByteArrayList{"t 755"} << true << refused;
        QTest::newRow("a path climbing out") << QByteArrayList{"t", "T.app/../../x"} << false << refused;
        QTest::newRow("an absolute path") << QByteArrayList{"t", "/abs"} << false << refused;
        QTest::newRow("a link climbing out")
            << QByteArrayList{"t", "T.app/out -> ../../x"} << false << refused;
        QTest::newRow("a link leading out through another link")
            << QByteArrayList{"here -> .", "out -> here/.."} << false << refused;
        QTest::newRow("a file written through links leading out")
            << QByteArrayList{"here -> .", "out -> here/..", "out/evil"} << false << refused;
    }
    void unpacksBundlesAndRefusesArchivesReachingOutside() {
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
        const std::string work = QFile::encodeName(root.filePath(u"outer/work"_s)).toStdString();
        QFile archive(root.filePath(u"a.zip"_s));
        QVERIFY(fs::create_directories(work) && archive.open(QIODevice::WriteOnly) &&
                archive.write(bytes) == bytes.size());
        archive.close();
        QStringList found{u"refused"_s};
        if (ZipArchive::extract(archive.fileName(), QString::fromStdString(work))) {
            found.clear();
            for (const fs::directory_entry& entry : fs::recursive_directory_iterator(work)) {
                found << QString::fromStdString(entry.path().lexically_relative(work)) +
                             (entry.is_symlink()
                                  ? u" -> "_s + QString::fromStdString(fs::read_symlink(entry))
                                  : u' ' + QString::number(int(entry.status().permissions()) & 0777, 8));
            }
        }
        found.sort();
        QCOMPARE(found.join(u", "_s), unpacked);
    }
};

QTEST_GUILESS_MAIN(ZipArchiveTest)
#include "tst_ziparchive.moc"
