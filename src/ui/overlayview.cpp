#include "overlayview.h"

#include "answertext.h"
#include "appsettings.h"
#include "overlaymetrics.h"
#include "sessioncontroller.h"
#include "shortcuts.h"

#include <QAbstractButton>
#include <QHBoxLayout>
#include <QHash>
#include <QLabel>
#include <QPaintEvent>
#include <QPainter>
#include <QPainterPath>
#include <QScrollArea>
#include <QScrollBar>
#include <QSvgRenderer>
#include <QTextLayout>
#include <QTimer>
#include <QVBoxLayout>

#include <cmath>

// Resources of a static library must be pulled in by name, from the global namespace.
static void initOverlayIcons() {
    Q_INIT_RESOURCE(overlayicons);
}

namespace M = OverlayMetrics;
using Health = SessionController::Health;

namespace {

QString withKeys(const QString& text, Shortcuts::Action action) {
    return text + QStringLiteral(" (") + Shortcuts::keys(action) + QLatin1Char(')');
}

void setTextColor(QWidget* widget, const QColor& color) {
    QPalette palette = widget->palette();
    palette.setColor(QPalette::WindowText, color);
    palette.setColor(QPalette::Text, color);
    widget->setPalette(palette);
}

QLabel* makeLabel(int pixelSize, QFont::Weight weight, const QColor& color, QWidget* parent) {
    auto* label = new QLabel(parent);
    label->setFont(M::font(pixelSize, weight));
    label->setWordWrap(true);
    label->setMinimumWidth(1);
    setTextColor(label, color);
    return label;
}

void drawDot(QPainter& painter, const QRectF& box, const QColor& color) {
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(color);
    painter.drawEllipse(box);
}

// A monochrome icon from the resources, tinted.
QPixmap tintedIcon(const QString& symbol, const QColor& color, qreal ratio) {
    static QHash<QString, QPixmap> cache;
    const QString key = symbol + color.name(QColor::HexArgb) + QString::number(ratio);
    if (const auto found = cache.constFind(key); found != cache.cend()) {
        return *found;
    }
    const int side = static_cast<int>(std::ceil(M::iconPx * ratio));
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    QPainter painter(&image);
    QSvgRenderer(QStringLiteral(":/overlayicons/%1.svg").arg(symbol)).render(&painter);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(image.rect(), color);
    painter.end();
    QPixmap pixmap = QPixmap::fromImage(image);
    pixmap.setDevicePixelRatio(ratio);
    cache.insert(key, pixmap);
    return pixmap;
}

// The plain switch at the start of the header: a red dot and "Listening" while running, a grey dot and
// "Start" otherwise.
class ListeningSwitch : public QAbstractButton {
    Q_OBJECT
    Q_PROPERTY(bool running READ running)

public:
    explicit ListeningSwitch(QWidget* parent) : QAbstractButton(parent) {
        setFont(M::font(M::switchFontPx, QFont::DemiBold));
        setCursor(Qt::PointingHandCursor);
        setFocusPolicy(Qt::TabFocus);
        setRunning(false);
    }

    bool running() const { return running_; }
    void setRunning(bool running) {
        running_ = running;
        setText(running ? QStringLiteral("Listening") : QStringLiteral("Start"));
        updateGeometry();
        update();
    }

    QSize sizeHint() const override {
        const QFontMetrics metrics(font());
        return {M::switchDot + M::switchGap + metrics.horizontalAdvance(text()) + 1,
                std::max(metrics.height(), M::iconButton)};
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        const qreal middle = height() / 2.0;
        drawDot(painter, QRectF(0, middle - M::switchDot / 2.0, M::switchDot, M::switchDot),
                running_ ? M::red : M::secondary);
        painter.setPen(underMouse() || isDown() ? M::primary : M::primary.darker(108));
        painter.setFont(font());
        const QRect textBox(M::switchDot + M::switchGap, 0, width() - M::switchDot - M::switchGap, height());
        painter.drawText(textBox, Qt::AlignLeft | Qt::AlignVCenter, text());
        if (hasFocus()) {
            painter.setPen(M::link);
            painter.setBrush(Qt::NoBrush);
            painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), 4, 4);
        }
    }
    void enterEvent(QEnterEvent*) override { update(); }
    void leaveEvent(QEvent*) override { update(); }

