// Shows the overlay the way the desktop program does at launch (over the program's own session and
// settings) and prints "shown" once the panel has painted its first frame. With --exit it then quits,
// for timing launches; otherwise it stays, for reading its resident memory.

#include "appsettings.h"
#include "overlaypanel.h"
#include "overlayview.h"
#include "sessioncontroller.h"

#include <QApplication>
#include <QTextStream>
#include <QTimer>

namespace {

class FirstPaint : public QObject {
public:
    explicit FirstPaint(bool exitAfter) : exitAfter_(exitAfter) {}

protected:
    bool eventFilter(QObject*, QEvent* event) override {
        if (event->type() == QEvent::Paint && !seen_) {
            seen_ = true;
            // Reported once the paint has been flushed to the window, after this event.
            QTimer::singleShot(0, [this] {
                QTextStream(stdout) << "shown" << Qt::endl;
                if (exitAfter_) {
                    QApplication::quit();
                }
            });
        }
        return false;
    }

private:
    bool exitAfter_;
    bool seen_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    FirstPaint firstPaint(QApplication::arguments().contains(QStringLiteral("--exit")));
    OverlayPanel panel(SessionController::shared(), AppSettings::shared());
    panel.view().installEventFilter(&firstPaint);
    panel.bringToFront();
    return QApplication::exec();
}
