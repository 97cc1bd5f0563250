#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QString>

#include <optional>

// The MD5 digest (RFC 1321) of `data` as 32 lower-case hexadecimal digits. The
// caller owns the returned string.
ZD_EXPORT QString ZDCreateMD5WithData(const QByteArray &data);

// Turns a scrambled key, stored as pairs of hexadecimal digits, into its plain
// text. Each pair is combined with one draw of the process-wide POSIX random()
// generator: byte = (random() % 255) XOR pair. The function does not seed the
// generator: the caller seeds it with srandom() with the key's seed right before
// the call, on the same thread and with no other use of random() in between.
//
// An odd trailing digit is ignored, and a one-character key gives "". The result
// is empty (std::nullopt) when the bytes are not UTF-8. An empty key is a
// programming error and stops the process with an assertion. Pairs must be
// hexadecimal: a pair that is not is not detected, and stands for the value the
// previous pair produced.
ZD_EXPORT std::optional<QString> GetScrambledKey(const QString &scrambledKey);