private:
    bool running_ = false;
};

// A small dot with a label that shows the health of one audio source.
class HealthDot : public QWidget {
    Q_OBJECT
    Q_PROPERTY(SessionController::Health health READ health)

public:
    HealthDot(const QString& label, QWidget* parent) : QWidget(parent), label_(label) {
        setFont(M::font(M::healthFontPx));
        setHealth(Health::off);
    }

    Health health() const { return health_; }
    void setHealth(Health health) {
        health_ = health;
        const QString state = [health] {
            switch (health) {
                case Health::off:
                    return QStringLiteral(": off");
                case Health::connecting:
                    return QStringLiteral(": connecting");
                case Health::ok:
                    return QStringLiteral(": working");
                case Health::problem:
                    return QStringLiteral(": problem \u2014 see the message below");
            }
            return QString();
        }();
        setToolTip(label_ + state);
        // The dot's colour says what the tooltip says; a screen reader gets the words.
        setAccessibleName(toolTip());
        update();
    }

    QSize sizeHint() const override {
        const QFontMetrics metrics(font());
        return {M::healthDot + M::healthGap + metrics.horizontalAdvance(label_) + 1, metrics.height()};
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        const qreal middle = height() / 2.0;
        const QColor color = [this] {
            switch (health_) {
                case Health::off: {
                    QColor grey = M::grey;
                    grey.setAlphaF(0.5f);
                    return grey;
                }
                case Health::connecting:
                    return M::yellow;
                case Health::ok:
                    return M::green;
                case Health::problem:
                    return M::red;
            }
            return M::grey;
        }();
        drawDot(painter, QRectF(0, middle - M::healthDot / 2.0, M::healthDot, M::healthDot), color);
        painter.setPen(M::secondary);
        painter.setFont(font());
        painter.drawText(QRect(M::healthDot + M::healthGap, 0, width(), height()),
                         Qt::AlignLeft | Qt::AlignVCenter, label_);
    }

private:
    QString label_;
    Health health_ = Health::off;
};

// A borderless button showing a tinted icon, with its tooltip as its accessible name.
class IconButton : public QAbstractButton {
    Q_OBJECT
    Q_PROPERTY(QString symbol READ symbol)

public:
    IconButton(const QString& symbol, const QString& help, QWidget* parent) : QAbstractButton(parent) {
        setSymbol(symbol);
        setToolTip(help);
        setAccessibleName(help);
        setFixedSize(M::iconButton, M::iconButton);
        setFocusPolicy(Qt::TabFocus);
    }

    const QString& symbol() const { return symbol_; }
    void setSymbol(const QString& symbol) {
        symbol_ = symbol;
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF box = QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5);
        const bool hot = underMouse() || isDown();
        if (hot) {
            painter.setPen(Qt::NoPen);
            painter.setBrush(isDown() ? M::hoverBackground.lighter(150) : M::hoverBackground);
            painter.drawRoundedRect(box, 6, 6);
        }
        if (hasFocus()) {
            painter.setPen(M::link);
            painter.setBrush(Qt::NoBrush);
            painter.drawRoundedRect(box, 6, 6);
        }
        const QPixmap icon = tintedIcon(symbol_, hot ? M::primary : M::secondary, devicePixelRatioF());
        const QPointF corner((width() - M::iconPx) / 2.0, (height() - M::iconPx) / 2.0);
        painter.drawPixmap(corner, icon);
    }
    void enterEvent(QEnterEvent*) override { update(); }
    void leaveEvent(QEvent*) override { update(); }

