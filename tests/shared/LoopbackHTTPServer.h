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
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrl>

#include <functional>
#include <memory>
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
    // Waits this long before answering (a server that thinks).
    int delayMs = 0;
    // When > 0, the reply (head included) goes out this many bytes a second.
    int dripBytesPerSecond = 0;

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

// A name that only the tests' own resolvers (a proxy's hosts file) map to
// 127.0.0.1; Qt sends nothing for 127.0.0.1 or localhost through a proxy.
inline constexpr char kTestHostName[] = "loopback.zdpublish.test";

// A private certificate authority and a certificate for 127.0.0.1 and
// kTestHostName signed by it,
// made with the openssl tool in `directory`. `error` is empty on success.
struct TestCertificates
{
    QSslCertificate authority;
    QSslConfiguration serverConfiguration; // certificate and key, for listenWithTls()
    QString error;
};
TestCertificates makeTestCertificates(const QString &directory);

class LoopbackHTTPServer : public QObject
{
public:
    using Handler = std::function<CannedReply(const RecordedRequest &)>;

    explicit LoopbackHTTPServer(QObject *parent = nullptr);
    ~LoopbackHTTPServer() override;

    bool listen();
    // Speaks https: only connections whose handshake succeeded are served.
    bool listenWithTls(const QSslConfiguration &configuration);
    quint16 port() const { return m_server ? m_server->serverPort() : 0; }
    QUrl url(const QString &pathAndQuery) const;

    void setHandler(Handler handler) { m_handler = std::move(handler); }
    // Each new connection is left unread for this long (a client's upload
    // stalls meanwhile), then read at full speed. 0 (the default) reads at once.
    void setReadPauseMs(int ms) { m_readPauseMs = ms; }
    const QList<RecordedRequest> &requests() const { return m_requests; }
    void clear() { m_requests.clear(); }

private:
    bool startListening(std::unique_ptr<QTcpServer> server);
    void onNewConnection();
    void onReadyRead(QTcpSocket *socket);
    void reply(QTcpSocket *socket, const CannedReply &reply);
    void drip(QTcpSocket *socket, const QByteArray &bytes, int bytesPerSecond);

    std::unique_ptr<QTcpServer> m_server;
    bool m_tls = false;
    int m_readPauseMs = 0;
    Handler m_handler;
    QList<RecordedRequest> m_requests;
    QHash<QTcpSocket *, QByteArray> m_buffers;
};
