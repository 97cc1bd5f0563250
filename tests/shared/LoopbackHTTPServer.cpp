#include "LoopbackHTTPServer.h"

#include <QFile>
#include <QProcess>
#include <QSslKey>
#include <QSslServer>
#include <QTimer>

#include <sys/socket.h>

TestCertificates makeTestCertificates(const QString &directory)
{
    TestCertificates made;
    const auto path = [&](const char *name) -> QString {
        return directory + u'/' + QLatin1String(name);
    };
    QFile extensions(path("server.ext"));
    if (!extensions.open(QIODevice::WriteOnly) ||
        extensions.write(QByteArray("subjectAltName=IP:127.0.0.1,DNS:" + QByteArray(kTestHostName) +
                                    "\nbasicConstraints=CA:FALSE\n")) < 0) {
        made.error = QStringLiteral("cannot write %1").arg(extensions.fileName());
        return made;
    }
    extensions.close();
    const QStringList ec{QStringLiteral("-newkey"), QStringLiteral("ec"),
                         QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"),
                         QStringLiteral("-nodes")};
    const QList<QStringList> steps{
        QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + ec +
            QStringList{
                QStringLiteral("-keyout"), path("ca.key"), QStringLiteral("-out"), path("ca.pem"),
                QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-subj"),
                QStringLiteral("/CN=Loopback Test Authority"), QStringLiteral("-addext"),
                QStringLiteral("basicConstraints=critical,CA:TRUE"), QStringLiteral("-addext"),
                QStringLiteral("keyUsage=critical,keyCertSign,cRLSign")},
        QStringList{QStringLiteral("req")} + ec +
            QStringList{QStringLiteral("-keyout"), path("server.key"), QStringLiteral("-out"),
                        path("server.csr"), QStringLiteral("-subj"),
                        QStringLiteral("/CN=127.0.0.1")},
        {QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"), path("server.csr"),
         QStringLiteral("-CA"), path("ca.pem"), QStringLiteral("-CAkey"), path("ca.key"),
         QStringLiteral("-CAcreateserial"), QStringLiteral("-out"), path("server.pem"),
         QStringLiteral("-days"), QStringLiteral("2"), QStringLiteral("-extfile"),
         path("server.ext")}};
    for (const QStringList &arguments : steps) {
        QProcess openssl;
        openssl.start(QStringLiteral("openssl"), arguments);
        if (!openssl.waitForFinished(60000) || openssl.exitCode() != 0) {
            made.error =
                QStringLiteral("openssl %1 failed: %2")
                    .arg(arguments.first(), QString::fromLocal8Bit(openssl.readAllStandardError()));
            return made;
        }
    }
    QFile authority(path("ca.pem")), certificate(path("server.pem")), key(path("server.key"));
    if (!authority.open(QIODevice::ReadOnly) || !certificate.open(QIODevice::ReadOnly) ||
        !key.open(QIODevice::ReadOnly)) {
        made.error = QStringLiteral("cannot read what openssl made");
        return made;
    }
    made.authority = QSslCertificate(&authority);
    made.serverConfiguration = QSslConfiguration::defaultConfiguration();
    made.serverConfiguration.setLocalCertificate(QSslCertificate(&certificate));
    made.serverConfiguration.setPrivateKey(QSslKey(&key, QSsl::Ec));
    if (made.authority.isNull() || made.serverConfiguration.privateKey().isNull())
        made.error = QStringLiteral("openssl made certificates Qt cannot read");
    return made;
}

LoopbackHTTPServer::LoopbackHTTPServer(QObject *parent) : QObject(parent)
{
    m_handler = [](const RecordedRequest &) { return CannedReply::json("{}"); };
}

LoopbackHTTPServer::~LoopbackHTTPServer() = default;

bool LoopbackHTTPServer::startListening(std::unique_ptr<QTcpServer> server)
{
    m_server = std::move(server);
    // Emitted once a connection can be served: for TLS after its handshake.
    connect(m_server.get(), &QTcpServer::pendingConnectionAvailable, this,
            &LoopbackHTTPServer::onNewConnection);
    return m_server->listen(QHostAddress::LocalHost, 0);
}

bool LoopbackHTTPServer::listen()
{
    m_tls = false;
    return startListening(std::make_unique<QTcpServer>());
}

bool LoopbackHTTPServer::listenWithTls(const QSslConfiguration &configuration)
{
    auto server = std::make_unique<QSslServer>();
    server->setSslConfiguration(configuration);
    m_tls = true;
    return startListening(std::move(server));
}

QUrl LoopbackHTTPServer::url(const QString &pathAndQuery) const
{
    return QUrl(QStringLiteral("%1://127.0.0.1:%2%3")
                    .arg(m_tls ? u"https" : u"http")
                    .arg(port())
                    .arg(pathAndQuery));
}

