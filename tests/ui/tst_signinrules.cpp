#include "signinrules.h"

#include <QTest>

// What the sign-in form accepts and what it sends, for addresses and codes as people type and paste them.
class SignInRulesTest : public QObject {
    Q_OBJECT

private slots:
    void emailIsCheckedTrimmedAndLowerCased_data();
    void emailIsCheckedTrimmedAndLowerCased();
    void codeCountsOnlyItsNumbers_data();
    void codeCountsOnlyItsNumbers();
};

void SignInRulesTest::emailIsCheckedTrimmedAndLowerCased_data() {
    QTest::addColumn<QString>("typed");
    QTest::addColumn<bool>("canSend");
    QTest::addColumn<QString>("sentForCode");
    QTest::addColumn<QString>("sentWithCode");

    QTest::newRow("capitals and trailing spaces: trimmed for the code, also lower-cased after")
        << "Ann.Lee@Example.COM  " << true << "Ann.Lee@Example.COM"
        << "ann.lee@example.com";
    QTest::newRow("tabs and no-break, thin and ideographic spaces are trimmed at both ends")
        << "\t\u00a0ann@example.com\u2009\u3000" << true << "ann@example.com"
        << "ann@example.com";
    QTest::newRow("line breaks are not trimmed") << "\nann@example.com\r\n"
                                                 << true << "\nann@example.com\r\n"
                                                 << "\nann@example.com\r\n";
    QTest::newRow("spaces inside the address stay") << " ann @example.com " << true << "ann @example.com"
                                                    << "ann @example.com";
    QTest::newRow("an address without @ cannot be sent") << "ann.example.com" << false << "ann.example.com"
                                                         << "ann.example.com";
    QTest::newRow("a lone @ is enough to send") << "@" << true << "@"
                                                << "@";
    QTest::newRow("nothing typed") << "" << false << ""
                                   << "";
}

void SignInRulesTest::emailIsCheckedTrimmedAndLowerCased() {
    QFETCH(QString, typed);
    QFETCH(bool, canSend);
    QFETCH(QString, sentForCode);
    QFETCH(QString, sentWithCode);

    QCOMPARE(SignInRules::canSendCode(typed), canSend);
    QCOMPARE(SignInRules::trimmedEmail(typed), sentForCode);
    QCOMPARE(SignInRules::verifiedEmail(typed), sentWithCode);
}

void SignInRulesTest::codeCountsOnlyItsNumbers_data() {
    QTest::addColumn<QString>("typed");
    QTest::addColumn<QString>("sent");
    QTest::addColumn<bool>("canVerify");

    QTest::newRow("six digits") << "123456"
                                << "123456" << true;
    QTest::newRow("three pairs separated by spaces count as six digits") << "12 34 56"
                                                                         << "123456" << true;
    QTest::newRow("dashes and letters around the digits do not count") << "code: 123-456."
                                                                       << "123456" << true;
    QTest::newRow("seven digits are too many") << "1234567"
                                               << "1234567" << false;
    QTest::newRow("five digits are too few") << "12345"
                                             << "12345" << false;
    QTest::newRow("digits of other scripts are numbers too")
        << "\u0661\u0662\u0663\u0664\u0665\u0666"
        << "\u0661\u0662\u0663\u0664\u0665\u0666" << true;
    QTest::newRow("a number beyond the first plane counts once") << "12345\U0001D7D7"
                                                                 << "12345\U0001D7D7" << true;
    QTest::newRow("nothing typed") << ""
                                   << "" << false;
}

void SignInRulesTest::codeCountsOnlyItsNumbers() {
    QFETCH(QString, typed);
    QFETCH(QString, sent);
    QFETCH(bool, canVerify);

    QCOMPARE(SignInRules::codeDigits(typed), sent);
    QCOMPARE(SignInRules::canVerify(typed), canVerify);
}

QTEST_GUILESS_MAIN(SignInRulesTest)
#include "tst_signinrules.moc"
