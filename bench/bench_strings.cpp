// Escaping throughput against Qt's own percent-encoder, and MD5 throughput
// against OpenSSL's, on the same inputs.
#include "BenchSupport.h"

#include "net/ZDAdditions.h"
#include "net/ZDDigest.h"

#include <QRandomGenerator>
#include <QStringList>
#include <QUrl>

// The classic MD5 interface is deprecated in OpenSSL 3 but still what a plain
// caller uses; it is the peer here.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/md5.h>

int main()
{
    // Parameter-like strings: mostly ASCII words and punctuation, some accents,
    // some emoji.
    QRandomGenerator rng(5849);
    QStringList strings;
    qsizetype totalUnits = 0;
    for (int i = 0; i < 20000; ++i) {
        QString s;
        const int length = 8 + int(rng.bounded(120));
        for (int j = 0; j < length; ++j) {
            const quint32 pick = rng.bounded(100);
            if (pick < 70)
                s += QChar(char16_t(u'a' + rng.bounded(26)));
            else if (pick < 85)
                s += QChar(u" &=/:?%+,;"[rng.bounded(10)]);
            else if (pick < 97)
                s += QChar(char16_t(0xE0 + rng.bounded(0x20)));
            else
                s += QString::fromUcs4(std::array{char32_t(0x1F600 + rng.bounded(0x40))}.data(), 1);
        }
        totalUnits += s.size();
        strings << s;
    }
    const double megabytes = double(totalUnits * 2) / (1 << 20);
    qsizetype sink = 0;
    const double ours = bench::bestSeconds(5, [&] {
        for (const QString &s : strings)
            sink += ZDAdditions::urlParameterEscapedString(s).size();
    });
    const double qt = bench::bestSeconds(5, [&] {
        for (const QString &s : strings)
            sink += QUrl::toPercentEncoding(s).size();
    });
    bench::report("escape_ours", megabytes / ours, "MiB/s");
    bench::report("escape_qt_toPercentEncoding", megabytes / qt, "MiB/s");
    bench::report("escape_ratio_ours_to_qt", qt / ours, "x");

    const QByteArray buffer = bench::randomBytes(256 << 20, 1321);
    QString digest;
    const double md5Ours = bench::bestSeconds(3, [&] { digest = ZDCreateMD5WithData(buffer); });
    unsigned char raw[MD5_DIGEST_LENGTH];
    const double md5OpenSSL = bench::bestSeconds(3, [&] {
        MD5_CTX context; // the classic one-shot API, as a plain caller would use it
        MD5_Init(&context);
        MD5_Update(&context, buffer.constData(), size_t(buffer.size()));
        MD5_Final(raw, &context);
    });
    bench::report("md5_ours_256MiB", 256 / md5Ours, "MiB/s");
    bench::report("md5_openssl_256MiB", 256 / md5OpenSSL, "MiB/s");
    bench::report("md5_ratio_ours_to_openssl", md5OpenSSL / md5Ours, "x");
    return sink > 0 && digest.size() == 32 ? 0 : 1;
}
