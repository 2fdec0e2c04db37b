#pragma once

#include "permissions.h"

#include <QString>
#include <QWidget>

#include <memory>
#include <optional>

class AppSettings;
class BackendClient;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QPushButton;
class QStackedWidget;
class QTimer;
class PermissionCard;
class StepCapsules;

// The first-run window's content: sign in with an e-mailed code, see that the call can be heard, give a
// resume, learn the shortcuts. The flow only moves forward, except inside the sign-in step:
//
//   created, not signed in  -> signIn
//   created, signed in      -> permissions
//   signIn       code verified                  -> permissions
//   permissions  "Continue" or "Skip for now"   -> resume
//   resume       "Continue" or "Skip for now"   -> ready
//   ready        "Open Tallowind"               -> finished() (the shell stores that onboarding is done)
//
// Inside signIn: form -> (code e-mailed) code entry -> (verified) permissions; "Use a different email"
// goes back from code entry to the form. A failed request stays where it was and shows its message.
class OnboardingView : public QWidget {
    Q_OBJECT
    Q_PROPERTY(Step step READ step NOTIFY stepChanged)

public:
    enum class Step { signIn, permissions, resume, ready };
    Q_ENUM(Step)

    // The first step is decided here, once: a user who is already signed in starts at the permissions.
    OnboardingView(AppSettings& settings, BackendClient& backend,
                   std::unique_ptr<Permissions::Source> permissions = Permissions::soundServer(),
                   QWidget* parent = nullptr);
    ~OnboardingView() override;

    Step step() const { return step_; }

signals:
    void stepChanged();
    // "Open Tallowind" was pressed.
    void finished();

protected:
    void changeEvent(QEvent* event) override;

private:
    QWidget* buildSignIn();
    QWidget* buildPermissions();
    QWidget* buildResume();
    QWidget* buildReady();

    void setStep(Step step);
    void sendCode();
    void verify();
    void useDifferentEmail();
    void showSignIn();

    void checkPermissions();
    void showPermissions();

    void importResume();
    void readDroppedFile(const QString& path);
    void showResume();

    void applyColours();
    void showEditorBorders();

    AppSettings& settings_;
    BackendClient& backend_;
    std::unique_ptr<Permissions::Source> permissions_;
    Step step_;

    // Sign-in state; the address and the code are the fields' own text.
    bool codeSent_ = false;
    bool busy_ = false;
    std::optional<QString> error_;
    std::optional<QString> devCode_;

    // Nothing is known of the devices until the sound server first answers.
    std::optional<Permissions::Grants> grants_;
    bool checking_ = false;

    StepCapsules* capsules_ = nullptr;
    QStackedWidget* steps_ = nullptr;

    QStackedWidget* signInForms_ = nullptr;
    QLineEdit* emailField_ = nullptr;
    QPushButton* sendButton_ = nullptr;
    QLabel* codeHeading_ = nullptr;
    QLabel* devCodeCaption_ = nullptr;
    QLineEdit* codeField_ = nullptr;
    QPushButton* verifyButton_ = nullptr;
    QLabel* errorLabel_ = nullptr;

    PermissionCard* systemAudioCard_ = nullptr;
    PermissionCard* microphoneCard_ = nullptr;
    QPushButton* permissionsNext_ = nullptr;
    QTimer* permissionsTimer_ = nullptr;

    QPlainTextEdit* resumeEditor_ = nullptr;
    QPlainTextEdit* jobEditor_ = nullptr;
    QPushButton* resumeNext_ = nullptr;
    bool dropHover_ = false;

    QPushButton* finishButton_ = nullptr;
    QList<QLabel*> secondaryLabels_;
    bool applyingColours_ = false;
};
