#include "updatedialogs_qt.h"

#include <QAbstractButton>
#include <QMessageBox>
#include <QPushButton>
#include <QTest>

Q_DECLARE_METATYPE(UpdateDialog)

class UpdateDialogsTest : public QObject {
    Q_OBJECT

private slots:
    void enterTakesTheFirstButtonAndEscapeTheLast_data();
    void enterTakesTheFirstButtonAndEscapeTheLast();
};

void UpdateDialogsTest::enterTakesTheFirstButtonAndEscapeTheLast_data() {
    QTest::addColumn<UpdateDialog>("dialog");
    QTest::addColumn<QString>("shown");  // title, texts, buttons, then the Enter and the Escape button
    QTest::newRow("offer") << UpdateDialog{"Tallowind 2.0 is available", "Notes", {"Install Update", "Later"}}
                           << "Tallowind | Tallowind 2.0 is available | Notes | Install Update, Later | "
                              "Install Update | Later";
    QTest::newRow("notice") << UpdateDialog{"Update failed", "Bad update link.", {}}
                            << "Tallowind | Update failed | Bad update link. | OK | OK | OK";
}

void UpdateDialogsTest::enterTakesTheFirstButtonAndEscapeTheLast() {
    QFETCH(UpdateDialog, dialog);
    QFETCH(QString, shown);
    const auto box = MessageBoxUpdateDialogs::makeBox(dialog);
    QStringList buttons;
    for (const QAbstractButton* button : box->buttons()) {
        buttons << button->text().remove(u'&');
    }
    buttons.sort();
    QCOMPARE((QStringList{box->windowTitle(), box->text(), box->informativeText(),
                          buttons.join(QLatin1String(", ")), box->defaultButton()->text().remove(u'&'),
                          box->escapeButton()->text().remove(u'&')})
                 .join(QLatin1String(" | ")),
             shown);
}

QTEST_MAIN(UpdateDialogsTest)
#include "tst_updatedialogs.moc"
