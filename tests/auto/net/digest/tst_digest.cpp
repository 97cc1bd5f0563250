#include "TestSupport.h"

#include "net/ZDDigest.h"
#include "net/ZDDigest_p.h"

#include <QCryptographicHash>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <cstdlib>
#include <deque>

using namespace Qt::StringLiterals;

namespace {

// Scrambles `plain` the way keys are made: the same stream, the same steps.
QString scramble(const QByteArray &plain, unsigned seed)
{
    ::srandom(seed);
    QString hex;
    for (char byte : plain)
        hex += u"%1"_s.arg(unsigned(::random() % 255) ^ static_cast<unsigned char>(byte), 2, 16,
                           QChar(u'0'));
    return hex;
}

std::function<long()> draws(std::deque<long> values, int *taken)
{
    return [values, taken]() mutable {
        ++*taken;
        const long value = values.front();
        values.pop_front();
        return value;
    };
}

} // namespace

class tst_Digest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void md5MatchesRfc1321Vectors_data();
    void md5MatchesRfc1321Vectors();
    void fileDigestMatchesPublishedVectorsAndTheWholeDataDigest_data();
    void fileDigestMatchesPublishedVectorsAndTheWholeDataDigest();
    void fileDigestOfARangeAndOfAFileTooShort();
    void scrambledKeyWorkedExampleWithStubDraws();
    void scrambledKeyDrawsOncePerPair();
    void scrambledKeyRoundTripsThroughCLibraryRandom();
    void scrambledKeyThatIsNotUtf8GivesNothing();
    void scrambledKeyUnscannablePairReusesPreviousValue();
    void emptyScrambledKeyIsAFault();
};

void tst_Digest::md5MatchesRfc1321Vectors_data()
{
    QTest::addColumn<QByteArray>("input");
    QTest::addColumn<QString>("digest");
    QTest::newRow("empty") << QByteArray() << u"d41d8cd98f00b204e9800998ecf8427e"_s;
    QTest::newRow("a") << QByteArray("a") << u"0cc175b9c0f1b6a831c399e269772661"_s;
    QTest::newRow("abc") << QByteArray("abc") << u"900150983cd24fb0d6963f7d28e17f72"_s;
    QTest::newRow("message digest")
        << QByteArray("message digest") << u"f96b697d7cb7938d525a2f31aaf161d0"_s;
    QTest::newRow("alphabet") << QByteArray("abcdefghijklmnopqrstuvwxyz")
                              << u"c3fcd3d76192e4007dfb496cca67e13b"_s;
    QTest::newRow("alphanumeric")
        << QByteArray("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789")
        << u"d174ab98d277d9f5a5611c2c9f419d9f"_s;
    QTest::newRow("digits") << QByteArray("1234567890").repeated(8)
                            << u"57edf4a22be3c955ac49da2e2107b67a"_s;
}

void tst_Digest::md5MatchesRfc1321Vectors()
{
    QFETCH(QByteArray, input);
    QFETCH(QString, digest);
    QCOMPARE(ZDCreateMD5WithData(input), digest);
}

void tst_Digest::fileDigestMatchesPublishedVectorsAndTheWholeDataDigest_data()
{
    QTest::addColumn<int>("algorithm");
    QTest::addColumn<QByteArray>("abc");
    QTest::addColumn<int>("qtAlgorithm");
    QTest::newRow("md5") << int(ZDDigestAlgorithm::MD5)
                         << QByteArray("900150983cd24fb0d6963f7d28e17f72")
                         << int(QCryptographicHash::Md5);
    QTest::newRow("sha1") << int(ZDDigestAlgorithm::SHA1)
                          << QByteArray("a9993e364706816aba3e25717850c26c9cd0d89d")
                          << int(QCryptographicHash::Sha1);
    QTest::newRow("sha256")
        << int(ZDDigestAlgorithm::SHA256)
        << QByteArray("ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad")
        << int(QCryptographicHash::Sha256);
}

