#pragma once

// The service's resumable uploads, of the "308 Resume Incomplete" kind:
//
//   POST   /api/uploads        opens a session: a JSON body with the video's
//                              metadata (title, description, tags, category,
//                              access, name) and X-Upload-Content-Length, the
//                              total size. Answers 201 with the session's URL in
//                              Location.
//   PUT    /api/uploads/<s>    "Content-Range: bytes a-b/total" and those bytes:
//                              308 with "Range: bytes=0-n" while bytes are
//                              missing, 201 with the published video (as
//                              POST /api/videos answers) once all arrived.
//                              "Content-Range: bytes */total" and no body asks
//                              for the offset the same way.
//   DELETE /api/uploads/<s>    abandons the session; 204. A chunk still
//                              arriving on it is dropped with it.
//
// Every request is authorised as an upload is: an OAuth 1.0a signature with a
// live token (over the query and the oauth_ parameters; the JSON and video
// bodies are not form bodies, so OAuth 1.0a does not sign them), or a live
// bearer token. A session belongs to the account that opened it.
//
// A chunk must start at the session's offset (409 otherwise, with the offset in
// Range) and end where its Content-Length says; bytes a dropped connection
// delivered are kept and count in the offset. With "Digest: sha=<base64 SHA-1>"
// a complete chunk is checked and, when it differs, dropped with a 400 that
// names the checksum. Only one request works on a session at a time; another
// meanwhile gets 409.
//
// Sessions live in <data>/sessions/<s>/ (session.json and the bytes so far) and
// survive a restart of the service; the offset is the size of the bytes on
// disk. A session no request touched for `sessionLifetimeSeconds` is removed,
// at start and whenever a session opens. A complete upload is checked as
// POST /api/videos checks one and moved to <data>/videos/<id>/ in one rename,
// so a video appears whole or not at all. The answer of a published session is
// remembered until the service ends, so a client that lost it and asks for the
// offset gets it again rather than starting over.

#include "DemoHttp.h"
#include "DemoOAuth.h"
#include "DemoOAuth2.h"

#include <QHash>
#include <QJsonObject>
#include <QSet>
#include <QString>

#include <httplib.h>

#include <atomic>
#include <mutex>
#include <optional>

class ResumableUploads
{
public:
    struct Settings
    {
        QString sessionsPath;
        QString videosPath;
        bool rejectUploads = false;
        // Fault injection: the process ends (exit status 70) once a session
        // holds more than this many bytes. Negative: never.
        qint64 dieAfterBytes = -1;
        qint64 sessionLifetimeSeconds = 24 * 3600;
        // Fault injection: a chunk is broken off each time the service has
        // taken this many more bytes (of any session); what arrived is kept
        // and the answer is a 503 that closes the connection. 0: never.
        qint64 cutEveryBytes = 0;
        // Fault injection: a chunk is taken no faster than this many bytes a
        // second, as over a slow line. 0: as fast as it comes.
        qint64 bytesPerSecond = 0;
    };

    // Does not take ownership of `oauth` or `oauth2`, which must outlive it.
    ResumableUploads(const Settings &settings, DemoOAuth::Verifier *oauth,
                     DemoOAuth2::Issuer *oauth2);

    // Creates the sessions folder and removes what is not a live session.
    bool prepare();
    void setPort(int port) { m_port = port; }

    void open(const httplib::Request &req, httplib::Response &res,
              const httplib::ContentReader &reader);
    void put(const QString &session, const httplib::Request &req, httplib::Response &res,
             const httplib::ContentReader &reader);
    void remove(const QString &session, const httplib::Request &req, httplib::Response &res);

private:
    struct Session
    {
        QJsonObject meta; // what the POST declared, and the account
        qint64 total = 0;
        qint64 offset = 0;
    };

    // The account a request is made for, or nothing after answering 401.
    std::optional<QString> authorize(const httplib::Request &req, httplib::Response &res);
    // The session `id` of `account`, marked busy; nothing after answering.
    std::optional<Session> acquire(const QString &id, const QString &account,
                                   httplib::Response &res);
    void release(const QString &id);
    QString folder(const QString &id) const;
    void removeExpired();
    // Checks and publishes a session whose bytes all arrived; answers.
    void finish(const QString &id, const Session &session, httplib::Response &res);

    Settings m_settings;
    DemoOAuth::Verifier *m_oauth;
    DemoOAuth2::Issuer *m_oauth2;
    int m_port = 0;
    std::atomic<qint64> m_sinceCut = 0;

    std::mutex m_mutex; // guards the three below
    QSet<QString> m_busy;
    QSet<QString> m_abandoned;               // deleted while busy: removed when released
    QHash<QString, QJsonObject> m_published; // session id: the 201 answer
};
