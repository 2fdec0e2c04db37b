#include "fuzzinput.h"
#include "ziparchive.h"

#include <QFile>
#include <QTemporaryDir>

#include <sys/stat.h>
#include <zip.h>

#include <algorithm>
#include <filesystem>

namespace fs = std::filesystem;

namespace {

const QByteArray untouched = QByteArrayLiteral("left alone");

// An archive of the entries the input describes, one after another: a kind byte (file, folder or
// link; whether Unix modes are stored; the owner's permissions; with its top three bits all set, that the
// contents are compressed), a byte of the others' permissions, then the name and the contents (a link's
// target), each ended by a NUL. Names go in exactly as given, so "../x" and "/x" are made too. Most entries
// are stored as they are: each compressed one costs a fresh compressor, which halves the fuzzer's pace.
void buildArchive(FuzzInput& input, const QString& path) {
    int error = 0;
    zip_t* archive = zip_open(QFile::encodeName(path).constData(), ZIP_CREATE | ZIP_TRUNCATE, &error);
    require(archive != nullptr, "the fuzzer can create an archive");
    std::vector<QByteArray> contents;  // libzip reads them when the archive is closed
    contents.reserve(64);
    for (int entries = 0; !input.atEnd() && entries < 64; ++entries) {
        const uint8_t kind = input.byte();
        const mode_t permissions = mode_t((kind >> 3) & 7) << 6 | (input.byte() & 077);
        const QByteArray name = input.until('\0');
        contents.push_back(input.until('\0'));
        const QByteArray& content = contents.back();
        zip_int64_t index = -1;
        mode_t type = S_IFREG;
        if (kind % 3 == 1) {
            index = zip_dir_add(archive, name.constData(), ZIP_FL_ENC_UTF_8);
            type = S_IFDIR;
        } else {
            zip_source_t* source = zip_source_buffer(archive, content.constData(), content.size(), 0);
            index = zip_file_add(archive, name.constData(), source, ZIP_FL_ENC_UTF_8);
            if (index < 0) {
                zip_source_free(source);
            }
            type = kind % 3 == 2 ? S_IFLNK : S_IFREG;
        }
        // A folder too: libzip would otherwise start a compressor for its empty contents.
        if (index >= 0 && (kind & 0xe0) != 0xe0) {
            zip_set_file_compression(archive, zip_uint64_t(index), ZIP_CM_STORE, 0);
        }
        if (index >= 0 && (kind & 4)) {
            zip_file_set_external_attributes(archive, zip_uint64_t(index), 0, ZIP_OPSYS_UNIX,
                                             zip_uint32_t(type | permissions) << 16);
        }
    }
    if (zip_close(archive) != 0) {
        zip_discard(archive);
    }
}

// Everything below `root`, links not followed. Each folder is first made its owner's alone (0700), so
// that one extracted with mode 0 is walked into and can be removed afterwards; setting the mode outright
// spares reading it first.
std::vector<fs::directory_entry> everything(const fs::path& root) {
    std::vector<fs::directory_entry> entries;
    std::error_code ignored;
    fs::permissions(root, fs::perms::owner_all, fs::perm_options::replace, ignored);
    for (auto it = fs::recursive_directory_iterator(root, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored)) {
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::replace, ignored);
        }
        entries.push_back(*it);
    }
    return entries;
}

bool isInside(const fs::path& path, const fs::path& folder) {
    const std::string p = path.string();
    const std::string f = folder.string();
    return p == f || p.starts_with(f + "/");
}

// One folder for the whole run, emptied after every input: a fresh temporary folder per input cost more
// than the extraction itself.
const fs::path& sandbox() {
    static const QTemporaryDir folder;
    static const fs::path root = [] {
        require(folder.isValid(), "the fuzzer has a temporary folder");
        return fs::canonical(QFile::encodeName(folder.path()).toStdString());
    }();
    return root;
}

}  // namespace

// The first byte says whether the rest is an archive as it stands or a list of entries to build one
// from. Either way the archive is extracted into a folder of its own beside a folder it must not touch.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const fs::path& root = sandbox();
    const fs::path destination = root / "destination";
    const fs::path outside = root / "outside";
    const fs::path keepPath = outside / "keep";
    fs::create_directory(destination);
    fs::create_directory(outside);
    QFile keep(QString::fromStdString(keepPath.string()));
    require(keep.open(QIODevice::WriteOnly) && keep.write(untouched) == untouched.size(),
            "the fuzzer writes");
    keep.close();

    FuzzInput input(data, size);
    const fs::path archivePath = root / "update.zip";
    const QString archive = QString::fromStdString(archivePath.string());
    if (input.byte() & 1) {
        buildArchive(input, archive);
    } else {
        QFile file(archive);
        const QByteArray bytes = input.rest();
        require(file.open(QIODevice::WriteOnly) && file.write(bytes) == bytes.size(), "the fuzzer writes");
    }

    const bool extracted = ZipArchive::extract(archive, QString::fromStdString(destination.string()));

    const std::vector<fs::directory_entry> entries = everything(root);
    std::vector<fs::path> leftOutside;
    for (const fs::directory_entry& entry : entries) {
        const fs::path& path = entry.path();
        if (isInside(path, outside)) {
            if (path != outside) {
                leftOutside.push_back(path);
            }
        } else if (isInside(path, destination)) {
            // The walk follows no link, so only a link itself can lead anywhere else.
            std::error_code missing;
            if (extracted && entry.is_symlink(missing)) {
                const fs::path resolved = fs::canonical(path, missing);
                require(missing || isInside(resolved, destination),
                        "no extracted link leads out of its folder");
            }
        } else {
            require(path == archivePath, "nothing is written beside the destination");
        }
    }
    require(leftOutside == std::vector<fs::path>{keepPath}, "nothing is written outside");
    require(keep.open(QIODevice::ReadOnly) && keep.readAll() == untouched, "nothing outside is overwritten");
    keep.close();

    // The walk lists each folder before what it holds, so removing backwards empties every folder
    // before it goes, without walking the tree a second time.
    std::for_each(entries.rbegin(), entries.rend(), [](const fs::directory_entry& entry) {
        std::error_code failed;
        fs::remove(entry.path(), failed);
        require(!failed, "the fuzzer empties its folder for the next input");
    });
    return 0;
}
