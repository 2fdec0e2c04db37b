#include "appsettings.h"
#include "backendclient.h"
#include "sessioncontroller.h"
#include "sessionfakes.h"
#include "settingsview.h"
#include "testenvironment.h"
#include "testhttpserver.h"

#include <QCheckBox>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLabel>
#include <QLineEdit>
#include <QPlainTextEdit>
#include <QProgressBar>
#include <QPushButton>
#include <QSignalSpy>
#include <QSlider>
#include <QTabWidget>
#include <QTest>

namespace {

// One thing the test does to the Account tab, and what its account block shows afterwards.
struct AccountStep {
    enum class Action { open, leave, succeed, fail };
    Action action;
    QString shows;  // "loading", "error: TEXT" or "EMAIL, MINUTES"
};

const Account ada{QStringLiteral("ada@example.test"), 42, 600};
const QString adaShown = QStringLiteral("ada@example.test, 42 of 600 min");
const QString offline = QStringLiteral("Can't reach Tallowind. Check your internet connection.");

// The view over real settings in a private home and a session whose backend is the real client, so that
// an answer goes to whatever server TALLOWIND_SERVER names. Account loads wait until the test finishes
// them; the resume picker yields `picked`.
struct Harness {
    Harness() {
        SessionController::Parts parts;
        parts.settings = &settings;
        parts.backend = SessionBackend::over(client);
        parts.systemCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
        parts.micCapture = std::make_unique<FakeCapture>(std::make_shared<FakeCapture::Record>());
        parts.microphoneAccess =
            std::make_unique<FakeMicrophoneAccess>(std::make_shared<FakeMicrophoneAccess::Record>());
        session = std::make_unique<SessionController>(std::move(parts));
        view = std::make_unique<SettingsView>(
            settings, *session, [this](Completion<Account> done) { loads.append(std::move(done)); },
            [this](QWidget*) { return picked; });
        view->show();
    }

    template <typename T>
    T* child(const char* name) const {
        return view->findChild<T*>(QLatin1String(name));
    }
    QTabWidget* tabs() const { return view->findChild<QTabWidget*>(); }
    QPushButton* button(const QString& text) const {
        for (QPushButton* button : view->findChildren<QPushButton*>()) {
            if (button->text() == text) {
                return button;
            }
        }
        return nullptr;
    }
    QString editorText(const char* name) const {
        return child<QPlainTextEdit>(name)->document()->toRawText().replace(QChar::ParagraphSeparator, u'\n');
    }
    // What the Account tab's block shows, whether or not the tab is the current one.
    QString accountShown() const {
        const QWidget* page = tabs()->widget(2);
        if (child<QProgressBar>("accountLoading")->isVisibleTo(page)) {
            return QStringLiteral("loading");
        }
        if (auto* error = child<QLabel>("accountError"); error->isVisibleTo(page)) {
            return QStringLiteral("error: ") + error->text();
        }
        return child<QLabel>("accountEmail")->text() + QStringLiteral(", ") +
               child<QLabel>("accountMinutes")->text();
    }

    TestHome home;
    AppSettings settings{home.configPath() + QStringLiteral("/settings.ini")};
    BackendClient client;
    std::unique_ptr<SessionController> session;
    QList<Completion<Account>> loads;
    std::optional<QString> picked;
    std::unique_ptr<SettingsView> view;
};

}  // namespace

Q_DECLARE_METATYPE(AccountStep)
Q_DECLARE_METATYPE(std::optional<QString>)

class SettingsViewTest : public QObject {
    Q_OBJECT

private slots:
    void accountBlockFollowsLoads_data();
    void accountBlockFollowsLoads();
    void overlayFollowsTheControls_data();
    void overlayFollowsTheControls();
    void controlsFollowChangesMadeElsewhere_data();
    void controlsFollowChangesMadeElsewhere();
    void resumeCountIsInCharactersAReaderSees_data();
    void resumeCountIsInCharactersAReaderSees();
    void importReplacesTheWholeResume_data();
    void importReplacesTheWholeResume();
    void typingKeepsNoBreakSpacesInTheResume();
    void askSendsTheTestQuestionWithoutListening();
};

