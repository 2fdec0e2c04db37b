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
    QTest::newRow("offer") << UpdateDialog{QStringLiteral("Tallowind 2.0 is available"),
                                           QStringLiteral("Notes"),
                                           {QStringLiteral("Install Update"), QStringLiteral("Later")}};
    QTest::newRow("notice") << UpdateDialog{
        QStringLiteral("Update failed"), QStringLiteral("Bad update link."), {}};
}

void UpdateDialogsTest::enterTakesTheFirstButtonAndEscapeTheLast() {
    QFETCH(UpdateDialog, dialog);
    const auto box = MessageBoxUpdateDialogs::makeBox(dialog);
    QCOMPARE(box->windowTitle(), QStringLiteral("Tallowind"));
    QCOMPARE(box->text(), dialog.message);
    QCOMPARE(box->informativeText(), dialog.informativeText);
    QStringList titles;
    for (const QAbstractButton* button : box->buttons()) {
        titles.append(button->text());
    }
    QVERIFY(box->defaultButton() && box->escapeButton());
    if (dialog.buttons.isEmpty()) {
        QCOMPARE(box->buttons(), QList<QAbstractButton*>{box->button(QMessageBox::Ok)});
        QCOMPARE(box->defaultButton(), box->button(QMessageBox::Ok));
        QCOMPARE(box->escapeButton(), box->button(QMessageBox::Ok));
        return;
    }
    titles.sort();
    QStringList expected = dialog.buttons;
    expected.sort();
    QCOMPARE(titles, expected);
    QCOMPARE(box->defaultButton()->text(), dialog.buttons.constFirst());
    QCOMPARE(box->escapeButton()->text(), dialog.buttons.constLast());
}

QTEST_MAIN(UpdateDialogsTest)
#include "tst_updatedialogs.moc"
