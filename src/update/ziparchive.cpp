#include "ziparchive.h"

#include <QDir>
#include <QFileInfo>
#include <QStringList>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zip.h>

#include <algorithm>
#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

namespace {

// A link target is a short path; anything longer is not a link a bundle would carry.
constexpr zip_uint64_t maxLinkTargetBytes = 4096;
constexpr mode_t defaultFileMode = 0644;
constexpr mode_t defaultDirectoryMode = 0755;

struct ArchiveCloser {
    void operator()(zip_t* archive) const { zip_discard(archive); }
};
using Archive = std::unique_ptr<zip_t, ArchiveCloser>;

struct EntryCloser {
    void operator()(zip_file_t* file) const { zip_fclose(file); }
};
using EntryFile = std::unique_ptr<zip_file_t, EntryCloser>;

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    int get() const { return fd_; }

private:
    int fd_;
};

struct Entry {
    enum class Kind { file, directory, link };

    zip_uint64_t index = 0;
    Kind kind = Kind::file;
    QString path;  // relative to the destination, normalised, never empty
    std::optional<mode_t> mode;
    QByteArray linkTarget;
};

// The path's components with "." and empty pieces dropped, or nothing when it is absolute or when ".."
// would climb above `base` (the components it is relative to).
std::optional<QStringList> confined(const QString& path, QStringList base = {}) {
    if (path.startsWith(QLatin1Char('/'))) {
        return std::nullopt;
    }
    for (const QString& piece : path.split(QLatin1Char('/'), Qt::SkipEmptyParts)) {
        if (piece == QLatin1String(".")) {
            continue;
        }
        if (piece == QLatin1String("..")) {
            if (base.isEmpty()) {
                return std::nullopt;
            }
            base.removeLast();
            continue;
        }
        base.append(piece);
    }
    return base;
}

std::optional<QByteArray> readAll(zip_t* archive, zip_uint64_t index, zip_uint64_t limit) {
    zip_stat_t stat;
    zip_stat_init(&stat);
    if (zip_stat_index(archive, index, 0, &stat) != 0 || !(stat.valid & ZIP_STAT_SIZE) || stat.size > limit) {
        return std::nullopt;
    }
    EntryFile file(zip_fopen_index(archive, index, 0));
    if (!file) {
        return std::nullopt;
    }
    QByteArray bytes(qsizetype(stat.size), Qt::Uninitialized);
    if (zip_fread(file.get(), bytes.data(), stat.size) != zip_int64_t(stat.size)) {
        return std::nullopt;
    }
    return bytes;
}

