#include "scenes.h"

#include <QApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QLinearGradient>
#include <QPainter>
#include <QScreen>
#include <QTextStream>
#include <QTimer>

std::vector<Scene>& scenes() {
    static std::vector<Scene> list;
    return list;
}

SceneRegistration::SceneRegistration(std::initializer_list<Scene> list) {
    scenes().insert(scenes().end(), list.begin(), list.end());
}

namespace {

// Stands in for a desktop with a call on it, so that the overlay's translucency has something to show.
class Backdrop : public QWidget {
protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        QLinearGradient gradient(0, 0, width(), height());
        gradient.setColorAt(0, QColor(0x3b, 0x5b, 0x8c));
        gradient.setColorAt(1, QColor(0xc9, 0xd6, 0xe3));
        painter.fillRect(rect(), gradient);
        painter.setPen(QColor(255, 255, 255, 90));
        for (int x = 0; x < width(); x += 48) {
            painter.drawLine(x, 0, x, height());
        }
    }
};

void settle(int ms) {
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < ms) {
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
}

}  // namespace

// tallowind_screenshots OUTPUT_DIR [NAME...]: saves every scene, or the named ones.
int main(int argc, char* argv[]) {
    QApplication app(argc, argv);
    const QStringList args = QApplication::arguments().mid(1);
    if (args.isEmpty()) {
        QTextStream(stderr) << "usage: tallowind_screenshots OUTPUT_DIR [NAME...]\n";
        return 2;
    }
    const QDir output(args.first());
    const QStringList only = args.mid(1);

    Backdrop backdrop;
    backdrop.setGeometry(QApplication::primaryScreen()->geometry());
    backdrop.show();
    settle(200);

    int saved = 0;
    for (const Scene& scene : scenes()) {
        if (!only.isEmpty() && !only.contains(scene.name)) {
            continue;
        }
        std::unique_ptr<QWidget> window = scene.make();
        window->show();
        window->raise();
        settle(scene.settleMs);
        const QRect frame = window->frameGeometry();
        const QPixmap shot =
            QApplication::primaryScreen()->grabWindow(0, frame.x(), frame.y(), frame.width(), frame.height());
        const QString path = output.filePath(scene.name + QStringLiteral(".png"));
        if (!shot.save(path)) {
            QTextStream(stderr) << "couldn't write " << path << "\n";
            return 1;
        }
        QTextStream(stdout) << path << "\n";
        ++saved;
    }
    return saved > 0 ? 0 : 1;
}
