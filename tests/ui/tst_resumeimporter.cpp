#include "resumeimporter.h"

#include <QBuffer>
#include <QFile>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

using namespace Qt::StringLiterals;

namespace {

// A PDF with one page per entry of `pages`, each line of a page drawn on a line of its own.
QByteArray pdfOf(const QStringList& pages) {
    QBuffer buffer;
    buffer.open(QIODevice::WriteOnly);
    QPdfWriter writer(&buffer);
    QPainter painter(&writer);
    painter.setFont(QFont(u"DejaVu Sans"_s, 12));
    for (const QString& page : pages) {
        if (&page != &pages.first()) {
            writer.newPage();
        }
        for (int line = 0; const QString& text : page.split(u'\n')) {
            painter.drawText(800, 1000 + 400 * line++, text);
        }
    }
    painter.end();
    return buffer.data();
}

}  // namespace

class ResumeImporterTest : public QObject {
    Q_OBJECT

private slots:
    void readsResumeFiles_data() {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QByteArray>("contents");
        QTest::addColumn<std::optional<QString>>("read");
        const QString resume = u"Jane Doe\nSenior Engineer"_s;
        QTest::newRow("markdown is read as UTF-8 text and keeps its leading blank lines and its end")
            << u"resume.md"_s << QByteArray("\n\n# Ren\303\251e\n") << std::optional(u"\n\n# Ren\u00e9e\n"_s);
        QTest::newRow("latin-1 text with accents yields nothing")
            << u"resume.txt"_s << QByteArray("Ren\351e M\374ller\n") << std::optional<QString>();
        QTest::newRow("pdf pages, in capitals, are one blank line apart and lose the page feed at the end")
            << u"RESUME.PDF"_s << pdfOf({resume, u"Projects"_s}) << std::optional(resume + u"\n\nProjects"_s);
        QTest::newRow("text named like a pdf yields nothing")
            << u"resume.pdf"_s << QByteArray("Jane Doe\n") << std::optional<QString>();
    }

    void readsResumeFiles() {
        QFETCH(QString, name);
        QFETCH(QByteArray, contents);
        QFETCH(std::optional<QString>, read);
        QTemporaryDir dir;
        QFile file(dir.filePath(name));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size());
        file.close();
        QCOMPARE(ResumeImporter::text(file.fileName()), read);
    }
};

QTEST_MAIN(ResumeImporterTest)
#include "tst_resumeimporter.moc"