void LoopbackHTTPServer::onNewConnection()
{
    while (QTcpSocket *socket = m_server->nextPendingConnection()) {
        socket->setParent(this);
        if (m_readPauseMs > 0) {
            // Qt reads no further than its buffer while nothing is taken from it.
            socket->setReadBufferSize(64 * 1024);
            QTimer::singleShot(m_readPauseMs, socket, [this, socket] {
                socket->setReadBufferSize(0);
                connect(socket, &QTcpSocket::readyRead, this,
                        [this, socket] { onReadyRead(socket); });
                onReadyRead(socket);
            });
        } else {
            connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
        }
        connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            m_buffers.remove(socket);
            socket->deleteLater();
        });
    }
}

void LoopbackHTTPServer::onReadyRead(QTcpSocket *socket)
{
    QByteArray &buffer = m_buffers[socket];
    buffer += socket->readAll();
    for (;;) {
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        RecordedRequest request;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        request.method = requestLine.value(0);
        request.target = requestLine.value(1);
        qsizetype contentLength = 0;
        bool chunked = false;
        for (qsizetype i = 1; i < lines.size(); ++i) {
            const QByteArray line = lines[i].trimmed();
            const qsizetype colon = line.indexOf(':');
            if (colon <= 0)
                continue;
            const QByteArray name = line.left(colon).trimmed();
            const QByteArray value = line.mid(colon + 1).trimmed();
            request.headers.append({name, value});
            if (name.compare("Content-Length", Qt::CaseInsensitive) == 0)
                contentLength = value.toLongLong();
            if (name.compare("Transfer-Encoding", Qt::CaseInsensitive) == 0 &&
                value.contains("chunked"))
                chunked = true;
        }
        qsizetype consumed = headEnd + 4;
        if (chunked) {
            QByteArray body;
            qsizetype pos = consumed;
            for (;;) {
                const qsizetype lineEnd = buffer.indexOf("\r\n", pos);
                if (lineEnd < 0)
                    return;
                bool ok = false;
                const qsizetype size = buffer.mid(pos, lineEnd - pos).toLongLong(&ok, 16);
                if (buffer.size() < lineEnd + 2 + size + 2)
                    return;
                if (size == 0) {
                    pos = lineEnd + 4;
                    break;
                }
                body += buffer.mid(lineEnd + 2, size);
                pos = lineEnd + 2 + size + 2;
            }
            request.body = body;
            consumed = pos;
        } else {
            if (buffer.size() < consumed + contentLength)
                return;
            request.body = buffer.mid(consumed, contentLength);
            consumed += contentLength;
        }
        buffer.remove(0, consumed);
        m_requests.append(request);
        reply(socket, m_handler(request));
        if (socket->state() != QAbstractSocket::ConnectedState)
            return;
    }
}

void LoopbackHTTPServer::drip(QTcpSocket *socket, const QByteArray &bytes, int bytesPerSecond)
{
    auto *timer = new QTimer(socket);
    auto sent = std::make_shared<qsizetype>(0);
    connect(timer, &QTimer::timeout, socket, [=] {
        socket->write(bytes.mid(*sent, bytesPerSecond));
        *sent += bytesPerSecond;
        if (*sent >= bytes.size())
            timer->stop();
    });
    timer->start(1000);
}

void LoopbackHTTPServer::reply(QTcpSocket *socket, const CannedReply &reply)
{
    if (reply.delayMs > 0) {
        CannedReply now = reply;
        now.delayMs = 0;
        QTimer::singleShot(reply.delayMs, socket,
                           [this, socket, now] { this->reply(socket, now); });
        return;
    }
    if (reply.ending == CannedReply::Ending::ResetAtOnce) {
        const linger hard{1, 0};
        ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        socket->abort();
        return;
    }
    QByteArray head = "HTTP/1.1 " + QByteArray::number(reply.status) + ' ' + reply.reason + "\r\n";
    for (const auto &[name, value] : reply.headers)
        head += name + ": " + value + "\r\n";
    if (reply.sendContentLength)
        head += "Content-Length: " + QByteArray::number(reply.body.size()) + "\r\n";
    else
        head += "Connection: close\r\n";
    head += "\r\n";
    if (reply.dripBytesPerSecond > 0) {
        drip(socket, head + reply.body, reply.dripBytesPerSecond);
        return;
    }
    socket->write(head);
    switch (reply.ending) {
    case CannedReply::Ending::Complete:
        socket->write(reply.body);
        if (!reply.sendContentLength)
            socket->disconnectFromHost();
        break;
    case CannedReply::Ending::CloseMidBody:
        socket->write(reply.body.left(reply.partialBytes));
        socket->disconnectFromHost();
        break;
    case CannedReply::Ending::ResetMidBody: {
        socket->write(reply.body.left(reply.partialBytes));
        socket->flush();
        const linger hard{1, 0};
        ::setsockopt(int(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        socket->abort();
        break;
    }
    case CannedReply::Ending::ResetAtOnce:
        break;
    }
}
