#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QString>

#include <optional>

// The MD5 digest (RFC 1321) of `data` as 32 lower-case hexadecimal digits. The
// caller owns the returned string.
ZD_EXPORT QString ZDCreateMD5WithData(const QByteArray &data);

// The digest algorithms of the file digests below.
enum class ZDDigestAlgorithm { MD5, SHA1, SHA256 };

// The digest of `length` bytes of the file at `path` from byte `offset` (to the
// end of the file when `length` is negative), as the raw digest bytes. The file
// is read in blocks of 1 MiB, never whole, so memory stays flat whatever its
// size. std::nullopt when the file cannot be opened or yields fewer bytes than
// asked for (it went away or shrank).
ZD_EXPORT std::optional<QByteArray> ZDCreateDigestBytesWithFile(const QString &path,
                                                                ZDDigestAlgorithm algorithm,
                                                                qint64 offset = 0,
                                                                qint64 length = -1);

// The same digest as lower-case hexadecimal digits, the form ZDCreateMD5WithData()
// gives: ZDCreateDigestWithFile(path) of a file equals ZDCreateMD5WithData() of
// its contents.
ZD_EXPORT std::optional<QString>
ZDCreateDigestWithFile(const QString &path, ZDDigestAlgorithm algorithm = ZDDigestAlgorithm::MD5,
                       qint64 offset = 0, qint64 length = -1);

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