private:
    QString symbol_;
};

// How many lines `text` takes at `width`, counting no further than `limit` + 1.
int lineCount(const QString& text, const QFont& font, qreal width, int limit) {
    QTextLayout layout(text, font);
    QTextOption option;
    option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
    layout.setTextOption(option);
    layout.beginLayout();
    int lines = 0;
    while (lines <= limit) {
        QTextLine line = layout.createLine();
        if (!line.isValid()) {
            break;
        }
        line.setLineWidth(width);
        ++lines;
    }
    layout.endLayout();
    return lines;
}

// `text` cut at its beginning, behind an ellipsis, so that its end fits in `maxLines` lines: the newest
// words of a long utterance stay in view.
QString cutAtBeginning(const QString& text, const QFont& font, qreal width, int maxLines) {
    if (width <= 0 || lineCount(text, font, width, maxLines) <= maxLines) {
        return text;
    }
    const QString ellipsis = QStringLiteral("\u2026");
    qsizetype low = 1;
    qsizetype high = text.size();
    while (low < high) {
        const qsizetype middle = (low + high) / 2;
        if (lineCount(ellipsis + text.sliced(middle), font, width, maxLines) <= maxLines) {
            high = middle;
        } else {
            low = middle + 1;
        }
    }
    if (low < text.size() && text[low].isLowSurrogate()) {
        ++low;
    }
    return ellipsis + text.sliced(low).trimmed();
}

// One row of the strip: the speaker's tag in a narrow column, then the text, dimmed while it is still
// being heard and cut at its beginning when it needs more than two lines.
class TranscriptRow : public QWidget {
    Q_OBJECT
    Q_PROPERTY(QString tag READ tag)
    Q_PROPERTY(QString text READ text)
    Q_PROPERTY(bool live READ live)
    Q_PROPERTY(QString shownText READ shownText)

public:
    explicit TranscriptRow(QWidget* parent) : QWidget(parent), textFont_(M::font(M::stripFontPx)) {
        QSizePolicy policy(QSizePolicy::Preferred, QSizePolicy::Fixed);
        policy.setHeightForWidth(true);
        setSizePolicy(policy);
        setMinimumWidth(1);
    }

    QString tag() const {
        return speaker_ == Speaker::interviewer ? QStringLiteral("THEM") : QStringLiteral("YOU");
    }
    const QString& text() const { return text_; }
    bool live() const { return live_; }
    const QString& shownText() const { return shown_; }

    void setLine(Speaker speaker, const QString& text, bool live) {
        if (speaker == speaker_ && text == text_ && live == live_) {
            return;
        }
        speaker_ = speaker;
        text_ = text;
        live_ = live;
        setAccessibleName(tag() + QStringLiteral(": ") + text_);
        cut();
        updateGeometry();
        update();
    }

    bool hasHeightForWidth() const override { return true; }
    int heightForWidth(int width) const override {
        const int lines =
            std::min(lineCount(text_, textFont_, textWidth(width), M::stripMaxLines), M::stripMaxLines);
        return std::max(lines, 1) * lineHeight();
    }
    QSize sizeHint() const override { return {200, heightForWidth(200)}; }

protected:
    void resizeEvent(QResizeEvent*) override { cut(); }

    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        const QFontMetrics textMetrics(textFont_);
        const QFont tagFont = M::font(M::tagFontPx, QFont::Bold);
        painter.setFont(tagFont);
        painter.setPen(speaker_ == Speaker::interviewer ? M::cyan : M::green);
        painter.drawText(QPoint(0, textMetrics.ascent()), tag());

