// The line splitter under the model's event stream: lines survive however the body is cut into reads.

#include "streamlines.h"

#include <QTest>

Q_DECLARE_METATYPE(std::vector<std::string>)

class TestStreamLines : public QObject {
    Q_OBJECT

private slots:
    void linesAreTheSameWhereverTheBodyIsCut_data() {
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<std::vector<std::string>>("lines");

        const auto row = [](const char* name, const QByteArray& body, const std::vector<std::string>& lines) {
            QTest::newRow(name) << body << lines;
        };
        row("line feeds", "data: a\n\ndata: b\n", {"data: a", "", "data: b"});
        row("carriage return and line feed", "data: a\r\n\r\ndata: b\r\n", {"data: a", "", "data: b"});
        row("lone carriage returns", "data: a\r\rdata: b\r", {"data: a", "", "data: b"});
        row("no terminator at the end", "data: a\ndata: [DONE]", {"data: a", "data: [DONE]"});
        row("multi-byte text", "data: caf\xc3\xa9 \xe2\x80\xa6\n", {"data: caf\xc3\xa9 \xe2\x80\xa6"});
        row("empty body", {}, {});
    }

    void linesAreTheSameWhereverTheBodyIsCut() {
        QFETCH(QByteArray, body);
        QFETCH(std::vector<std::string>, lines);
        for (qsizetype cut = 0; cut <= body.size(); ++cut) {
            server::StreamLines splitter;
            auto got = splitter.feed(std::string_view(body.constData(), static_cast<std::size_t>(cut)));
            for (auto& line : splitter.feed(
                     std::string_view(body.constData() + cut, static_cast<std::size_t>(body.size() - cut)))) {
                got.push_back(std::move(line));
            }
            if (auto last = splitter.finish(); !last.empty()) {
                got.push_back(std::move(last));
            }
            QVERIFY2(got == lines, qPrintable(QStringLiteral("cut at byte %1").arg(cut)));
        }
    }
};

QTEST_GUILESS_MAIN(TestStreamLines)
#include "tst_streamlines.moc"
