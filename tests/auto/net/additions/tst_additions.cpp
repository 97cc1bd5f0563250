#include "TestSupport.h"

#include "net/ZDAdditions.h"
#include "net/ZDFileUpload.h"

#include <QTest>

using namespace Qt::StringLiterals;
using StringMap = QMap<QString, QString>;
Q_DECLARE_METATYPE(StringMap)

class tst_Additions : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void escapesEverythingButUnreservedAsUpperCaseUtf8_data();
    void escapesEverythingButUnreservedAsUpperCaseUtf8();
    void parsesResponseStringsWithScannerRules_data();
    void parsesResponseStringsWithScannerRules();
    void malformedEscapesAreAFaultWhenUnescaping_data();
    void malformedEscapesAreAFaultWhenUnescaping();
    void describesParameterValues();
};

void tst_Additions::escapesEverythingButUnreservedAsUpperCaseUtf8_data()
{
    QTest::addColumn<QString>("input");
    QTest::addColumn<QString>("expected");
    QTest::newRow("empty") << QString() << QString();
    QTest::newRow("mixed") << u"a b&c=d/\u00e9~"_s << u"a%20b%26c%3Dd%2F%C3%A9~"_s;
    QTest::newRow("unreserved") << u"AZaz09-._~"_s << u"AZaz09-._~"_s;
    QTest::newRow("reserved set") << u"!*'();:@&=+$,/?%#[]"_s
                                  << u"%21%2A%27%28%29%3B%3A%40%26%3D%2B%24%2C%2F%3F%25%23%5B%5D"_s;
    QTest::newRow("other ascii") << u"\"<>\\^`{|} "_s << u"%22%3C%3E%5C%5E%60%7B%7C%7D%20"_s;
    QTest::newRow("controls") << u"\u0000\u0001\n\u007f"_s << u"%00%01%0A%7F"_s;
    QTest::newRow("escapes escaped again") << u"%41"_s << u"%2541"_s;
    QTest::newRow("two byte") << u"\u00fc"_s << u"%C3%BC"_s;
    QTest::newRow("three byte") << u"\u20ac"_s << u"%E2%82%AC"_s;
    QTest::newRow("surrogate pair") << u"\U0001F600"_s << u"%F0%9F%98%80"_s;
    QTest::newRow("lone high surrogate") << QString(QChar(0xD800)) << u"%EF%BF%BD"_s;
    QTest::newRow("lone low surrogate then a") << QString(QChar(0xDC00)) + u'a' << u"%EF%BF%BDa"_s;
}

void tst_Additions::escapesEverythingButUnreservedAsUpperCaseUtf8()
{
    QFETCH(QString, input);
    QFETCH(QString, expected);
    QCOMPARE(ZDAdditions::urlParameterEscapedString(input), expected);
}

