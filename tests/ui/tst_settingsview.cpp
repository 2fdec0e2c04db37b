#include "fakesession.h"
#include "settingsview.h"

#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QSignalSpy>
#include <QTabWidget>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

const QString offline = u"Can't reach Tallowind. Check your internet connection."_s;

// The view over a session of fakes. Account loads wait until the test finishes them; the resume picker
// yields `picked`.
struct Rig {
    Rig() { view.show(); }

    template <typename T = QWidget>
    T* part(const char* name) const {
        return view.findChild<T*>(QLatin1String(name));
    }

    // The Account tab's block, whether or not that tab is the current one, then the resume's length.
    QString shown() const {
        const QWidget* page = view.findChild<QTabWidget*>()->widget(2);
        QString account =
            part<QLabel>("accountEmail")->text() + ", "_L1 + part<QLabel>("accountMinutes")->text();
        if (part("accountLoading")->isVisibleTo(page)) {
            account = u"loading"_s;
        } else if (part("accountError")->isVisibleTo(page)) {
            account = "error: "_L1 + part<QLabel>("accountError")->text();
        }
        return account + " | "_L1 + part<QLabel>("resumeLength")->text();
    }

    FakeSession fake;
    QList<Completion<Account>> loads;
    std::optional<QString> picked;
    SettingsView view{fake.settings(), fake.session(),
                      [this](Completion<Account> done) { loads.append(std::move(done)); },
                      [this](QWidget*) { return picked; }};
};

}  // namespace

class SettingsViewTest : public QObject {
    Q_OBJECT

private slots:
    void accountBlockFollowsLoads_data();
    void accountBlockFollowsLoads();
    void controlsAndSettingsFollowEachOther_data();
    void controlsAndSettingsFollowEachOther();
    void resumeShowsItsLengthInCharactersAReaderSees_data();
    void resumeShowsItsLengthInCharactersAReaderSees();
    void editorsAreNamedAndTypingKeepsNoBreakSpaces();
    void askSendsTheTestQuestionWithoutListening();
};

void SettingsViewTest::accountBlockFollowsLoads_data() {
    // "open" and "leave" the Account tab, "ok" and "fail" finish the oldest unfinished load.
    QTest::addColumn<QString>("steps");
    QTest::addColumn<QStringList>("shows");
    const QString ada = u"ada@example.test, 42 of 600 min"_s;
    const QString error = "error: "_L1 + offline;
    const QString loading = u"loading"_s;
    QTest::newRow("a loaded account shows its address and minutes")
        << u"open ok"_s << QStringList{loading, ada};
    QTest::newRow("no network shows the error, the network back shows the account")
        << u"open fail leave open ok"_s << QStringList{loading, error, error, error, ada};
    QTest::newRow("a failed reload keeps the old account")
        << u"open ok leave open fail"_s << QStringList{loading, ada, ada, ada, ada};
    QTest::newRow("a load that ends after the tab was left is dropped")
        << u"open leave ok open ok"_s << QStringList{loading, loading, loading, loading, ada};
}

void SettingsViewTest::accountBlockFollowsLoads() {
    QFETCH(QString, steps);
    QFETCH(QStringList, shows);
    Rig rig;
    QStringList shown;
    qsizetype finished = 0;
    for (const QString& step : steps.split(u' ')) {
        if (step == "open"_L1 || step == "leave"_L1) {
            rig.view.findChild<QTabWidget*>()->setCurrentIndex(step == "open"_L1 ? 2 : 0);
        } else {
            QVERIFY2(finished < rig.loads.size(), "every open starts one load");
            rig.loads[finished++](step == "ok"_L1 ? Result<Account>(Account{u"ada@example.test"_s, 42, 600})
                                                  : Result<Account>(BackendError::network(offline)));
        }
        shown << rig.shown().section(" | "_L1, 0, 0);
    }
    QCOMPARE(shown, shows);
    QCOMPARE(rig.loads.size(), finished);
}