void SettingsViewTest::accountBlockFollowsLoads_data() {
    using A = AccountStep::Action;
    QTest::addColumn<QList<AccountStep>>("steps");
    QTest::newRow("a loaded account shows its address and minutes")
        << QList<AccountStep>{{A::open, "loading"}, {A::succeed, adaShown}};
    QTest::newRow("no network shows the error, the network back shows the account")
        << QList<AccountStep>{{A::open, "loading"},
                              {A::fail, "error: " + offline},
                              {A::leave, "error: " + offline},
                              {A::open, "error: " + offline},
                              {A::succeed, adaShown}};
    QTest::newRow("a failed reload keeps the old account") << QList<AccountStep>{{A::open, "loading"},
                                                                                 {A::succeed, adaShown},
                                                                                 {A::leave, adaShown},
                                                                                 {A::open, adaShown},
                                                                                 {A::fail, adaShown}};
    QTest::newRow("a load that ends after the tab was left is dropped")
        << QList<AccountStep>{{A::open, "loading"},
                              {A::leave, "loading"},
                              {A::succeed, "loading"},
                              {A::open, "loading"},
                              {A::succeed, adaShown}};
}

void SettingsViewTest::accountBlockFollowsLoads() {
    QFETCH(QList<AccountStep>, steps);
    Harness h;
    QTabWidget* tabs = h.tabs();
    QCOMPARE(tabs->currentIndex(), 0);
    QVERIFY(h.loads.isEmpty());

    int finished = 0;
    for (const AccountStep& step : steps) {
        switch (step.action) {
            case AccountStep::Action::open:
                tabs->setCurrentIndex(2);
                break;
            case AccountStep::Action::leave:
                tabs->setCurrentIndex(0);
                break;
            case AccountStep::Action::succeed:
            case AccountStep::Action::fail:
                QVERIFY2(finished < h.loads.size(), "every open starts one load");
                h.loads[finished++](step.action == AccountStep::Action::succeed
                                        ? Result<Account>(ada)
                                        : Result<Account>(BackendError::network(offline)));
                break;
        }
        QCOMPARE(h.accountShown(), step.shows);
    }
    QCOMPARE(h.loads.size(), finished);
}

void SettingsViewTest::overlayFollowsTheControls_data() {
    QTest::addColumn<QByteArray>("control");
    QTest::addColumn<int>("key");
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QVariant>("expected");
    QTest::newRow("the slider's left end makes the overlay 40 % opaque")
        << QByteArray("overlayOpacity") << int(Qt::Key_Home) << QByteArray("overlayOpacity") << QVariant(0.4);
    QTest::newRow("the slider's right end makes it fully opaque")
        << QByteArray("overlayOpacity") << int(Qt::Key_End) << QByteArray("overlayOpacity") << QVariant(1.0);
    QTest::newRow("click-through switched on")
        << QByteArray("clickThrough") << int(Qt::Key_Space) << QByteArray("clickThrough") << QVariant(true);
}

void SettingsViewTest::overlayFollowsTheControls() {
    QFETCH(QByteArray, control);
    QFETCH(int, key);
    QFETCH(QByteArray, setting);
    QFETCH(QVariant, expected);
    Harness h;
    h.settings.setOverlayOpacity(0.45);
    h.tabs()->setCurrentIndex(1);
    QSignalSpy applied(h.view.get(), &SettingsView::applyOverlaySettingsRequested);

    QTest::keyClick(h.child<QWidget>(control), Qt::Key(key));
    QCOMPARE(h.settings.property(setting), expected);
    QVERIFY(!applied.isEmpty());
}

void SettingsViewTest::controlsFollowChangesMadeElsewhere_data() {
    QTest::addColumn<QByteArray>("setting");
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<QByteArray>("control");
    QTest::addColumn<QByteArray>("shownAs");
    QTest::addColumn<QVariant>("shown");
    QTest::newRow("the click-through shortcut ticks the switch")
        << QByteArray("clickThrough") << QVariant(true) << QByteArray("clickThrough") << QByteArray("checked")
        << QVariant(true);
    QTest::newRow("an opacity set elsewhere moves the slider")
        << QByteArray("overlayOpacity") << QVariant(0.55) << QByteArray("overlayOpacity")
        << QByteArray("value") << QVariant(550);
    QTest::newRow("a stored opacity below the range shows at the left end and is not rewritten")
        << QByteArray("overlayOpacity") << QVariant(0.2) << QByteArray("overlayOpacity")
        << QByteArray("value") << QVariant(400);
    QTest::newRow("a resume written elsewhere fills the editor")
        << QByteArray("resume") << QVariant("Line one\nLine two") << QByteArray("resume")
        << QByteArray("plainText") << QVariant("Line one\nLine two");
}

void SettingsViewTest::controlsFollowChangesMadeElsewhere() {
    QFETCH(QByteArray, setting);
    QFETCH(QVariant, value);
    QFETCH(QByteArray, control);
    QFETCH(QByteArray, shownAs);
    QFETCH(QVariant, shown);
    Harness h;
    h.settings.setProperty(setting, value);
    QCOMPARE(h.child<QWidget>(control)->property(shownAs), shown);
    QCOMPARE(h.settings.property(setting), value);
}

