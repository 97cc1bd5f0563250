#pragma once

// A small HTTP/1.1 server on 127.0.0.1 for the tests. It runs on the test's own
// event loop, records every request exactly as it arrived, and answers with
// whatever the test's handler says, including broken answers.

#include <QByteArray>
#include <QHash>
#include <QHostAddress>
#include <QList>
#include <QObject>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <functional>
#include <utility>

struct RecordedRequest
{
    QByteArray method;
    QByteArray target; // path and query, as sent
    QList<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;

    QByteArray header(const QByteArray &name) const
    {
        QByteArrayList values;
        for (const auto &[field, value] : headers) {
            if (field.compare(name, Qt::CaseInsensitive) == 0)
                values.append(value);
        }
        return values.join(", ");
    }
    QList<QByteArray> headerValues(const QByteArray &name) const
    {
        QList<QByteArray> values;
        for (const auto &[field, value] : headers) {
            if (field.compare(name, Qt::CaseInsensitive) == 0)
                values.append(value);
        }
        return values;
    }
};

struct CannedReply
{
    enum class Ending {
        Complete,     // the whole reply
        CloseMidBody, // head and `partialBytes` of the body, then a clean close
        ResetMidBody, // head and `partialBytes` of the body, then a reset
        ResetAtOnce,  // no reply at all, the connection is reset
    };

    int status = 200;
    QByteArray reason = "OK";
    QList<std::pair<QByteArray, QByteArray>> headers;
    QByteArray body;
    bool sendContentLength = true;
    Ending ending = Ending::Complete;
    qsizetype partialBytes = 0;

    static CannedReply json(const QByteArray &body, int status = 200)
    {
        CannedReply reply;
        reply.status = status;
        reply.headers = {{"Content-Type", "application/json"}};
        reply.body = body;
        return reply;
    }
    static CannedReply redirect(int status, const QByteArray &location)
    {
        CannedReply reply;
        reply.status = status;
        reply.reason = "Redirect";
        reply.headers = {{"Location", location}};
        reply.body = "moved";
        return reply;
    }
};

class LoopbackHTTPServer : public QObject
{
public:
    using Handler = std::function<CannedReply(const RecordedRequest &)>;

    explicit LoopbackHTTPServer(QObject *parent = nullptr);

    bool listen();
    quint16 port() const { return m_server.serverPort(); }
    QUrl url(const QString &pathAndQuery) const;

    void setHandler(Handler handler) { m_handler = std::move(handler); }
    const QList<RecordedRequest> &requests() const { return m_requests; }
    void clear() { m_requests.clear(); }

private:
    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    void reply(QTcpSocket *socket, const CannedReply &reply);

    QTcpServer m_server;
    Handler m_handler;
    QList<RecordedRequest> m_requests;
    QHash<QTcpSocket *, QByteArray> m_buffers;
};
