#pragma once

#include <QPixmap>
#include <QWidget>

class QPainterPath;

class AnswerText;
class AppSettings;
class QAbstractButton;
class QLabel;
class QScrollArea;
class SessionController;

// The content of the floating overlay: a header with the listening switch, the health of both audio
// sources and five action buttons; a strip with the last two transcript lines and the words being heard;
// the question and its streamed answer; and the session's notice. It shows the session's and the
// settings' state as they change and forwards presses; what belongs to the shell (click-through, the
// settings window, hiding the panel) it asks for through signals. Always dark, on a translucent
// rounded background. Main thread only.
class OverlayView : public QWidget {
    Q_OBJECT

public:
    OverlayView(SessionController& session, AppSettings& settings, QWidget* parent = nullptr);
    ~OverlayView() override;

signals:
    void clickThroughToggleRequested();
    void settingsRequested();
    void hideRequested();

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QPainterPath outline() const;
    void buildHeader(QWidget* header);
    void buildStrip(QWidget* strip);
    void buildAnswerArea();

    void showHeader();
    void showStrip();
    void showAnswer();
    void showNotice();

    SessionController& session_;
    AppSettings& settings_;

    QAbstractButton* listeningSwitch_ = nullptr;
    QWidget* callDot_ = nullptr;
    QWidget* micDot_ = nullptr;
    QAbstractButton* clickThroughButton_ = nullptr;

    QLabel* stripPlaceholder_ = nullptr;
    QList<QWidget*> rows_;

    QScrollArea* answerScroll_ = nullptr;
    QLabel* question_ = nullptr;
    QWidget* spinner_ = nullptr;
    AnswerText* answerText_ = nullptr;
    QLabel* answerPlaceholder_ = nullptr;
    // Set by a change of the answer, cleared when the user scrolls: until then every growth of the
    // content keeps the end of the answer at the bottom edge.
    bool followEnd_ = false;

    QWidget* noticeBar_ = nullptr;
    QLabel* noticeText_ = nullptr;
    QPixmap background_;
};
