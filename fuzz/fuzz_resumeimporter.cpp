#include "fuzzinput.h"
#include "resumeimporter.h"

#include <QFile>
#include <QTemporaryDir>

namespace {

const QByteArray byteOrderMark = QByteArrayLiteral("\xEF\xBB\xBF");

const QTemporaryDir& folder() {
    static const QTemporaryDir dir;
    return dir;
}

std::optional<QString> importAs(const QString& name, const QByteArray& bytes) {
    const QString path = folder().filePath(name);
    QFile file(path);
    require(file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write(bytes) == bytes.size(),
            "the fuzzer's own file could be written");
    file.close();
    return ResumeImporter::text(path);
}

}  // namespace

// The first byte picks the kind of file; the rest is its contents.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    FuzzInput input(data, size);
    const bool pdf = input.byte() & 1;
    const QByteArray bytes = input.rest();

    if (pdf) {
        if (const auto text = importAs(QStringLiteral("resume.pdf"), bytes)) {
            require(*text == text->trimmed(), "a PDF's text is trimmed at both ends");
        }
        return 0;
    }
    // Text must be kept exactly, and refused exactly when it is not UTF-8; the decoder may drop a
    // leading byte order mark, which is no part of the text.
    const auto text = importAs(QStringLiteral("resume.txt"), bytes);
    const QByteArray kept = bytes.startsWith(byteOrderMark) ? bytes.mid(byteOrderMark.size()) : bytes;
    // A letter in front keeps Qt from reading a second byte order mark as one too.
    const bool valid = QString::fromUtf8("a" + kept).toUtf8() == "a" + kept;
    require(text.has_value() == valid, "text is refused when, and only when, it is not UTF-8");
    if (text) {
        require(text->toUtf8() == kept, "a text resume is kept exactly");
    }
    return 0;
}
