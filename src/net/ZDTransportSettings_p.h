#pragma once

// What the application set up in Qt for its own network traffic (the proxy, the
// trusted authorities, whether the link is cellular), read from Qt and handed
// to the transport as plain values, so that our requests go the way the
// application's Qt requests go.

#include <QByteArray>
#include <QByteArrayList>

#include <functional>
#include <memory>

struct ssl_ctx_st;
struct x509_store_st;

// The proxy Qt chooses for a URL, in curl's spelling. An empty url means a
// direct connection (it also keeps curl from reading proxies from the
// environment, which Qt does not either).
struct ZDProxySetting
{
    QByteArray url;         // scheme://host:port, never with credentials
    QByteArray hostAndPort; // what a log may show of it
    QByteArray user;
    QByteArray password;
};

ZDProxySetting zdProxyForURL(const QByteArray &url);

// The CA certificates of Qt's default TLS configuration, trusted on top of the
// system's store. Qt loads the system's store on demand and lists nothing then;
// an application that trusts a private authority adds it there.
class ZDCertificateAuthorities
{
public:
    explicit ZDCertificateAuthorities(QByteArrayList der);
    ~ZDCertificateAuthorities();
    ZDCertificateAuthorities(const ZDCertificateAuthorities &) = delete;
    ZDCertificateAuthorities &operator=(const ZDCertificateAuthorities &) = delete;

    bool isEmpty() const { return m_der.isEmpty(); }

    // Gives `context` (not owned) the system's store read from `systemFile`
    // (curl's CA file; null: OpenSSL's default places) with these authorities
    // added. False when the store cannot be made.
    bool installInto(ssl_ctx_st *context, const char *systemFile);

private:
    QByteArrayList m_der;
    x509_store_st *m_store = nullptr;
};

// The calling thread's authorities as Qt lists them now; the same object while
// Qt's list stays the same, so a store, once made, serves every later handshake.
std::shared_ptr<ZDCertificateAuthorities> zdCertificateAuthorities();

// Whether the system reports a cellular or metered link right now. Tests replace
// the probe; an empty function restores the system's.
bool zdLinkIsCellular();
void zdSetCellularProbeForTesting(std::function<bool()> probe);
