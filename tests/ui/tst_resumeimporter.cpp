#include "resumeimporter.h"

#include <QBuffer>
#include <QFile>
#include <QPainter>
#include <QPdfWriter>
#include <QTemporaryDir>
#include <QTest>

#include <optional>

// Resume files as users have them: PDFs of a page or two, text and Markdown, and text in the wrong
// encoding.
class ResumeImporterTest : public QObject {
    Q_OBJECT

private slots:
    void readsResumeFiles_data();
    void readsResumeFiles();

private:
    QTemporaryDir dir_;
};

namespace {

// A PDF with one page per entry of `pages`, each line of a page drawn on a line of its own.
QByteArray pdfOf(const QStringList& pages) {
    QByteArray bytes;
    {
        QBuffer buffer(&bytes);
        buffer.open(QIODevice::WriteOnly);
        QPdfWriter writer(&buffer);
        QPainter painter(&writer);
        painter.setFont(QFont(QStringLiteral("DejaVu Sans"), 12));
        for (qsizetype index = 0; index < pages.size(); ++index) {
            if (index > 0) {
                writer.newPage();
            }
            int y = 1000;
            for (const QString& line : pages[index].split(QLatin1Char('\n'))) {
                painter.drawText(800, y, line);
                y += 400;
            }
        }
    }
    return bytes;
}

}  // namespace

void ResumeImporterTest::readsResumeFiles_data() {
    QTest::addColumn<QString>("name");
    QTest::addColumn<QByteArray>("contents");
    QTest::addColumn<std::optional<QString>>("expected");

    const QString resume = QStringLiteral("Jane Doe\nSenior Engineer");
    QTest::newRow("text keeps its leading blank lines and its end")
        << "resume.txt" << QByteArray("\n\nJane Doe\nSenior Engineer\n")
        << std::optional<QString>(QStringLiteral("\n\nJane Doe\nSenior Engineer\n"));
    QTest::newRow("markdown is read as UTF-8 text")
        << "resume.md" << QByteArray("# Ren\303\251e\n\n- C++\n")
        << std::optional<QString>(QStringLiteral("# Ren\u00e9e\n\n- C++\n"));
    QTest::newRow("latin-1 text with accents yields nothing")
        << "resume.txt" << QByteArray("Ren\351e M\374ller\n") << std::optional<QString>();
    QTest::newRow("text whose last character is cut off yields nothing")
        << "resume.txt" << QByteArray("Ren\303\251e\n\303") << std::optional<QString>();
    QTest::newRow("pdf text loses the blank lines and page feed at its end")
        << "resume.pdf" << pdfOf({resume}) << std::optional<QString>(resume);
    QTest::newRow("pdf extension in capitals is still read as a pdf")
        << "RESUME.PDF" << pdfOf({resume}) << std::optional<QString>(resume);
    QTest::newRow("pdf pages are separated by one blank line")
        << "resume.pdf" << pdfOf({resume, QStringLiteral("Projects")})
        << std::optional<QString>(resume + QStringLiteral("\n\nProjects"));
    QTest::newRow("pdf without any text yields empty text")
        << "scan.pdf" << pdfOf({QString()}) << std::optional<QString>(QString());
    QTest::newRow("text named like a pdf yields nothing")
        << "resume.pdf" << QByteArray("Jane Doe\n") << std::optional<QString>();
}

void ResumeImporterTest::readsResumeFiles() {
    QFETCH(QString, name);
    QFETCH(QByteArray, contents);
    QFETCH(std::optional<QString>, expected);

    QFile file(dir_.filePath(name));
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(contents), contents.size());
    file.close();

    QCOMPARE(ResumeImporter::text(file.fileName()), expected);
}

QTEST_MAIN(ResumeImporterTest)
#include "tst_resumeimporter.moc"
