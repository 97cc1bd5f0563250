#pragma once

// A service run as a child process on 127.0.0.1 and a port of its choosing. It
// tells its port on standard output, on a line "listening on <port>" or
// "listening on http://127.0.0.1:<port>/", once it accepts connections; the
// lines after that stay unread for the caller. Header-only, so that the
// benchmarks can use it without the tests' library.

#include <QByteArray>
#include <QProcess>
#include <QString>
#include <QStringList>
#include <QUrl>

class ChildService
{
public:
    ~ChildService() { stop(); }

    // Empty once the service listens, else what went wrong, for QVERIFY2 or a
    // test's skip message. With QProcess::SeparateChannels its standard error
    // is kept for the caller to read.
    QString start(const QString &program, const QStringList &arguments,
                  QProcess::ProcessChannelMode channels = QProcess::ForwardedErrorChannel,
                  const QString &workingDirectory = {})
    {
        m_port = 0;
        m_process.setProcessChannelMode(channels);
        m_process.setWorkingDirectory(workingDirectory);
        m_process.start(program, arguments);
        if (!m_process.waitForStarted(30000))
            return program + QStringLiteral(" cannot be started: ") + m_process.errorString();
        while (m_port == 0) {
            if (!m_process.canReadLine() && !m_process.waitForReadyRead(60000))
                return program + QStringLiteral(" did not start listening: ") +
                       QString::fromUtf8(m_process.readAllStandardError());
            while (m_port == 0 && m_process.canReadLine()) {
                const QByteArray line = m_process.readLine().trimmed();
                if (!line.startsWith("listening on "))
                    continue;
                const QByteArray where = line.mid(13);
                m_port = quint16(where.startsWith("http") ? QUrl(QString::fromLatin1(where)).port()
                                                          : where.toUInt());
            }
        }
        return {};
    }

    // Asks the service to end, then makes it; whether it ended by itself with 0.
    bool stop()
    {
        if (m_process.state() == QProcess::NotRunning)
            return false;
        m_process.terminate();
        if (m_process.waitForFinished(60000))
            return m_process.exitStatus() == QProcess::NormalExit && m_process.exitCode() == 0;
        m_process.kill();
        m_process.waitForFinished(10000);
        return false;
    }

    quint16 port() const { return m_port; }
    QUrl url(const QString &pathAndQuery = QStringLiteral("/")) const
    {
        return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(m_port).arg(pathAndQuery));
    }
    QProcess &process() { return m_process; }

private:
    QProcess m_process;
    quint16 m_port = 0;
};
