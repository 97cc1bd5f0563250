#include "net/ZDAdditions.h"

#include "core/ZDAssert.h"
#include "net/ZDFileUpload.h"
#include "net/ZDText_p.h"

#include <QJsonDocument>
#include <QJsonValue>

#include <array>
#include <optional>

namespace {

constexpr std::array<bool, 128> makeUnreservedTable()
{
    std::array<bool, 128> table{};
    for (char c = 'A'; c <= 'Z'; ++c)
        table[size_t(c)] = true;
    for (char c = 'a'; c <= 'z'; ++c)
        table[size_t(c)] = true;
    for (char c = '0'; c <= '9'; ++c)
        table[size_t(c)] = true;
    for (char c : {'-', '.', '_', '~'})
        table[size_t(c)] = true;
    return table;
}

constexpr std::array<bool, 128> kUnreserved = makeUnreservedTable();
constexpr char16_t kHexDigits[] = u"0123456789ABCDEF";

inline char16_t *appendEscapedByte(char16_t *out, unsigned byte)
{
    *out++ = u'%';
    *out++ = kHexDigits[byte >> 4];
    *out++ = kHexDigits[byte & 0xF];
    return out;
}

// Reads one code point and advances; a lone surrogate reads as U+FFFD, the
// character UTF-8 uses for what it cannot represent.
inline char32_t nextCodePoint(const char16_t *&in, const char16_t *end)
{
    const char16_t unit = *in++;
    if (!QChar::isSurrogate(unit))
        return unit;
    if (QChar::isHighSurrogate(unit) && in != end && QChar::isLowSurrogate(*in))
        return QChar::surrogateToUcs4(unit, *in++);
    return 0xFFFD;
}

// The number of characters the escaped form of `c` takes.
inline qsizetype escapedLength(char32_t c)
{
    if (c < 0x80)
        return kUnreserved[c] ? 1 : 3;
    return c < 0x800 ? 6 : c < 0x10000 ? 9 : 12;
}

// Decodes every "%XX" of `value` and reads the result as UTF-8. Returns nothing
// when a "%" is not followed by two hex digits or the bytes are not UTF-8.
std::optional<QString> percentDecoded(QStringView value)
{
    if (!value.contains(u'%'))
        return value.toString();
    QByteArray bytes;
    bytes.reserve(value.size());
    qsizetype runStart = 0;
    for (qsizetype i = 0; i < value.size(); ++i) {
        if (value[i] != u'%')
            continue;
        bytes += value.sliced(runStart, i - runStart).toUtf8();
        if (i + 2 >= value.size())
            return std::nullopt;
        const int high = zdHexDigitValue(value[i + 1].unicode());
        const int low = zdHexDigitValue(value[i + 2].unicode());
        if (high < 0 || low < 0)
            return std::nullopt;
        bytes += char(high << 4 | low);
        i += 2;
        runStart = i + 1;
    }
    bytes += value.sliced(runStart).toUtf8();
    return zdDecodeUtf8Strictly(bytes);
}

// The scanner of the response-string parser: white space and line breaks are
// skipped before every scan.
class Scanner
{
public:
    explicit Scanner(QStringView text) : m_text(text) {}

    // Scans up to (not including) the first `stop` or the end; fails when that
    // would scan nothing.
    std::optional<QStringView> scanUpTo(char16_t stop)
    {
        skipWhiteSpace();
        qsizetype end = m_text.indexOf(QChar(stop), m_pos);
        if (end < 0)
            end = m_text.size();
        if (end == m_pos)
            return std::nullopt;
        const QStringView scanned = m_text.sliced(m_pos, end - m_pos);
        m_pos = end;
        return scanned;
    }

    bool scan(char16_t expected)
    {
        skipWhiteSpace();
        if (m_pos >= m_text.size() || m_text[m_pos] != QChar(expected))
            return false;
        ++m_pos;
        return true;
    }

private:
    void skipWhiteSpace()
    {
        while (m_pos < m_text.size() && m_text[m_pos].isSpace())
            ++m_pos;
    }

    QStringView m_text;
    qsizetype m_pos = 0;
};

} // namespace

QString ZDAdditions::urlParameterEscapedString(const QString &string)
{
    const char16_t *const begin = reinterpret_cast<const char16_t *>(string.utf16());
    const char16_t *const end = begin + string.size();

    // First the exact length, so the result is allocated once.
    qsizetype length = 0;
    for (const char16_t *in = begin; in != end;)
        length += escapedLength(nextCodePoint(in, end));

    QString result(length, Qt::Uninitialized);
    char16_t *out = reinterpret_cast<char16_t *>(result.data());
    for (const char16_t *in = begin; in != end;) {
        const char32_t c = nextCodePoint(in, end);
        if (c < 0x80) {
            if (kUnreserved[c])
                *out++ = char16_t(c);
            else
                out = appendEscapedByte(out, unsigned(c));
            continue;
        }
        if (c < 0x800) {
            out = appendEscapedByte(out, 0xC0 | (c >> 6));
        } else if (c < 0x10000) {
            out = appendEscapedByte(out, 0xE0 | (c >> 12));
            out = appendEscapedByte(out, 0x80 | ((c >> 6) & 0x3F));
        } else {
            out = appendEscapedByte(out, 0xF0 | (c >> 18));
            out = appendEscapedByte(out, 0x80 | ((c >> 12) & 0x3F));
            out = appendEscapedByte(out, 0x80 | ((c >> 6) & 0x3F));
        }
        out = appendEscapedByte(out, 0x80 | (c & 0x3F));
    }
    return result;
}

QMap<QString, QString> ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(
    const QString &response, const QString &separator, bool unescape)
{
    QMap<QString, QString> result;
    const QList<QStringView> components = separator.isEmpty()
                                              ? QList<QStringView>{QStringView(response)}
                                              : QStringView(response).split(separator);
    for (QStringView component : components) {
        Scanner scanner(component);
        const std::optional<QStringView> key = scanner.scanUpTo(u'=');
        if (!key || !scanner.scan(u'='))
            continue;
        const std::optional<QStringView> value = scanner.scanUpTo(u'\n');
        if (!value)
            continue;
        if (!unescape) {
            result.insert(key->toString(), value->toString());
            continue;
        }
        const std::optional<QString> decoded = percentDecoded(*value);
        ZD_ASSERT(decoded.has_value(),
                  "ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape (a value's "
                  "percent-escapes do not decode to UTF-8)");
        result.insert(key->toString(), *decoded);
    }
    return result;
}

QString ZDAdditions::textualDescription(const QVariant &value)
{
    switch (value.typeId()) {
    case QMetaType::UnknownType:
    case QMetaType::Nullptr:
        return QString();
    case QMetaType::QString:
        return value.toString();
    case QMetaType::QByteArray:
        return QString::fromUtf8(value.toByteArray());
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::QVariantList:
    case QMetaType::QStringList:
    case QMetaType::QVariantMap:
    case QMetaType::QVariantHash:
        return QString::fromUtf8(
            QJsonDocument::fromVariant(value).toJson(QJsonDocument::Compact).constData());
    default:
        break;
    }
    if (value.metaType() == QMetaType::fromType<ZDFileUpload>())
        return value.value<ZDFileUpload>().name();
    if (value.metaType() == QMetaType::fromType<ZDStreamedFileUpload>())
        return value.value<ZDStreamedFileUpload>().name();
    if (value.canConvert<QString>())
        return value.toString();
    return QString::fromLatin1(value.typeName());
}