void SettingsViewTest::controlsAndSettingsFollowEachOther_data() {
    // A key pressed on the control (or the setting changed elsewhere), then what the control and the
    // setting hold.
    QTest::addColumn<QByteArray>("name");
    QTest::addColumn<QVariant>("change");
    QTest::addColumn<QByteArray>("shownAs");
    QTest::addColumn<QVariant>("shown");
    QTest::addColumn<QVariant>("stored");
    QTest::newRow("the slider's left end makes the overlay 40 % opaque")
        << QByteArray("overlayOpacity") << QVariant::fromValue(Qt::Key_Home) << QByteArray("value")
        << QVariant(400) << QVariant(0.4);
    QTest::newRow("click-through switched on")
        << QByteArray("clickThrough") << QVariant::fromValue(Qt::Key_Space) << QByteArray("checked")
        << QVariant(true) << QVariant(true);
    QTest::newRow("an opacity set elsewhere moves the slider")
        << QByteArray("overlayOpacity") << QVariant(0.55) << QByteArray("value") << QVariant(550)
        << QVariant(0.55);
    QTest::newRow("a stored opacity below the range shows at the left end and is not rewritten")
        << QByteArray("overlayOpacity") << QVariant(0.2) << QByteArray("value") << QVariant(400)
        << QVariant(0.2);
}

void SettingsViewTest::controlsAndSettingsFollowEachOther() {
    QFETCH(QByteArray, name);
    QFETCH(QVariant, change);
    QFETCH(QByteArray, shownAs);
    QFETCH(QVariant, shown);
    QFETCH(QVariant, stored);
    Rig rig;
    rig.fake.settings().setOverlayOpacity(0.45);
    rig.view.findChild<QTabWidget*>()->setCurrentIndex(1);
    QSignalSpy applied(&rig.view, &SettingsView::applyOverlaySettingsRequested);
    if (change.typeId() == QMetaType::fromType<Qt::Key>().id()) {
        QTest::keyClick(rig.part(name), change.value<Qt::Key>());
        QVERIFY(!applied.isEmpty());
    } else {
        rig.fake.settings().setProperty(name, change);
    }
    QCOMPARE(rig.part(name)->property(shownAs), shown);
    QCOMPARE(rig.fake.settings().property(name), stored);
}

void SettingsViewTest::resumeShowsItsLengthInCharactersAReaderSees_data() {
    // The resume written elsewhere, or the text the picker yields (none: the pick was cancelled).
    QTest::addColumn<QString>("resume");
    QTest::addColumn<std::optional<QString>>("picked");
    QTest::addColumn<int>("characters");
    QTest::newRow("a combining accent counts with its letter")
        << u"Cafe\u0301"_s << std::optional<QString>() << 4;
    QTest::newRow("a family of four counts once, in a picked file that replaces the text")
        << u"Old"_s << std::optional(u"\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466 ok"_s) << 4;
    QTest::newRow("a flag counts once") << u"\U0001F1E9\U0001F1EA"_s << std::optional<QString>() << 1;
}

void SettingsViewTest::resumeShowsItsLengthInCharactersAReaderSees() {
    QFETCH(QString, resume);
    QFETCH(std::optional<QString>, picked);
    QFETCH(int, characters);
    Rig rig;
    rig.fake.settings().setResume(resume);
    rig.picked = picked;
    for (QPushButton* button : rig.view.findChildren<QPushButton*>()) {
        if (button->text() == u"Import PDF…"_s) {
            button->click();
        }
    }
    const QString expected = picked.value_or(resume);
    QCOMPARE(rig.fake.settings().resume(), expected);
    QCOMPARE(rig.part<QPlainTextEdit>("resume")->toPlainText(), expected);
    QCOMPARE(rig.shown().section(" | "_L1, 1), u"%1 characters"_s.arg(characters));
}

void SettingsViewTest::editorsAreNamedAndTypingKeepsNoBreakSpaces() {
    Rig rig;
    QStringList names;
    for (const QPlainTextEdit* editor : rig.view.findChildren<QPlainTextEdit*>()) {
        names << editor->accessibleName();
    }
    QCOMPARE(names, (QStringList{u"Resume"_s, u"Job description (optional)"_s,
                                 u"Anything Tallowind should always keep in mind (optional)"_s}));

    rig.fake.settings().setResume(u"Ada\u00A0Lovelace"_s);
    auto* editor = rig.part<QPlainTextEdit>("resume");
    editor->moveCursor(QTextCursor::End);
    QTest::keyClicks(editor, u"!"_s);
    QCOMPARE(rig.fake.settings().resume(), u"Ada\u00A0Lovelace!"_s);
}

void SettingsViewTest::askSendsTheTestQuestionWithoutListening() {
    Rig rig;
    QSignalSpy overlayShown(&rig.view, &SettingsView::showOverlayRequested);
    rig.part<QPushButton>("ask")->click();
    QCOMPARE(overlayShown.size(), 1);
    QCOMPARE(rig.fake.session().question(),
             u"How would you design a page for users to connect their bank account safely?"_s);
    QVERIFY(!rig.fake.session().isRunning());
}

QTEST_MAIN(SettingsViewTest)
#include "tst_settingsview.moc"
