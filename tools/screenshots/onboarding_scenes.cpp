#include "appsettings.h"
#include "backendclient.h"
#include "onboardingfixtures.h"
#include "onboardingview.h"
#include "scenes.h"
#include "testenvironment.h"

#include <QCoreApplication>
#include <QDeadlineTimer>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QTemporaryDir>
#include <QVBoxLayout>

#include <functional>

namespace {

const QString email = QStringLiteral("Alex.Morgan@example.org");

const QString resume = QStringLiteral(
    "Alex Morgan\n"
    "Senior Software Engineer \u00b7 alex.morgan@example.org \u00b7 Lisbon, Portugal\n"
    "\n"
    "Summary\n"
    "Backend engineer with eight years of experience building reliable services in Go, Python and C++.\n"
    "\n"
    "Experience\n"
    "Staff Engineer, Lumen Freight (2021 to today)\n"
    "- Replaced a nightly batch pricing job with a streaming pipeline in Go and Kafka; quotes went from 12 "
    "hours stale to under 2 seconds.\n"
    "- Designed the on-call rota and runbooks for 14 services; pages per week fell from 35 to 6.\n");

const QString jobDescription = QStringLiteral(
    "Staff Backend Engineer, Payments. You will own the services that move money between our customers' "
    "bank accounts.");

// One development server for every scene that signs in, so that the codes shown are real ones.
const DevServer& server() {
    static const DevServer instance;
    return instance;
}

bool waitFor(const std::function<bool()>& done) {
    const QDeadlineTimer deadline(5000);
    while (!done() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return done();
}

// The onboarding as the shell hosts it, over settings and a token store of its own in a private folder,
// with the sound server standing in. A window that starts signed in begins at the sound devices.
class OnboardingWindow : public QWidget {
public:
    OnboardingWindow(bool signedIn, Permissions::Grants grants) {
        environment_.set("XDG_CONFIG_HOME", dir_.path().toUtf8());
        environment_.set("TALLOWIND_TOKEN_STORE", "file");
        environment_.set("TALLOWIND_SERVER", server().url().toString().toUtf8());
        if (signedIn) {
            environment_.set("TALLOWIND_TOKEN", "scene");
        } else {
            environment_.unset("TALLOWIND_TOKEN");
        }
        settings_ = std::make_unique<AppSettings>(dir_.filePath(QStringLiteral("settings.ini")));
        view_ = new OnboardingView(*settings_, backend_, std::make_unique<FakePermissions>(grants));
        setWindowTitle(QStringLiteral("Tallowind"));
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(view_);
    }

    AppSettings& settings() { return *settings_; }

    template <typename T>
    T* find(const QString& accessibleName) const {
        for (T* candidate : view_->findChildren<T*>()) {
            if (candidate->isVisibleTo(view_) &&
                (candidate->accessibleName() == accessibleName || candidate->text() == accessibleName)) {
                return candidate;
            }
        }
        return nullptr;
    }

    void click(const QString& text) {
        if (auto* button = find<QPushButton>(text)) {
            button->click();
        }
    }

    void type(const QString& field, const QString& text) {
        if (auto* edit = find<QLineEdit>(field)) {
            edit->setText(text);
        }
    }

    // Asks the server for a code and waits for the code entry.
    void requestCode() {
        type(QStringLiteral("Email"), email);
        click(QStringLiteral("Email me a code"));
        waitFor([this] { return find<QLineEdit>(QStringLiteral("Code")) != nullptr; });
    }

private:
    QTemporaryDir dir_;
    ScopedEnvironment environment_;
    std::unique_ptr<AppSettings> settings_;
    BackendClient backend_;
    OnboardingView* view_ = nullptr;
};

std::unique_ptr<QWidget> signIn() {
    auto window = std::make_unique<OnboardingWindow>(false, Permissions::Grants{});
    window->type(QStringLiteral("Email"), email);
    return window;
}

std::unique_ptr<QWidget> codeEntry() {
    auto window = std::make_unique<OnboardingWindow>(false, Permissions::Grants{});
    window->requestCode();
    return window;
}

std::unique_ptr<QWidget> wrongCode() {
    auto window = std::make_unique<OnboardingWindow>(false, Permissions::Grants{});
    window->requestCode();
    window->type(QStringLiteral("Code"), QStringLiteral("000 000"));
    window->click(QStringLiteral("Continue"));
    OnboardingWindow* shown = window.get();
    waitFor([shown] { return shown->find<QPushButton>(QStringLiteral("Continue")) != nullptr; });
    return window;
}

std::unique_ptr<QWidget> permissions(Permissions::Grants grants) {
    return std::make_unique<OnboardingWindow>(true, grants);
}

std::unique_ptr<QWidget> resumeStep() {
    auto window = std::make_unique<OnboardingWindow>(true, Permissions::Grants{true, true});
    window->settings().setResume(resume);
    window->settings().setJobDescription(jobDescription);
    OnboardingWindow* shown = window.get();
    waitFor([shown] { return shown->find<QPushButton>(QStringLiteral("Continue")) != nullptr; });
    window->click(QStringLiteral("Continue"));
    return window;
}

std::unique_ptr<QWidget> ready() {
    auto window = std::make_unique<OnboardingWindow>(true, Permissions::Grants{true, true});
    window->click(QStringLiteral("Skip for now"));
    window->click(QStringLiteral("Skip for now"));
    return window;
}

const SceneRegistration registration{
    {QStringLiteral("onboarding-signin"), signIn},
    {QStringLiteral("onboarding-signin-code"), codeEntry},
    {QStringLiteral("onboarding-signin-error"), wrongCode},
    {QStringLiteral("onboarding-permissions-missing"),
     [] {
         return permissions({false, false});
     }},
    {QStringLiteral("onboarding-permissions-granted"),
     [] {
         return permissions({true, true});
     }},
    {QStringLiteral("onboarding-resume"), resumeStep},
    {QStringLiteral("onboarding-ready"), ready},
};

}  // namespace
