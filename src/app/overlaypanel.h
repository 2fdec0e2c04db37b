#pragma once

#include <QPoint>
#include <QRect>
#include <QWidget>

class AppSettings;
class OverlayView;
class SessionController;

// The small floating window that hosts the overlay view. It stays above other windows on every
// desktop, never takes the keyboard focus from the call, has no taskbar entry, is drawn translucent with
// rounded corners, moves when its background is dragged and resizes from its edges. It first appears
// 440×520 in the top-right corner of the primary screen and afterwards where the user left it: the frame
// is kept in the settings file under "TallowindOverlay". Opacity and click-through come from the settings
// through applySettings(). It is not shown by its construction.
class OverlayPanel : public QWidget {
    Q_OBJECT

public:
    static constexpr QSize defaultSize{440, 520};
    // Between the first placement and the right and top edges of the screen's available area.
    static constexpr int screenMargin = 20;
    static constexpr const char* frameGroup = "TallowindOverlay";

    OverlayPanel(SessionController& session, AppSettings& settings, QWidget* parent = nullptr);
    ~OverlayPanel() override;

    OverlayView& view() { return *view_; }
    // Whether screenshots and screen sharing leave the panel out; see excludeFromCapture.
    bool isHiddenFromCapture() const { return hiddenFromCapture_; }

    void setVisible(bool visible) override;

public slots:
    // Takes the opacity and click-through from the settings; every writer of those two calls it.
    void applySettings();
    // Hides the panel when it is shown, else brings it to the front.
    void toggleVisible();
    // Shows and raises the panel without taking the focus from the window the user is in.
    void bringToFront();

signals:
    // What the view asks of the shell.
    void clickThroughToggleRequested();
    void settingsRequested();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void moveEvent(QMoveEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;

private:
    // A move or resize the panel carries out itself, where the window manager cannot.
    struct Drag {
        bool active = false;
        Qt::Edges edges;  // none for a move
        QPoint origin;
        QRect start;
    };

    void place();
    void saveFrame();
    Qt::Edges edgesAt(const QPoint& position) const;
    void beginDrag(Qt::Edges edges, const QPoint& globalPosition);
    void dragTo(const QPoint& globalPosition);
    void roundCorners();

    // Window-system parts, in the platform's own file.
    void applyWindowHints();
    static bool hasCompositor();
    static bool excludeFromCapture(QWidget& window);

    AppSettings& settings_;
    OverlayView* view_ = nullptr;
    bool hiddenFromCapture_ = false;
    Drag drag_;
};