void tst_Additions::parsesResponseStringsWithScannerRules_data()
{
    QTest::addColumn<QString>("response");
    QTest::addColumn<QString>("separator");
    QTest::addColumn<bool>("unescape");
    QTest::addColumn<StringMap>("expected");

    const QString amp = u"&"_s;
    QTest::newRow("escapes kept") << u"tok=ab%2Fc&name=xyz"_s << amp << false
                                  << StringMap{{u"tok"_s, u"ab%2Fc"_s}, {u"name"_s, u"xyz"_s}};
    QTest::newRow("escapes decoded") << u"tok=ab%2Fc&name=xyz"_s << amp << true
                                     << StringMap{{u"tok"_s, u"ab/c"_s}, {u"name"_s, u"xyz"_s}};
    QTest::newRow("empty component")
        << u"a=1&&b=2"_s << amp << false << StringMap{{u"a"_s, u"1"_s}, {u"b"_s, u"2"_s}};
    QTest::newRow("no equals") << u"a"_s << amp << false << StringMap{};
    QTest::newRow("no key") << u"=1"_s << amp << false << StringMap{};
    QTest::newRow("no value") << u"a="_s << amp << false << StringMap{};
    QTest::newRow("blank value") << u"a=   "_s << amp << false << StringMap{};
    QTest::newRow("later wins") << u"a=1&a=2"_s << amp << false << StringMap{{u"a"_s, u"2"_s}};
    QTest::newRow("inner spaces") << u"a=x y"_s << amp << false << StringMap{{u"a"_s, u"x y"_s}};
    QTest::newRow("leading spaces") << u"  a=  x"_s << amp << false << StringMap{{u"a"_s, u"x"_s}};
    QTest::newRow("space before equals stays in key")
        << u"a =1"_s << amp << false << StringMap{{u"a "_s, u"1"_s}};
    QTest::newRow("value ends at line feed")
        << u"a=x\ny"_s << amp << false << StringMap{{u"a"_s, u"x"_s}};
    QTest::newRow("carriage return stays")
        << u"a=x\r\ny"_s << amp << false << StringMap{{u"a"_s, u"x\r"_s}};
    QTest::newRow("line break before value skipped")
        << u"a=\n v"_s << amp << false << StringMap{{u"a"_s, u"v"_s}};
    QTest::newRow("second equals in value")
        << u"t=a=b"_s << amp << false << StringMap{{u"t"_s, u"a=b"_s}};
    QTest::newRow("unicode white space skipped")
        << u"\u3000k=\u00a0v"_s << amp << false << StringMap{{u"k"_s, u"v"_s}};
    QTest::newRow("multi-character separator") << u"a=1;;b=2;c=3"_s << u";;"_s << false
                                               << StringMap{{u"a"_s, u"1"_s}, {u"b"_s, u"2;c=3"_s}};
    QTest::newRow("empty separator keeps the string whole")
        << u"a=1&b=2"_s << QString() << false << StringMap{{u"a"_s, u"1&b=2"_s}};
    QTest::newRow("plus stays plus")
        << u"a=1+2%20%C3%A9"_s << amp << true << StringMap{{u"a"_s, u"1+2 \u00e9"_s}};
    QTest::newRow("key never decoded")
        << u"a%20b=c"_s << amp << true << StringMap{{u"a%20b"_s, u"c"_s}};
}

void tst_Additions::parsesResponseStringsWithScannerRules()
{
    QFETCH(QString, response);
    QFETCH(QString, separator);
    QFETCH(bool, unescape);
    QFETCH(StringMap, expected);
    QCOMPARE(ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(response, separator,
                                                                             unescape),
             expected);
}

void tst_Additions::malformedEscapesAreAFaultWhenUnescaping_data()
{
    QTest::addColumn<QString>("response");
    QTest::newRow("truncated escape") << u"a=1%2"_s;
    QTest::newRow("not hex") << u"a=%zz"_s;
    QTest::newRow("not utf-8") << u"a=%C3%28"_s;
    QTest::newRow("lone continuation byte") << u"ok=1&a=%80"_s;
}

void tst_Additions::malformedEscapesAreAFaultWhenUnescaping()
{
    QFETCH(QString, response);
    if (inDeathChild()) {
        ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(response, u"&"_s, true);
        return; // not reached
    }
    // The same text is harmless without unescaping: values stay as they came.
    const StringMap kept =
        ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(response, u"&"_s, false);
    QVERIFY(!kept.value(u"a"_s).isEmpty());

    const DeathOutcome outcome = runDeathChild("malformedEscapesAreAFaultWhenUnescaping",
                                               QString::fromLatin1(QTest::currentDataTag()));
    QVERIFY2(diedSaying(outcome, {"percent-escapes"}), outcome.stderrText.constData());
}

void tst_Additions::describesParameterValues()
{
    QCOMPARE(ZDAdditions::textualDescription(u"text"_s), u"text"_s);
    QCOMPARE(ZDAdditions::textualDescription(1080), u"1080"_s);
    QCOMPARE(ZDAdditions::textualDescription(qint64(-9007199254740993)), u"-9007199254740993"_s);
    QCOMPARE(ZDAdditions::textualDescription(0.1), u"0.1"_s);
    QCOMPARE(ZDAdditions::textualDescription(true), u"true"_s);
    QCOMPARE(ZDAdditions::textualDescription(QByteArray("\xc3\xa9")), u"\u00e9"_s);
    QCOMPARE(ZDAdditions::textualDescription(QVariant()), QString());
    QCOMPARE(ZDAdditions::textualDescription(QVariantList{1, u"a"_s}), u"[1,\"a\"]"_s);
    ZDFileUpload upload;
    upload.setName(u"clip.mov"_s);
    QCOMPARE(ZDAdditions::textualDescription(QVariant::fromValue(upload)), u"clip.mov"_s);
}

QTEST_GUILESS_MAIN(tst_Additions)
#include "tst_additions.moc"
