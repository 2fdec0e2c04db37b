#include "overlaypanel.h"

#include "appsettings.h"
#include "overlaymetrics.h"
#include "overlayview.h"

#include <QGuiApplication>
#include <QMouseEvent>
#include <QPainterPath>
#include <QScreen>
#include <QSettings>
#include <QVBoxLayout>
#include <QWindow>

namespace {

// How far from the border a press resizes rather than moves, and how far along an edge its corner's
// grip reaches: the rounded corners leave little of the corner itself to press.
constexpr int edgeGrip = 6;
constexpr int cornerGrip = 16;

Qt::CursorShape cursorFor(Qt::Edges edges) {
    const bool horizontal = edges & (Qt::LeftEdge | Qt::RightEdge);
    const bool vertical = edges & (Qt::TopEdge | Qt::BottomEdge);
    if (horizontal && vertical) {
        const bool falling =
            edges == (Qt::TopEdge | Qt::LeftEdge) || edges == (Qt::BottomEdge | Qt::RightEdge);
        return falling ? Qt::SizeFDiagCursor : Qt::SizeBDiagCursor;
    }
    return horizontal ? Qt::SizeHorCursor : Qt::SizeVerCursor;
}

}  // namespace

OverlayPanel::OverlayPanel(SessionController& session, AppSettings& settings, QWidget* parent)
    : QWidget(parent,
              Qt::Tool | Qt::FramelessWindowHint | Qt::WindowStaysOnTopHint | Qt::WindowDoesNotAcceptFocus)
    , settings_(settings)
    , view_(new OverlayView(session, settings, this)) {
    setWindowTitle(QStringLiteral("Tallowind Overlay"));
    setAttribute(Qt::WA_TranslucentBackground);
    setAttribute(Qt::WA_ShowWithoutActivating);
    setMinimumSize(OverlayMetrics::minimumWidth, OverlayMetrics::minimumHeight);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(view_);
    connect(view_, &OverlayView::hideRequested, this, &QWidget::hide);
    connect(view_, &OverlayView::clickThroughToggleRequested, this,
            &OverlayPanel::clickThroughToggleRequested);
    connect(view_, &OverlayView::settingsRequested, this, &OverlayPanel::settingsRequested);

    place();
    applySettings();
    hiddenFromCapture_ = excludeFromCapture(*this);
}

OverlayPanel::~OverlayPanel() = default;

void OverlayPanel::place() {
    QRect frame(QPoint(0, 0), defaultSize);
    if (const QScreen* screen = QGuiApplication::primaryScreen()) {
        const QRect area = screen->availableGeometry();
        frame.moveTopRight(QPoint(area.right() - screenMargin, area.top() + screenMargin));
    }
    QSettings& store = settings_.store();
    store.beginGroup(QLatin1String(frameGroup));
    bool complete = true;
    int values[4] = {};
    const char* keys[4] = {"x", "y", "width", "height"};
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        values[i] = store.value(QLatin1String(keys[i])).toInt(&ok);
        complete = complete && ok;
    }
    store.endGroup();
    const QRect saved(values[0], values[1], std::max(values[2], minimumWidth()),
                      std::max(values[3], minimumHeight()));
    // A frame left on a monitor that is gone would put the panel out of reach.
    if (complete && QGuiApplication::screenAt(saved.center())) {
        frame = saved;
    }
    setGeometry(frame);
}

void OverlayPanel::saveFrame() {
    // Only what the user (or the window manager) did to a shown panel counts, not the placement.
    if (!isVisible()) {
        return;
    }
    const QRect frame = geometry();
    QSettings& store = settings_.store();
    store.beginGroup(QLatin1String(frameGroup));
    store.setValue(QStringLiteral("x"), frame.x());
    store.setValue(QStringLiteral("y"), frame.y());
    store.setValue(QStringLiteral("width"), frame.width());
    store.setValue(QStringLiteral("height"), frame.height());
    store.endGroup();
}

void OverlayPanel::applySettings() {
    setWindowOpacity(settings_.overlayOpacity());
    // Set on the native window, not through setWindowFlags, which would hide the panel to recreate it.
    Qt::WindowFlags flags = windowFlags();
    flags.setFlag(Qt::WindowTransparentForInput, settings_.clickThrough());
    overrideWindowFlags(flags);
    if (QWindow* window = windowHandle()) {
        window->setFlags(flags);
    }
}

void OverlayPanel::toggleVisible() {
    if (isVisible()) {
        hide();
    } else {
        bringToFront();
    }
}

void OverlayPanel::bringToFront() {
    show();
    raise();
}

void OverlayPanel::setVisible(bool visible) {
    if (visible && !isVisible()) {
        winId();
        applyWindowHints();
        if (QWindow* window = windowHandle()) {
            window->installEventFilter(this);
        }
        roundCorners();
    }
    QWidget::setVisible(visible);
}