        painter.setPen(live_ ? M::secondary : M::primary);
        QTextLayout layout(shown_, textFont_);
        QTextOption option;
        option.setWrapMode(QTextOption::WrapAtWordBoundaryOrAnywhere);
        layout.setTextOption(option);
        layout.beginLayout();
        for (int i = 0; i < M::stripMaxLines; ++i) {
            QTextLine line = layout.createLine();
            if (!line.isValid()) {
                break;
            }
            line.setLineWidth(textWidth(width()));
            line.setPosition(QPointF(0, i * lineHeight()));
        }
        layout.endLayout();
        layout.draw(&painter, QPointF(M::tagWidth + M::tagGap, 0));
    }

private:
    static qreal textWidth(int width) { return width - M::tagWidth - M::tagGap; }
    int lineHeight() const { return QFontMetrics(textFont_).height(); }
    void cut() { shown_ = cutAtBeginning(text_, textFont_, textWidth(width()), M::stripMaxLines); }

    QFont textFont_;
    Speaker speaker_ = Speaker::interviewer;
    QString text_;
    bool live_ = false;
    QString shown_;
};

// A small spinning arc, turning only while shown.
class Spinner : public QWidget {
    Q_OBJECT

public:
    explicit Spinner(QWidget* parent) : QWidget(parent) {
        setFixedSize(M::spinnerPx, M::spinnerPx);
        setAccessibleName(QStringLiteral("Answering"));
        timer_.setInterval(33);
        connect(&timer_, &QTimer::timeout, this, [this] {
            angle_ = (angle_ + 12) % 360;
            update();
        });
    }

protected:
    void showEvent(QShowEvent*) override { timer_.start(); }
    void hideEvent(QHideEvent*) override { timer_.stop(); }
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF box = QRectF(rect()).adjusted(2, 2, -2, -2);
        QColor track = M::secondary;
        track.setAlphaF(0.25f);
        painter.setPen(QPen(track, 2));
        painter.drawEllipse(box);
        painter.setPen(QPen(M::secondary, 2, Qt::SolidLine, Qt::RoundCap));
        painter.drawArc(box, -angle_ * 16, 100 * 16);
    }

private:
    QTimer timer_;
    int angle_ = 0;
};

class Divider : public QWidget {
public:
    explicit Divider(QWidget* parent) : QWidget(parent) { setFixedHeight(1); }

protected:
    void paintEvent(QPaintEvent*) override { QPainter(this).fillRect(rect(), M::divider); }
};

}  // namespace

OverlayView::OverlayView(SessionController& session, AppSettings& settings, QWidget* parent)
    : QWidget(parent), session_(session), settings_(settings) {
    initOverlayIcons();
    setMinimumSize(M::minimumWidth, M::minimumHeight);
    setAccessibleName(QStringLiteral("Tallowind Overlay"));

    QPalette dark = palette();
    for (const auto role : {QPalette::Window, QPalette::Base, QPalette::Button}) {
        dark.setColor(role, Qt::transparent);
    }
    for (const auto role :
         {QPalette::WindowText, QPalette::Text, QPalette::ButtonText, QPalette::BrightText}) {
        dark.setColor(role, M::primary);
    }
    dark.setColor(QPalette::PlaceholderText, M::secondary);
    dark.setColor(QPalette::Link, M::link);
    dark.setColor(QPalette::LinkVisited, M::link);
    dark.setColor(QPalette::Highlight, M::selection);
    dark.setColor(QPalette::HighlightedText, Qt::white);
    setPalette(dark);

    auto* column = new QVBoxLayout(this);
    column->setContentsMargins(0, 0, 0, 0);
    column->setSpacing(0);

    auto* header = new QWidget(this);
    buildHeader(header);
    column->addWidget(header);
    column->addWidget(new Divider(this));
    auto* strip = new QWidget(this);
    buildStrip(strip);
    column->addWidget(strip);
    column->addWidget(new Divider(this));
    buildAnswerArea();
    column->addWidget(answerScroll_, 1);

    noticeBar_ = new QWidget(this);
    noticeBar_->setObjectName(QStringLiteral("noticeBar"));
    auto* noticeLayout = new QVBoxLayout(noticeBar_);
    noticeLayout->setContentsMargins(M::noticeMargins);
    noticeText_ = makeLabel(M::noticeFontPx, QFont::Normal, M::orange, noticeBar_);
    noticeText_->setObjectName(QStringLiteral("notice"));
    noticeLayout->addWidget(noticeText_);
    column->addWidget(noticeBar_);

    connect(&session_, &SessionController::isRunningChanged, this, [this] {
        showHeader();
        showStrip();
    });
    connect(&session_, &SessionController::systemAudioChanged, this, &OverlayView::showHeader);
    connect(&session_, &SessionController::micChanged, this, &OverlayView::showHeader);
    connect(&settings_, &AppSettings::useMicChanged, this, &OverlayView::showHeader);
    connect(&settings_, &AppSettings::clickThroughChanged, this, &OverlayView::showHeader);
    connect(&session_, &SessionController::linesChanged, this, &OverlayView::showStrip);
    connect(&session_, &SessionController::interimInterviewerChanged, this, &OverlayView::showStrip);
    connect(&session_, &SessionController::interimMeChanged, this, &OverlayView::showStrip);
    connect(&session_, &SessionController::questionChanged, this, &OverlayView::showAnswer);
    connect(&session_, &SessionController::isAnsweringChanged, this, &OverlayView::showAnswer);
    connect(&session_, &SessionController::answerChanged, this, [this] {
        followEnd_ = true;
        showAnswer();
        QScrollBar* bar = answerScroll_->verticalScrollBar();
        bar->setValue(bar->maximum());
    });
    connect(&session_, &SessionController::noticeChanged, this, &OverlayView::showNotice);

    showHeader();
    showStrip();
    showAnswer();
    showNotice();
}

