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
        const QByteArrayList words = entry.split(' ');  // a name, then a mode or "->" and a target
        const bool link = words.value(1) == "->";
        const bool folder = words[0].endsWith('/');
        // libzip reads the data when the archive is closed, which `entries` and `contents` outlive.
        const char* data = link ? entry.constData() + entry.indexOf("-> ") + 3 : contents.constData();
        zip_source_t* source = zip_source_buffer(archive, data, link ? qstrlen(data) : contents.size(), 0);
        const zip_int64_t index = folder
                                      ? zip_dir_add(archive, words[0].constData(), ZIP_FL_ENC_UTF_8)
                                      : zip_file_add(archive, words[0].constData(), source, ZIP_FL_ENC_UTF_8);
        const zip_uint32_t mode = link ? S_IFLNK | 0777
                                  : words.size() < 2
                                      ? 0
                                      : (folder ? S_IFDIR : S_IFREG) | words[1].toUInt(nullptr, 8);
        if (index < 0 ||
            (mode != 0 && zip_file_set_external_attributes(archive, index, 0, ZIP_OPSYS_UNIX, mode << 16))) {
            qFatal("libzip refused the entry %s", entry.constData());
        }
    }
    if (zip_close(archive) != 0) {
        qFatal("libzip could not write the archive");
    }
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
