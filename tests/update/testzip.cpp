#include "testzip.h"

#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <zip.h>

QByteArray makeZip(const TestZipEntries& entries) {
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("test.zip")));
    zip_t* archive = zip_open(path.constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    for (const TestZipEntry& entry : entries) {
        const bool folder = entry.kind == TestZipEntry::Kind::folder;
        // libzip reads the buffer when the archive is closed; the entries outlive that call.
        const zip_int64_t index =
            folder ? zip_dir_add(archive, entry.name.constData(), ZIP_FL_ENC_UTF_8)
                   : zip_file_add(archive, entry.name.constData(),
                                  zip_source_buffer(archive, entry.data.constData(), entry.data.size(), 0),
                                  ZIP_FL_ENC_UTF_8);
        const mode_t type = folder ? S_IFDIR : entry.kind == TestZipEntry::Kind::link ? S_IFLNK : S_IFREG;
        if (index < 0 || (entry.mode != 0 && zip_file_set_external_attributes(
                                                 archive, index, 0, ZIP_OPSYS_UNIX,
                                                 zip_uint32_t(type | mode_t(entry.mode)) << 16) != 0)) {
            qFatal("libzip refused the entry %s", entry.name.constData());
        }
    }
    if (!archive || zip_close(archive) != 0) {
        qFatal("libzip could not write the archive");
    }
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