OverlayView::~OverlayView() = default;

void OverlayView::buildHeader(QWidget* header) {
    auto* row = new QHBoxLayout(header);
    row->setContentsMargins(M::headerMargins);
    row->setSpacing(M::headerSpacing);

    auto* listening = new ListeningSwitch(header);
    listening->setObjectName(QStringLiteral("listeningSwitch"));
    listening->setToolTip(
        withKeys(QStringLiteral("Start or stop listening"), Shortcuts::Action::toggleListening));
    connect(listening, &QAbstractButton::clicked, &session_, &SessionController::toggle);
    listeningSwitch_ = listening;
    row->addWidget(listening);

    callDot_ = new HealthDot(QStringLiteral("Call"), header);
    callDot_->setObjectName(QStringLiteral("callDot"));
    row->addWidget(callDot_);
    micDot_ = new HealthDot(QStringLiteral("Mic"), header);
    micDot_->setObjectName(QStringLiteral("micDot"));
    row->addWidget(micDot_);
    row->addStretch(1);

    // The icons sit closer together than the header's items, so that they read as one group.
    auto* buttons = new QHBoxLayout;
    buttons->setSpacing(M::iconSpacing);
    const auto addButton = [&](const char* name, const QString& symbol, const QString& help, auto&& action) {
        auto* button = new IconButton(symbol, help, header);
        button->setObjectName(QLatin1String(name));
        connect(button, &QAbstractButton::clicked, this, action);
        buttons->addWidget(button);
        return button;
    };
    using Shortcuts::Action;
    addButton("answerNowButton", QStringLiteral("sparkles"),
              withKeys(QStringLiteral("Answer now"), Action::answerNow), [this] { session_.answerNow(); });
    addButton("clearButton", QStringLiteral("xmark.circle"),
              withKeys(QStringLiteral("Clear"), Action::clearAnswer), [this] { session_.clear(); });
    clickThroughButton_ = addButton("clickThroughButton", QStringLiteral("hand.raised"),
                                    withKeys(QStringLiteral("Click-through"), Action::toggleClickThrough),
                                    [this] { emit clickThroughToggleRequested(); });
    addButton("settingsButton", QStringLiteral("gearshape"), QStringLiteral("Settings"),
              [this] { emit settingsRequested(); });
    addButton("hideButton", QStringLiteral("minus"), withKeys(QStringLiteral("Hide"), Action::toggleOverlay),
              [this] { emit hideRequested(); });
    row->addLayout(buttons);
}

