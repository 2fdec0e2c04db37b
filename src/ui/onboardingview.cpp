#include "onboardingview.h"

#include "appsettings.h"
#include "backendclient.h"
#include "keychain.h"
#include "resumeimporter.h"
#include "shortcuts.h"
#include "signinrules.h"

#include <QCoreApplication>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QEvent>
#include <QFontDatabase>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPainter>
#include <QPainterPath>
#include <QPlainTextEdit>
#include <QPointer>
#include <QPushButton>
#include <QStackedWidget>
#include <QThreadPool>
#include <QTimer>
#include <QVBoxLayout>

#include <functional>

namespace {

// Layout of the flow.
constexpr QSize viewSize(560, 560);
constexpr int padding = 32;
constexpr int capsuleHeight = 4;
constexpr int capsuleGap = 6;
constexpr int capsuleGapBelow = 24;
constexpr int paragraphGap = 8;
constexpr int sectionGap = 18;
constexpr int verifyButtonWidth = 120;
constexpr int largeButtonHeight = 38;
constexpr int fieldHeight = 32;
constexpr int cardRadius = 10;
constexpr QMargins cardMargins(14, 12, 14, 12);
constexpr int cardIconSize = 22;
constexpr int editorRadius = 6;
constexpr int resumeMinimumHeight = 160;
constexpr int jobDescriptionHeight = 70;
constexpr int shortcutKeysWidth = 120;
constexpr QMargins tipMargins(14, 10, 14, 10);
constexpr int permissionsCheckMs = 1000;

// Type sizes as fractions of the desktop's own, as the layout's 13-point body stands to its other sizes;
// they follow the user's font size rather than fixing one.
constexpr double titleScale = 22.0 / 13.0;
constexpr double calloutScale = 12.0 / 13.0;
constexpr double editorScale = 12.0 / 13.0;
constexpr double codeScale = 20.0 / 13.0;

// Colours, as fractions of the palette's text colour or fixed where the palette has no role for them.
constexpr double secondaryAlpha = 0.62;
constexpr double pendingCapsuleAlpha = 0.25 * secondaryAlpha;
constexpr double cardAlpha = 0.08;
constexpr double editorBorderAlpha = 0.30;
constexpr double focusBorderAlpha = 0.6;
constexpr double focusRingAlpha = 0.55;
constexpr double disabledButtonAlpha = 0.35;
constexpr double disabledTitleAlpha = 0.8;
constexpr double tipAlpha = 0.06;
constexpr QRgb grantedGreen = qRgb(0x2e, 0xa0, 0x43);
constexpr QRgb errorOnLight = qRgb(0xc0, 0x1c, 0x28);
constexpr QRgb errorOnDark = qRgb(0xff, 0x7b, 0x63);

const QString emailPlaceholder = QStringLiteral("you@example.com");

QColor withAlpha(QColor colour, double alpha) {
    colour.setAlphaF(colour.alphaF() * alpha);
    return colour;
}

QColor secondary(const QPalette& palette) {
    return withAlpha(palette.color(QPalette::WindowText), secondaryAlpha);
}

bool isDark(const QPalette& palette) {
    return palette.color(QPalette::Window).lightnessF() < 0.5;
}

QString rgba(const QColor& colour) {
    return QStringLiteral("rgba(%1, %2, %3, %4)")
        .arg(colour.red())
        .arg(colour.green())
        .arg(colour.blue())
        .arg(colour.alpha());
}

QFont scaled(QFont font, double scale, QFont::Weight weight = QFont::Normal) {
    font.setPointSizeF(font.pointSizeF() * scale);
    font.setWeight(weight);
    return font;
}

QLabel* wrappedLabel(const QString& text) {
    auto* label = new QLabel(text);
    label->setWordWrap(true);
    label->setTextFormat(Qt::PlainText);
    return label;
}

QLabel* titleLabel(const QString& text) {
    QLabel* label = wrappedLabel(text);
    label->setFont(scaled(label->font(), titleScale, QFont::Bold));
    return label;
}

QLabel* headingLabel(const QString& text) {
    QLabel* label = wrappedLabel(text);
    label->setFont(scaled(label->font(), 1.0, QFont::DemiBold));
    return label;
}

// A filled button in the accent colour, for the one action each step leads to.
QPushButton* prominentButton(const QString& text, bool large) {
    auto* button = new QPushButton(text);
    button->setAutoDefault(true);
    button->setProperty("prominent", true);
    if (large) {
        button->setMinimumHeight(largeButtonHeight);
    }
    return button;
}

// A step's page: its widgets from the top, with the rest of the height left below them.
QVBoxLayout* pageLayout(QWidget* page) {
    auto* layout = new QVBoxLayout(page);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->setSpacing(paragraphGap);
    return layout;
}

}  // namespace

