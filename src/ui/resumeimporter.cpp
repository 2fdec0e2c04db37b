#include "resumeimporter.h"

#include <QDir>
#include <QFile>
#include <QFileDialog>
#include <QFileInfo>
#include <QStringDecoder>
#include <QWidget>

#include <poppler-document.h>
#include <poppler-global.h>
#include <poppler-page.h>

#include <memory>
#include <mutex>

namespace {

// Poppler reports a damaged file on standard error; the caller already learns of it through the empty
// result, and the program logs nothing.
void silencePoppler() {
    static std::once_flag once;
    std::call_once(once,
                   [] { poppler::set_debug_error_function([](const std::string&, void*) {}, nullptr); });
}

std::optional<QString> pdfText(const QByteArray& bytes) {
    silencePoppler();
    const std::unique_ptr<poppler::document> document(
        poppler::document::load_from_raw_data(bytes.constData(), static_cast<int>(bytes.size())));
    if (!document || document->is_locked() || document->pages() == 0) {
        return std::nullopt;
    }
    QString text;
    for (int index = 0; index < document->pages(); ++index) {
        const std::unique_ptr<poppler::page> page(document->create_page(index));
        if (!page) {
            continue;
        }
        // Reading order rather than the physical layout, which pads columns out with runs of spaces.
        const poppler::byte_array utf8 =
            page->text(poppler::rectf(), poppler::page::non_raw_non_physical_layout).to_utf8();
        // Poppler ends every page with blank lines and a form feed; a blank line reads better where one
        // page meets the next, and trimming each page also trims the whole text at both ends.
        const QString pageText =
            QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size())).trimmed();
        if (!text.isEmpty() && !pageText.isEmpty()) {
            text += QStringLiteral("\n\n");
        }
        text += pageText;
    }
    return text;
}

std::optional<QString> utf8Text(const QByteArray& bytes) {
    // Stateless: a sequence cut off at the end of the file is an error, not the start of more input.
    QStringDecoder decoder(QStringConverter::Utf8, QStringConverter::Flag::Stateless);
    QString text = decoder.decode(bytes);
    if (decoder.hasError()) {
        return std::nullopt;
    }
    return text;
}

}  // namespace

namespace ResumeImporter {

QString pickFile(QWidget* parent) {
    if (parent) {
        parent->window()->raise();
        parent->window()->activateWindow();
    }
    // The first filter offers all three kinds at once; the others narrow the list.
    const QString filters = QStringLiteral(
        "PDF or text (*.pdf *.txt *.md);;PDF documents (*.pdf);;Plain text (*.txt);;Markdown (*.md)");
    return QFileDialog::getOpenFileName(parent, QStringLiteral("Choose your resume (PDF or text)"),
                                        QDir::homePath(), filters);
}

std::optional<QString> text(const QString& path) {
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    const QByteArray bytes = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        return std::nullopt;
    }
    if (QFileInfo(path).suffix().compare(QLatin1String("pdf"), Qt::CaseInsensitive) == 0) {
        return pdfText(bytes);
    }
    return utf8Text(bytes);
}

}  // namespace ResumeImporter
