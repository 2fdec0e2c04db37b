#include "appdelegate.h"

#include "appsettings.h"
#include "backendclient.h"
#include "hotkeys.h"
#include "keychain.h"
#include "onboardingview.h"
#include "overlaypanel.h"
#include "sessioncontroller.h"
#include "settingsview.h"
#include "shortcuts.h"
#include "updatedialogs_qt.h"
#include "updater.h"

#include <QAction>
#include <QApplication>
#include <QCloseEvent>
#include <QCursor>
#include <QDeadlineTimer>
#include <QMenu>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QScreen>
#include <QSystemTrayIcon>
#include <QVBoxLayout>

// Resources of a static library must be pulled in by name, from the global namespace.
static void initShellResources() {
    Q_INIT_RESOURCE(shellicons);
}

namespace {

// How long the end of the program waits for the last usage report to leave.
constexpr int lastReportWait = 3000;

using Operation = void (AppDelegate::*)();

// What each global shortcut does; the order of registration is the table's.
Operation operationFor(Shortcuts::Action action) {
    switch (action) {
        case Shortcuts::Action::toggleListening:
            return &AppDelegate::toggleListening;
        case Shortcuts::Action::answerNow:
            return &AppDelegate::answerNow;
        case Shortcuts::Action::toggleOverlay:
            return &AppDelegate::toggleOverlay;
        case Shortcuts::Action::clearAnswer:
            return &AppDelegate::clearAnswer;
        case Shortcuts::Action::toggleClickThrough:
            return &AppDelegate::toggleClickThrough;
    }
    return &AppDelegate::toggleListening;
}

}  // namespace

// A top-level window hosting one view. There is no menu bar on Linux: Ctrl+Q and Ctrl+W stand in for
// the main menu's "Quit Tallowind" and "Close"; editing keys are the text fields' own.
class ShellWindow : public QWidget {
public:
    ShellWindow(QWidget* content, const QString& title, std::function<void()> quit,
                std::function<void()> closed)
        : closed_(std::move(closed)) {
        setWindowTitle(title);
        setAttribute(Qt::WA_DeleteOnClose, false);
        auto* layout = new QVBoxLayout(this);
        layout->setContentsMargins(0, 0, 0, 0);
        layout->addWidget(content);

        auto* quitAction = new QAction(tr("Quit Tallowind"), this);
        quitAction->setShortcut(QKeySequence::Quit);
        connect(quitAction, &QAction::triggered, this, std::move(quit));
        auto* closeAction = new QAction(tr("Close"), this);
        closeAction->setShortcut(QKeySequence::Close);
        connect(closeAction, &QAction::triggered, this, &QWidget::close);
        addActions({quitAction, closeAction});
    }

    void present() {
        if (!isVisible()) {
            const QRect screen = QApplication::primaryScreen()->availableGeometry();
            adjustSize();
            move(screen.center() - rect().center());
        }
        show();
        raise();
        activateWindow();
    }

protected:
    void closeEvent(QCloseEvent* event) override {
        QWidget::closeEvent(event);
        if (event->isAccepted()) {
            closed_();
        }
    }

private:
    std::function<void()> closed_;
};

AppDelegate::AppDelegate(SessionController& session, AppSettings& settings, BackendClient& backend,
                         QObject* parent)
    : QObject(parent)
    , session_(session)
    , settings_(settings)
    , backend_(backend)
    , overlay_(std::make_unique<OverlayPanel>(session, settings))
    , menu_(std::make_unique<QMenu>()) {
    initShellResources();
    QApplication::setWindowIcon(QIcon(QStringLiteral(":/shell/app.svg")));
    menu_->setAccessibleName(QStringLiteral("Tallowind"));
    connect(menu_.get(), &QMenu::aboutToShow, this, &AppDelegate::rebuildMenu);
    connect(overlay_.get(), &OverlayPanel::clickThroughToggleRequested, this,
            &AppDelegate::toggleClickThrough);
    connect(overlay_.get(), &OverlayPanel::settingsRequested, this, &AppDelegate::showSettings);
}

AppDelegate::~AppDelegate() = default;

QWidget* AppDelegate::onboardingWindow() const {
    return onboarding_.get();
}

QWidget* AppDelegate::settingsWindow() const {
    return settingsWindow_.get();
}

void AppDelegate::launch() {

    tray_ = std::make_unique<QSystemTrayIcon>(QIcon(QStringLiteral(":/shell/tray.svg")));
    tray_->setToolTip(QStringLiteral("Tallowind"));
    tray_->setContextMenu(menu_.get());
    // A left click opens the same menu as a right click.
    connect(tray_.get(), &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger) {
            menu_->popup(QCursor::pos());
        }
    });
    tray_->show();

    const QPointer<AppDelegate> self(this);
    for (const Shortcuts::Shortcut& shortcut : Shortcuts::all()) {
        HotKeys::shared().registerShortcut(shortcut, [self, operation = operationFor(shortcut.action)] {
            if (self) {
                (self.data()->*operation)();
            }
        });
    }

    Updater::shared().setDialogs(std::make_unique<MessageBoxUpdateDialogs>());
    Updater::shared().setQuitHandler([self] {
        if (self) {
            self->quit();
        }
    });
    Updater::shared().startChecking();

    if (ShellRules::startWindow(settings_.onboarded(), ::isSignedIn()) == ShellRules::StartWindow::overlay) {
        overlay_->bringToFront();
    } else {
        showOnboarding();
    }
}

void AppDelegate::toggleListening() {
    session_.toggle();
    if (session_.isRunning()) {
        overlay_->bringToFront();
    }
}

void AppDelegate::answerNow() {
    overlay_->bringToFront();
    session_.answerNow();
}

