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
template <typename T>
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
    explicit Rig(bool signedIn = false) : prepared(prepare(signedIn)) { view.show(); }

    bool prepare(bool signedIn) {
        home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
        if (signedIn) {
            Keychain::save(u"stored-token"_s);
        }
        return server.url().isValid();
    }
    QString write(const QString& name, const QByteArray& contents) {
        QFile file(home.path() + u'/' + name);
        return file.open(QIODevice::WriteOnly) && file.write(contents) == contents.size() ? file.fileName()
                                                                                          : QString();
    }

    TestHome home;
    DevServer server;
    bool prepared;
    AppSettings settings{home.path() + "/settings.ini"_L1};
    BackendClient backend;
    std::unique_ptr<FakePermissions> permissions = std::make_unique<FakePermissions>();
    std::shared_ptr<Permissions::Grants> grants = permissions->grants();
    std::shared_ptr<int> settingsOpened = permissions->settingsOpened();
    OnboardingView view{settings, backend, std::move(permissions)};
};

}  // namespace

// A newcomer's first minutes, driven through the window's own controls against the real server in its
// development mode.
class OnboardingTest : public QObject {
    Q_OBJECT

private slots:
    void newcomerSignsInGivesAResumeAndFinishes();
    void signedInUserStartsAtTheSoundDevices();
};

void OnboardingTest::newcomerSignsInGivesAResumeAndFinishes() {
    Rig rig;
    OnboardingView& view = rig.view;
    QVERIFY2(rig.prepared, "the development server did not start");
    QCOMPARE(view.step(), OnboardingView::Step::signIn);

    // The buttons follow the sign-in rules as the user types.
    QLineEdit* email = find<QLineEdit>(view, u"Email"_s);
    QPushButton* send = find<QPushButton>(view, u"Email me a code"_s);
    QVERIFY(!send->isEnabled());
    QTest::keyClicks(email, u"Ann.Lee@Example.COM  "_s);
    send->click();
    QTRY_VERIFY(find<QLabel>(view, u"Enter the 6-digit code we sent to Ann.Lee@Example.COM  "_s));
    const QString firstCode = devCode(view);
    QCOMPARE(firstCode.size(), 6);

    // Back to the form the address stays, the code is emptied, and a new request brings a new code.
    QLineEdit* code = find<QLineEdit>(view, u"Code"_s);
    QPushButton* verify = find<QPushButton>(view, u"Continue"_s);
    QTest::keyClicks(code, u"12"_s);
    QVERIFY(!verify->isEnabled());
    find<QPushButton>(view, u"Use a different email"_s)->click();
    QVERIFY(code->text().isEmpty());
    QTest::keyClick(email, Qt::Key_Return);
    QTRY_VERIFY(!devCode(view).isEmpty() && devCode(view) != firstCode);
    const QString secondCode = devCode(view);

    // A wrong code is refused with the server's message, and the form stays as it was.
    QTest::keyClicks(code, firstCode);
    verify->click();
    QCOMPARE(verify->text(), u"Checking\u2026"_s);
    QTRY_COMPARE(verify->text(), u"Continue"_s);
    QCOMPARE(view.step(), OnboardingView::Step::signIn);
    QVERIFY(!view.findChild<QLabel*>(u"signInError"_s)->text().isEmpty());
    QCOMPARE(code->text(), firstCode);

    code->clear();
    QTest::keyClicks(code, secondCode);
    QTest::keyClick(code, Qt::Key_Return);
    QTRY_COMPARE(view.step(), OnboardingView::Step::permissions);
    QCOMPARE(rig.settings.email(), u"ann.lee@example.com"_s);
    QVERIFY(Keychain::load().has_value());

    // Missing sound devices lead to the sound settings, and one that appears is seen within a second.
    // The sound server answers after the step is shown.
    QTRY_VERIFY(find<QPushButton>(view, u"Open Sound Settings"_s) &&
                find<QPushButton>(view, u"Skip for now"_s));
    find<QPushButton>(view, u"Open Sound Settings"_s)->click();
    QCOMPARE(*rig.settingsOpened, 1);
    *rig.grants = Permissions::Grants{false, true};
    QTRY_VERIFY_WITH_TIMEOUT(find<QPushButton>(view, u"Continue"_s), 1500);
    find<QPushButton>(view, u"Continue"_s)->click();
    QCOMPARE(view.step(), OnboardingView::Step::resume);

    // A dropped file fills the resume; the dialog's file replaces it; cleared, it may be skipped again.
    auto* editor = find<QPlainTextEdit>(view, u"Resume"_s);
    QMimeData data;
    data.setUrls({QUrl::fromLocalFile(rig.write(u"resume.txt"_s, "\nAnn Lee\n"))});
    QDragEnterEvent enter({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QDropEvent drop({10, 10}, Qt::CopyAction, &data, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(editor->viewport(), &enter);
    QApplication::sendEvent(editor->viewport(), &drop);
    QTRY_COMPARE(rig.settings.resume(), u"\nAnn Lee\n"_s);
    QCOMPARE(editor->toPlainText(), rig.settings.resume());

    const QString picked = rig.write(u"resume.md"_s, "# Ann Lee\n");
    QTimer::singleShot(0, this, [picked] {
        auto* dialog = qobject_cast<QFileDialog*>(QApplication::activeModalWidget());
        QVERIFY(dialog);
        dialog->selectFile(picked);
        static_cast<QDialog*>(dialog)->accept();
    });
    find<QPushButton>(view, u"Import PDF\u2026"_s)->click();
    QCOMPARE(rig.settings.resume(), u"# Ann Lee\n"_s);
    editor->clear();
    QVERIFY(rig.settings.resume().isEmpty());
    find<QPushButton>(view, u"Skip for now"_s)->click();
    QCOMPARE(view.step(), OnboardingView::Step::ready);

    QSignalSpy finished(&view, &OnboardingView::finished);
    find<QPushButton>(view, u"Open Tallowind"_s)->click();
    QCOMPARE(finished.count(), 1);
}

void OnboardingTest::signedInUserStartsAtTheSoundDevices() {
    Rig rig(true);
    QCOMPARE(rig.view.step(), OnboardingView::Step::permissions);
}

QTEST_MAIN(OnboardingTest)
#include "tst_onboarding.moc"