Qt::Edges OverlayPanel::edgesAt(const QPoint& position) const {
    Qt::Edges edges;
    edges.setFlag(Qt::LeftEdge, position.x() < edgeGrip);
    edges.setFlag(Qt::RightEdge, position.x() >= width() - edgeGrip);
    edges.setFlag(Qt::TopEdge, position.y() < edgeGrip);
    edges.setFlag(Qt::BottomEdge, position.y() >= height() - edgeGrip);
    if (edges & (Qt::LeftEdge | Qt::RightEdge)) {
        edges.setFlag(Qt::TopEdge, position.y() < cornerGrip);
        edges.setFlag(Qt::BottomEdge, position.y() >= height() - cornerGrip);
    } else if (edges & (Qt::TopEdge | Qt::BottomEdge)) {
        edges.setFlag(Qt::LeftEdge, position.x() < cornerGrip);
        edges.setFlag(Qt::RightEdge, position.x() >= width() - cornerGrip);
    }
    return edges;
}

// The window sees every mouse event before the view's widgets do, so the edges work wherever the view
// has put a child.
bool OverlayPanel::eventFilter(QObject* watched, QEvent* event) {
    if (watched != windowHandle()) {
        return false;
    }
    switch (event->type()) {
        case QEvent::MouseButtonPress: {
            const auto* press = static_cast<QMouseEvent*>(event);
            const Qt::Edges edges = edgesAt(press->position().toPoint());
            if (press->button() != Qt::LeftButton || !edges) {
                return false;
            }
            if (!windowHandle()->startSystemResize(edges)) {
                beginDrag(edges, press->globalPosition().toPoint());
            }
            return true;
        }
        case QEvent::MouseMove: {
            const auto* move = static_cast<QMouseEvent*>(event);
            if (drag_.active) {
                dragTo(move->globalPosition().toPoint());
                return true;
            }
            if (move->buttons() == Qt::NoButton) {
                const Qt::Edges edges = edgesAt(move->position().toPoint());
                if (edges) {
                    setCursor(cursorFor(edges));
                } else {
                    unsetCursor();
                }
            }
            return false;
        }
        case QEvent::MouseButtonRelease:
            if (drag_.active) {
                drag_.active = false;
                return true;
            }
            return false;
        case QEvent::Leave:
            unsetCursor();
            return false;
        default:
            return false;
    }
}

// Presses on the background reach the panel because the view's parts do not take them.
void OverlayPanel::mousePressEvent(QMouseEvent* event) {
    if (event->button() != Qt::LeftButton) {
        QWidget::mousePressEvent(event);
        return;
    }
    if (!windowHandle()->startSystemMove()) {
        beginDrag({}, event->globalPosition().toPoint());
    }
    event->accept();
}

// Without a window manager that moves and resizes windows for their clients, the panel follows the
// pointer itself.
void OverlayPanel::beginDrag(Qt::Edges edges, const QPoint& globalPosition) {
    drag_ = {true, edges, globalPosition, geometry()};
}

void OverlayPanel::dragTo(const QPoint& globalPosition) {
    const QPoint delta = globalPosition - drag_.origin;
    QRect frame = drag_.start;
    if (!drag_.edges) {
        frame.translate(delta);
    } else {
        if (drag_.edges & Qt::LeftEdge) {
            frame.setLeft(std::min(frame.left() + delta.x(), frame.right() + 1 - minimumWidth()));
        }
        if (drag_.edges & Qt::RightEdge) {
            frame.setRight(std::max(frame.right() + delta.x(), frame.left() - 1 + minimumWidth()));
        }
        if (drag_.edges & Qt::TopEdge) {
            frame.setTop(std::min(frame.top() + delta.y(), frame.bottom() + 1 - minimumHeight()));
        }
        if (drag_.edges & Qt::BottomEdge) {
            frame.setBottom(std::max(frame.bottom() + delta.y(), frame.top() - 1 + minimumHeight()));
        }
    }
    setGeometry(frame);
}

void OverlayPanel::moveEvent(QMoveEvent* event) {
    QWidget::moveEvent(event);
    saveFrame();
}

void OverlayPanel::resizeEvent(QResizeEvent* event) {
    QWidget::resizeEvent(event);
    roundCorners();
    saveFrame();
}

// Without a compositor a translucent window shows black where it is transparent; a mask cuts the
// corners instead, at the price of their smoothing.
void OverlayPanel::roundCorners() {
    if (!windowHandle() || hasCompositor()) {
        clearMask();
        return;
    }
    QPainterPath outline;
    outline.addRoundedRect(QRectF(rect()), OverlayMetrics::cornerRadius, OverlayMetrics::cornerRadius);
    setMask(QRegion(outline.toFillPolygon().toPolygon()));
}
