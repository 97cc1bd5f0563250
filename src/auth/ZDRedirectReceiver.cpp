#include "auth/ZDRedirectReceiver_p.h"

#include "core/ZDLogging_p.h"
#include "resources/ZDLocalizedString.h"

#include <QHostAddress>
#include <QPointer>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>

namespace {

// A redirect carries a code and a state; a browser's request head with them
// stays far below this, so anything larger is not our browser.
constexpr qsizetype kMaxRequestBytes = 16 * 1024;
// A browser sends its request at once; a connection that does not must not hold
// a socket for the whole sign-in.
constexpr int kRequestTimeoutMs = 10 * 1000;
// The browser may open a spare connection or two beside the redirect's.
constexpr int kMaxPendingConnections = 4;

// Answers with a small page and closes. Touches no receiver, which may be gone.
void answer(QTcpSocket *socket, int status, const QString &title, const QString &text)
{
    const QByteArray body = "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>" +
                            title.toHtmlEscaped().toUtf8() + "</title></head><body><p>" +
                            text.toHtmlEscaped().toUtf8() + "</p></body></html>";
    const QByteArray reason = status == 200 ? "OK" : status == 404 ? "Not Found" : "Bad Request";
    socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reason +
                  "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                  QByteArray::number(body.size()) +
                  "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" + body);
    socket->disconnectFromHost();
}

void drop(QTcpSocket *socket)
{
    socket->abort();
    socket->deleteLater();
}

} // namespace

ZDRedirectReceiver::ZDRedirectReceiver(const QString &path, const QString &title, Handler handler,
                                       QObject *parent)
    : QObject(parent), m_path(path), m_title(title), m_handler(std::move(handler))
{}

ZDRedirectReceiver::~ZDRedirectReceiver() = default;

bool ZDRedirectReceiver::listen(QString *errorString)
{
    m_server = new QTcpServer(this);
    m_server->setMaxPendingConnections(kMaxPendingConnections);
    // The loopback address only: nothing else on the network may hand us a code.
    if (!m_server->listen(QHostAddress::LocalHost, 0)) {
        *errorString = m_server->errorString();
        close();
        return false;
    }
    connect(m_server, &QTcpServer::newConnection, this, [this] {
        while (m_server && m_server->hasPendingConnections())
            accept(m_server->nextPendingConnection());
    });
    return true;
}

quint16 ZDRedirectReceiver::port() const
{
    return m_server && m_server->isListening() ? m_server->serverPort() : 0;
}

void ZDRedirectReceiver::close()
{
    if (m_server)
        m_server->close();
    m_server = nullptr; // deleted with us
    m_handler = nullptr;
}

void ZDRedirectReceiver::accept(QTcpSocket *socket)
{
    // The socket outlives the receiver only as long as it needs to send its answer.
    socket->setParent(nullptr);
    connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QTimer::singleShot(kRequestTimeoutMs, socket, [socket] {
        if (!socket->property("answered").toBool())
            drop(socket);
    });
    connect(socket, &QTcpSocket::readyRead, socket,
            [socket, receiver = QPointer<ZDRedirectReceiver>(this)] {
                if (socket->property("answered").toBool())
                    return;
                if (receiver)
                    receiver->read(socket);
                else
                    answer(socket, 400, QString(),
                           ZDLocalizedString(QStringLiteral("OAUTH2_BROWSER_EXPIRED")));
            });
}

void ZDRedirectReceiver::read(QTcpSocket *socket)
{
    if (socket->bytesAvailable() > kMaxRequestBytes) {
        socket->setProperty("answered", true);
        drop(socket);
        return;
    }
    const QByteArray head = socket->peek(kMaxRequestBytes);
    if (!head.contains("\r\n\r\n"))
        return;
    socket->setProperty("answered", true);
    if (!m_handler) { // closed: the sign-in is over
        answer(socket, 400, QString(), ZDLocalizedString(QStringLiteral("OAUTH2_BROWSER_EXPIRED")));
        return;
    }
    const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
    const QUrl target(QString::fromLatin1(requestLine.value(1)));
    if (requestLine.value(0) != "GET" || target.path() != m_path) {
        qCDebug(lcZDAuth) << "the redirect receiver answered another request with 404";
        answer(socket, 404, m_title, QString());
        return;
    }
    const QString title = m_title;
    const Handler handler = std::exchange(m_handler, nullptr);
    close(); // one redirect only
    const ZDRedirectPage page = handler(QUrlQuery(target));
    answer(socket, page.status, title, page.text);
}
