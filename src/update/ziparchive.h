#pragma once

#include <QString>

namespace ZipArchive {

// Unpacks the zip archive at `archivePath` into the existing folder `destination`, keeping the entries'
// permission bits and symbolic links. An archive that cannot be read, or that names any path outside
// `destination` (absolute, climbing out with "..", or a link whose target does), fails as a whole, and
// such an archive is refused before anything is written.
bool extract(const QString& archivePath, const QString& destination);

}  // namespace ZipArchive
