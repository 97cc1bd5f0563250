#pragma once

#include "core/zdglobal.h"

#include <QMap>
#include <QString>
#include <QVariant>

// The string operations shared by the two ends of the request layer: escaping of
// query and form parameters, and parsing of "a=b&c=d" response bodies.
struct ZD_EXPORT ZDAdditions
{
    // Percent-encodes `string` for a query string or a form body: the RFC 3986
    // unreserved characters (A-Z a-z 0-9 - . _ ~) stay as they are, every other
    // character is written as its UTF-8 bytes, each as "%" and two upper-case hex
    // digits. Space becomes "%20", "%" becomes "%25" (existing escapes are escaped
    // again). This is the encoding OAuth 1.0 signatures are computed over.
    // An unpaired surrogate has no UTF-8 form; it is encoded as U+FFFD ("%EF%BF%BD").
    static QString urlParameterEscapedString(const QString &string);

    // Parses a response body such as "a=b&c=d" into a new dictionary.
    //
    // The string is split at every occurrence of `separator` (a plain substring;
    // an empty separator leaves the string whole). In each component, white space
    // and line breaks are skipped before the key, before the "=", and before the
    // value; the key runs up to the first "=", the value up to the first line feed
    // or the end. A component without a key, without "=" or without a value is
    // skipped. A later pair replaces an earlier pair with the same key.
    //
    // With `unescape` the value (never the key) is percent-decoded as UTF-8; "+"
    // stays "+". A value whose escapes are malformed or do not decode to UTF-8 is
    // a programming fault: the process stops with an assertion naming it. Callers
    // that parse untrusted text pass `unescape` false and decode each value
    // themselves, for instance with QUrl::fromPercentEncoding().
    static QMap<QString, QString>
    dictionaryWithResponseStringUsingSeparatorUnescape(const QString &response,
                                                       const QString &separator, bool unescape);

    // The text a parameter value stands for in a query string, a form body or a
    // multipart text part: strings as they are; numbers in decimal (floating-point
    // numbers in their shortest exact form); booleans as "true" and "false"; byte
    // buffers read as UTF-8; a ZDFileUpload as its file name; lists and maps as
    // compact JSON; a null value as the empty string.
    static QString textualDescription(const QVariant &value);
};
