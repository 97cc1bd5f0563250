#pragma once

// The service's OAuth 2.0 side: bearer tokens for the demo account through the
// password grant at /oauth2/token, renewed with refresh tokens that rotate (the
// old one dies when it is used), and the check of a bearer token on an upload.
//
// With setStore() the tokens outlive the process: a restart on the same data
// folder keeps every live access and refresh token, with its expiry, and keeps
// dead the refresh tokens already used and the tokens revoked.

#include "DemoTokenFile.h"

#include <QByteArray>
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
    // Refresh tokens die this long after they are issued unless used before,
    // in seconds (30 days): a sign-in nobody renews ends, and the store holds
    // no more than the refresh tokens of that many days.
    static constexpr qint64 kRefreshLifetime = 30 * 24 * 3600;

    // Fault injection: access tokens die this many seconds after they are
    // issued, whatever expires_in announced, as when a service revokes them
    // early. 0: they live as announced.
    void setTokensDieAfter(int seconds) { m_tokensDieAfter = seconds; }

    // Keeps the tokens in the file at `path` (owner-only, replaced atomically
    // on every change) and takes up the live ones already there; an
    // unreadable file counts as none. The file holds each token's SHA-256, not
    // the token, so a copy of it signs nobody in. Tokens that have expired are
    // left out of every write. False when the file cannot be written. Without
    // a store, tokens live in memory only.
    bool setStore(const QString &path);

    // POST /oauth2/token (a form body): grant_type password (username,
    // password) or refresh_token. Answers the token as JSON, or an OAuth error.
    // A token the service cannot keep in its store is not given out (500,
    // server_error), and a refresh token stays usable until its successor is
    // kept.
    void token(const httplib::Request &req, httplib::Response &res);
    // The account of the live access token in an "Authorization: Bearer ..."
    // header; nothing for any other header or a dead token.
    std::optional<QString> accountForAuthorization(const QByteArray &header);
    // Revokes every live token, in the store too; answers how many access
    // tokens there were.
    int revokeAll();

private:
    struct Grant
    {
        QString account;
        qint64 expiresAt = 0; // seconds since the epoch
    };
    struct Issued
    {
        QString access;
        QString refresh;
    };

    // New tokens for `account`, in the store before they are answered; nothing,
    // and nothing changed, when the store cannot be written.
    std::optional<Issued> issueLocked(const QString &account);
    bool saveLocked();
    static void reply(httplib::Response &res, const Issued &issued, const QString &account);

    int m_tokensDieAfter = 0;
    // Guards the tokens and the file: handlers run on the HTTP library's
    // thread pool.
    std::mutex m_mutex;
    // By the token's SHA-256 (hex), as in the store.
    QHash<QByteArray, Grant> m_accessTokens;
    QHash<QByteArray, Grant> m_refreshTokens;
    TokenFile m_file;
};

} // namespace DemoOAuth2
