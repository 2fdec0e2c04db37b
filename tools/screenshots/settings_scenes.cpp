#include "appsettings.h"
#include "scenes.h"
#include "sessioncontroller.h"
#include "sessionfakes.h"
#include "settingsview.h"

#include <QTabWidget>
#include <QTemporaryDir>
#include <QVBoxLayout>

namespace {

const QString resume = QStringLiteral(
    "Alex Morgan\n"
    "Senior Software Engineer · alex.morgan@example.org · Lisbon, Portugal\n"
    "\n"
    "Summary\n"
    "Backend engineer with eight years of experience building reliable services in Go, Python and C++.\n"
    "Enjoys turning slow, fragile systems into fast and observable ones, and mentoring engineers along the "
    "way.\n"
    "\n"
    "Experience\n"
    "Staff Engineer, Lumen Freight (2021 to today)\n"
    "- Led the project that replaced a nightly batch pricing job with a streaming pipeline in Go and Kafka; "
    "quotes went from 12 hours stale to under 2 seconds.\n"
    "- Designed the on-call rota and runbooks for 14 services; pages per week fell from 35 to 6.\n");

const QString jobDescription = QStringLiteral(
    "Staff Backend Engineer, Payments. You will own the services that move money between our customers' "
    "bank accounts and lead the design of our open-banking integrations.");

const QString instructions =
    QStringLiteral("Keep answers short and concrete. Mention the pricing pipeline when scale comes up.");

// The settings window as the shell hosts it: its own settings in a private folder, a session over fakes
// that never reaches a server, and an account load that ends at once with `account`.
class SettingsWindow : public QWidget {
public:
    SettingsWindow(int tab, Result<Account> account) {
        settings_ = std::make_unique<AppSettings>(dir_.filePath(QStringLiteral("settings.ini")));
        settings_->setResume(resume);
        settings_->setJobDescription(jobDescription);
        settings_->setExtraInstructions(instructions);

        SessionController::Parts parts;
        parts.settings = settings_.get();
        parts.backend = std::make_unique<FakeBackend>(std::make_shared<FakeBackend::Record>());
        parts.systemCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
        parts.micCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
        parts.microphoneAccess =
            std::make_unique<FakeMicrophoneAccess>(std::make_shared<FakeMicrophoneAccess::Record>());
        session_ = std::make_unique<SessionController>(std::move(parts));

        view_ = std::make_unique<SettingsView>(*settings_, *session_,
                                               [account](Completion<Account> done) { done(account); });
        setWindowTitle(view_->windowTitle());
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(view_.get());
        view_->findChild<QTabWidget*>()->setCurrentIndex(tab);
    }

private:
    QTemporaryDir dir_;
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<SessionController> session_;
    // Last, so that the view goes before the settings and the session it edits.
    std::unique_ptr<SettingsView> view_;
};

const Account alex{QStringLiteral("alex.morgan@example.org"), 42, 600};
const BackendError offline =
    BackendError::network(QStringLiteral("Can't reach Tallowind. Check your internet connection."));

const SceneRegistration registration{
    {QStringLiteral("settings-you"), [] { return std::make_unique<SettingsWindow>(0, alex); }},
    {QStringLiteral("settings-behaviour"), [] { return std::make_unique<SettingsWindow>(1, alex); }},
    {QStringLiteral("settings-account"), [] { return std::make_unique<SettingsWindow>(2, alex); }},
    {QStringLiteral("settings-account-error"), [] { return std::make_unique<SettingsWindow>(2, offline); }},
};

}  // namespace
