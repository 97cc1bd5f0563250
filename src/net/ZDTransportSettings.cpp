#include "net/ZDTransportSettings_p.h"

#include "net/ZDNetworkInformation_p.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <QCoreApplication>
#include <QHostAddress>
#include <QNetworkInformation>
#include <QNetworkProxyFactory>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QUrl>

ZDProxySetting zdProxyForURL(const QByteArray &url)
{
    if (!QCoreApplication::instance())
        return {};
    const QList<QNetworkProxy> proxies =
        QNetworkProxyFactory::proxyForQuery(QNetworkProxyQuery(QUrl::fromEncoded(url)));
    for (const QNetworkProxy &proxy : proxies) {
        QByteArray scheme;
        switch (proxy.type()) {
        case QNetworkProxy::NoProxy:
            return {};
        case QNetworkProxy::HttpProxy:
        case QNetworkProxy::HttpCachingProxy:
            scheme = "http";
            break;
        case QNetworkProxy::Socks5Proxy:
            // The proxy resolves the name, as Qt's SOCKS5 proxy does.
            scheme = "socks5h";
            break;
        default:
            continue;
        }
        // An IPv6 address is no name: toAce() turns it into nothing.
        const QString name = proxy.hostName();
        const QByteArray host = QHostAddress(name).protocol() == QAbstractSocket::IPv6Protocol
                                    ? '[' + name.toLatin1() + ']'
                                    : QUrl::toAce(name);
        const QByteArray hostAndPort = host + ':' + QByteArray::number(proxy.port());
        return {scheme + "://" + hostAndPort, hostAndPort, proxy.user().toUtf8(),
                proxy.password().toUtf8()};
    }
    return {};
}

ZDCertificateAuthorities::ZDCertificateAuthorities(QByteArrayList der) : m_der(std::move(der)) {}

ZDCertificateAuthorities::~ZDCertificateAuthorities()
{
    if (m_store)
        X509_STORE_free(m_store);
}

// The store is made on the first handshake and shared by every later one: a
// connection never loads the system's store again, and curl's own cached store
// stays the system's alone.
bool ZDCertificateAuthorities::installInto(ssl_ctx_st *context, const char *systemFile)
{
    if (!m_store) {
        X509_STORE *store = X509_STORE_new();
        if (!store)
            return false;
        if (!systemFile || !X509_STORE_load_file(store, systemFile))
            X509_STORE_set_default_paths(store);
        for (const QByteArray &der : std::as_const(m_der)) {
            const auto *bytes = reinterpret_cast<const unsigned char *>(der.constData());
            if (X509 *certificate = d2i_X509(nullptr, &bytes, long(der.size()))) {
                X509_STORE_add_cert(store, certificate); // a duplicate is harmless
                X509_free(certificate);
            }
        }
        m_store = store;
    }
    if (!X509_STORE_up_ref(m_store))
        return false;
    SSL_CTX_set_cert_store(context, m_store);
    return true;
}

// Read on every start, converted only when Qt's list changed.
std::shared_ptr<ZDCertificateAuthorities> zdCertificateAuthorities()
{
    thread_local QList<QSslCertificate> last;
    thread_local auto current = std::make_shared<ZDCertificateAuthorities>(QByteArrayList());
    const QList<QSslCertificate> listed =
        QSslConfiguration::defaultConfiguration().caCertificates();
    if (listed != last) {
        last = listed;
        QByteArrayList der;
        for (const QSslCertificate &certificate : listed)
            der.append(certificate.toDer());
        current = std::make_shared<ZDCertificateAuthorities>(std::move(der));
    }
    return current;
}

namespace {

std::function<bool()> &cellularProbe()
{
    static std::function<bool()> probe;
    return probe;
}

} // namespace

bool zdLinkIsCellular()
{
    if (const auto &probe = cellularProbe())
        return probe();
    using Info = QNetworkInformation;
    const Info *info = zdNetworkInformation();
    if (!info)
        return false;
    return info->transportMedium() == Info::TransportMedium::Cellular ||
           (info->supports(Info::Feature::Metered) && info->isMetered());
}

void zdSetCellularProbeForTesting(std::function<bool()> probe)
{
    cellularProbe() = std::move(probe);
}
