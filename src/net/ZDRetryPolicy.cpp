#include "net/ZDRetryPolicy.h"

#include "net/ZDRetryPolicy_p.h"

#include <algorithm>
#include <cmath>

qint64 ZDRetryPolicy::delayForAttempt(int attempt, double unitRandom) const
{
    const double base = double(initialDelayMsecs) * std::pow(multiplier, std::max(attempt - 1, 0));
    const double capped = std::min(base, double(maximumDelayMsecs));
    const double spread = capped * jitter * (2.0 * unitRandom - 1.0);
    return std::max<qint64>(0, qint64(capped + spread));
}

qint64 zdRetryAfterMsecs(const QByteArray &value, const QDateTime &now)
{
    const QByteArray text = value.trimmed();
    if (text.isEmpty())
        return -1;
    bool ok = false;
    const qint64 seconds = text.toLongLong(&ok);
    if (ok)
        return seconds >= 0 ? std::min<qint64>(seconds, 24 * 3600) * 1000 : -1;
    const QDateTime when = QDateTime::fromString(QString::fromLatin1(text), Qt::RFC2822Date);
    if (!when.isValid())
        return -1;
    return std::clamp<qint64>(now.msecsTo(when), 0, 24 * 3600 * 1000);
}
