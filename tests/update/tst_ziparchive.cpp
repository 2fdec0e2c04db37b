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
        QTest::addColumn<QByteArray>("entries");
        QTest::addColumn<QByteArray>("unpacked");
        const QByteArray refused = "refused";
        QTest::newRow("a bundle keeps its permission bits and its links, also through \"..\" inside it")
            << "T.app/ 755, T.app/lib/ 700, T.app/bin/t 755, T.app/lib/x.so.1 640, notes, "
               "T.app/lib/x.so -> x.so.1, T.app/share -> lib/../bin"_ba
            << "T.app 755, T.app/bin 755, T.app/bin/t 755, T.app/lib 700, T.app/lib/x.so -> x.so.1, "
               "T.app/lib/x.so.1 640, T.app/share -> lib/../bin, notes 666"_ba;
        QTest::newRow("a path climbing out") << "t, T.app/../../x"_ba << refused;
        QTest::newRow("an absolute path") << "t, /abs"_ba << refused;
        QTest::newRow("a link climbing out") << "t, T.app/out -> ../../x"_ba << refused;
        QTest::newRow("a link leading out through another link") << "here -> ., out -> here/.."_ba << refused;
        QTest::newRow("a file where a link goes") << "out/x, out -> ."_ba << refused;
    }
    void unpacksBundlesAndRefusesArchivesReachingOutside() {
        QFETCH(QByteArray, entries);
        QFETCH(QByteArray, unpacked);
        const QByteArray bytes = makeZip(entries);
        // The work folder sits two levels down, so that an escape stays inside the test's own folder.
        QTemporaryDir root;
        const std::string work = QFile::encodeName(root.filePath(u"outer/work"_s)).toStdString();
        QFile archive(root.filePath(u"a.zip"_s));
        QVERIFY(fs::create_directories(work) && archive.open(QFile::WriteOnly) && archive.write(bytes) > 0);
        archive.close();
        QByteArrayList found{"refused"};
        if (ZipArchive::extract(archive.fileName(), QString::fromStdString(work))) {
            found.clear();
            for (const fs::directory_entry& entry : fs::recursive_directory_iterator(work)) {
                found << QByteArray::fromStdString(entry.path().lexically_relative(work)) +
                             (entry.is_symlink()
                                  ? " -> " + QByteArray::fromStdString(fs::read_symlink(entry))
                                  : ' ' + QByteArray::number(int(entry.status().permissions()) & 0777, 8));
            }
        }
        std::sort(found.begin(), found.end());
        QCOMPARE(found.join(", "), unpacked);
    }
};

QTEST_GUILESS_MAIN(ZipArchiveTest)
#include "tst_ziparchive.moc"