// The row of four capsules at the top: the current step and those before it in the accent colour.
class StepCapsules : public QWidget {
public:
    StepCapsules() { setFixedHeight(capsuleHeight); }

    void setCurrent(int index) {
        current_ = index;
        setAccessibleName(QStringLiteral("Step %1 of %2").arg(index + 1).arg(count));
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        const double width = (this->width() - capsuleGap * (count - 1)) / double(count);
        for (int index = 0; index < count; ++index) {
            painter.setBrush(index <= current_
                                 ? palette().color(QPalette::Highlight)
                                 : withAlpha(palette().color(QPalette::WindowText), pendingCapsuleAlpha));
            const QRectF capsule(index * (width + capsuleGap), 0, width, capsuleHeight);
            painter.drawRoundedRect(capsule, capsuleHeight / 2.0, capsuleHeight / 2.0);
        }
    }

private:
    static constexpr int count = 4;
    int current_ = 0;
};

namespace {

// A check mark in a green disc once granted, an empty ring before.
class GrantIcon : public QWidget {
public:
    GrantIcon() { setFixedSize(cardIconSize, cardIconSize); }

    void setGranted(bool granted) {
        granted_ = granted;
        setAccessibleName(granted ? QStringLiteral("Ready") : QStringLiteral("Not set up"));
        update();
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        const QRectF disc = QRectF(rect()).adjusted(1.5, 1.5, -1.5, -1.5);
        if (!granted_) {
            painter.setPen(QPen(secondary(palette()), 1.5));
            painter.drawEllipse(disc);
            return;
        }
        painter.setPen(Qt::NoPen);
        painter.setBrush(QColor(grantedGreen));
        painter.drawEllipse(disc);
        QPainterPath check;
        check.moveTo(disc.left() + disc.width() * 0.28, disc.top() + disc.height() * 0.52);
        check.lineTo(disc.left() + disc.width() * 0.44, disc.top() + disc.height() * 0.68);
        check.lineTo(disc.left() + disc.width() * 0.73, disc.top() + disc.height() * 0.35);
        painter.setPen(QPen(Qt::white, 2.0, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.setBrush(Qt::NoBrush);
        painter.drawPath(check);
    }

private:
    bool granted_ = false;
};

}  // namespace

// One thing the program needs from the desktop: what it is for, whether it is there, and the button that
// leads to where it is set up, shown only while it is not.
class PermissionCard : public QWidget {
public:
    PermissionCard(const QString& title, const QString& detail, std::function<void()> action) {
        setAttribute(Qt::WA_StyledBackground, false);
        auto* row = new QHBoxLayout(this);
        row->setContentsMargins(cardMargins);
        row->setSpacing(12);
        icon_ = new GrantIcon;
        row->addWidget(icon_, 0, Qt::AlignTop);
        auto* texts = new QVBoxLayout;
        texts->setSpacing(2);
        auto* titleText = headingLabel(title);
        texts->addWidget(titleText);
        detail_ = wrappedLabel(detail);
        texts->addWidget(detail_);
        row->addLayout(texts, 1);
        button_ = new QPushButton(QStringLiteral("Open Sound Settings"));
        button_->setAutoDefault(true);
        button_->setAccessibleDescription(title);
        connect(button_, &QPushButton::clicked, this, std::move(action));
        row->addWidget(button_, 0, Qt::AlignVCenter);
        setAccessibleName(title);
        setGranted(std::nullopt);
    }

    QLabel* detail() const { return detail_; }

