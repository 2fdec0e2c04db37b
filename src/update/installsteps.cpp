#include "installsteps.h"

#include "ziparchive.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QUuid>

#include <filesystem>
#include <system_error>

namespace {

const QString bundleName = QStringLiteral("Tallowind.app");
const QString executableInBundle = QStringLiteral("bin/tallowind");

}  // namespace

namespace InstallSteps {

std::optional<QString> bundleOf(const QString& executablePath) {
    const QFileInfo binary(QFileInfo(executablePath).absolutePath());
    const QFileInfo bundle(binary.path());
    if (binary.fileName() != QLatin1String("bin") || bundle.fileName() != bundleName) {
        return std::nullopt;
    }
    return bundle.filePath();
}

QString shellQuoted(const QString& text) {
    // Inside single quotes only the single quote itself is special: close, escape it, reopen.
    QString quoted = text;
    quoted.replace(QLatin1Char('\''), QLatin1String("'\\''"));
    return QLatin1Char('\'') + quoted + QLatin1Char('\'');
}

QString swapScript(qint64 processId, const QString& bundle, const QString& newBundle,
                   const QString& workDirectory) {
    // setsid -f starts the new program in a session of its own, so it outlives this shell.
    return QStringLiteral(
               "while kill -0 %1 2>/dev/null; do sleep 0.2; done\n"
               "rm -rf %2 && mv %3 %2 && setsid -f %4\n"
               "rm -rf %5")
        .arg(QString::number(processId), shellQuoted(bundle), shellQuoted(newBundle),
             shellQuoted(bundle + QLatin1Char('/') + executableInBundle), shellQuoted(workDirectory));
}

Result<QString> unpack(const QByteArray& archive, const QString& expectedSha256,
                       const QString& temporaryRoot) {
    const QByteArray digest = QCryptographicHash::hash(archive, QCryptographicHash::Sha256).toHex();
    if (QString::fromLatin1(digest) != expectedSha256.toLower()) {
        return BackendError::server(QStringLiteral("The download was damaged. Try again later."));
    }

    // Qt answers an empty temporary folder when TMPDIR names one that does not exist; a relative work
    // folder would land wherever the program was started.
    if (!QDir::isAbsolutePath(temporaryRoot)) {
        return Failure::other(QStringLiteral("The temporary folder doesn't exist."));
    }
    const QString workDirectory = QDir(temporaryRoot)
                                      .filePath(QStringLiteral("tallowind-update-") +
                                                QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper());
    std::error_code error;
    std::filesystem::create_directories(QFile::encodeName(workDirectory).toStdString(), error);
    if (error) {
        return Failure::other(QString::fromStdString(error.message()));
    }

    QFile file(QDir(workDirectory).filePath(QStringLiteral("Tallowind.zip")));
    if (!file.open(QIODevice::WriteOnly) || file.write(archive) != archive.size() || !file.flush()) {
        return Failure::other(file.errorString());
    }
    file.close();

    if (!ZipArchive::extract(file.fileName(), workDirectory)) {
        return BackendError::server(QStringLiteral("Couldn't unpack the update."));
    }
    // The swap starts bin/tallowind from the new bundle; without it the old program would be gone and
    // nothing would start in its place.
    const QFileInfo executable(
        QDir(workDirectory).filePath(bundleName + QLatin1Char('/') + executableInBundle));
    if (!executable.isFile() || !executable.isExecutable()) {
        return BackendError::server(QStringLiteral("The update was incomplete."));
    }
    return workDirectory;
}

}  // namespace InstallSteps
