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
    QTabWidget* tabs() const { return view.findChild<QTabWidget*>(); }

    // The Account tab's block, whether or not that tab is the current one.
    QString account() const {
        if (part("accountLoading")->isVisibleTo(tabs()->widget(2))) {
            return u"loading"_s;
        }
        if (part("accountError")->isVisibleTo(tabs()->widget(2))) {
            return "error: "_L1 + part<QLabel>("accountError")->text();
        }
        return part<QLabel>("accountEmail")->text() + ", "_L1 + part<QLabel>("accountMinutes")->text();
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
    void accountBlockFollowsLoads_data() {
        // "open" and "leave" the Account tab, "ok" and "fail" finish the oldest unfinished load.
        QTest::addColumn<QString>("steps");
        QTest::addColumn<QStringList>("shows");
        const QString ada = u"ada@example.test, 42 of 600 min"_s;
        const QString error = "error: "_L1 + offline;
        QTest::newRow("no network shows the error, the network back shows the account")
            << u"open fail leave open ok"_s << QStringList{u"loading"_s, error, error, error, ada};
        QTest::newRow("a failed reload keeps the old account")
            << u"open ok leave open fail"_s << QStringList{u"loading"_s, ada, ada, ada, ada};
        QTest::newRow("a load that ends after the tab was left is dropped")
            << u"open leave ok open ok"_s
            << QStringList{u"loading"_s, u"loading"_s, u"loading"_s, u"loading"_s, ada};
    }

    void accountBlockFollowsLoads() {
        QFETCH(QString, steps);
        QFETCH(QStringList, shows);
        Rig rig;
        QStringList shown;
        qsizetype finished = 0;
        for (const QString& step : steps.split(u' ')) {
            if (step == "open"_L1 || step == "leave"_L1) {
                rig.tabs()->setCurrentIndex(step == "open"_L1 ? 2 : 0);
            } else {
                QVERIFY2(finished < rig.loads.size(), "every open starts one load");
                rig.loads[finished++](step == "ok"_L1
                                          ? Result<Account>(Account{u"ada@example.test"_s, 42, 600})
                                          : Result<Account>(BackendError::network(offline)));
            }
            shown << rig.account();
        }
        QCOMPARE(shown, shows);
        QCOMPARE(rig.loads.size(), finished);
    }

    void controlsAndSettingsFollowEachOther_data() {
        // A key pressed on the control (or the setting changed elsewhere), then what the control and the
        // setting hold.
        QTest::addColumn<QByteArray>("name");
        QTest::addColumn<QVariant>("change");
        QTest::addColumn<QVariant>("shown");
        QTest::addColumn<QVariant>("stored");
        QTest::newRow("the slider's left end makes the overlay 40 % opaque")
            << QByteArray("overlayOpacity") << QVariant::fromValue(Qt::Key_Home) << QVariant(400)
            << QVariant(0.4);
        QTest::newRow("click-through switched on")
            << QByteArray("clickThrough") << QVariant::fromValue(Qt::Key_Space) << QVariant(true)
            << QVariant(true);
        QTest::newRow("a stored opacity below the range shows at the left end and is not rewritten")
            << QByteArray("overlayOpacity") << QVariant(0.2) << QVariant(400) << QVariant(0.2);
    }

    void controlsAndSettingsFollowEachOther() {
        QFETCH(QByteArray, name);
        QFETCH(QVariant, change);
        QFETCH(QVariant, shown);
        QFETCH(QVariant, stored);
        Rig rig;
        rig.fake.settings().setOverlayOpacity(0.45);
        rig.tabs()->setCurrentIndex(1);
        QSignalSpy applied(&rig.view, &SettingsView::applyOverlaySettingsRequested);
        if (change.typeId() == QMetaType::fromType<Qt::Key>().id()) {
            QTest::keyClick(rig.part(name), change.value<Qt::Key>());
            QVERIFY(!applied.isEmpty());
        } else {
            rig.fake.settings().setProperty(name, change);
        }
        QCOMPARE(rig.part(name)->property(name == "clickThrough" ? "checked" : "value"), shown);
        QCOMPARE(rig.fake.settings().property(name), stored);
    }

    void resumeEditorFollowsImportsAndCountsCharactersAReaderSees_data() {
        // The resume written elsewhere, the text the picker yields (none: the pick was cancelled), and the
        // length shown. Typing goes to the end of what is shown.
        QTest::addColumn<QString>("resume");
        QTest::addColumn<std::optional<QString>>("picked");
        QTest::addColumn<int>("characters");
        QTest::newRow(
            "an accent, a no-break space that typing keeps, and a flag count as one each, pick cancelled")
            << u"Cafe\u0301\u00A0\U0001F1E9\U0001F1EA"_s << std::optional<QString>() << 6;
        QTest::newRow("a family of four counts once, in a picked file that replaces the text")
            << u"Old"_s << std::optional(u"\U0001F468\u200D\U0001F469\u200D\U0001F467\u200D\U0001F466 ok"_s)
            << 4;
    }

    void resumeEditorFollowsImportsAndCountsCharactersAReaderSees() {
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
        auto* editor = rig.part<QPlainTextEdit>("resume");
        QCOMPARE(rig.part<QLabel>("resumeLength")->text(), u"%1 characters"_s.arg(characters));
        editor->moveCursor(QTextCursor::End);
        QTest::keyClicks(editor, u"!"_s);
        QCOMPARE(rig.fake.settings().resume(), picked.value_or(resume) + u'!');
    }

    void askSendsTheTestQuestionWithoutListening() {
        Rig rig;
        QSignalSpy overlayShown(&rig.view, &SettingsView::showOverlayRequested);
        rig.part<QPushButton>("ask")->click();
        QCOMPARE(overlayShown.size(), 1);
        QCOMPARE(rig.fake.session().question(), SettingsView::defaultTestQuestion());
        QVERIFY(!rig.fake.session().isRunning());
    }
};

QTEST_MAIN(SettingsViewTest)
#include "tst_settingsview.moc"