    // Before the first answer neither the check mark nor the button shows.
    void setGranted(std::optional<bool> granted) {
        icon_->setGranted(granted.value_or(false));
        button_->setVisible(granted.has_value() && !*granted);
    }

protected:
    void paintEvent(QPaintEvent*) override {
        QPainter painter(this);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        painter.setBrush(withAlpha(palette().color(QPalette::WindowText), cardAlpha));
        painter.drawRoundedRect(QRectF(rect()), cardRadius, cardRadius);
    }

private:
    GrantIcon* icon_ = nullptr;
    QLabel* detail_ = nullptr;
    QPushButton* button_ = nullptr;
};

namespace {

// The resume's text area, which also takes a dropped file: the first of the dragged files is read, any
// other drag (text, links) is left to the editor.
class ResumeEditor : public QPlainTextEdit {
public:
    ResumeEditor(std::function<void(bool)> onHover, std::function<void(const QString&)> onFile)
        : onHover_(std::move(onHover)), onFile_(std::move(onFile)) {}

protected:
    void dragEnterEvent(QDragEnterEvent* event) override {
        if (!carriesFiles(event->mimeData())) {
            QPlainTextEdit::dragEnterEvent(event);
            return;
        }
        event->acceptProposedAction();
        onHover_(true);
    }
    void dragMoveEvent(QDragMoveEvent* event) override {
        if (!carriesFiles(event->mimeData())) {
            QPlainTextEdit::dragMoveEvent(event);
            return;
        }
        event->acceptProposedAction();
    }
    void dragLeaveEvent(QDragLeaveEvent* event) override {
        onHover_(false);
        QPlainTextEdit::dragLeaveEvent(event);
    }
    void dropEvent(QDropEvent* event) override {
        if (!carriesFiles(event->mimeData())) {
            QPlainTextEdit::dropEvent(event);
            return;
        }
        onHover_(false);
        // The drop counts as taken whether or not the file turns out to be readable.
        event->acceptProposedAction();
        const QUrl first = event->mimeData()->urls().first();
        if (first.isLocalFile()) {
            onFile_(first.toLocalFile());
        }
    }

private:
    static bool carriesFiles(const QMimeData* data) { return data->hasUrls() && !data->urls().isEmpty(); }

