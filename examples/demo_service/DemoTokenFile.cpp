#include "DemoTokenFile.h"

#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

#include <cstdio>

QJsonObject TokenFile::open(const QString &path)
{
    m_path = path;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

bool TokenFile::save(const QJsonObject &object) const
{
    if (m_path.isEmpty())
        return true;
    QSaveFile file(m_path);
    // The temporary file gets the owner-only permissions before the first
    // byte, and the rename keeps them.
    const bool saved = file.open(QIODevice::WriteOnly) &&
                       file.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner) &&
                       file.write(QJsonDocument(object).toJson(QJsonDocument::Compact)) >= 0 &&
                       file.commit();
    if (!saved)
        std::fprintf(stderr, "zd_demo_service: cannot write %s: %s\n", qUtf8Printable(m_path),
                     qUtf8Printable(file.errorString()));
    return saved;
}
