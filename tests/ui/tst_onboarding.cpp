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

using namespace Qt::StringLiterals;

namespace {

// The visible widget whose text starts with `text`, or whose accessible name is `text`.
template <typename T = QPushButton>
T* find(QWidget& root, const QString& text) {
    for (T* candidate : root.findChildren<T*>()) {
        bool found = candidate->accessibleName() == text;
        if constexpr (requires { candidate->text(); }) {
            found = found || candidate->text().startsWith(text);
        }
        if (candidate->isVisible() && found) {
            return candidate;
        }
    }
    return nullptr;
}

QString devCode(QWidget& root) {
    auto* caption = find<QLabel>(root, u"Dev mode code: "_s);
    return caption ? caption->text().section(u' ', 3) : QString();
}

// A private home, the development server, and the window over a fake sound server.
struct Rig {
    explicit Rig(bool signedIn = false) {
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        if (signedIn) {
            Keychain::save(u"stored-token"_s);
        }
        view.emplace(settings, backend, std::move(permissions));
        view->show();
    }

    TestHome home;
    DevServer server;
    AppSettings settings{home.path() + "/settings.ini"_L1};
    BackendClient backend;
    std::unique_ptr<FakePermissions> permissions = std::make_unique<FakePermissions>();
    std::shared_ptr<Permissions::Grants> grants = permissions->grants();
    std::shared_ptr<int> settingsOpened = permissions->settingsOpened();
    std::optional<OnboardingView> view;
};

}  // namespace

// A newcomer's first minutes, driven through the window's own controls against the real server in its
// development mode.
class OnboardingTest : public QObject {
    Q_OBJECT

private slots:
    void newcomerSignsInGivesAResumeAndFinishes() {
        Rig rig;
        OnboardingView& view = *rig.view;
        QVERIFY2(rig.server.url().isValid(), "the development server did not start");

        QLineEdit* email = find<QLineEdit>(view, u"Email"_s);
        QTest::keyClicks(email, u"Ann.Lee@Example.COM  "_s);
        find(view, u"Email me a code"_s)->click();
        QTRY_VERIFY(find<QLabel>(view, u"Enter the 6-digit code we sent to Ann.Lee@Example.COM  "_s));
        const QString firstCode = devCode(view);

        // Back to the form the code is emptied, and a new request brings a new code.
        QLineEdit* code = find<QLineEdit>(view, u"Code"_s);
        QTest::keyClicks(code, u"12"_s);
        find(view, u"Use a different email"_s)->click();
        QVERIFY(code->text().isEmpty());
        QTest::keyClick(email, Qt::Key_Return);
        QTRY_VERIFY(!devCode(view).isEmpty() && devCode(view) != firstCode);

        // A wrong code is refused with the server's message, and the form stays as it was.
        const QString secondCode = devCode(view);
        QTest::keyClicks(code, firstCode);
        find(view, u"Continue"_s)->click();
        QTRY_VERIFY(!view.findChild<QLabel*>(u"signInError"_s)->text().isEmpty());
        QCOMPARE(view.step(), OnboardingView::Step::signIn);
        code->setText(secondCode);
        QTest::keyClick(code, Qt::Key_Return);
        QTRY_COMPARE(view.step(), OnboardingView::Step::permissions);
        QCOMPARE(rig.settings.email(), u"ann.lee@example.com"_s);
        QVERIFY(Keychain::load().has_value());

        // Missing sound devices lead to the sound settings, and one that appears is seen within a second.
        QTRY_VERIFY(find(view, u"Open Sound Settings"_s));
        QVERIFY(find(view, u"Skip for now"_s));
        find(view, u"Open Sound Settings"_s)->click();
        QCOMPARE(*rig.settingsOpened, 1);
        *rig.grants = Permissions::Grants{false, true};
        QTRY_VERIFY_WITH_TIMEOUT(find(view, u"Continue"_s), 1500);
        find(view, u"Continue"_s)->click();
        QCOMPARE(view.step(), OnboardingView::Step::resume);

        // A dropped file fills the resume; the dialog's file replaces it; cleared, it may be skipped again.
        auto* editor = find<QPlainTextEdit>(view, u"Resume"_s);
        const auto write = [&](const QString& name, const QByteArray& contents) {
            QFile file(rig.home.path() + u'/' + name);
            return file.open(QIODevice::WriteOnly) && file.write(contents) ? file.fileName() : QString();
        };
        QMimeData data;
        data.setUrls({QUrl::fromLocalFile(write(u"resume.txt"_s, "\nAnn Lee\n"))});
        QDragEnterEvent enter({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QDropEvent drop({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
        QApplication::sendEvent(editor->viewport(), &enter);
        QApplication::sendEvent(editor->viewport(), &drop);
        QTRY_COMPARE(rig.settings.resume(), u"\nAnn Lee\n"_s);
        QTimer::singleShot(0, this, [picked = write(u"resume.md"_s, "# Ann Lee\n")] {
            auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
            QVERIFY(dialog);
            dialog->selectFile(picked);
            static_cast<QDialog*>(dialog)->accept();
        });
        find(view, u"Import PDF\u2026"_s)->click();
        QCOMPARE(editor->toPlainText(), u"# Ann Lee\n"_s);
        editor->clear();
        find(view, u"Skip for now"_s)->click();

        // Every step so far is marked done in the capsules at the top.
        QWidget* capsules = find<QWidget>(view, u"Step 4 of 4"_s);
        QCOMPARE(capsules->grab().toImage().pixelColor(capsules->width() - 2, capsules->height() / 2),
                 view.palette().color(QPalette::Highlight));
        QSignalSpy finished(&view, &OnboardingView::finished);
        find(view, u"Open Tallowind"_s)->click();
        QCOMPARE(finished.count(), 1);
    }

    void signedInUserStartsAtTheSoundDevices() {
        Rig rig(true);
        QCOMPARE(rig.view->step(), OnboardingView::Step::permissions);
    }
};

QTEST_MAIN(OnboardingTest)
#include "tst_onboarding.moc"