void tst_Digest::fileDigestMatchesPublishedVectorsAndTheWholeDataDigest()
{
    QFETCH(int, algorithm);
    QFETCH(QByteArray, abc);
    QFETCH(int, qtAlgorithm);
    QTemporaryDir dir;
    const QString small = dir.filePath(u"abc"_s);
    const QString large = dir.filePath(u"large"_s);
    const QByteArray content = randomBytes(3 * (1 << 20) + 17); // spans several read blocks
    QVERIFY(writeFile(small, "abc") && writeFile(large, content));
    const auto kind = ZDDigestAlgorithm(algorithm);
    QCOMPARE(ZDCreateDigestWithFile(small, kind).value_or(QString()), QString::fromLatin1(abc));
    QCOMPARE(ZDCreateDigestBytesWithFile(large, kind).value_or(QByteArray()),
             QCryptographicHash::hash(content, QCryptographicHash::Algorithm(qtAlgorithm)));
    if (kind == ZDDigestAlgorithm::MD5)
        QCOMPARE(ZDCreateDigestWithFile(large).value_or(QString()), ZDCreateMD5WithData(content));
}

void tst_Digest::fileDigestOfARangeAndOfAFileTooShort()
{
    QTemporaryDir dir;
    const QString path = dir.filePath(u"range"_s);
    QVERIFY(writeFile(path, "xxabcyy"));
    QCOMPARE(ZDCreateDigestWithFile(path, ZDDigestAlgorithm::MD5, 2, 3).value_or(QString()),
             u"900150983cd24fb0d6963f7d28e17f72"_s);
    QVERIFY(!ZDCreateDigestWithFile(path, ZDDigestAlgorithm::MD5, 2, 30));
    QVERIFY(!ZDCreateDigestWithFile(dir.filePath(u"missing"_s)));
}

void tst_Digest::scrambledKeyWorkedExampleWithStubDraws()
{
    int taken = 0;
    QCOMPARE(zdScrambledKeyWithGenerator(u"6143"_s, draws({510, 257}, &taken)), u"aA"_s);
    QCOMPARE(taken, 2);
}

void tst_Digest::scrambledKeyDrawsOncePerPair()
{
    int taken = 0;
    QCOMPARE(zdScrambledKeyWithGenerator(u"614"_s, draws({0, 0}, &taken)), u"a"_s);
    QCOMPARE(taken, 1);
    taken = 0;
    QCOMPARE(zdScrambledKeyWithGenerator(u"6"_s, draws({}, &taken)), QString());
    QCOMPARE(taken, 0);
    // The stream byte is the draw modulo 255, never 255 itself.
    taken = 0;
    QCOMPARE(zdScrambledKeyWithGenerator(u"61"_s, draws({255}, &taken)), u"a"_s);
}

void tst_Digest::scrambledKeyRoundTripsThroughCLibraryRandom()
{
    const QByteArray plain = "consumer-secret \xc3\xa9\xf0\x9f\x98\x80 0123456789";
    for (unsigned seed : {1u, 42u, 0xdeadbeefu}) {
        const QString hex = scramble(plain, seed);
        ::srandom(seed);
        QCOMPARE(GetScrambledKey(hex), QString::fromUtf8(plain));
    }
    // An unseeded generator starts as if seeded with 1; here that is srandom(1).
    const QString hex = scramble("key", 1);
    ::srandom(1);
    QCOMPARE(GetScrambledKey(hex), u"key"_s);
}

void tst_Digest::scrambledKeyThatIsNotUtf8GivesNothing()
{
    int taken = 0;
    QCOMPARE(zdScrambledKeyWithGenerator(u"ff"_s, draws({0}, &taken)), std::nullopt);
    taken = 0;
    QCOMPARE(zdScrambledKeyWithGenerator(u"c328"_s, draws({0, 0}, &taken)), std::nullopt);
}

void tst_Digest::scrambledKeyUnscannablePairReusesPreviousValue()
{
    int taken = 0;
    // "zz" does not scan: it stands for the previous combined value 0x61 ^ 1.
    QCOMPARE(zdScrambledKeyWithGenerator(u"61zz"_s, draws({1, 1}, &taken)), u"`a"_s);
}

void tst_Digest::emptyScrambledKeyIsAFault()
{
    if (inDeathChild()) {
        GetScrambledKey(QString());
        return;
    }
    const DeathOutcome outcome = runDeathChild("emptyScrambledKeyIsAFault");
    QVERIFY2(diedSaying(outcome, {"GetScrambledKey"}), outcome.stderrText.constData());
}

QTEST_GUILESS_MAIN(tst_Digest)
#include "tst_digest.moc"
