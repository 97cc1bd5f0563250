#pragma once

#include "core/zdglobal.h"
#include "net/JSONHTTPRequest.h"

#include <QString>

// A RequestSigner that carries an OAuth 2.0 access token in the header
// "Authorization: Bearer <token>" (RFC 6750), replacing any Authorization
// header the request had. It refuses nothing itself: a request to a plain http
// address other than the loopback host goes out unsigned, so that a token never
// travels in the clear.
class ZD_EXPORT ZDBearerSigner : public RequestSigner
{
public:
    explicit ZDBearerSigner(const QString &accessToken) : m_token(accessToken) {}

    ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) override;

    // True when the signer would sign a request to `url`: https, or http to
    // 127.0.0.1, ::1 or localhost.
    static bool mayCarryToken(const QUrl &url);

private:
    QString m_token;
};
