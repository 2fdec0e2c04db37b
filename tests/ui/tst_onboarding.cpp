#include "appsettings.h"
#include "backendclient.h"
#include "keychain.h"
#include "onboardingfixtures.h"
#include "onboardingview.h"
#include "testenvironment.h"

#include <QApplication>
#include <QFileDialog>
#include <QLabel>
#include <QLineEdit>
#include <QMimeData>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QTimer>

#include <algorithm>
#include <memory>

// A newcomer's first minutes, driven through the window's own controls against the real server in its
// development mode, with the sound server standing in.
class OnboardingTest : public QObject {
    Q_OBJECT

private slots:
    void init();
    void cleanup();
    void newcomerSignsInGivesAResumeAndFinishes();
    void signedInUserStartsAtTheSoundDevices();

private:
    OnboardingView& makeView();

    std::unique_ptr<DevServer> server_;
    std::unique_ptr<TestHome> home_;
    std::unique_ptr<AppSettings> settings_;
    std::unique_ptr<BackendClient> backend_;
    std::shared_ptr<Permissions::Grants> grants_;
    std::shared_ptr<int> settingsOpened_;
    std::unique_ptr<OnboardingView> view_;
};

namespace {

// The visible button labelled `text`, or null.
QPushButton* button(QWidget* root, const QString& text) {
    for (QPushButton* candidate : root->findChildren<QPushButton*>()) {
        if (candidate->isVisible() && candidate->text() == text) {
            return candidate;
        }
    }
    return nullptr;
}

QLineEdit* field(QWidget* root, const QString& accessibleName) {
    for (QLineEdit* candidate : root->findChildren<QLineEdit*>()) {
        if (candidate->accessibleName() == accessibleName) {
            return candidate;
        }
    }
    return nullptr;
}

// The visible label whose text starts with `prefix`, or null.
QLabel* label(QWidget* root, const QString& prefix) {
    for (QLabel* candidate : root->findChildren<QLabel*>()) {
        if (candidate->isVisible() && candidate->text().startsWith(prefix)) {
            return candidate;
        }
    }
    return nullptr;
}

QString devCode(QWidget* root) {
    QLabel* caption = label(root, QStringLiteral("Dev mode code: "));
    return caption ? caption->text().mid(QStringLiteral("Dev mode code: ").size()) : QString();
}

// Drops the file at `path` onto `editor` as a file manager would.
void dropFile(QPlainTextEdit* editor, const QString& path) {
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(path)});
    const QPoint at = editor->viewport()->rect().center();
    QDragEnterEvent enter(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(editor->viewport(), &enter);
    QVERIFY(enter.isAccepted());
    QDropEvent drop(at, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(editor->viewport(), &drop);
    QVERIFY(drop.isAccepted());
}

QString writeFile(const QString& path, const QByteArray& contents) {
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(contents) != contents.size()) {
        return {};
    }
    return path;
}

}  // namespace

void OnboardingTest::init() {
    home_ = std::make_unique<TestHome>();
    server_ = std::make_unique<DevServer>();
    QVERIFY2(server_->url().isValid(), "the development server did not start");
    home_->environment().set("TALLOWIND_SERVER", server_->url().toString().toUtf8());
    settings_ = std::make_unique<AppSettings>(home_->path() + QStringLiteral("/settings.ini"));
    backend_ = std::make_unique<BackendClient>();
}

void OnboardingTest::cleanup() {
    view_.reset();
    backend_.reset();
    settings_.reset();
    server_.reset();
    home_.reset();
}

OnboardingView& OnboardingTest::makeView() {
    auto permissions = std::make_unique<FakePermissions>();
    grants_ = permissions->grants();
    settingsOpened_ = permissions->settingsOpened();
    view_ = std::make_unique<OnboardingView>(*settings_, *backend_, std::move(permissions));
    view_->show();
    return *view_;
}

