#pragma once

#include "backendclient.h"
#include "backenderror.h"

#include <QWidget>

#include <functional>
#include <optional>

class AppSettings;
class SessionController;
class QCheckBox;
class QLabel;
class QLineEdit;
class QPlainTextEdit;
class QProgressBar;
class QPushButton;
class QSlider;
class QTabWidget;
class QFormLayout;

// The content of the settings window: the user's resume, job description and standing instructions
// ("You"), the behaviour switches, the overlay's opacity and a test question ("Behaviour"), and the
// account's monthly minutes with the version, the update check and sign-out ("Account").
//
// Every control writes its setting straight through and follows changes made anywhere else; nothing is
// copied into the view. What belongs to the shell (the overlay's window, sign-out, the updater) is asked
// for through the signals below, which the shell connects.
//
// The window that hosts the view is created once and kept, so the view's own state (the test question,
// the last loaded account, the chosen tab) lives for the whole run.
class SettingsView : public QWidget {
    Q_OBJECT

public:
    // Fetches the signed-in account and calls `done` once, on the main thread.
    using AccountLoader = std::function<void(Completion<Account> done)>;
    // Lets the user choose a resume file and yields its text; nothing when cancelled or unreadable.
    using ResumePicker = std::function<std::optional<QString>(QWidget* parent)>;

    static QString defaultTestQuestion();

    // `pickResume` defaults to the file dialog of the resume importer.
    SettingsView(AppSettings& settings, SessionController& session, AccountLoader loadAccount,
                 ResumePicker pickResume = {}, QWidget* parent = nullptr);
    ~SettingsView() override;

    // Whether this desktop lets the program register its global shortcuts; when it doesn't, the
    // Behaviour tab says so. The shell may learn this only after the desktop has answered.
    void setGlobalShortcutsAvailable(bool available);

signals:
    // The overlay panel should apply the opacity and click-through settings now.
    void applyOverlaySettingsRequested();
    // The overlay panel should come to the front without taking the keyboard focus.
    void showOverlayRequested();
    void checkForUpdatesRequested();
    void signOutRequested();

protected:
    void changeEvent(QEvent* event) override;
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    QWidget* makeYouTab();
    QWidget* makeBehaviourTab();
    QWidget* makeAccountTab();

    QPlainTextEdit* makeEditor(const QString& name, int minimumHeight, QString (AppSettings::*read)() const,
                               void (AppSettings::*write)(const QString&), void (AppSettings::*changed)());
    QCheckBox* makeSwitch(const QString& text, bool (AppSettings::*read)() const,
                          void (AppSettings::*write)(bool), void (AppSettings::*changed)());

    void importResume();
    void ask();
    void showOpacity();
    void showResumeLength();

    void startAccountLoad();
    void accountLoaded(const Result<Account>& result);
    void showAccount();

    // Colours and icons that derive from the palette, redone when the desktop's theme changes.
    void applyPalette();

    AppSettings& settings_;
    SessionController& session_;
    AccountLoader loadAccount_;
    ResumePicker pickResume_;

    // The account as last loaded and the description of the last failed load; a failure keeps the
    // account, a success keeps the error (the account wins on screen).
    std::optional<Account> account_;
    std::optional<QString> accountError_;
    // Counts account loads; a result for any other than the current one is dropped, which is how a load
    // is cancelled when its tab goes away.
    quint64 accountLoad_ = 0;

    QTabWidget* tabs_ = nullptr;
    QLabel* resumeLength_ = nullptr;
    QSlider* opacity_ = nullptr;
    QLineEdit* testQuestion_ = nullptr;
    QLabel* shortcutsNote_ = nullptr;
    QCheckBox* clickThrough_ = nullptr;
    QWidget* accountPage_ = nullptr;
    QFormLayout* accountForm_ = nullptr;
    QLabel* accountEmail_ = nullptr;
    QLabel* accountMinutes_ = nullptr;
    QLabel* accountErrorLabel_ = nullptr;
    QProgressBar* accountLoading_ = nullptr;
    QPushButton* signOut_ = nullptr;
    QList<QLabel*> secondaryLabels_;
};
