#include "testzip.h"

#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <zip.h>

QByteArray makeZip(const QByteArrayList& entries, const QByteArray& contents) {
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("test.zip")));
    zip_t* archive = zip_open(path.constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    for (const QByteArray& entry : entries) {
        const qsizetype space = entry.indexOf(' ');
        const QByteArray name = space < 0 ? entry : entry.left(space);
        const qsizetype target = entry.indexOf(" -> ") + 4;
        const bool folder = name.endsWith('/');
        const int mode = target > 3 ? 0777 : space < 0 ? 0 : entry.mid(space + 1).toInt(nullptr, 8);
        // libzip reads the buffer when the archive is closed; `entries` and `contents` outlive that call.
        const QByteArray data =
            target > 3 ? QByteArray::fromRawData(entry.constData() + target, entry.size() - target)
                       : contents;
        const zip_int64_t index =
            folder ? zip_dir_add(archive, name.constData(), ZIP_FL_ENC_UTF_8)
                   : zip_file_add(archive, name.constData(),
                                  zip_source_buffer(archive, data.constData(), data.size(), 0),
                                  ZIP_FL_ENC_UTF_8);
        const mode_t type = folder ? S_IFDIR : target > 3 ? S_IFLNK : S_IFREG;
        if (index < 0 ||
            (mode != 0 && zip_file_set_external_attributes(archive, index, 0, ZIP_OPSYS_UNIX,
                                                           zip_uint32_t(type | mode_t(mode)) << 16) != 0)) {
            qFatal("libzip refused the entry %s", entry.constData());
        }
    }
    if (!archive || zip_close(archive) != 0) {
        qFatal("libzip could not write the archive");
    }
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