void AppDelegate::toggleOverlay() {
    overlay_->toggleVisible();
}

void AppDelegate::clearAnswer() {
    session_.clear();
}

void AppDelegate::toggleClickThrough() {
    settings_.setClickThrough(!settings_.clickThrough());
    overlay_->applySettings();
}

void AppDelegate::showSettings() {
    if (!settingsWindow_) {
        BackendClient* backend = &backend_;
        auto* view = new SettingsView(
            settings_, session_, [backend](Completion<Account> done) { backend->account(std::move(done)); });
        view->setGlobalShortcutsAvailable(HotKeys::shared().isAvailable());
        connect(&HotKeys::shared(), &HotKeys::availableChanged, view,
                &SettingsView::setGlobalShortcutsAvailable);
        connect(view, &SettingsView::applyOverlaySettingsRequested, overlay_.get(),
                &OverlayPanel::applySettings);
        connect(view, &SettingsView::showOverlayRequested, overlay_.get(), &OverlayPanel::bringToFront);
        connect(view, &SettingsView::signOutRequested, this, &AppDelegate::signOut);
        connect(view, &SettingsView::checkForUpdatesRequested, this, &AppDelegate::checkUpdates);
        settingsWindow_.reset(
            makeWindow(view, QStringLiteral("Tallowind Settings"), ShellRules::Window::settings));
        settingsWindow_->setFixedSize(settingsWindow_->sizeHint());
    }
    settingsWindow_->present();
    setRegular(true);
}

void AppDelegate::showOnboarding() {
    if (!onboarding_) {
        auto* view = new OnboardingView(settings_, backend_);
        connect(view, &OnboardingView::finished, this, &AppDelegate::onboardingFinished);
        onboarding_.reset(makeWindow(view, QStringLiteral("Tallowind"), ShellRules::Window::onboarding));
    }
    onboarding_->present();
    setRegular(true);
}

void AppDelegate::onboardingFinished() {
    settings_.setOnboarded(true);
    if (onboarding_) {
        onboarding_->close();
        // The next onboarding starts afresh; the window may still be delivering the click that finished it.
        onboarding_.release()->deleteLater();
    }
    overlay_->bringToFront();
}

void AppDelegate::checkUpdates() {
    Updater::shared().check(true);
}

void AppDelegate::signOut() {
    session_.stop();
    const QPointer<AppDelegate> self(this);
    backend_.signOut([self](const Result<Done>&) {
        if (!self) {
            return;
        }
        if (self->settingsWindow_) {
            self->settingsWindow_->close();
        }
        self->overlay_->hide();
        self->settings_.setOnboarded(false);
        self->showOnboarding();
    });
}

void AppDelegate::quit() {
    QCoreApplication::quit();
}

void AppDelegate::bringForward() {
    if (onboarding_ && onboarding_->isVisible()) {
        onboarding_->present();
    } else if (settings_.onboarded() && ::isSignedIn()) {
        overlay_->bringToFront();
    } else {
        showOnboarding();
    }
}

void AppDelegate::terminate() {
    if (std::exchange(terminated_, true)) {
        return;
    }
    session_.stop();
    // The usage report is one HTTP request on its way out; the event loop has already ended, so let a
    // local one run until the backend's requests are done or the wait is over.
    const QDeadlineTimer deadline(lastReportWait);
    const auto running = [this] {
        const auto replies = backend_.network().findChildren<QNetworkReply*>();
        return std::any_of(replies.begin(), replies.end(),
                           [](QNetworkReply* reply) { return reply->isRunning(); });
    };
    while (running() && !deadline.hasExpired()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents | QEventLoop::WaitForMoreEvents, 50);
    }
}

void AppDelegate::rebuildMenu() {
    menu_->clear();
    const auto items = ShellRules::menuItems({session_.isRunning(), overlay_->isVisible(), ::isSignedIn()});
    for (const ShellRules::Item& item : items) {
        using ShellRules::Action;
        if (item.action == Action::separator) {
            menu_->addSeparator();
            continue;
        }
        void (AppDelegate::*operation)() = nullptr;
        switch (item.action) {
            case Action::toggleListening:
                operation = &AppDelegate::toggleListening;
                break;
            case Action::answerNow:
                operation = &AppDelegate::answerNow;
                break;
            case Action::toggleOverlay:
                operation = &AppDelegate::toggleOverlay;
                break;
            case Action::showSettings:
                operation = &AppDelegate::showSettings;
                break;
            case Action::checkUpdates:
                operation = &AppDelegate::checkUpdates;
                break;
            case Action::signOut:
                operation = &AppDelegate::signOut;
                break;
            case Action::showOnboarding:
                operation = &AppDelegate::showOnboarding;
                break;
            case Action::quit:
                operation = &AppDelegate::quit;
                break;
            case Action::separator:
                break;
        }
        auto* action = menu_->addAction(item.title);
        // Queued, so that the menu has closed before a window opens or the program ends.
        connect(action, &QAction::triggered, this, operation, Qt::QueuedConnection);
    }
}

ShellWindow* AppDelegate::makeWindow(QWidget* content, const QString& title, ShellRules::Window which) {
    const QPointer<AppDelegate> self(this);
    return new ShellWindow(
        content, title,
        [self] {
            if (self)
                self->quit();
        },
        [self, which] {
            if (self) {
                self->windowClosed(which);
            }
        });
}

void AppDelegate::windowClosed(ShellRules::Window which) {
    setRegular(ShellRules::windowStaysOpen(which, onboarding_ && onboarding_->isVisible(),
                                           settingsWindow_ && settingsWindow_->isVisible()));
}

void AppDelegate::setRegular(bool value) {
    if (regular_ != value) {
        regular_ = value;
        emit regularChanged();
    }
}
