#include "FaultProxy.h"

#include <QHostAddress>

namespace {
constexpr int kTickMsecs = 20;
// What the proxy holds in flight per direction, like the buffers along a real
// path. Without a bound it would read the client's bytes as fast as they come
// and a cut would throw away whatever piled up, far more than a network loses.
constexpr qint64 kInFlight = 256 * 1024;
} // namespace

FaultProxy::FaultProxy(quint16 targetPort, QObject *parent)
    : QObject(parent), m_targetPort(targetPort)
{
    connect(&m_server, &QTcpServer::newConnection, this, &FaultProxy::onNewConnection);
    m_tick.setInterval(kTickMsecs);
    connect(&m_tick, &QTimer::timeout, this, [this] {
        m_budget = m_throttle * kTickMsecs / 1000;
        const QList<Link *> links = m_links;
        for (Link *link : links)
            pump(link);
    });
    m_tick.start();
}

FaultProxy::~FaultProxy()
{
    for (Link *link : std::as_const(m_links)) {
        for (QTcpSocket *socket : {link->client.data(), link->server.data()}) {
            if (socket) {
                socket->disconnect(this);
                delete socket;
            }
        }
        delete link;
    }
    m_links.clear();
}

bool FaultProxy::listen()
{
    return m_server.listen(QHostAddress::LocalHost, 0);
}

void FaultProxy::cutAfter(qint64 bytes, bool repeat)
{
    m_nextCut = m_uploaded + bytes;
    m_cutEvery = repeat ? bytes : 0;
}

void FaultProxy::setStalled(bool stalled)
{
    m_stalled = stalled;
    if (!stalled) {
        const QList<Link *> links = m_links;
        for (Link *link : links)
            pump(link);
    }
}

void FaultProxy::onNewConnection()
{
    while (QTcpSocket *client = m_server.nextPendingConnection()) {
        if (m_refusing) {
            client->abort();
            client->deleteLater();
            continue;
        }
        auto *link = new Link;
        link->client = client;
        link->server = new QTcpSocket(this);
        m_links.append(link);
        client->setReadBufferSize(kInFlight);
        connect(client, &QTcpSocket::readyRead, this, [this, link] { pump(link); });
        connect(link->server, &QTcpSocket::connected, this, [this, link] {
            // The kernel's send buffer holds bytes in flight too, and on
            // loopback it grows to MiBs: all of them still reach the server
            // after a cut, and it would spend tens of milliseconds taking in
            // what a broken path never carried before it saw the break.
            link->server->setSocketOption(QAbstractSocket::SendBufferSizeSocketOption,
                                          int(kInFlight));
            pump(link);
        });
        connect(link->server, &QTcpSocket::bytesWritten, this, [this, link] { pump(link); });
        connect(link->server, &QTcpSocket::readyRead, this, [link] {
            if (link->client)
                link->client->write(link->server->readAll());
        });
        connect(client, &QTcpSocket::disconnected, this, [this, link] {
            link->clientGone = true;
            pump(link);
        });
        connect(link->server, &QTcpSocket::disconnected, this, [this, link] { closeLink(link); });
        link->server->connectToHost(QHostAddress::LocalHost, m_targetPort);
    }
}

void FaultProxy::pump(Link *link)
{
    if (!m_links.contains(link))
        return;
    if (!link->server || link->server->state() != QAbstractSocket::ConnectedState || m_stalled) {
        if (link->clientGone &&
            (!link->server || link->server->state() == QAbstractSocket::UnconnectedState))
            closeLink(link);
        return;
    }
    for (;;) {
        if (link->pending.isEmpty() && link->client)
            link->pending = link->client->read(kInFlight);
        if (link->pending.isEmpty() || link->server->bytesToWrite() >= kInFlight)
            break;
        if (m_nextCut < 0 && !m_cutPoints.isEmpty())
            m_nextCut = m_cutPoints.takeFirst();
        qint64 take = link->pending.size();
        if (m_throttle > 0)
            take = std::min(take, m_budget);
        if (m_nextCut >= 0)
            take = std::min(take, m_nextCut - m_uploaded);
        if (take <= 0 && m_nextCut >= 0 && m_uploaded >= m_nextCut)
            return cut(link);
        if (take <= 0)
            return;
        link->server->write(link->pending.constData(), take);
        link->pending.remove(0, take);
        m_uploaded += take;
        if (m_throttle > 0)
            m_budget -= take;
        if (m_onForward)
            m_onForward(m_uploaded);
    }
    if (m_nextCut >= 0 && m_uploaded >= m_nextCut)
        return cut(link);
    if (link->clientGone && link->pending.isEmpty() &&
        (!link->client || link->client->bytesAvailable() == 0))
        closeLink(link);
}

void FaultProxy::cut(Link *link)
{
    const qint64 at = m_uploaded;
    ++m_cuts;
    m_nextCut = m_cutEvery > 0 ? m_uploaded + m_cutEvery : -1;
    // What was forwarded reaches the server before the reset. The sockets emit
    // synchronously while they abort; nothing may close the link under us.
    for (QTcpSocket *socket : {link->client.data(), link->server.data()}) {
        if (socket)
            socket->disconnect(this);
    }
    if (link->server)
        link->server->flush();
    if (link->client)
        link->client->abort();
    if (link->server)
        link->server->abort();
    closeLink(link);
    if (m_onCut)
        m_onCut(at);
}

void FaultProxy::closeLink(Link *link)
{
    if (!m_links.removeOne(link))
        return;
    // Sockets about to go may still emit; nothing may reach the freed link.
    for (QTcpSocket *socket : {link->client.data(), link->server.data()}) {
        if (socket)
            socket->disconnect(this);
    }
    if (link->client) {
        if (link->client->state() == QAbstractSocket::ConnectedState && link->server)
            link->client->write(link->server->readAll());
        link->client->disconnectFromHost();
        link->client->deleteLater();
    }
    if (link->server) {
        link->server->disconnectFromHost();
        link->server->deleteLater();
    }
    delete link;
}
