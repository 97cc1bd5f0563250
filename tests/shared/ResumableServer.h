#pragma once

// Starts an independent resumable upload server from tests/peers
// (resumable_server.mjs: "tus" is @tus/server, "308" is @uploadx/core) on
// 127.0.0.1 and a free port, storing under a directory of the caller's.

#include "ChildService.h"

#include <QDir>
#include <QString>
#include <QStringList>

class ResumableServer
{
public:
    // Empty on success, else what is missing, to hand to QFAIL.
    QString start(const QString &kind, const QString &directory)
    {
        const QString peers =
            qEnvironmentVariable("ZD_SOURCE_DIR") + QStringLiteral("/tests/peers");
        if (!QDir(peers + QStringLiteral("/node_modules/@tus/server")).exists() ||
            !QDir(peers + QStringLiteral("/node_modules/@uploadx/core")).exists())
            return QStringLiteral("the npm peers are not installed: run tools/install-deps");
        return m_service.start(QStringLiteral("node"),
                               {peers + QStringLiteral("/resumable_server.mjs"), kind, directory},
                               QProcess::SeparateChannels, peers);
    }
    quint16 port() const { return m_service.port(); }
    QUrl url(const QString &path) const { return m_service.url(path); }
    // The paths the server reported as stored so far.
    QStringList stored()
    {
        QProcess &process = m_service.process();
        while (process.canReadLine()) {
            const QByteArray line = process.readLine().trimmed();
            if (line.startsWith("stored "))
                m_stored.append(QString::fromUtf8(line.mid(7)));
        }
        return m_stored;
    }

private:
    ChildService m_service;
    QStringList m_stored;
};