void SettingsViewTest::resumeCountIsInCharactersAReaderSees_data() {
    QTest::addColumn<QString>("resume");
    QTest::addColumn<int>("characters");
    QTest::newRow("empty") << QString() << 0;
    QTest::newRow("plain letters") << QStringLiteral("Hello") << 5;
    QTest::newRow("precomposed accents") << QStringLiteral("Café résumé") << 11;
    QTest::newRow("a combining accent counts with its letter") << QStringLiteral("Cafe\u0301") << 4;
    QTest::newRow("an emoji with a skin tone") << QStringLiteral("\U0001F44D\U0001F3FD ok") << 4;
    QTest::newRow("a family emoji counts once")
        << QStringLiteral("\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466") << 1;
    QTest::newRow("two flags") << QStringLiteral("\U0001F1E9\U0001F1EA\U0001F1EB\U0001F1F7") << 2;
    QTest::newRow("a Windows line break counts once") << QStringLiteral("a\r\nb") << 3;
}

void SettingsViewTest::resumeCountIsInCharactersAReaderSees() {
    QFETCH(QString, resume);
    QFETCH(int, characters);
    Harness h;
    h.settings.setResume(resume);
    QCOMPARE(h.child<QLabel>("resumeLength")->text(), QStringLiteral("%1 characters").arg(characters));
}

void SettingsViewTest::importReplacesTheWholeResume_data() {
    QTest::addColumn<std::optional<QString>>("picked");
    QTest::addColumn<QString>("expected");
    QTest::newRow("a picked file replaces the text")
        << std::optional<QString>(QStringLiteral("New resume")) << QStringLiteral("New resume");
    QTest::newRow("a picked empty PDF empties it") << std::optional<QString>(QString()) << QString();
    QTest::newRow("a cancelled pick keeps the old text")
        << std::optional<QString>() << QStringLiteral("Old resume\nwith two lines");
}

void SettingsViewTest::importReplacesTheWholeResume() {
    QFETCH(std::optional<QString>, picked);
    QFETCH(QString, expected);
    Harness h;
    h.settings.setResume(QStringLiteral("Old resume\nwith two lines"));
    h.picked = picked;

    QPushButton* import = h.button(QStringLiteral("Import PDF…"));
    QVERIFY(import);
    import->click();
    QCOMPARE(h.settings.resume(), expected);
    QCOMPARE(h.editorText("resume"), expected);
    QCOMPARE(h.child<QLabel>("resumeLength")->text(), QStringLiteral("%1 characters").arg(expected.size()));
}

void SettingsViewTest::typingKeepsNoBreakSpacesInTheResume() {
    Harness h;
    h.settings.setResume(QStringLiteral("Ada\u00A0Lovelace"));
    auto* editor = h.child<QPlainTextEdit>("resume");
    editor->moveCursor(QTextCursor::End);
    QTest::keyClicks(editor, QStringLiteral("!"));
    QCOMPARE(h.settings.resume(), QStringLiteral("Ada\u00A0Lovelace!"));
}

void SettingsViewTest::askSendsTheTestQuestionWithoutListening() {
    Harness h;
    TestHttpServer server;
    QVERIFY(server.listen());
    h.home.environment().set("TALLOWIND_SERVER", server.url().toString().toUtf8());
    h.home.environment().set("TALLOWIND_TOKEN", "session-token");
    server.setHandler([](const TestHttpServer::Received&) {
        return TestHttpServer::Response::stream({{R"(data: {"type":"text","text":"Use OAuth."})"
                                                  "\n\n",
                                                  0}});
    });
    QSignalSpy overlayShown(h.view.get(), &SettingsView::showOverlayRequested);

    h.tabs()->setCurrentIndex(1);
    QVERIFY(!h.session->isRunning());
    h.button(QStringLiteral("Ask"))->click();

    QCOMPARE(overlayShown.size(), 1);
    QTRY_COMPARE(h.session->answer(), QStringLiteral("Use OAuth."));
    QVERIFY(!h.session->isRunning());
    QCOMPARE(server.received().size(), 1);
    QCOMPARE(server.received().at(0).target, QByteArray("/answer"));
    const QJsonObject body = QJsonDocument::fromJson(server.received().at(0).body).object();
    QCOMPARE(body.value(QLatin1String("question")).toString(),
             QStringLiteral("How would you design a page for users to connect their bank account safely?"));
}

QTEST_MAIN(SettingsViewTest)
#include "tst_settingsview.moc"
