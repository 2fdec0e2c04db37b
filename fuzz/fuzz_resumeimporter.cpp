#include "fuzzinput.h"
#include "resumeimporter.h"

#include <QFile>
#include <QTemporaryDir>

#include <poppler-document.h>

#include <memory>

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

// Poppler builds its global tables (glyph names, encodings) when its first document opens and frees them
// when its last one closes: for every input, which took most of the fuzzer's time. One document held
// open for the whole run keeps them. The importer does not depend on it: it opens and closes its own.
extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Well-formed down to its cross-reference table, so that poppler has nothing to complain about.
    static const char empty[] =
        "%PDF-1.4\n1 0 obj << /Type /Catalog /Pages 2 0 R >> endobj\n"
        "2 0 obj << /Type /Pages /Kids [] /Count 0 >> endobj\n"
        "xref\n0 3\n0000000000 65535 f \n0000000009 00000 n \n0000000058 00000 n \n"
        "trailer << /Size 3 /Root 1 0 R >>\nstartxref\n110\n%%EOF\n";
    static const std::unique_ptr<poppler::document> held(
        poppler::document::load_from_raw_data(empty, sizeof empty - 1));
    require(held != nullptr, "poppler opens the fuzzer's own document");
    return 0;
}

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
