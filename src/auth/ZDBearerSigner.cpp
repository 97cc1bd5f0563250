#include "auth/ZDBearerSigner.h"

bool ZDBearerSigner::mayCarryToken(const QUrl &url)
{
    const QString scheme = url.scheme().toLower();
    if (scheme == QLatin1String("https"))
        return true;
    const QString host = url.host().toLower();
    return scheme == QLatin1String("http") &&
           (host == QLatin1String("127.0.0.1") || host == QLatin1String("::1") ||
            host == QLatin1String("localhost"));
}

ZDURLRequest ZDBearerSigner::signedRequestForRequest(const ZDURLRequest &request)
{
    ZDURLRequest signedRequest = request;
    if (m_token.isEmpty() || !mayCarryToken(request.URL()))
        return signedRequest;
    signedRequest.setValueForHTTPHeaderField("Bearer " + m_token.toUtf8(), "Authorization");
    return signedRequest;
}
