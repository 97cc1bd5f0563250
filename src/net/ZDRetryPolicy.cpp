#include "net/ZDRetryPolicy.h"

#include "net/ZDRetryPolicy_p.h"

#include <QList>
#include <QTimeZone>

#include <algorithm>
#include <cmath>

namespace {

// The three forms of an HTTP date (RFC 9110, section 5.6.7), always in GMT:
// "Sun, 06 Nov 1994 08:49:37 GMT", the obsolete "Sunday, 06-Nov-94 08:49:37
// GMT" and asctime's "Sun Nov  6 08:49:37 1994". Qt's RFC 2822 reader refuses
// the first two for their zone name.
QDateTime httpDate(const QByteArray &text, const QDateTime &now)
{
    const QList<QByteArray> parts = text.simplified().split(' ');
    struct
    {
        QByteArray day, month, year, time;
    } field;
    if (parts.size() == 6 && parts[0].endsWith(',') && parts[5] == "GMT") {
        field = {parts[1], parts[2], parts[3], parts[4]};
    } else if (parts.size() == 4 && parts[0].endsWith(',') && parts[3] == "GMT") {
        const QList<QByteArray> date = parts[1].split('-');
        if (date.size() != 3 || date[2].size() != 2)
            return {};
        field = {date[0], date[1], date[2], parts[2]};
    } else if (parts.size() == 5 && !parts[0].endsWith(',')) {
        field = {parts[2], parts[1], parts[4], parts[3]};
    } else {
        return {};
    }
    const auto &[day, month, year, time] = field;
    static constexpr char kMonths[] = "JanFebMarAprMayJunJulAugSepOctNovDec";
    const qsizetype monthIndex = QByteArray(kMonths).indexOf(month);
    bool dayOk = false, yearOk = false;
    const int dayNumber = day.toInt(&dayOk);
    int yearNumber = year.toInt(&yearOk);
    if (month.size() != 3 || monthIndex < 0 || monthIndex % 3 != 0 || !dayOk || !yearOk)
        return {};
    if (year.size() == 2) {
        // A two-digit year more than 50 years ahead is the latest past one.
        yearNumber += now.date().year() / 100 * 100;
        if (yearNumber > now.date().year() + 50)
            yearNumber -= 100;
    }
    const QDate date(yearNumber, int(monthIndex / 3) + 1, dayNumber);
    const QTime clock = QTime::fromString(QString::fromLatin1(time), u"HH:mm:ss");
    if (!date.isValid() || !clock.isValid())
        return {};
    return QDateTime(date, clock, QTimeZone::utc());
}

} // namespace

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
    QDateTime when = httpDate(text, now);
    if (!when.isValid()) // a sender's RFC 2822 date with a numeric zone
        when = QDateTime::fromString(QString::fromLatin1(text), Qt::RFC2822Date);
    if (!when.isValid())
        return -1;
    return std::clamp<qint64>(now.msecsTo(when), 0, 24 * 3600 * 1000);
}
