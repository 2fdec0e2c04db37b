#include "testzip.h"

#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <zip.h>

QByteArray makeZip(const TestZipEntries& entries) {
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("test.zip")));
    int error = 0;
    zip_t* archive = zip_open(path.constData(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    for (const TestZipEntry& entry : entries) {
        zip_int64_t index = -1;
        mode_t type = entry.kind == TestZipEntry::Kind::link ? S_IFLNK : S_IFREG;
        if (entry.kind == TestZipEntry::Kind::folder) {
            index = zip_dir_add(archive, entry.name.constData(), ZIP_FL_ENC_UTF_8);
            type = S_IFDIR;
        } else {
            // libzip reads the buffer when the archive is closed; the entries outlive that call.
            zip_source_t* source =
                zip_source_buffer(archive, entry.data.constData(), zip_uint64_t(entry.data.size()), 0);
            index = zip_file_add(archive, entry.name.constData(), source, ZIP_FL_ENC_UTF_8);
        }
        if (index < 0) {
            qFatal("libzip refused the entry %s", entry.name.constData());
        }
        if (entry.mode != 0) {
            zip_file_set_external_attributes(archive, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                             zip_uint32_t(type | mode_t(entry.mode)) << 16);
        }
    }
    if (!archive || zip_close(archive) != 0) {
        qFatal("libzip could not write the archive");
    }
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
