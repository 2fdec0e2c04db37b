#include "settingsview.h"

#include "appsettings.h"
#include "config.h"
#include "resumeimporter.h"
#include "sessioncontroller.h"
#include "shortcuts.h"
#include "textcount.h"

#include <QCheckBox>
#include <QEvent>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QIcon>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPainter>
#include <QPlainTextEdit>
#include <QPointer>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QSvgRenderer>
#include <QTabWidget>
#include <QTextCursor>
#include <QVBoxLayout>

#include <functional>

#include <cmath>

namespace {

// Layout of the settings window.
constexpr QSize viewSize(560, 520);
constexpr QMargins pageMargins(20, 16, 20, 16);
constexpr QMargins groupMargins(14, 10, 14, 10);
constexpr int groupRadius = 8;
constexpr int rowSpacing = 8;
constexpr int labelGap = 24;
constexpr int sectionGap = 14;
constexpr int headingGap = 6;
constexpr int resumeMinimumHeight = 140;
constexpr int jobDescriptionMinimumHeight = 70;
constexpr int instructionsMinimumHeight = 50;
// A thin busy bar: the account is small, so its loading should not look like a download.
constexpr QSize loadingSize(120, 6);
constexpr QSize tabIconSize(18, 18);
constexpr int tabIconRenderSizes[] = {16, 24, 32, 48, 64};

// The editors' text is one step below the interface's, as 12 stands to 13 on the desktop the layout was
// drawn for; it follows the user's own font size rather than a fixed pixel size.
constexpr double editorFontScale = 12.0 / 13.0;

// The slider counts in thousandths of full opacity, fine enough to move without visible steps.
constexpr int opacityScale = 1000;
constexpr double minimumOpacity = 0.4;
constexpr double maximumOpacity = 1.0;

// Colours, as fractions of the palette's text colour or fixed where the palette has no role for them.
constexpr double secondaryTextAlpha = 0.62;
constexpr double groupBorderAlpha = 0.12;
constexpr QRgb destructiveOnLight = qRgb(0xc0, 0x1c, 0x28);
constexpr QRgb destructiveOnDark = qRgb(0xff, 0x7b, 0x63);

const char* const youIconName = "user-info";
const char* const behaviourIconName = "preferences-system";
const char* const accountIconName = "avatar-default";

// A group of a form: the rows sit on a rounded panel in the palette's base colour, set off from the
// window's background, so that each section reads as one block.
class FormGroup : public QWidget {
public:
    using QWidget::QWidget;

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        QColor border = palette().color(QPalette::WindowText);
        border.setAlphaF(groupBorderAlpha);
        painter.setPen(border);
        painter.setBrush(palette().color(QPalette::Base));
        painter.drawRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), groupRadius, groupRadius);
    }
};

QLabel* makeHeading(const QString& text) {
    auto* label = new QLabel(text);
    QFont font = label->font();
    font.setBold(true);
    label->setFont(font);
    return label;
}

// The document's text as the user typed it: QPlainTextEdit::toPlainText() would turn no-break spaces
// into plain ones and so change a resume that was only displayed.
QString editorText(const QPlainTextEdit* editor) {
    QString text = editor->document()->toRawText();
    text.replace(QChar::ParagraphSeparator, QLatin1Char('\n'));
    return text;
}