void OverlayView::buildStrip(QWidget* strip) {
    auto* column = new QVBoxLayout(strip);
    column->setContentsMargins(M::stripMargins);
    column->setSpacing(M::stripRowSpacing);
    stripPlaceholder_ = makeLabel(M::stripFontPx, QFont::Normal, M::secondary, strip);
    stripPlaceholder_->setObjectName(QStringLiteral("stripPlaceholder"));
    column->addWidget(stripPlaceholder_);
    // Two committed lines and one live row per speaker at most; the rows are kept and refilled.
    for (int i = 0; i < 4; ++i) {
        auto* row = new TranscriptRow(strip);
        row->setObjectName(QStringLiteral("transcriptRow"));
        column->addWidget(row);
        rows_.append(row);
    }
}

void OverlayView::buildAnswerArea() {
    answerScroll_ = new QScrollArea(this);
    answerScroll_->setObjectName(QStringLiteral("answerArea"));
    answerScroll_->setFrameShape(QFrame::NoFrame);
    answerScroll_->setWidgetResizable(true);
    answerScroll_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    answerScroll_->viewport()->setAutoFillBackground(false);
    // A thin handle clear of the panel's rounded bottom corner, in place of the style's full scroll bar.
    answerScroll_->verticalScrollBar()->setStyleSheet(
        QStringLiteral("QScrollBar:vertical { background: transparent; width: 8px; margin: 4px 2px %1px 0; }"
                       "QScrollBar::handle:vertical { background: rgba(255, 255, 255, 70); border-radius: "
                       "3px; min-height: 24px; }"
                       "QScrollBar::add-line:vertical, QScrollBar::sub-line:vertical { height: 0; }"
                       "QScrollBar::add-page:vertical, QScrollBar::sub-page:vertical { background: none; }")
            .arg(M::cornerRadius));

    auto* content = new QWidget;
    content->setAutoFillBackground(false);
    auto* column = new QVBoxLayout(content);
    column->setContentsMargins(M::answerMargins);
    column->setSpacing(M::answerSpacing);

    question_ = makeLabel(M::questionFontPx, QFont::DemiBold, M::secondary, content);
    question_->setObjectName(QStringLiteral("question"));
    question_->setTextFormat(Qt::PlainText);
    question_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    column->addWidget(question_);

    spinner_ = new Spinner(content);
    spinner_->setObjectName(QStringLiteral("answerSpinner"));
    column->addWidget(spinner_);

    answerText_ = new AnswerText(content);
    answerText_->setObjectName(QStringLiteral("answerText"));
    column->addWidget(answerText_);

    answerPlaceholder_ = makeLabel(M::placeholderFontPx, QFont::Normal, M::secondary, content);
    answerPlaceholder_->setObjectName(QStringLiteral("answerPlaceholder"));
    answerPlaceholder_->setText(
        QStringLiteral("Answers appear here as soon as the interviewer asks a question."));
    column->addWidget(answerPlaceholder_);

    auto* end = new QWidget(content);
    end->setObjectName(QStringLiteral("end"));
    end->setFixedHeight(1);
    column->addWidget(end);
    column->addStretch(1);
    answerScroll_->setWidget(content);

    QScrollBar* bar = answerScroll_->verticalScrollBar();
    connect(bar, &QScrollBar::rangeChanged, this, [this, bar](int, int maximum) {
        if (followEnd_) {
            bar->setValue(maximum);
        }
    });
    connect(bar, &QScrollBar::actionTriggered, this, [this] { followEnd_ = false; });
}

