// Chunk to painted: an answer of about 20 KB with paragraphs, bullets and a code block arrives in 400
// pieces; for each, the time from the session's change signal until the panel has painted and flushed.
// Prints the median, the 99th percentile and the slowest piece in milliseconds, as wall-clock time and as
// the processor time of the main thread (which leaves out waiting for a processor on a busy machine).

#include "fakesession.h"
#include "overlaypanel.h"
#include "overlayview.h"

#include <QApplication>
#include <QElapsedTimer>
#include <QTextStream>
#include <QWindow>

#include <algorithm>
#include <ctime>
#include <vector>

namespace {

QString answerOf(qsizetype bytes) {
    const QString section = QStringLiteral(
        "In my last role I owned the **billing pipeline** end to end, from the `invoice` service to the "
        "reports finance reads every morning, and I rebuilt it when volume tripled.\n\n"
        "- Split the nightly batch into **hourly** runs so a failure costs one hour, not a day.\n"
        "- Moved retries into a queue with `max_attempts = 5` and alerts on the dead letters.\n"
        "- Cut the run time from *four hours* to twenty minutes.\n\n"
        "```python\n"
        "for invoice in pending(batch):\n"
        "    charge(invoice, idempotency_key=invoice.id)\n"
        "```\n\n");
    QString text;
    while (text.toUtf8().size() < bytes) {
        text += section;
    }
    return text;
}

double threadMs() {
    timespec now{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return static_cast<double>(now.tv_sec) * 1e3 + static_cast<double>(now.tv_nsec) / 1e6;
}

QString percentiles(std::vector<double> ms) {
    std::sort(ms.begin(), ms.end());
    const auto at = [&ms](double q) {
        return QString::number(ms[static_cast<std::size_t>(q * static_cast<double>(ms.size() - 1))], 'f', 2);
    };
    return QStringLiteral("median %1 ms, p99 %2 ms, slowest %3 ms").arg(at(0.5), at(0.99), at(1.0));
}

// Counts the panel's paints, so that every figure is known to include one.
class PaintCounter : public QObject {
public:
    int paints = 0;

protected:
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::Paint) {
            ++paints;
        }
        return false;
    }
};

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    FakeSession fake;
    OverlayPanel panel(fake.session(), fake.settings());
    panel.bringToFront();
    while (!panel.windowHandle() || !panel.windowHandle()->isExposed()) {
        QApplication::processEvents(QEventLoop::WaitForMoreEvents, 50);
    }
    PaintCounter counter;
    panel.view().installEventFilter(&counter);

    constexpr int pieceCount = 400;
    const QString answer = answerOf(20 * 1024);
    const qsizetype pieceSize = (answer.size() + pieceCount - 1) / pieceCount;
    fake.listen();
    fake.ask(QStringLiteral("Tell me about a system you rebuilt."));
    QApplication::processEvents();

    std::vector<double> wall;
    std::vector<double> processor;
    QElapsedTimer timer;
    for (qsizetype at = 0; at < answer.size(); at += pieceSize) {
        const int paintsBefore = counter.paints;
        timer.start();
        const double processorStart = threadMs();
        fake.answerPiece(answer.mid(at, pieceSize));
        // Layout requests and the window's update request are posted; sending them lays out, paints
        // and flushes the backing store to the window.
        QCoreApplication::sendPostedEvents();
        wall.push_back(static_cast<double>(timer.nsecsElapsed()) / 1e6);
        processor.push_back(threadMs() - processorStart);
        if (counter.paints == paintsBefore) {
            QTextStream(stderr) << "a piece was not painted\n";
            return 1;
        }
        // What the event loop would also do between two network reads.
        QApplication::processEvents();
    }

    QTextStream(stdout) << "chunk to painted, " << wall.size() << " pieces, " << answer.toUtf8().size()
                        << " bytes: " << percentiles(wall) << "\n"
                        << "  processor time of the main thread: " << percentiles(processor) << "\n";
    return 0;
}
