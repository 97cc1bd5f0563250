#include "net/ZDDigest.h"

#include "core/ZDAssert.h"
#include "net/ZDDigest_p.h"
#include "net/ZDText_p.h"

#include <QCryptographicHash>
#include <QFile>

#include <openssl/evp.h>

#include <algorithm>
#include <limits>

#include <cstdlib>

QString ZDCreateMD5WithData(const QByteArray &data)
{
    unsigned char digest[EVP_MAX_MD_SIZE];
    unsigned int length = 0;
    EVP_Digest(data.constData(), size_t(data.size()), digest, &length, EVP_md5(), nullptr);
    static constexpr char16_t hex[] = u"0123456789abcdef";
    QString text(2 * int(length), Qt::Uninitialized);
    char16_t *out = reinterpret_cast<char16_t *>(text.data());
    for (unsigned int i = 0; i < length; ++i) {
        *out++ = hex[digest[i] >> 4];
        *out++ = hex[digest[i] & 0xF];
    }
    return text;
}

std::optional<QByteArray> ZDCreateDigestBytesWithFile(const QString &path,
                                                      ZDDigestAlgorithm algorithm, qint64 offset,
                                                      qint64 length)
{
    static constexpr qint64 kBlockSize = 1 << 20;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly) || offset < 0 || !file.seek(offset))
        return std::nullopt;
    QCryptographicHash hash(algorithm == ZDDigestAlgorithm::SHA1     ? QCryptographicHash::Sha1
                            : algorithm == ZDDigestAlgorithm::SHA256 ? QCryptographicHash::Sha256
                                                                     : QCryptographicHash::Md5);
    QByteArray block(int(kBlockSize), Qt::Uninitialized);
    qint64 left = length < 0 ? std::numeric_limits<qint64>::max() : length;
    while (left > 0) {
        const qint64 got = file.read(block.data(), std::min(left, kBlockSize));
        if (got < 0)
            return std::nullopt;
        if (got == 0)
            break;
        hash.addData(QByteArrayView(block.constData(), got));
        left -= got;
    }
    if (length >= 0 && left > 0)
        return std::nullopt;
    return hash.result();
}

std::optional<QString> ZDCreateDigestWithFile(const QString &path, ZDDigestAlgorithm algorithm,
                                              qint64 offset, qint64 length)
{
    const std::optional<QByteArray> digest =
        ZDCreateDigestBytesWithFile(path, algorithm, offset, length);
    if (!digest)
        return std::nullopt;
    return QString::fromLatin1(digest->toHex());
}

namespace {

// Reads a pair as an unsigned hexadecimal number the way a string scanner does:
// leading white space skipped, an optional "0x", then at least one digit.
bool scanHexPair(QStringView pair, unsigned &value)
{
    qsizetype i = 0;
    while (i < pair.size() && pair[i].isSpace())
        ++i;
    if (pair.sliced(i).startsWith(u"0x", Qt::CaseInsensitive) && i + 2 < pair.size() &&
        zdHexDigitValue(pair[i + 2].unicode()) >= 0)
        i += 2;
    unsigned result = 0;
    qsizetype digits = 0;
    for (; i < pair.size() && zdHexDigitValue(pair[i].unicode()) >= 0; ++i, ++digits)
        result = result * 16 + unsigned(zdHexDigitValue(pair[i].unicode()));
    if (digits == 0)
        return false;
    value = result;
    return true;
}

} // namespace

std::optional<QString> zdScrambledKeyWithGenerator(const QString &scrambledKey,
                                                   const std::function<long()> &nextDraw)
{
    ZD_ASSERT(!scrambledKey.isEmpty(), "GetScrambledKey (the scrambled key is empty)");
    const size_t length = size_t(scrambledKey.size());
    QByteArray bytes;
    if (length > 1) {
        bytes.reserve(qsizetype(length / 2));
        // A pair that does not scan leaves the previous combined value in place.
        unsigned value = 0;
        for (size_t i = 0; i < length - 1; i += 2) {
            scanHexPair(QStringView(scrambledKey).sliced(qsizetype(i), 2), value);
            value = unsigned(nextDraw() % 255) ^ value;
            bytes += char(value & 0xFF);
        }
    }
    return zdDecodeUtf8Strictly(bytes);
}

std::optional<QString> GetScrambledKey(const QString &scrambledKey)
{
    return zdScrambledKeyWithGenerator(scrambledKey, [] { return ::random(); });
}
