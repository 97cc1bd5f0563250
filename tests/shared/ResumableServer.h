#pragma once

// Starts an independent resumable upload server from tests/peers
// (resumable_server.mjs: "tus" is @tus/server, "308" is @uploadx/core) on
// 127.0.0.1 and a free port, storing under a directory of the caller's.

#include <QDir>
#include <QProcess>
#include <QString>
#include <QTest>

using namespace Qt::StringLiterals;

class ResumableServer
{
public:
    ~ResumableServer() { stop(); }

    // Empty on success, else what is missing, to hand to QFAIL.
    QString start(const QString &kind, const QString &directory)
    {
        const QString peers = qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tests/peers"_s;
        if (!QDir(peers + u"/node_modules/@tus/server"_s).exists() ||
            !QDir(peers + u"/node_modules/@uploadx/core"_s).exists())
            return u"the npm peers are not installed: run tools/install-deps"_s;
        m_process.setProcessChannelMode(QProcess::SeparateChannels);
        m_process.setWorkingDirectory(peers);
        m_process.start(u"node"_s, {peers + u"/resumable_server.mjs"_s, kind, directory});
        if (!m_process.waitForStarted(30000))
            return u"node (>= 20.19) cannot be started: run tools/install-deps"_s;
        while (m_port == 0) {
            if (!m_process.canReadLine() && !m_process.waitForReadyRead(30000))
                return u"the %1 server did not start: %2"_s.arg(
                    kind, QString::fromUtf8(m_process.readAllStandardError()));
            while (m_process.canReadLine()) {
                const QByteArray line = m_process.readLine().trimmed();
                if (line.startsWith("listening on "))
                    m_port = quint16(line.mid(13).toUInt());
            }
        }
        return QString();
    }
    void stop()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(10000);
        }
        m_port = 0;
    }
    quint16 port() const { return m_port; }
    QUrl url(const QString &path) const
    {
        return QUrl(u"http://127.0.0.1:%1%2"_s.arg(m_port).arg(path));
    }
    // The paths the server reported as stored so far.
    QStringList stored()
    {
        while (m_process.canReadLine()) {
            const QByteArray line = m_process.readLine().trimmed();
            if (line.startsWith("stored "))
                m_stored.append(QString::fromUtf8(line.mid(7)));
        }
        return m_stored;
    }

private:
    QProcess m_process;
    quint16 m_port = 0;
    QStringList m_stored;
};
