#pragma once

#include <QByteArray>
#include <QDateTime>

// Parses Retry-After: seconds, or an HTTP date measured against `now`.
// Returns -1 when absent or unreadable.
qint64 zdRetryAfterMsecs(const QByteArray &value, const QDateTime &now);
