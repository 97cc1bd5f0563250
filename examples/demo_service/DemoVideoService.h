#pragma once

#include <QString>

#include <memory>

// The demo account and client credentials. The demo plug-in carries the same.
namespace DemoAccount {
inline constexpr char16_t kConsumerKey[] = u"zd-demo-consumer";
inline constexpr char16_t kConsumerSecret[] = u"zd-demo-consumer-secret";
inline constexpr char16_t kUserName[] = u"demo";
inline constexpr char16_t kPassword[] = u"demo-password";
inline constexpr char16_t kDisplayName[] = u"demo";
} // namespace DemoAccount

// A small video service on 127.0.0.1 for trying the publishing library end to
// end: an xAuth-style token exchange, OAuth 1.0a-signed or bearer-authorised
// multipart and resumable uploads, and pages that show what was published.
//
//   POST /oauth/access_token  user name and password for a token (form body)
//   POST /oauth2/token        OAuth 2.0 bearer and refresh tokens: the password
//                             or refresh_token grant (DemoOAuth2.h)
//   POST /api/videos          an upload (multipart/form-data, signed)
//   POST /api/uploads         a resumable upload's session, then PUT and
//                             DELETE on /api/uploads/<session>
//                             (DemoResumableUpload.h says how)
//   POST /admin/revoke        revokes every token issued so far; a demo and
//                             test aid, not something a real service offers
//   GET  /                    the published videos, newest first
//   GET  /videos/<id>         a video's metadata (JSON)
//   GET  /videos/<id>/file    the video itself
//
// Uploads are written to <data>/incoming/<id>/ while they arrive and move to
// <data>/videos/<id>/ in one rename once complete and valid, so a published
// video appears whole or not at all. OAuth 1.0a tokens live in
// <data>/oauth-tokens.json, OAuth 2.0 access and refresh tokens (their
// digests, with their expiry) in <data>/oauth2-tokens.json, both readable by
// the service's user only and replaced atomically, and resumable sessions in
// <data>/sessions/, so all of them survive a restart on the same data folder:
// sign-ins stay signed in, and a revoked token or a used refresh token stays
// dead. Nonces live in memory only.
//
// Requests are served on the HTTP library's worker threads; the service needs
// no Qt event loop.
class DemoVideoService
{
public:
    struct Options
    {
        QString dataDirectory;
        bool rejectUploads = false; // answer every valid upload with 422
        // Fault injection for tests: the process ends (exit status 70) as soon as
        // an upload's video content exceeds this many bytes. Negative: never.
        qint64 dieAfterBytes = -1;
        // Fault injection: a resumable chunk is broken off (503, connection
        // closed) every time the service has taken this many bytes. 0: never.
        qint64 cutEveryBytes = 0;
        // Fault injection: a resumable chunk is taken no faster than this many
        // bytes a second. 0: as fast as it comes.
        qint64 throttleBytesPerSecond = 0;
        // Fault injection: OAuth 2.0 access tokens die this many seconds after
        // they are issued, whatever they announced. 0: never early.
        int tokensDieAfterSeconds = 0;
        bool logRequests = true; // one line per request on stderr
    };

    explicit DemoVideoService(const Options &options);
    ~DemoVideoService();
    DemoVideoService(const DemoVideoService &) = delete;
    DemoVideoService &operator=(const DemoVideoService &) = delete;

    // Prepares the data folder, removing whatever an earlier process left in
    // incoming/, and starts listening on 127.0.0.1:port (0: any free port).
    // False with errorString() on failure.
    bool listen(int port);
    int port() const;
    QString errorString() const;

    // Answers requests until stop(); blocks the calling thread. False when it
    // could not run.
    bool serve();
    // Ends serve(). May be called from any thread.
    void stop();

private:
    struct Private;
    std::unique_ptr<Private> d;
};