void OverlayView::showHeader() {
    static_cast<ListeningSwitch*>(listeningSwitch_)->setRunning(session_.isRunning());
    static_cast<HealthDot*>(callDot_)->setHealth(session_.systemAudio());
    static_cast<HealthDot*>(micDot_)->setHealth(session_.mic());
    micDot_->setVisible(settings_.useMic());
    static_cast<IconButton*>(clickThroughButton_)
        ->setSymbol(settings_.clickThrough() ? QStringLiteral("hand.raised.slash")
                                             : QStringLiteral("hand.raised"));
}

void OverlayView::showStrip() {
    struct Shown {
        Speaker speaker;
        QString text;
        bool live;
    };
    QList<Shown> shown;
    const QList<TranscriptLine>& lines = session_.lines();
    for (qsizetype i = std::max<qsizetype>(0, lines.size() - 2); i < lines.size(); ++i) {
        shown.append({lines[i].speaker, lines[i].text, false});
    }
    if (!session_.interimInterviewer().isEmpty()) {
        shown.append({Speaker::interviewer, session_.interimInterviewer(), true});
    }
    if (!session_.interimMe().isEmpty()) {
        shown.append({Speaker::me, session_.interimMe(), true});
    }

    stripPlaceholder_->setVisible(shown.isEmpty());
    if (shown.isEmpty()) {
        stripPlaceholder_->setText(session_.isRunning()
                                       ? QStringLiteral("Listening for the interviewer\u2026")
                                       : QStringLiteral("Press ") +
                                             Shortcuts::keys(Shortcuts::Action::toggleListening) +
                                             QStringLiteral(" to start listening."));
    }
    for (qsizetype i = 0; i < rows_.size(); ++i) {
        auto* row = static_cast<TranscriptRow*>(rows_[i]);
        if (i < shown.size()) {
            row->setLine(shown[i].speaker, shown[i].text, shown[i].live);
        }
        row->setVisible(i < shown.size());
    }
}

void OverlayView::showAnswer() {
    const QString& question = session_.question();
    const QString& answer = session_.answer();
    question_->setVisible(!question.isEmpty());
    if (question_->text() != question) {
        question_->setText(question);
    }
    if (answerText_->markdown() != answer) {
        answerText_->setMarkdown(answer);
    }
    spinner_->setVisible(answer.isEmpty() && session_.isAnswering());
    answerText_->setVisible(!answer.isEmpty());
    answerPlaceholder_->setVisible(answer.isEmpty() && question.isEmpty() && !session_.isAnswering());
}

void OverlayView::showNotice() {
    const QString& notice = session_.notice();
    noticeText_->setText(notice);
    noticeBar_->setVisible(!notice.isEmpty());
    update();
}

void OverlayView::paintEvent(QPaintEvent* event) {
    // The rounded, antialiased background is drawn once per size and copied for each repaint: a
    // streaming answer repaints many times a second, and filling the path each time costs more than
    // the text does.
    const qreal ratio = devicePixelRatioF();
    if (background_.size() != size() * ratio) {
        background_ = QPixmap(size() * ratio);
        background_.setDevicePixelRatio(ratio);
        background_.fill(Qt::transparent);
        QPainter painter(&background_);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.fillPath(outline(), M::material);
        painter.setPen(QPen(M::materialEdge, 1));
        painter.drawPath(outline());
    }
    QPainter painter(this);
    const QRect dirty = event->rect();
    painter.drawPixmap(dirty, background_,
                       QRectF(QPointF(dirty.topLeft()) * ratio, QSizeF(dirty.size()) * ratio));
    // The notice's tint belongs to the background, clipped to the rounded corners it reaches.
    if (!noticeBar_->isHidden() && dirty.intersects(noticeBar_->geometry())) {
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setClipPath(outline());
        painter.fillRect(noticeBar_->geometry(), M::noticeBackground);
    }
}

QPainterPath OverlayView::outline() const {
    QPainterPath path;
    path.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), M::cornerRadius, M::cornerRadius);
    return path;
}

#include "overlayview.moc"
