#pragma once

#include <QObject>
#include <QString>
#include <QUrlQuery>

#include <functional>

class QTcpServer;
class QTcpSocket;

// The page the browser is shown after its redirect.
struct ZDRedirectPage
{
    int status = 200; // 200, 400 or 404
    QString text;
};

// Receives the redirect that ends a browser sign-in: listens on 127.0.0.1 only,
// on a free port, and hands the query of the first GET to `path` to its handler,
// whose page the browser gets; then it closes. Any other request gets a 404 and
// the receiver keeps waiting. A connection that sends more than a request head's
// worth, or nothing whole within a few seconds, is dropped; one that comes after
// the receiver closed (or was destroyed) is told the sign-in is over.
class ZDRedirectReceiver : public QObject
{
public:
    // Called at most once; the receiver has closed before, so the handler may
    // stop and delete (later) whatever owns the receiver.
    using Handler = std::function<ZDRedirectPage(const QUrlQuery &query)>;

    // `title` heads the pages; `parent` owns the receiver.
    ZDRedirectReceiver(const QString &path, const QString &title, Handler handler, QObject *parent);
    ~ZDRedirectReceiver() override;

    // False, with the reason in `errorString` (not owned), when no port is free.
    bool listen(QString *errorString);
    // While listening, the port; else 0.
    quint16 port() const;
    void close();

private:
    void accept(QTcpSocket *socket);
    void read(QTcpSocket *socket);

    QString m_path;
    QString m_title;
    Handler m_handler;
    QTcpServer *m_server = nullptr;
};
