// Escaping: every output is unreserved characters and "%XX" only, and decodes
// back to the input's UTF-8 bytes.
#include "FuzzSupport.h"

#include "net/ZDAdditions.h"

#include <QByteArray>
#include <QString>

namespace {

// The input with every lone surrogate replaced by U+FFFD, the documented choice
// (QString::toUtf8() would write "?").
QString withReplacedLoneSurrogates(QString text)
{
    for (qsizetype i = 0; i < text.size(); ++i) {
        const QChar c = text[i];
        if (c.isHighSurrogate() && i + 1 < text.size() && text[i + 1].isLowSurrogate())
            ++i;
        else if (c.isSurrogate())
            text[i] = QChar::ReplacementCharacter;
    }
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // Read the bytes both as UTF-8 and as raw UTF-16 (which may hold lone surrogates).
    const QString fromUtf8 =
        QString::fromUtf8(reinterpret_cast<const char *>(data), qsizetype(size));
    const QString fromUtf16 =
        QString::fromUtf16(reinterpret_cast<const char16_t *>(data), qsizetype(size / 2));
    for (const QString &input : {fromUtf8, fromUtf16}) {
        const QString escaped = ZDAdditions::urlParameterEscapedString(input);
        for (QChar c : escaped) {
            const char16_t u = c.unicode();
            const bool unreserved = (u >= 'A' && u <= 'Z') || (u >= 'a' && u <= 'z') ||
                                    (u >= '0' && u <= '9') || u == '-' || u == '.' || u == '_' ||
                                    u == '~' || u == '%';
            FUZZ_CHECK(unreserved);
        }
        FUZZ_CHECK(QByteArray::fromPercentEncoding(escaped.toLatin1()) ==
                   withReplacedLoneSurrogates(input).toUtf8());
    }
    return 0;
}