// Reads and checks every entry before anything is written, so a hostile archive leaves no trace.
std::optional<std::vector<Entry>> readEntries(zip_t* archive) {
    const zip_int64_t count = zip_get_num_entries(archive, 0);
    if (count < 0) {
        return std::nullopt;
    }
    std::vector<Entry> entries;
    for (zip_uint64_t index = 0; index < zip_uint64_t(count); ++index) {
        const char* rawName = zip_get_name(archive, index, ZIP_FL_ENC_GUESS);
        if (!rawName) {
            return std::nullopt;
        }
        const QString name = QString::fromUtf8(rawName);
        const auto pieces = confined(name);
        if (!pieces) {
            return std::nullopt;
        }
        if (pieces->isEmpty()) {
            continue;  // "./": the destination itself
        }
        Entry entry;
        entry.index = index;
        entry.path = pieces->join(QLatin1Char('/'));
        zip_uint8_t system = 0;
        zip_uint32_t attributes = 0;
        if (zip_file_get_external_attributes(archive, index, 0, &system, &attributes) == 0 &&
            system == ZIP_OPSYS_UNIX && (attributes >> 16) != 0) {
            const mode_t mode = attributes >> 16;
            entry.mode = mode & 0777;  // no set-id or sticky bits from a download
            if (S_ISLNK(mode)) {
                entry.kind = Entry::Kind::link;
            } else if (S_ISDIR(mode)) {
                entry.kind = Entry::Kind::directory;
            }
        }
        if (name.endsWith(QLatin1Char('/'))) {
            entry.kind = Entry::Kind::directory;
        }
        if (entry.kind == Entry::Kind::link) {
            auto target = readAll(archive, index, maxLinkTargetBytes);
            QStringList linkFolder = *pieces;
            linkFolder.removeLast();
            if (!target || target->isEmpty() || !confined(QString::fromUtf8(*target), linkFolder)) {
                return std::nullopt;
            }
            entry.linkTarget = *target;
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

bool makeDirectories(const QString& path) {
    std::error_code error;
    std::filesystem::create_directories(QFile::encodeName(path).toStdString(), error);
    return !error;
}

bool writeFile(zip_t* archive, const Entry& entry, const QString& path) {
    if (!makeDirectories(QFileInfo(path).path())) {
        return false;
    }
    EntryFile source(zip_fopen_index(archive, entry.index, 0));
    if (!source) {
        return false;
    }
    // O_EXCL: a second entry of the same name, or anything already there, is never written through.
    const Descriptor file(::open(QFile::encodeName(path).constData(),
                                 O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (file.get() < 0) {
        return false;
    }
    char buffer[64 * 1024];
    for (;;) {
        const zip_int64_t read = zip_fread(source.get(), buffer, sizeof buffer);
        if (read < 0) {
            return false;  // also a damaged entry whose checksum does not match
        }
        if (read == 0) {
            break;
        }
        for (zip_int64_t written = 0; written < read;) {
            const ssize_t n = ::write(file.get(), buffer + written, size_t(read - written));
            if (n < 0) {
                return false;
            }
            written += n;
        }
    }
    return ::fchmod(file.get(), entry.mode.value_or(defaultFileMode)) == 0;
}

bool insideDestination(const QString& path, const QString& destination) {
    const QString resolved = QFileInfo(path).canonicalFilePath();
    return resolved.isEmpty() || resolved == destination ||
           resolved.startsWith(destination + QLatin1Char('/'));
}

}  // namespace

namespace ZipArchive {

bool extract(const QString& archivePath, const QString& destination) {
    int openError = 0;
    Archive archive(
        zip_open(QFile::encodeName(archivePath).constData(), ZIP_RDONLY | ZIP_CHECKCONS, &openError));
    if (!archive) {
        return false;
    }
    const auto entries = readEntries(archive.get());
    if (!entries) {
        return false;
    }
    const QString root = QFileInfo(destination).canonicalFilePath();
    if (root.isEmpty()) {
        return false;
    }
    const auto target = [&](const Entry& entry) { return root + QLatin1Char('/') + entry.path; };

    // Links come last, so that no file or folder of the archive is ever written through one of them.
    std::vector<const Entry*> directories;
    for (const Entry& entry : *entries) {
        if (entry.kind == Entry::Kind::directory) {
            if (!makeDirectories(target(entry))) {
                return false;
            }
            directories.push_back(&entry);
        } else if (entry.kind == Entry::Kind::file && !writeFile(archive.get(), entry, target(entry))) {
            return false;
        }
    }
    for (const Entry& entry : *entries) {
        if (entry.kind != Entry::Kind::link) {
            continue;
        }
        const QString path = target(entry);
        if (!makeDirectories(QFileInfo(path).path()) ||
            ::symlink(entry.linkTarget.constData(), QFile::encodeName(path).constData()) != 0) {
            return false;
        }
    }
    // A target that stays inside on paper can still lead out through another link ("a -> b/..", with
    // b itself a link): what the links resolve to on disk decides.
    for (const Entry& entry : *entries) {
        if (entry.kind == Entry::Kind::link && !insideDestination(target(entry), root)) {
            return false;
        }
    }
    // Folders get their own modes last: a read-only folder would have refused its contents.
    std::sort(directories.begin(), directories.end(), [](const Entry* a, const Entry* b) {
        return a->path.count(QLatin1Char('/')) > b->path.count(QLatin1Char('/'));
    });
    for (const Entry* entry : directories) {
        const QByteArray path = QFile::encodeName(target(*entry));
        if (::chmod(path.constData(), entry->mode.value_or(defaultDirectoryMode)) != 0) {
            return false;
        }
    }
    return true;
}

}  // namespace ZipArchive