// The shipped fallback, drawn in the palette's text colour so that it suits light and dark themes alike.
QIcon tabIcon(const char* themeName, const QString& fallback, const QColor& color) {
    const QString name = QString::fromLatin1(themeName);
    if (QIcon::hasThemeIcon(name)) {
        return QIcon::fromTheme(name);
    }
    QSvgRenderer renderer(fallback);
    QIcon icon;
    for (const int size : tabIconRenderSizes) {
        QImage image(size, size, QImage::Format_ARGB32_Premultiplied);
        image.fill(Qt::transparent);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        renderer.render(&painter);
        painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
        painter.fillRect(image.rect(), color);
        painter.end();
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

SettingsView::ResumePicker importerPicker() {
    return [](QWidget* parent) -> std::optional<QString> {
        const QString path = ResumeImporter::pickFile(parent);
        if (path.isEmpty()) {
            return std::nullopt;
        }
        return ResumeImporter::text(path);
    };
}

}  // namespace

QString SettingsView::defaultTestQuestion() {
    return QStringLiteral("How would you design a page for users to connect their bank account safely?");
}

SettingsView::SettingsView(AppSettings& settings, SessionController& session, AccountLoader loadAccount,
                           ResumePicker pickResume, QWidget* parent)
    : QWidget(parent)
    , settings_(settings)
    , session_(session)
    , loadAccount_(std::move(loadAccount))
    , pickResume_(pickResume ? std::move(pickResume) : importerPicker()) {
    Q_INIT_RESOURCE(settingsicons);
    setWindowTitle(QStringLiteral("Tallowind Settings"));
    setFixedSize(viewSize);

    tabs_ = new QTabWidget;
    tabs_->setDocumentMode(true);
    tabs_->setIconSize(tabIconSize);
    tabs_->addTab(makeYouTab(), QStringLiteral("You"));
    tabs_->addTab(makeBehaviourTab(), QStringLiteral("Behaviour"));
    tabs_->addTab(makeAccountTab(), QStringLiteral("Account"));

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(tabs_);

    // Both settings shape the overlay's window, which only the shell can touch.
    connect(&settings_, &AppSettings::overlayOpacityChanged, this,
            &SettingsView::applyOverlaySettingsRequested);
    connect(&settings_, &AppSettings::clickThroughChanged, this,
            &SettingsView::applyOverlaySettingsRequested);

    setGlobalShortcutsAvailable(true);
    applyPalette();
    showAccount();
}

SettingsView::~SettingsView() = default;

QWidget* SettingsView::makeYouTab() {
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(pageMargins);
    layout->setSpacing(headingGap);

    auto* import = new QPushButton(QStringLiteral("Import PDF…"));
    connect(import, &QPushButton::clicked, this, &SettingsView::importResume);
    resumeLength_ = new QLabel;
    resumeLength_->setObjectName(QStringLiteral("resumeLength"));
    secondaryLabels_.append(resumeLength_);
    auto* importRow = new QHBoxLayout;
    importRow->addWidget(import);
    importRow->addSpacing(headingGap);
    importRow->addWidget(resumeLength_);
    importRow->addStretch();

    const QString resumeTitle = QStringLiteral("Resume");
    auto* resume = makeEditor(resumeTitle, resumeMinimumHeight, &AppSettings::resume, &AppSettings::setResume,
                              &AppSettings::resumeChanged);
    resume->setObjectName(QStringLiteral("resume"));
    connect(&settings_, &AppSettings::resumeChanged, this, &SettingsView::showResumeLength);
    showResumeLength();

    const QString jobTitle = QStringLiteral("Job description (optional)");
    auto* job = makeEditor(jobTitle, jobDescriptionMinimumHeight, &AppSettings::jobDescription,
                           &AppSettings::setJobDescription, &AppSettings::jobDescriptionChanged);
    const QString instructionsTitle =
        QStringLiteral("Anything Tallowind should always keep in mind (optional)");
    auto* instructions =
        makeEditor(instructionsTitle, instructionsMinimumHeight, &AppSettings::extraInstructions,
                   &AppSettings::setExtraInstructions, &AppSettings::extraInstructionsChanged);

    // The editors share the spare height in proportion to their minimum heights.
    layout->addWidget(makeHeading(resumeTitle));
    layout->addLayout(importRow);
    layout->addWidget(resume, resumeMinimumHeight);
    layout->addSpacing(sectionGap - headingGap);
    layout->addWidget(makeHeading(jobTitle));
    layout->addWidget(job, jobDescriptionMinimumHeight);
    layout->addSpacing(sectionGap - headingGap);
    layout->addWidget(makeHeading(instructionsTitle));
    layout->addWidget(instructions, instructionsMinimumHeight);
    return page;
}

QWidget* SettingsView::makeBehaviourTab() {
    auto* page = new QWidget;
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(pageMargins);
    layout->setSpacing(headingGap);

    auto* switches = new FormGroup;
    auto* switchesLayout = new QVBoxLayout(switches);
    switchesLayout->setContentsMargins(groupMargins);
    switchesLayout->setSpacing(rowSpacing);
    switchesLayout->addWidget(makeSwitch(QStringLiteral("Answer automatically when a question is asked"),
                                         &AppSettings::autoAnswer, &AppSettings::setAutoAnswer,
                                         &AppSettings::autoAnswerChanged));
    switchesLayout->addWidget(makeSwitch(QStringLiteral("Use my microphone for context"),
                                         &AppSettings::useMic, &AppSettings::setUseMic,
                                         &AppSettings::useMicChanged));

    auto* opacityLabel = new QLabel(QStringLiteral("Overlay opacity"));
    opacity_ = new QSlider(Qt::Horizontal);
    opacity_->setObjectName(QStringLiteral("overlayOpacity"));
    opacity_->setAccessibleName(opacityLabel->text());
    opacityLabel->setBuddy(opacity_);
    opacity_->setRange(static_cast<int>(std::lround(minimumOpacity * opacityScale)),
                       static_cast<int>(std::lround(maximumOpacity * opacityScale)));
    opacity_->setSingleStep(opacityScale / 100);
    opacity_->setPageStep(opacityScale / 10);
    showOpacity();
    connect(opacity_, &QSlider::valueChanged, this,
            [this](int value) { settings_.setOverlayOpacity(static_cast<double>(value) / opacityScale); });
    connect(&settings_, &AppSettings::overlayOpacityChanged, this, &SettingsView::showOpacity);
    auto* opacityRow = new QHBoxLayout;
    opacityRow->addWidget(opacityLabel);
    opacityRow->addSpacing(sectionGap);
    opacityRow->addWidget(opacity_, 1);
    switchesLayout->addLayout(opacityRow);

    clickThrough_ = makeSwitch(QStringLiteral("Click-through (clicks pass through the overlay)"),
                               &AppSettings::clickThrough, &AppSettings::setClickThrough,
                               &AppSettings::clickThroughChanged);
    clickThrough_->setObjectName(QStringLiteral("clickThrough"));
    switchesLayout->addWidget(clickThrough_);

    testQuestion_ = new QLineEdit(defaultTestQuestion());
    testQuestion_->setObjectName(QStringLiteral("testQuestion"));
    testQuestion_->setPlaceholderText(QStringLiteral("Question"));
    testQuestion_->setAccessibleName(testQuestion_->placeholderText());
    testQuestion_->setCursorPosition(0);
    connect(testQuestion_, &QLineEdit::returnPressed, this, &SettingsView::ask);
    auto* askButton = new QPushButton(QStringLiteral("Ask"));
    askButton->setObjectName(QStringLiteral("ask"));
    connect(askButton, &QPushButton::clicked, this, &SettingsView::ask);
    auto* tryIt = new FormGroup;
    auto* tryItLayout = new QHBoxLayout(tryIt);
    tryItLayout->setContentsMargins(groupMargins);
    tryItLayout->addWidget(testQuestion_, 1);
    tryItLayout->addWidget(askButton);

    auto* privacyNote =
        new QLabel(QStringLiteral("Linux can't keep the overlay out of a shared screen, so share a single "
                                  "window in your call rather than your whole screen."));
    shortcutsNote_ = new QLabel(QStringLiteral(
        "This desktop offers no global shortcuts, so use the tray menu and the overlay's buttons instead."));
    shortcutsNote_->setObjectName(QStringLiteral("shortcutsNote"));
    for (QLabel* note : {privacyNote, shortcutsNote_}) {
        note->setWordWrap(true);
        secondaryLabels_.append(note);
    }

    layout->addWidget(switches);
    layout->addSpacing(sectionGap);
    layout->addWidget(makeHeading(QStringLiteral("Try it without a call")));
    layout->addWidget(tryIt);
    layout->addStretch();
    layout->addWidget(privacyNote);
    layout->addWidget(shortcutsNote_);
    return page;
}

QWidget* SettingsView::makeAccountTab() {
    accountPage_ = new QWidget;
    accountPage_->installEventFilter(this);
    auto* layout = new QVBoxLayout(accountPage_);
    layout->setContentsMargins(pageMargins);
    layout->setSpacing(sectionGap);

    accountEmail_ = new QLabel;
    accountEmail_->setObjectName(QStringLiteral("accountEmail"));
    accountMinutes_ = new QLabel;
    accountMinutes_->setObjectName(QStringLiteral("accountMinutes"));
    accountErrorLabel_ = new QLabel;
    accountErrorLabel_->setObjectName(QStringLiteral("accountError"));
    accountErrorLabel_->setWordWrap(true);
    secondaryLabels_.append(accountErrorLabel_);
    accountLoading_ = new QProgressBar;
    accountLoading_->setObjectName(QStringLiteral("accountLoading"));
    accountLoading_->setAccessibleName(QStringLiteral("Loading account"));
    accountLoading_->setRange(0, 0);
    accountLoading_->setTextVisible(false);
    accountLoading_->setFixedSize(loadingSize);
    auto* version = new QLabel(Config::appVersion());
    for (QLabel* value : {accountEmail_, accountMinutes_, accountErrorLabel_, version}) {
        value->setTextInteractionFlags(Qt::TextSelectableByMouse);
    }

    auto* group = new FormGroup;
    accountForm_ = new QFormLayout(group);
    accountForm_->setContentsMargins(groupMargins);
    accountForm_->setVerticalSpacing(rowSpacing);
    accountForm_->setHorizontalSpacing(labelGap);
    accountForm_->setLabelAlignment(Qt::AlignLeft);
    accountForm_->setFieldGrowthPolicy(QFormLayout::AllNonFixedFieldsGrow);
    auto* signedInAs = new QLabel(QStringLiteral("Signed in as"));
    auto* listening = new QLabel(QStringLiteral("Listening this month"));
    auto* versionLabel = new QLabel(QStringLiteral("Version"));
    // The label column keeps its width while rows come and go with the account's state.
    versionLabel->setMinimumWidth(listening->sizeHint().width());
    signedInAs->setBuddy(accountEmail_);
    listening->setBuddy(accountMinutes_);
    versionLabel->setBuddy(version);
    accountForm_->addRow(signedInAs, accountEmail_);
    accountForm_->addRow(listening, accountMinutes_);
    accountForm_->addRow(accountErrorLabel_);
    accountForm_->addRow(accountLoading_);
    accountForm_->addRow(versionLabel, version);

    auto* check = new QPushButton(QStringLiteral("Check for Updates"));
    connect(check, &QPushButton::clicked, this, &SettingsView::checkForUpdatesRequested);
    signOut_ = new QPushButton(QStringLiteral("Sign Out"));
    connect(signOut_, &QPushButton::clicked, this, &SettingsView::signOutRequested);
    auto* buttons = new QHBoxLayout;
    buttons->addWidget(check);
    buttons->addStretch();
    buttons->addWidget(signOut_);

    layout->addWidget(group);
    layout->addLayout(buttons);
    layout->addStretch();
    return accountPage_;
}

QPlainTextEdit* SettingsView::makeEditor(const QString& name, int minimumHeight,
                                         QString (AppSettings::*read)() const,
                                         void (AppSettings::*write)(const QString&),
                                         void (AppSettings::*changed)()) {
    auto* editor = new QPlainTextEdit;
    editor->setAccessibleName(name);
    editor->setMinimumHeight(minimumHeight);
    editor->setTabChangesFocus(true);
    QFont font = editor->font();
    font.setPointSizeF(font.pointSizeF() * editorFontScale);
    editor->setFont(font);
    editor->setPlainText((settings_.*read)());

    // The setting's accessors travel as functions: a lambda that captures member pointers and calls
    // through them trips AddressSanitizer's stack checks in this compiler's debug builds.
    const std::function<QString()> stored = std::bind(read, &settings_);
    const std::function<void(const QString&)> store = std::bind(write, &settings_, std::placeholders::_1);
    connect(editor, &QPlainTextEdit::textChanged, this, [editor, stored, store] {
        const QString text = editorText(editor);
        if (text != stored()) {
            store(text);
        }
    });
    // A change from elsewhere (an import, another window) replaces the text through a cursor rather than
    // setPlainText(), so that it lands on the editor's undo stack and Ctrl+Z brings the old text back.
    connect(&settings_, changed, editor, [editor, stored] {
        const QString value = stored();
        if (editorText(editor) == value) {
            return;
        }
        const QSignalBlocker blocker(editor);
        QTextCursor cursor(editor->document());
        cursor.select(QTextCursor::Document);
        cursor.insertText(value);
    });
    return editor;
}

QCheckBox* SettingsView::makeSwitch(const QString& text, bool (AppSettings::*read)() const,
                                    void (AppSettings::*write)(bool), void (AppSettings::*changed)()) {
    auto* box = new QCheckBox(text);
    box->setChecked((settings_.*read)());
    connect(box, &QCheckBox::toggled, &settings_, write);
    const std::function<bool()> stored = std::bind(read, &settings_);
    connect(&settings_, changed, box, [box, stored] {
        const QSignalBlocker blocker(box);
        box->setChecked(stored());
    });
    return box;
}

void SettingsView::setGlobalShortcutsAvailable(bool available) {
    shortcutsNote_->setVisible(!available);
    clickThrough_->setToolTip(available ? QStringLiteral("%1 switches this from any app.")
                                              .arg(Shortcuts::keys(Shortcuts::Action::toggleClickThrough))
                                        : QString());
}

void SettingsView::importResume() {
    if (const std::optional<QString> text = pickResume_(this)) {
        settings_.setResume(*text);
    }
}

void SettingsView::ask() {
    emit showOverlayRequested();
    session_.ask(testQuestion_->text());
}

void SettingsView::showOpacity() {
    // A stored value outside the slider's range shows at the nearer end and stays stored as it is until
    // the user moves the slider.
    const QSignalBlocker blocker(opacity_);
    opacity_->setValue(static_cast<int>(std::lround(settings_.overlayOpacity() * opacityScale)));
}

void SettingsView::showResumeLength() {
    resumeLength_->setText(QStringLiteral("%1 characters").arg(TextCount::characters(settings_.resume())));
}

bool SettingsView::eventFilter(QObject* watched, QEvent* event) {
    // The tab page is shown when its tab is chosen or the window opens on it, and hidden when another tab
    // is chosen or the window closes. Spontaneous events only mirror the window being minimised and
    // restored, which neither leaves nor reopens the tab.
    if (watched == accountPage_ && !event->spontaneous()) {
        if (event->type() == QEvent::Show) {
            startAccountLoad();
        } else if (event->type() == QEvent::Hide) {
            ++accountLoad_;
        }
    }
    return QWidget::eventFilter(watched, event);
}

void SettingsView::startAccountLoad() {
    const quint64 load = ++accountLoad_;
    loadAccount_([view = QPointer<SettingsView>(this), load](const Result<Account>& result) {
        if (view && view->accountLoad_ == load) {
            view->accountLoaded(result);
        }
    });
}

void SettingsView::accountLoaded(const Result<Account>& result) {
    if (result) {
        account_ = result.value();
    } else {
        accountError_ = result.failure().description();
    }
    showAccount();
}

void SettingsView::showAccount() {
    const bool hasAccount = account_.has_value();
    const bool hasError = !hasAccount && accountError_.has_value();
    if (hasAccount) {
        accountEmail_->setText(account_->email);
        accountMinutes_->setText(
            QStringLiteral("%1 of %2 min").arg(account_->minutesUsed).arg(account_->minutesLimit));
    }
    accountErrorLabel_->setText(hasError ? *accountError_ : QString());
    accountForm_->setRowVisible(accountEmail_, hasAccount);
    accountForm_->setRowVisible(accountMinutes_, hasAccount);
    accountForm_->setRowVisible(accountErrorLabel_, hasError);
    accountForm_->setRowVisible(accountLoading_, !hasAccount && !hasError);
}

void SettingsView::changeEvent(QEvent* event) {
    if (event->type() == QEvent::PaletteChange) {
        applyPalette();
    }
    QWidget::changeEvent(event);
}

void SettingsView::applyPalette() {
    const QPalette base = palette();
    QColor secondary = base.color(QPalette::WindowText);
    secondary.setAlphaF(secondaryTextAlpha);
    for (QLabel* label : std::as_const(secondaryLabels_)) {
        QPalette muted = base;
        muted.setColor(QPalette::WindowText, secondary);
        label->setPalette(muted);
    }

    QPalette destructive = base;
    const bool dark = base.color(QPalette::Button).lightnessF() < 0.5;
    destructive.setColor(QPalette::ButtonText,
                         QColor::fromRgb(dark ? destructiveOnDark : destructiveOnLight));
    signOut_->setPalette(destructive);

    const QColor iconColor = base.color(QPalette::WindowText);
    tabs_->setTabIcon(0, tabIcon(youIconName, QStringLiteral(":/settingsicons/you.svg"), iconColor));
    tabs_->setTabIcon(1,
                      tabIcon(behaviourIconName, QStringLiteral(":/settingsicons/behaviour.svg"), iconColor));
    tabs_->setTabIcon(2, tabIcon(accountIconName, QStringLiteral(":/settingsicons/account.svg"), iconColor));
}
