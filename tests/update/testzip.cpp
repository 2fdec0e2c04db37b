#include "testzip.h"

#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <zip.h>

QByteArray makeZip(const QByteArray& entries, const QByteArray& contents) {
    QTemporaryDir dir;
    const QByteArray path = QFile::encodeName(dir.filePath(QStringLiteral("test.zip")));
    zip_t* archive = zip_open(path.constData(), ZIP_CREATE | ZIP_TRUNCATE, nullptr);
    // libzip reads the data when the archive is closed; `contents` and `list` outlive that.
    QByteArrayList list = entries.split(',');
    bool written = true;
    for (QByteArray& entry : list) {
        entry = entry.trimmed();
        const QByteArrayList words = entry.split(' ');  // a name, then a mode or "->" and a target
        const bool link = words.value(1) == "->";
        const bool folder = words[0].endsWith('/');
        const char* data = link ? entry.constData() + entry.indexOf("-> ") + 3 : contents.constData();
        const zip_int64_t index =
            folder ? zip_dir_add(archive, words[0].constData(), ZIP_FL_ENC_UTF_8)
                   : zip_file_add(archive, words[0].constData(),
                                  zip_source_buffer(archive, data, qstrlen(data), 0), ZIP_FL_ENC_UTF_8);
        const zip_uint32_t mode =
            link ? S_IFLNK | 0777 : (folder ? S_IFDIR : S_IFREG) | words.value(1).toUInt(nullptr, 8);
        written = written && index >= 0 &&
                  (words.size() < 2 ||
                   zip_file_set_external_attributes(archive, index, 0, ZIP_OPSYS_UNIX, mode << 16) == 0);
    }
    if (!written || zip_close(archive) != 0) {
        qFatal("libzip could not write the test archive %s", entries.constData());
    }
    QFile file(QString::fromLocal8Bit(path));
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}
