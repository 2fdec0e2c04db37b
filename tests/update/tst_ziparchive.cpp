#include "testzip.h"
#include "ziparchive.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTest>

namespace {

using Kind = TestZipEntry::Kind;

TestZipEntry fileEntry(const char* name, const char* data, int mode = 0644) {
    return {name, data, mode, Kind::file};
}
TestZipEntry folderEntry(const char* name, int mode = 0755) {
    return {name, {}, mode, Kind::folder};
}
TestZipEntry linkEntry(const char* name, const char* target) {
    return {name, target, 0777, Kind::link};
}

}  // namespace

class ZipArchiveTest : public QObject {
    Q_OBJECT

private slots:
    void unpackingKeepsModesAndLinksOfTheBundle();
    void archivesReachingOutsideAreRefusedWithoutWritingThere_data();
    void archivesReachingOutsideAreRefusedWithoutWritingThere();
    void damagedArchiveFails();
};

void ZipArchiveTest::unpackingKeepsModesAndLinksOfTheBundle() {
    QTemporaryDir root;
    const QString destination = root.filePath(QStringLiteral("work"));
    QVERIFY(QDir().mkpath(destination));
    QFile archive(root.filePath(QStringLiteral("a.zip")));
    QVERIFY(archive.open(QIODevice::WriteOnly));
    archive.write(makeZip({
        folderEntry("Tallowind.app/"),
        folderEntry("Tallowind.app/lib/", 0700),
        fileEntry("Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755),
        fileEntry("Tallowind.app/lib/libx.so.1", "elf", 0640),
        linkEntry("Tallowind.app/lib/libx.so", "libx.so.1"),
        linkEntry("Tallowind.app/share", "lib/../bin"),
        fileEntry("notes.txt", "plain", 0),
    }));
    archive.close();

    QVERIFY(ZipArchive::extract(archive.fileName(), destination));

    const QDir app(destination + QStringLiteral("/Tallowind.app"));
    const auto mode = [&](const QString& path) { return int(QFileInfo(app.filePath(path)).permissions()); };
    using P = QFile::Permission;
    QCOMPARE(mode(QStringLiteral("bin/tallowind")),
             int(P::ReadOwner | P::WriteOwner | P::ExeOwner | P::ReadGroup | P::ExeGroup | P::ReadOther |
                 P::ExeOther | P::ReadUser | P::WriteUser | P::ExeUser));
    QCOMPARE(mode(QStringLiteral("lib/libx.so.1")),
             int(P::ReadOwner | P::WriteOwner | P::ReadGroup | P::ReadUser | P::WriteUser));
    QCOMPARE(mode(QStringLiteral("lib")),
             int(P::ReadOwner | P::WriteOwner | P::ExeOwner | P::ReadUser | P::WriteUser | P::ExeUser));
    QCOMPARE(QFileInfo(app.filePath(QStringLiteral("lib/libx.so"))).symLinkTarget(),
             QFileInfo(app.filePath(QStringLiteral("lib/libx.so.1"))).absoluteFilePath());
    QVERIFY(QFileInfo(app.filePath(QStringLiteral("share"))).isSymLink());
    QCOMPARE(QFileInfo(app.filePath(QStringLiteral("share/tallowind"))).size(), qint64(10));
    QFile plain(destination + QStringLiteral("/notes.txt"));
    QVERIFY(plain.open(QIODevice::ReadOnly));
    QCOMPARE(plain.readAll(), QByteArray("plain"));
}

void ZipArchiveTest::archivesReachingOutsideAreRefusedWithoutWritingThere_data() {
    QTest::addColumn<TestZipEntries>("entries");
    const TestZipEntry bundle = fileEntry("Tallowind.app/bin/tallowind", "#!/bin/sh\n", 0755);
    QTest::newRow("a path climbing out")
        << TestZipEntries{bundle, fileEntry("Tallowind.app/../../x", "evil")};
    QTest::newRow("an absolute path") << TestZipEntries{bundle, fileEntry("/abs", "evil")};
    QTest::newRow("a link climbing out") << TestZipEntries{bundle, linkEntry("Tallowind.app/out", "../../x")};
    QTest::newRow("an absolute link") << TestZipEntries{bundle, linkEntry("Tallowind.app/out", "/tmp")};
    QTest::newRow("a link out through another link")
        << TestZipEntries{bundle, linkEntry("here", "."), linkEntry("out", "here/..")};
    QTest::newRow("a file written through links leading out")
        << TestZipEntries{linkEntry("here", "."), linkEntry("out", "here/.."), fileEntry("out/evil", "evil")};
}

void ZipArchiveTest::archivesReachingOutsideAreRefusedWithoutWritingThere() {
    QFETCH(TestZipEntries, entries);
    QTemporaryDir archiveDir;
    QFile archive(archiveDir.filePath(QStringLiteral("a.zip")));
    QVERIFY(archive.open(QIODevice::WriteOnly));
    archive.write(makeZip(entries));
    archive.close();
    // The work folder sits two levels down, so that every escape lands in folders the test watches.
    QTemporaryDir root;
    const QString destination = root.filePath(QStringLiteral("outer/work"));
    QVERIFY(QDir().mkpath(destination));

    QVERIFY(!ZipArchive::extract(archive.fileName(), destination));

    QCOMPARE(QDir(root.path()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System),
             QStringList{QStringLiteral("outer")});
    QCOMPARE(QDir(root.filePath(QStringLiteral("outer")))
                 .entryList(QDir::AllEntries | QDir::NoDotAndDotDot | QDir::System),
             QStringList{QStringLiteral("work")});
    QVERIFY(!QFileInfo::exists(QStringLiteral("/abs")));
}

void ZipArchiveTest::damagedArchiveFails() {
    QTemporaryDir root;
    QByteArray bytes = makeZip({fileEntry("Tallowind.app/bin/tallowind", "#!/bin/sh\nexit 0\n", 0755)});
    // Past the 30-byte local header and the name: the entry's data no longer matches its checksum.
    const qsizetype data = 30 + qsizetype(qstrlen("Tallowind.app/bin/tallowind")) + 2;
    bytes[data] = char(bytes[data] ^ 0x5a);
    QFile archive(root.filePath(QStringLiteral("a.zip")));
    QVERIFY(archive.open(QIODevice::WriteOnly));
    archive.write(bytes);
    archive.close();
    QVERIFY(!ZipArchive::extract(archive.fileName(), root.path()));
}

QTEST_GUILESS_MAIN(ZipArchiveTest)
#include "tst_ziparchive.moc"
