#pragma once

#include "backenderror.h"

#include <QByteArray>
#include <QString>

#include <optional>

// The deciding and file-system parts of installing an update, kept apart from the network and the
// dialogs so that each can be run on its own.
namespace InstallSteps {

// The bundle a program runs from: the folder holding the executable's bin/ folder, when that folder is
// named "Tallowind.app". A program installed any other way cannot replace itself.
std::optional<QString> bundleOf(const QString& executablePath);

// `text` as one word for /bin/sh, whatever quotes, dollars or spaces it holds.
QString shellQuoted(const QString& text);

// The script that waits for process `processId` to end, puts `newBundle` in place of `bundle`, starts
// the program from there and removes `workDirectory` in any case. Three lines, no final line feed.
QString swapScript(qint64 processId, const QString& bundle, const QString& newBundle,
                   const QString& workDirectory);

// From the verified digest to the unpacked bundle: checks the archive against `expectedSha256` (in any
// letter case), makes a fresh work folder under `temporaryRoot`, writes and unpacks the archive there and
// makes sure it held a runnable bundle. Yields the work folder. Blocks while it unpacks.
Result<QString> unpack(const QByteArray& archive, const QString& expectedSha256,
                       const QString& temporaryRoot);

}  // namespace InstallSteps
