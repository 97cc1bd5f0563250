#pragma once

// The service's OAuth 2.0 side: bearer tokens for the demo account through the
// password grant at /oauth2/token, renewed with refresh tokens that rotate (the
// old one dies when it is used), and the check of a bearer token on an upload.

#include <QHash>
#include <QString>

#include <httplib.h>

#include <mutex>
#include <optional>

namespace DemoOAuth2 {

class Issuer
{
public:
    // Access tokens live this long, in seconds.
    static constexpr int kAccessLifetime = 3600;

    // Fault injection: access tokens die this many seconds after they are
    // issued, whatever expires_in announced, as when a service revokes them
    // early. 0: they live as announced.
    void setTokensDieAfter(int seconds) { m_tokensDieAfter = seconds; }

    // POST /oauth2/token (a form body): grant_type password (username,
    // password) or refresh_token. Answers the token as JSON, or an OAuth error.
    void token(const httplib::Request &req, httplib::Response &res);
    // The account of the live access token in an "Authorization: Bearer ..."
    // header; nothing for any other header or a dead token.
    std::optional<QString> accountForAuthorization(const QByteArray &header);
    // Revokes every live token; answers how many access tokens there were.
    int revokeAll();

private:
    struct Grant
    {
        QString account;
        qint64 expiresAt = 0; // seconds since the epoch; access tokens only
    };
    void issue(httplib::Response &res, const QString &account);

    int m_tokensDieAfter = 0;
    std::mutex m_mutex; // handlers run on the HTTP library's thread pool
    QHash<QString, Grant> m_accessTokens;
    QHash<QString, Grant> m_refreshTokens;
};

} // namespace DemoOAuth2
