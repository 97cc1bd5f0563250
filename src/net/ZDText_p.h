#pragma once

#include <QByteArray>
#include <QString>
#include <QStringDecoder>

#include <optional>

// The value of a hexadecimal digit (either case), or -1.
inline int zdHexDigitValue(char16_t c)
{
    if (c >= u'0' && c <= u'9')
        return c - u'0';
    if (c >= u'A' && c <= u'F')
        return c - u'A' + 10;
    if (c >= u'a' && c <= u'f')
        return c - u'a' + 10;
    return -1;
}

// `bytes` read as UTF-8, or nothing when they are not valid UTF-8. A leading
// byte-order mark is kept as a character, not dropped.
inline std::optional<QString> zdDecodeUtf8Strictly(const QByteArray &bytes)
{
    QStringDecoder decoder(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless |
                                                     QStringDecoder::Flag::ConvertInitialBom);
    QString text = decoder.decode(bytes);
    if (decoder.hasError())
        return std::nullopt;
    return text;
}
