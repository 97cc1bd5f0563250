#include "LoopbackHTTPServer.h"

#include <sys/socket.h>

LoopbackHTTPServer::LoopbackHTTPServer(QObject *parent) : QObject(parent)
{
    m_handler = [](const RecordedRequest &) { return CannedReply::json("{}"); };
    connect(&m_server, &QTcpServer::newConnection, this, &LoopbackHTTPServer::onNewConnection);
}

bool LoopbackHTTPServer::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

QUrl LoopbackHTTPServer::url(const QString &pathAndQuery) const
{
    return QUrl(QStringLiteral("http://127.0.0.1:%1%2").arg(port()).arg(pathAndQuery));
}

void LoopbackHTTPServer::onNewConnection()
{
    while (QTcpSocket *socket = m_server.nextPendingConnection()) {
        socket->setParent(this);
        connect(socket, &QTcpSocket::readyRead, this, [this, socket] { onReadyRead(socket); });
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

void LoopbackHTTPServer::reply(QTcpSocket *socket, const CannedReply &reply)
{
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
