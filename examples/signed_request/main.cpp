// A signed request, end to end: a small JSON service on 127.0.0.1 checks an
// HMAC signature on every request, and a JSONHTTPRequest with a RequestSigner
// talks to it and prints what came back.
//
// A real plug-in's signer computes an OAuth signature instead; the shape is the
// same: sign the request as built, put the signature in a header.

#include <core/ZDError.h>
#include <net/JSONHTTPRequest.h>

#include <QCoreApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMessageAuthenticationCode>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

#include <cstdio>

namespace {

const QByteArray kSecret = "demo-shared-secret";

QByteArray signatureFor(const QByteArray &method, const QByteArray &target, const QByteArray &body)
{
    return QMessageAuthenticationCode::hash(method + '\n' + target + '\n' + body, kSecret,
                                            QCryptographicHash::Sha256)
        .toBase64();
}

// Signs method, path-and-query and body with the shared secret.
class DemoSigner : public RequestSigner
{
public:
    ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) override
    {
        const QUrl url = request.URL();
        const QByteArray target = url.toEncoded(QUrl::RemoveScheme | QUrl::RemoveAuthority);
        ZDURLRequest signedCopy = request;
        signedCopy.setValueForHTTPHeaderField(
            "Demo-HMAC " + signatureFor(request.HTTPMethod(), target,
                                        request.HTTPBody().value_or(QByteArray())),
            "Authorization");
        return signedCopy;
    }
};

// The service: one request per connection, answered with JSON.
class DemoService : public QObject
{
public:
    bool listen() { return m_server.listen(QHostAddress::LocalHost, 0); }
    quint16 port() const { return m_server.serverPort(); }

    DemoService()
    {
        connect(&m_server, &QTcpServer::newConnection, this, [this] {
            while (QTcpSocket *socket = m_server.nextPendingConnection()) {
                socket->setParent(this);
                connect(socket, &QTcpSocket::readyRead, this, [this, socket] { serve(socket); });
                connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            }
        });
    }

private:
    void serve(QTcpSocket *socket)
    {
        QByteArray &buffer = m_buffers[socket];
        buffer += socket->readAll();
        const qsizetype headEnd = buffer.indexOf("\r\n\r\n");
        if (headEnd < 0)
            return;
        const QList<QByteArray> lines = buffer.left(headEnd).split('\n');
        const QList<QByteArray> requestLine = lines.value(0).trimmed().split(' ');
        QByteArray authorization;
        qsizetype length = 0;
        for (const QByteArray &line : lines.mid(1)) {
            const qsizetype colon = line.indexOf(':');
            const QByteArray name = line.left(colon).trimmed().toLower();
            const QByteArray value = line.mid(colon + 1).trimmed();
            if (name == "authorization")
                authorization = value;
            else if (name == "content-length")
                length = value.toLongLong();
        }
        if (buffer.size() < headEnd + 4 + length)
            return;
        const QByteArray body = buffer.mid(headEnd + 4, length);
        const QByteArray method = requestLine.value(0);
        const QByteArray target = requestLine.value(1);
        const bool valid = authorization == "Demo-HMAC " + signatureFor(method, target, body);

        QJsonObject answer;
        int status = 200;
        if (valid) {
            answer = {{QStringLiteral("greeting"), QStringLiteral("Hello from the demo service")},
                      {QStringLiteral("method"), QString::fromLatin1(method)},
                      {QStringLiteral("target"), QString::fromLatin1(target)},
                      {QStringLiteral("form"), QString::fromUtf8(body)}};
        } else {
            status = 401;
            answer = {{QStringLiteral("error"), QStringLiteral("bad signature")}};
        }
        const QByteArray json = QJsonDocument(answer).toJson(QJsonDocument::Compact);
        socket->write("HTTP/1.1 " + QByteArray::number(status) +
                      " Done\r\nContent-Type: application/json\r\nConnection: close\r\n"
                      "Content-Length: " +
                      QByteArray::number(json.size()) + "\r\n\r\n" + json);
        socket->disconnectFromHost();
        m_buffers.remove(socket);
    }

    QTcpServer m_server;
    QHash<QTcpSocket *, QByteArray> m_buffers;
};

// Prints the outcome and ends the program.
class PrintingDelegate : public JSONHTTPRequestDelegate
{
public:
    void requestDidReceiveObject(JSONHTTPRequest *, const QVariant &object) override
    {
        const QByteArray json = QJsonDocument(QJsonObject::fromVariantMap(object.toMap()))
                                    .toJson(QJsonDocument::Indented);
        std::printf("The service answered:\n%s", json.constData());
        QCoreApplication::exit(0);
    }
    void requestDidFailWithError(JSONHTTPRequest *, const ZDError &error) override
    {
        std::fprintf(stderr, "The request failed: %s (%s %lld)\n",
                     qPrintable(error.localizedDescription()), qPrintable(error.domain()),
                     static_cast<long long>(error.code()));
        QCoreApplication::exit(1);
    }
};

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    DemoService service;
    if (!service.listen()) {
        std::fprintf(stderr, "Cannot listen on 127.0.0.1\n");
        return 1;
    }

    PrintingDelegate delegate;
    const QUrl url(QStringLiteral("http://127.0.0.1:%1/v1/greet").arg(service.port()));
    JSONHTTPRequest request(url, &delegate, std::make_shared<DemoSigner>());
    request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    request.setGetParams(QVariantMap{{QStringLiteral("lang"), QStringLiteral("en")}});
    request.setPostParams(QVariantMap{{QStringLiteral("title"), QStringLiteral("Summer trip")},
                                      {QStringLiteral("tags"), QStringLiteral("sea, sun")}});
    request.start();
    std::printf("Signed POST to %s\n", qPrintable(url.toString()));

    QTimer::singleShot(30000, &app, [] {
        std::fprintf(stderr, "No answer within 30 seconds\n");
        QCoreApplication::exit(2);
    });
    return app.exec();
}
