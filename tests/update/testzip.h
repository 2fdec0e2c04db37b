#pragma once

#include <QByteArray>
#include <QList>
#include <QMetaType>

// One entry of an archive made by a test: a file, a folder (name ending in "/") or a symbolic link
// (`data` is its target), with Unix permission bits, or none at all when `mode` is 0.
struct TestZipEntry {
    enum class Kind { file, folder, link };

    QByteArray name;
    QByteArray data;
    int mode = 0;
    Kind kind = Kind::file;
};

using TestZipEntries = QList<TestZipEntry>;

// The bytes of a zip archive holding `entries` in order, names taken as they are (so "../x" and "/abs"
// can be made too).
QByteArray makeZip(const TestZipEntries& entries);

Q_DECLARE_METATYPE(TestZipEntries)
