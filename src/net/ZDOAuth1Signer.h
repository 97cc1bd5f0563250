#pragma once

#include "core/zdglobal.h"
#include "net/JSONHTTPRequest.h"

#include <QList>
#include <QString>

#include <functional>
#include <utility>

// A ready OAuth 1.0 RequestSigner (RFC 5849): HMAC-SHA1 signatures carried in
// the Authorization header.
//
// The signature covers the verb, the URL without its query, the query
// parameters, the body parameters of a form-encoded body (one with no
// Content-Type or "application/x-www-form-urlencoded"; a multipart body is not
// covered, which is why JSONHTTPRequest can sign multipart parameters as
// query parameters instead) and the oauth_ parameters. Repeated parameter names
// are kept, as the RFC requires.
class ZD_EXPORT ZDOAuth1Signer : public RequestSigner
{
public:
    using Parameters = QList<std::pair<QString, QString>>;

    ZDOAuth1Signer(const QString &consumerKey, const QString &consumerSecret,
                   const QString &token = QString(), const QString &tokenSecret = QString());

    // The token and its secret, once the service handed them out.
    void setToken(const QString &token, const QString &tokenSecret);
    QString token() const { return m_token; }
    void setRealm(const QString &realm) { m_realm = realm; }

    // Nonces and timestamps come from the system (a random nonce, the current
    // time); tests give fixed ones.
    void setNonceAndTimestampSource(std::function<std::pair<QString, qint64>()> source);

    ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) override;

    // The signature base string of RFC 5849 section 3.4.1 and its HMAC-SHA1
    // signature (base64), for the given verb, URL and every parameter.
    static QByteArray signatureBaseString(const QByteArray &method, const QByteArray &url,
                                          const Parameters &parameters);
    static QString hmacSha1Signature(const QByteArray &baseString, const QString &consumerSecret,
                                     const QString &tokenSecret);

private:
    QString m_consumerKey;
    QString m_consumerSecret;
    QString m_token;
    QString m_tokenSecret;
    QString m_realm;
    std::function<std::pair<QString, qint64>()> m_nonceAndTimestamp;
};
