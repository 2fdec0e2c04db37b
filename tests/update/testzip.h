#pragma once

#include <QByteArray>
#include <QList>
#include <QMetaType>

// An entry of a test archive: a file, a folder (name ending in "/") or a symbolic link (`data` is its
// target), with Unix permission bits unless `mode` is 0.
struct TestZipEntry {
    enum class Kind { file, folder, link };
    QByteArray name;
    QByteArray data;
    int mode = 0;
    Kind kind = Kind::file;
};
using TestZipEntries = QList<TestZipEntry>;
Q_DECLARE_METATYPE(TestZipEntries)

// The bytes of a zip archive of `entries`, names taken as they are (so "../x" and "/abs" can be made).
QByteArray makeZip(const TestZipEntries& entries);
