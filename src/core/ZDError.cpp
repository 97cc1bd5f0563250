#include "core/ZDError.h"

#include <QDebug>

const QString ZDLocalizedDescriptionKey = QStringLiteral("localizedDescription");

ZDError::ZDError(const QString &domain, qint64 code, const QVariantMap &userInfo)
    : m_domain(domain), m_code(code), m_userInfo(userInfo)
{}

QString ZDError::localizedDescription() const
{
    const QString stored = m_userInfo.value(ZDLocalizedDescriptionKey).toString();
    if (!stored.isEmpty())
        return stored;
    return QStringLiteral("%1 error %2").arg(m_domain).arg(m_code);
}

QDebug operator<<(QDebug debug, const ZDError &error)
{
    QDebugStateSaver saver(debug);
    debug.nospace() << "Error Domain=" << error.domain() << " Code=" << error.code() << " \""
                    << error.localizedDescription() << "\"";
    return debug;
}
