#pragma once

// How the service checks OAuth 1.0a requests: the Authorization header's
// parameters, the signature base string's URL, the HMAC-SHA1 signature, and the
// tokens and nonces it has issued and seen.

#include "DemoHttp.h"
#include "DemoTokenFile.h"

#include <QHash>
#include <QMap>
#include <QString>
#include <QUrl>

#include <httplib.h>

#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>

namespace DemoOAuth {

using OAuthParameters = QMap<QString, QString>;

// The oauth_ parameters of an "Authorization: OAuth ..." header, percent-decoded
// (realm and other names are left out). Nothing when the header is missing or
// malformed, or names a parameter twice.
std::optional<OAuthParameters> oauthParameters(const QByteArray &header);

// The base string URI of a request to this service: the Host header as the
// client sent it (the client signed the address it used), without a default
// port, and the path.
QUrl signedUrl(const httplib::Request &req, int localPort);

// Whether `signature` (base64, as sent) is the HMAC-SHA1 signature of a
// request with `method` ("POST" unless told) to `url` with `parameters`: those
// of the query and the body and the oauth_ ones, without oauth_signature.
bool signatureMatches(const QUrl &url, DemoHttp::Parameters parameters, const QString &tokenSecret,
                      const QString &signature, const std::string &method = "POST");

// The tokens the service issued and the nonces of the requests it accepted.
// Thread-safe: handlers run on the HTTP library's thread pool.
class Verifier
{
public:
    struct Credentials
    {
        QString token;
        QString tokenSecret;
        QString account;
    };

    // The reason a request's OAuth parameters are refused before its signature
    // is checked, or an empty string. With `withToken`, the request must carry
    // a live token, whose secret and owner go into `credentials`.
    QString check(const OAuthParameters &oauth, bool withToken, Credentials &credentials);
    // Records the nonce of a request whose signature was verified. A nonce is
    // accepted once per timestamp; the token, if any, must still be live.
    QString acceptNonce(const OAuthParameters &oauth, const Credentials &credentials);
    // Whether the request's signature covers its method, `parameters` (the
    // body's), its query and its oauth_ parameters, for a service listening on
    // `port`.
    static bool verify(const httplib::Request &req, DemoHttp::Parameters parameters,
                       const OAuthParameters &oauth, const QString &tokenSecret, int port);

    // Keeps the issued tokens in the file at `path` (owner-only, replaced
    // atomically on every change: TokenFile), as a real service keeps its
    // sign-ins over a restart, and takes up those already there (an
    // unreadable file counts as none). Nonces stay in memory. False when the
    // file cannot be written.
    bool setStore(const QString &path);

    // A new token and its secret for `account`.
    std::pair<QString, QString> issueToken(const QString &account);
    // Revokes every live token; answers how many there were.
    int revokeAll();

private:
    struct Token
    {
        QString secret;
        QString account;
        bool revoked = false;
    };

    bool saveLocked() const;

    std::mutex m_mutex; // guards tokens, nonces and the file
    TokenFile m_file;
    QHash<QString, Token> m_tokens;
    // Nonces of accepted requests, by timestamp, kept while the timestamp is in
    // the window.
    std::set<std::pair<qint64, QString>> m_nonces;
};

} // namespace DemoOAuth