void OnboardingTest::newcomerSignsInGivesAResumeAndFinishes() {
    OnboardingView& view = makeView();
    QCOMPARE(view.step(), OnboardingView::Step::signIn);

    // The form: the button waits for an "@"; the address goes out as typed, trimmed.
    QLineEdit* email = field(&view, QStringLiteral("Email"));
    QVERIFY(email);
    QTest::keyClicks(email, QStringLiteral("Ann.Lee"));
    QVERIFY(!button(&view, QStringLiteral("Email me a code"))->isEnabled());
    QTest::keyClicks(email, QStringLiteral("@Example.COM  "));
    QPushButton* send = button(&view, QStringLiteral("Email me a code"));
    QVERIFY(send->isEnabled());
    send->click();
    QCOMPARE(send->text(), QStringLiteral("Sending\u2026"));
    QVERIFY(!send->isEnabled());

    QTRY_VERIFY(label(&view, QStringLiteral("Enter the 6-digit code we sent to Ann.Lee@Example.COM  ")));
    const QString firstCode = devCode(&view);
    QCOMPARE(firstCode.size(), 6);

    // Back to the form: the address stays, the code is emptied, and a new request brings a new code.
    QLineEdit* code = field(&view, QStringLiteral("Code"));
    QTest::keyClicks(code, QStringLiteral("12"));
    button(&view, QStringLiteral("Use a different email"))->click();
    QCOMPARE(email->text(), QStringLiteral("Ann.Lee@Example.COM  "));
    QVERIFY(code->text().isEmpty());
    QTest::keyClick(email, Qt::Key_Return);
    QTRY_VERIFY(label(&view, QStringLiteral("Dev mode code: ")) && devCode(&view) != firstCode);
    const QString secondCode = devCode(&view);

    // A wrong code is refused with the server's message, and the form stays as it was.
    QPushButton* verify = button(&view, QStringLiteral("Continue"));
    QTest::keyClicks(code, QStringLiteral("1234567"));
    QVERIFY(!verify->isEnabled());
    code->clear();
    QTest::keyClicks(code, firstCode);
    verify->click();
    QCOMPARE(verify->text(), QStringLiteral("Checking\u2026"));
    QTRY_COMPARE(verify->text(), QStringLiteral("Continue"));
    QCOMPARE(view.step(), OnboardingView::Step::signIn);
    auto* error = view.findChild<QLabel*>(QStringLiteral("signInError"));
    QVERIFY(error->isVisible() && !error->text().isEmpty());
    const QColor red = error->palette().color(QPalette::WindowText);
    QVERIFY(red.red() > 2 * red.green());
    QCOMPARE(code->text(), firstCode);

    // The right code typed in pairs, sent with Return: signed in, the address stored lower-cased.
    code->clear();
    QTest::keyClicks(code, secondCode.left(2) + QLatin1Char(' ') + secondCode.mid(2, 2) + QLatin1Char(' ') +
                               secondCode.mid(4));
    QVERIFY(verify->isEnabled());
    QTest::keyClick(code, Qt::Key_Return);
    QTRY_COMPARE(view.step(), OnboardingView::Step::permissions);
    QCOMPARE(settings_->email(), QStringLiteral("ann.lee@example.com"));
    QVERIFY(Keychain::load().has_value());

    // The sound devices: missing ones lead to the sound settings, and a device that appears is seen
    // within a second without anything pressed.
    QTRY_VERIFY(button(&view, QStringLiteral("Skip for now")));
    button(&view, QStringLiteral("Open Sound Settings"))->click();
    QCOMPARE(*settingsOpened_, 1);
    *grants_ = Permissions::Grants{false, true};
    QTRY_VERIFY_WITH_TIMEOUT(button(&view, QStringLiteral("Continue")), 1500);
    const QList<QPushButton*> buttons = view.findChildren<QPushButton*>();
    QCOMPARE(std::count_if(buttons.begin(), buttons.end(),
                           [](QPushButton* b) {
                               return b->isVisible() && b->text() == QStringLiteral("Open Sound Settings");
                           }),
             1);
    button(&view, QStringLiteral("Continue"))->click();
    QCOMPARE(view.step(), OnboardingView::Step::resume);

    // The resume: a dropped file fills it; the dialog's file replaces it.
    QVERIFY(button(&view, QStringLiteral("Skip for now")));
    auto* editor = view.findChild<QPlainTextEdit*>();
    QCOMPARE(editor->accessibleName(), QStringLiteral("Resume"));
    const QString dropped = writeFile(home_->path() + QStringLiteral("/resume.txt"), "\nAnn Lee\nEngineer\n");
    dropFile(editor, dropped);
    QTRY_COMPARE(settings_->resume(), QStringLiteral("\nAnn Lee\nEngineer\n"));
    QCOMPARE(editor->toPlainText(), settings_->resume());
    QVERIFY(button(&view, QStringLiteral("Continue")));

    const QString picked = writeFile(home_->path() + QStringLiteral("/resume.md"), "# Ann Lee\n");
    QTimer::singleShot(0, this, [picked] {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        QVERIFY(dialog);
        dialog->selectFile(picked);
        static_cast<QDialog*>(dialog)->accept();
    });
    button(&view, QStringLiteral("Import PDF\u2026"))->click();
    QCOMPARE(settings_->resume(), QStringLiteral("# Ann Lee\n"));

    // Cleared by hand, the resume may be skipped again.
    editor->clear();
    QVERIFY(settings_->resume().isEmpty());
    button(&view, QStringLiteral("Skip for now"))->click();
    QCOMPARE(view.step(), OnboardingView::Step::ready);

    QVERIFY(label(&view, QStringLiteral("Ctrl+Alt+Enter")));
    QSignalSpy finished(&view, &OnboardingView::finished);
    button(&view, QStringLiteral("Open Tallowind"))->click();
    QCOMPARE(finished.count(), 1);
}

void OnboardingTest::signedInUserStartsAtTheSoundDevices() {
    Keychain::save(QStringLiteral("stored-token"));
    OnboardingView& view = makeView();
    QCOMPARE(view.step(), OnboardingView::Step::permissions);
}

QTEST_MAIN(OnboardingTest)
#include "tst_onboarding.moc"
