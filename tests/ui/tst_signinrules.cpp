#include "signinrules.h"

#include <QTest>

using namespace Qt::StringLiterals;

// What the sign-in form accepts and what it sends, for addresses and codes as people type and paste them.
class SignInRulesTest : public QObject {
    Q_OBJECT

private slots:
    void emailIsCheckedTrimmedAndLowerCased_data() {
        // Whether a code can be asked for, the address sent for it, and the one sent with the code.
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("sent");
        QTest::newRow("spaces of every kind trimmed at the ends for the code, capitals lowered after")
            << u"\t\u00a0Ann.Lee@Example.COM\u2009\u3000"_s
            << u"yes|Ann.Lee@Example.COM|ann.lee@example.com"_s;
        QTest::newRow("line breaks and spaces inside stay")
            << u"\nann @example.com\r\n"_s << u"yes|\nann @example.com\r\n|\nann @example.com\r\n"_s;
        QTest::newRow("an address without @ cannot be sent")
            << u"ann.example.com"_s << u"no|ann.example.com|ann.example.com"_s;
        QTest::newRow("a lone @ is enough to send") << u"@"_s << u"yes|@|@"_s;
    }

    void emailIsCheckedTrimmedAndLowerCased() {
        QFETCH(QString, typed);
        QFETCH(QString, sent);
        QCOMPARE(QStringList({SignInRules::canSendCode(typed) ? u"yes"_s : u"no"_s,
                              SignInRules::trimmedEmail(typed), SignInRules::verifiedEmail(typed)})
                     .join(u'|'),
                 sent);
    }

    void codeCountsOnlyItsNumbers_data() {
        // The digits sent, and whether they can be.
        QTest::addColumn<QString>("typed");
        QTest::addColumn<QString>("sent");
        QTest::newRow("spaces, dashes and letters around the digits do not count")
            << u"code: 12 34-56."_s << u"123456 yes"_s;
        QTest::newRow("seven digits are too many") << u"1234567"_s << u"1234567 no"_s;
        QTest::newRow("five digits are too few") << u"12345"_s << u"12345 no"_s;
        QTest::newRow("digits of other scripts are numbers too")
            << u"\u0661\u0662\u0663\u0664\u0665\u0666"_s << u"\u0661\u0662\u0663\u0664\u0665\u0666 yes"_s;
        QTest::newRow("a number beyond the first plane counts once")
            << u"12345\U0001D7D7"_s << u"12345\U0001D7D7 yes"_s;
    }

    void codeCountsOnlyItsNumbers() {
        QFETCH(QString, typed);
        QFETCH(QString, sent);
        QCOMPARE(SignInRules::codeDigits(typed) + (SignInRules::canVerify(typed) ? " yes"_L1 : " no"_L1),
                 sent);
    }
};

QTEST_GUILESS_MAIN(SignInRulesTest)
#include "tst_signinrules.moc"
