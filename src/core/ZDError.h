#pragma once

#include "core/zdglobal.h"

#include <QMetaType>
#include <QString>
#include <QVariantMap>
#include <QtCore/qcontainerfwd.h>

// The user-info key under which an error carries its readable description.
ZD_EXPORT extern const QString ZDLocalizedDescriptionKey;

// An error value: a domain naming the component that produced it, an integer
// code whose meaning belongs to that domain, and a string-keyed user-info
// dictionary. The library's own errors use JSONHTTPRequestErrorDomain; errors of
// the transport (ZDCurlErrorDomain, ZDURLErrorDomain) and of the JSON parser
// (ZDJSONErrorDomain) pass through in their own domains.
class ZD_EXPORT ZDError
{
public:
    ZDError() = default;
    ZDError(const QString &domain, qint64 code, const QVariantMap &userInfo = {});

    // A default-constructed error has an empty domain and stands for "no error".
    bool isNull() const { return m_domain.isEmpty(); }

    QString domain() const { return m_domain; }
    qint64 code() const { return m_code; }
    QVariantMap userInfo() const { return m_userInfo; }

    // The description stored under ZDLocalizedDescriptionKey, or "<domain>
    // error <code>".
    QString localizedDescription() const;

    friend bool operator==(const ZDError &, const ZDError &) = default;

private:
    QString m_domain;
    qint64 m_code = 0;
    QVariantMap m_userInfo;
};

class QDebug;
ZD_EXPORT QDebug operator<<(QDebug debug, const ZDError &error);

Q_DECLARE_METATYPE(ZDError)
