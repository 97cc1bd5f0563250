#pragma once

// A TCP proxy on 127.0.0.1 that puts a flaky network between a client and a
// server: it can cut every connection after a number of uploaded bytes (once or
// over and over), reset at once, stall, or throttle. It counts the bytes it
// carried towards the server, so tests and benchmarks see what went on the wire.

#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <functional>

class FaultProxy : public QObject
{
public:
    explicit FaultProxy(quint16 targetPort, QObject *parent = nullptr);
    ~FaultProxy() override;
    bool listen();
    quint16 port() const { return m_server.serverPort(); }

    // A client that goes away (a killed process) leaves what it sent on the
    // way: the server still gets it, at the throttle's pace, then the close.
    //
    // Cuts (resets) the connection once `bytes` more upload bytes have passed;
    // with `repeat`, again every `bytes` after that. The client's side closes
    // at once (a reset while it is still sending); the server gets the bytes
    // already passed on (the proxy keeps a few hundred KiB in flight, its
    // kernel buffer included), then the close, as the far end of a broken path
    // would.
    void cutAfter(qint64 bytes, bool repeat = false);
    // Further cuts at these absolute upload byte counts, in ascending order.
    void cutAt(QList<qint64> totals) { m_cutPoints = std::move(totals); }
    // Holds every byte towards the server until released.
    void setStalled(bool stalled);
    // At most this many upload bytes a second (0: unthrottled).
    void setThrottle(qint64 bytesPerSecond) { m_throttle = bytesPerSecond; }
    // Resets every new connection at once while set.
    void setRefusing(bool refusing) { m_refusing = refusing; }
    // Called after every cut with the upload byte count at which it happened.
    void setOnCut(std::function<void(qint64)> onCut) { m_onCut = std::move(onCut); }
    // Called whenever upload bytes were passed on, with the new count.
    void setOnForward(std::function<void(qint64)> onForward) { m_onForward = std::move(onForward); }

    qint64 uploadedBytes() const { return m_uploaded; }
    int cuts() const { return m_cuts; }

private:
    struct Link
    {
        QPointer<QTcpSocket> client;
        QPointer<QTcpSocket> server;
        QByteArray pending; // towards the server, held by a stall or throttle
        bool clientGone = false;
    };
    void onNewConnection();
    void pump(Link *link);
    void cut(Link *link);
    void closeLink(Link *link);

    QTcpServer m_server;
    quint16 m_targetPort;
    QList<Link *> m_links;
    qint64 m_uploaded = 0;
    qint64 m_nextCut = -1;
    qint64 m_cutEvery = 0;
    QList<qint64> m_cutPoints;
    bool m_stalled = false;
    bool m_refusing = false;
    qint64 m_throttle = 0;
    qint64 m_budget = 0;
    QTimer m_tick;
    int m_cuts = 0;
    std::function<void(qint64)> m_onCut;
    std::function<void(qint64)> m_onForward;
};