    std::function<void(bool)> onHover_;
    std::function<void(const QString&)> onFile_;
};

// Keeps an editor and a text setting equal in both directions; the editor is only rewritten when the
// setting changed elsewhere, so typing never loses the cursor.
void bindText(QPlainTextEdit* editor, AppSettings& settings, QString (AppSettings::*read)() const,
              void (AppSettings::*write)(const QString&), void (AppSettings::*changed)()) {
    editor->setPlainText((settings.*read)());
    QObject::connect(editor, &QPlainTextEdit::textChanged, &settings, [editor, &settings, read, write] {
        const QString text = editor->toPlainText();
        if (text != (settings.*read)()) {
            (settings.*write)(text);
        }
    });
    QObject::connect(&settings, changed, editor, [editor, &settings, read] {
        const QString text = (settings.*read)();
        if (text != editor->toPlainText()) {
            editor->setPlainText(text);
        }
    });
}

}  // namespace

OnboardingView::OnboardingView(AppSettings& settings, BackendClient& backend,
                               std::unique_ptr<Permissions::Source> permissions, QWidget* parent)
    : QWidget(parent)
    , settings_(settings)
    , backend_(backend)
    , permissions_(std::move(permissions))
    , step_(isSignedIn() ? Step::permissions : Step::signIn) {
    setFixedSize(viewSize);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(padding, padding, padding, padding);
    layout->setSpacing(0);
    capsules_ = new StepCapsules;
    layout->addWidget(capsules_);
    layout->addSpacing(capsuleGapBelow);
    steps_ = new QStackedWidget;
    steps_->addWidget(buildSignIn());
    steps_->addWidget(buildPermissions());
    steps_->addWidget(buildResume());
    steps_->addWidget(buildReady());
    layout->addWidget(steps_, 1);

    permissionsTimer_ = new QTimer(this);
    permissionsTimer_->setInterval(permissionsCheckMs);
    connect(permissionsTimer_, &QTimer::timeout, this, &OnboardingView::checkPermissions);

    applyColours();
    showSignIn();
    showPermissions();
    showResume();
    setStep(step_);
}

OnboardingView::~OnboardingView() = default;

QWidget* OnboardingView::buildSignIn() {
    auto* page = new QWidget;
    auto* layout = pageLayout(page);
    layout->addWidget(titleLabel(QStringLiteral("Welcome to Tallowind")));
    QLabel* intro = wrappedLabel(QStringLiteral(
        "Tallowind listens to your interview and quietly shows you a strong answer the moment a "
        "question is asked. Only you can see it."));
    secondaryLabels_.append(intro);
    layout->addWidget(intro);
    layout->addSpacing(sectionGap);

    signInForms_ = new QStackedWidget;

    auto* form = new QWidget;
    auto* formLayout = pageLayout(form);
    formLayout->addWidget(headingLabel(QStringLiteral("Sign in with your email")));
    emailField_ = new QLineEdit(settings_.email());
    emailField_->setPlaceholderText(emailPlaceholder);
    emailField_->setAccessibleName(QStringLiteral("Email"));
    emailField_->setInputMethodHints(Qt::ImhEmailCharactersOnly | Qt::ImhNoAutoUppercase);
    emailField_->setMinimumHeight(fieldHeight);
    formLayout->addWidget(emailField_);
    sendButton_ = prominentButton(QStringLiteral("Email me a code"), false);
    sendButton_->setMinimumHeight(fieldHeight);
    formLayout->addWidget(sendButton_);
    formLayout->addStretch();
    connect(emailField_, &QLineEdit::textChanged, this, &OnboardingView::showSignIn);
    // Return sends whatever is typed, without the button's conditions.
    connect(emailField_, &QLineEdit::returnPressed, this, &OnboardingView::sendCode);
    connect(sendButton_, &QPushButton::clicked, this, &OnboardingView::sendCode);
    signInForms_->addWidget(form);

    auto* entry = new QWidget;
    auto* entryLayout = pageLayout(entry);
    codeHeading_ = headingLabel(QString());
    entryLayout->addWidget(codeHeading_);
    devCodeCaption_ = wrappedLabel(QString());
    devCodeCaption_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    secondaryLabels_.append(devCodeCaption_);
    entryLayout->addWidget(devCodeCaption_);
    codeField_ = new QLineEdit;
    codeField_->setPlaceholderText(QStringLiteral("123456"));
    codeField_->setAccessibleName(QStringLiteral("Code"));
    codeField_->setInputMethodHints(Qt::ImhDigitsOnly);
    QFont mono = QFontDatabase::systemFont(QFontDatabase::FixedFont);
    mono.setPointSizeF(font().pointSizeF() * codeScale);
    codeField_->setFont(mono);
    entryLayout->addWidget(codeField_);
    auto* buttons = new QHBoxLayout;
    verifyButton_ = prominentButton(QStringLiteral("Continue"), false);
    verifyButton_->setFixedWidth(verifyButtonWidth);
    verifyButton_->setMinimumHeight(fieldHeight);
    buttons->addWidget(verifyButton_);
    auto* differentEmail = new QPushButton(QStringLiteral("Use a different email"));
    differentEmail->setProperty("link", true);
    differentEmail->setCursor(Qt::PointingHandCursor);
    buttons->addWidget(differentEmail);
    buttons->addStretch();
    entryLayout->addLayout(buttons);
    entryLayout->addStretch();
    connect(codeField_, &QLineEdit::textChanged, this, &OnboardingView::showSignIn);
    connect(codeField_, &QLineEdit::returnPressed, this, &OnboardingView::verify);
    connect(verifyButton_, &QPushButton::clicked, this, &OnboardingView::verify);
    connect(differentEmail, &QPushButton::clicked, this, &OnboardingView::useDifferentEmail);
    signInForms_->addWidget(entry);

    // Only the current form's height counts, so that the message sits right under it.
    signInForms_->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Maximum);
    layout->addWidget(signInForms_);
    errorLabel_ = wrappedLabel(QString());
    errorLabel_->setObjectName(QStringLiteral("signInError"));
    errorLabel_->setFont(scaled(errorLabel_->font(), calloutScale));
    errorLabel_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(errorLabel_);
    layout->addStretch();
    return page;
}

QWidget* OnboardingView::buildPermissions() {
    auto* page = new QWidget;
    auto* layout = pageLayout(page);
    layout->addWidget(titleLabel(QStringLiteral("Let Tallowind hear the call")));
    QLabel* intro = wrappedLabel(
        QStringLiteral("Tallowind hears the call through your computer's sound system. It never records or "
                       "stores audio; it's only transcribed live."));
    secondaryLabels_.append(intro);
    layout->addWidget(intro);
    layout->addSpacing(sectionGap);

    const auto open = [this] { permissions_->openSoundSettings(); };
    systemAudioCard_ = new PermissionCard(
        QStringLiteral("System Audio"),
        QStringLiteral("Lets Tallowind hear the interviewer through Zoom, Meet, Teams or your browser."),
        open);
    microphoneCard_ = new PermissionCard(
        QStringLiteral("Microphone"),
        QStringLiteral("Lets Tallowind follow what you say, so answers fit the conversation. Optional."),
        open);
    secondaryLabels_.append(systemAudioCard_->detail());
    secondaryLabels_.append(microphoneCard_->detail());
    layout->addWidget(systemAudioCard_);
    layout->addWidget(microphoneCard_);
    layout->addStretch();

    permissionsNext_ = prominentButton(QString(), true);
    connect(permissionsNext_, &QPushButton::clicked, this, [this] { setStep(Step::resume); });
    layout->addWidget(permissionsNext_);
    return page;
}

QWidget* OnboardingView::buildResume() {
    auto* page = new QWidget;
    auto* layout = pageLayout(page);
    layout->addWidget(titleLabel(QStringLiteral("Add your resume")));
    QLabel* intro = wrappedLabel(
        QStringLiteral("Tallowind uses it to answer with your real experience, projects and numbers, never "
                       "made-up ones."));
    secondaryLabels_.append(intro);
    layout->addWidget(intro);
    layout->addSpacing(paragraphGap);

    auto* importRow = new QHBoxLayout;
    auto* import = new QPushButton(QStringLiteral("Import PDF\u2026"));
    import->setAutoDefault(true);
    connect(import, &QPushButton::clicked, this, &OnboardingView::importResume);
    importRow->addWidget(import);
    QLabel* hint = wrappedLabel(QStringLiteral("or paste it below, or drop a file here"));
    secondaryLabels_.append(hint);
    importRow->addWidget(hint, 1);
    layout->addLayout(importRow);

    const QFont editorFont = scaled(font(), editorScale);
    resumeEditor_ = new ResumeEditor(
        [this](bool hover) {
            dropHover_ = hover;
            showEditorBorders();
        },
        [this](const QString& path) { readDroppedFile(path); });
    resumeEditor_->setAccessibleName(QStringLiteral("Resume"));
    resumeEditor_->setFont(editorFont);
    resumeEditor_->setMinimumHeight(resumeMinimumHeight);
    resumeEditor_->setTabChangesFocus(true);
    bindText(resumeEditor_, settings_, &AppSettings::resume, &AppSettings::setResume,
             &AppSettings::resumeChanged);
    connect(&settings_, &AppSettings::resumeChanged, this, &OnboardingView::showResume);
    layout->addWidget(resumeEditor_, 1);
    layout->addSpacing(paragraphGap);

    layout->addWidget(headingLabel(QStringLiteral("Job description (optional)")));
    jobEditor_ = new QPlainTextEdit;
    jobEditor_->setAccessibleName(QStringLiteral("Job description (optional)"));
    jobEditor_->setFont(editorFont);
    jobEditor_->setFixedHeight(jobDescriptionHeight);
    jobEditor_->setTabChangesFocus(true);
    bindText(jobEditor_, settings_, &AppSettings::jobDescription, &AppSettings::setJobDescription,
             &AppSettings::jobDescriptionChanged);
    layout->addWidget(jobEditor_);
    layout->addSpacing(paragraphGap);

    resumeNext_ = prominentButton(QString(), true);
    connect(resumeNext_, &QPushButton::clicked, this, [this] { setStep(Step::ready); });
    layout->addWidget(resumeNext_);
    return page;
}

QWidget* OnboardingView::buildReady() {
    auto* page = new QWidget;
    auto* layout = pageLayout(page);
    layout->addWidget(titleLabel(QStringLiteral("You're set")));
    QLabel* intro = wrappedLabel(
        QStringLiteral("Tallowind lives in your system tray. Use these shortcuts from any app:"));
    secondaryLabels_.append(intro);
    layout->addWidget(intro);
    layout->addSpacing(paragraphGap);

    for (const Shortcuts::Shortcut& shortcut : Shortcuts::all()) {
        auto* row = new QHBoxLayout;
        QLabel* keys = headingLabel(shortcut.keys);
        keys->setWordWrap(false);
        keys->setFixedWidth(shortcutKeysWidth);
        row->addWidget(keys);
        row->addWidget(wrappedLabel(shortcut.description), 1);
        layout->addLayout(row);
    }
    layout->addSpacing(sectionGap);

    // The tip sits on a shaded panel of its own.
    auto* tip = new QLabel(QStringLiteral(
        "Tip: put Tallowind near your camera so your eyes stay close to the lens. Some interviews "
        "and assessments don't allow outside help. Check the rules before you use Tallowind."));
    tip->setObjectName(QStringLiteral("tip"));
    tip->setWordWrap(true);
    tip->setTextFormat(Qt::PlainText);
    tip->setContentsMargins(tipMargins);
    layout->addWidget(tip);
    layout->addStretch();

    finishButton_ = prominentButton(QStringLiteral("Open Tallowind"), true);
    connect(finishButton_, &QPushButton::clicked, this, &OnboardingView::finished);
    layout->addWidget(finishButton_);
    return page;
}

void OnboardingView::setStep(Step step) {
    const bool changed = step != step_;
    step_ = step;
    const int index = static_cast<int>(step);
    steps_->setCurrentIndex(index);
    capsules_->setCurrent(index);
    // The devices are only asked about while their step is on screen.
    if (step == Step::permissions) {
        checkPermissions();
        permissionsTimer_->start();
    } else {
        permissionsTimer_->stop();
    }
    switch (step) {
        case Step::signIn:
            emailField_->setFocus();
            break;
        case Step::permissions:
            permissionsNext_->setFocus();
            break;
        case Step::resume:
            resumeEditor_->setFocus();
            break;
        case Step::ready:
            finishButton_->setFocus();
            break;
    }
    if (changed) {
        emit stepChanged();
    }
}

void OnboardingView::sendCode() {
    busy_ = true;
    error_.reset();
    showSignIn();
    QPointer<OnboardingView> self(this);
    backend_.startLogin(SignInRules::trimmedEmail(emailField_->text()),
                        [self](const Result<std::optional<QString>>& result) {
                            if (!self) {
                                return;
                            }
                            if (result) {
                                self->devCode_ = result.value();
                                self->codeSent_ = true;
                            } else {
                                self->error_ = result.failure().description();
                            }
                            self->busy_ = false;
                            self->showSignIn();
                            if (self->codeSent_) {
                                self->codeField_->setFocus();
                            }
                        });
}

void OnboardingView::verify() {
    busy_ = true;
    error_.reset();
    showSignIn();
    const QString email = SignInRules::verifiedEmail(emailField_->text());
    QPointer<OnboardingView> self(this);
    backend_.verifyLogin(email, SignInRules::codeDigits(codeField_->text()),
                         [self, email](const Result<QString>& result) {
                             if (!self) {
                                 return;
                             }
                             if (result) {
                                 self->settings_.setEmail(email);
                                 self->setStep(Step::permissions);
                             } else {
                                 self->error_ = result.failure().description();
                             }
                             self->busy_ = false;
                             self->showSignIn();
                         });
}

void OnboardingView::useDifferentEmail() {
    codeSent_ = false;
    codeField_->clear();
    showSignIn();
    emailField_->setFocus();
}

void OnboardingView::showSignIn() {
    signInForms_->setCurrentIndex(codeSent_ ? 1 : 0);
    sendButton_->setText(busy_ ? QStringLiteral("Sending\u2026") : QStringLiteral("Email me a code"));
    sendButton_->setEnabled(!busy_ && SignInRules::canSendCode(emailField_->text()));
    codeHeading_->setText(QStringLiteral("Enter the 6-digit code we sent to ") + emailField_->text());
    devCodeCaption_->setVisible(devCode_.has_value());
    devCodeCaption_->setText(QStringLiteral("Dev mode code: ") + devCode_.value_or(QString()));
    verifyButton_->setText(busy_ ? QStringLiteral("Checking\u2026") : QStringLiteral("Continue"));
    verifyButton_->setEnabled(!busy_ && SignInRules::canVerify(codeField_->text()));
    errorLabel_->setVisible(error_.has_value());
    errorLabel_->setText(error_.value_or(QString()));
}

void OnboardingView::checkPermissions() {
    // A sound server that is slow to answer is not asked again until it has.
    if (checking_) {
        return;
    }
    checking_ = true;
    QPointer<OnboardingView> self(this);
    permissions_->check([self](Permissions::Grants grants) {
        if (!self) {
            return;
        }
        self->checking_ = false;
        self->grants_ = grants;
        self->showPermissions();
    });
}

void OnboardingView::showPermissions() {
    systemAudioCard_->setGranted(grants_ ? std::optional<bool>(grants_->screen) : std::nullopt);
    microphoneCard_->setGranted(grants_ ? std::optional<bool>(grants_->mic) : std::nullopt);
    permissionsNext_->setText(grants_ && grants_->screen ? QStringLiteral("Continue")
                                                         : QStringLiteral("Skip for now"));
}

void OnboardingView::importResume() {
    const QString path = ResumeImporter::pickFile(this);
    if (path.isEmpty()) {
        return;
    }
    if (const std::optional<QString> text = ResumeImporter::text(path)) {
        settings_.setResume(*text);
    }
}

void OnboardingView::readDroppedFile(const QString& path) {
    // A large PDF takes a moment to read; the window keeps answering meanwhile.
    QPointer<OnboardingView> self(this);
    QThreadPool::globalInstance()->start([self, path] {
        std::optional<QString> text = ResumeImporter::text(path);
        QMetaObject::invokeMethod(
            QCoreApplication::instance(),
            [self, text = std::move(text)] {
                if (self && text) {
                    self->settings_.setResume(*text);
                }
            },
            Qt::QueuedConnection);
    });
}

void OnboardingView::showResume() {
    resumeNext_->setText(settings_.resume().isEmpty() ? QStringLiteral("Skip for now")
                                                      : QStringLiteral("Continue"));
}

void OnboardingView::changeEvent(QEvent* event) {
    // Restyling itself changes the palette again; one pass is enough.
    if (event->type() == QEvent::PaletteChange && !applyingColours_) {
        applyColours();
    }
    QWidget::changeEvent(event);
}

void OnboardingView::applyColours() {
    applyingColours_ = true;
    const QPalette& colours = palette();
    for (QLabel* label : std::as_const(secondaryLabels_)) {
        QPalette labelPalette = label->palette();
        labelPalette.setColor(QPalette::WindowText, secondary(colours));
        label->setPalette(labelPalette);
    }
    QPalette errorPalette = errorLabel_->palette();
    errorPalette.setColor(QPalette::WindowText, QColor(isDark(colours) ? errorOnDark : errorOnLight));
    errorLabel_->setPalette(errorPalette);

    const QColor accent = colours.color(QPalette::Highlight);
    const QColor text = colours.color(QPalette::WindowText);
    showEditorBorders();

    setStyleSheet(
        QStringLiteral(
            "QPushButton[prominent=\"true\"] { background-color: %1; color: %2; border: 1px solid %1;"
            " border-radius: 6px; padding: 6px 16px; font-weight: 600; }"
            "QPushButton[prominent=\"true\"]:hover { background-color: %3; }"
            "QPushButton[prominent=\"true\"]:focus { border: 2px solid %4; }"
            "QPushButton[prominent=\"true\"]:disabled { background-color: %5; border-color: %5; color: %6; }"
            "QPushButton[link=\"true\"] { border: none; background: transparent; color: %7; padding: 6px "
            "4px; }"
            "QPushButton[link=\"true\"]:focus { text-decoration: underline; }"
            "QLabel#tip { background-color: %8; border-radius: 8px; }")
            .arg(rgba(accent), rgba(colours.color(QPalette::HighlightedText)), rgba(accent.lighter(110)),
                 rgba(withAlpha(text, focusRingAlpha)), rgba(withAlpha(accent, disabledButtonAlpha)),
                 rgba(withAlpha(colours.color(QPalette::HighlightedText), disabledTitleAlpha)),
                 rgba(colours.color(QPalette::Link)), rgba(withAlpha(text, tipAlpha))));
    applyingColours_ = false;
}

void OnboardingView::showEditorBorders() {
    // A file dragged over the resume draws a stronger border than the keyboard focus does.
    const QPalette& colours = palette();
    const QColor accent = colours.color(QPalette::Highlight);
    const QString editor = QStringLiteral(
        "QPlainTextEdit { border: %1px solid %2; border-radius: %3px; padding: 4px; background: "
        "palette(base); }"
        "QPlainTextEdit:focus { border-color: %4; }");
    const QString quiet = rgba(withAlpha(secondary(colours), editorBorderAlpha));
    const QString focus = rgba(withAlpha(accent, focusBorderAlpha));
    resumeEditor_->setStyleSheet(dropHover_
                                     ? editor.arg(2).arg(rgba(accent)).arg(editorRadius).arg(rgba(accent))
                                     : editor.arg(1).arg(quiet).arg(editorRadius).arg(focus));
    jobEditor_->setStyleSheet(editor.arg(1).arg(quiet).arg(editorRadius).arg(focus));
}
