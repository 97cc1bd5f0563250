#pragma once

#include "core/ZDError.h"
#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"
#include "net/JSONHTTPRequest.h"
#include "net/ZDDigest.h"
#include "net/ZDNetworkReachability.h"
#include "net/ZDRetryPolicy.h"
#include "net/ZDUploadClock.h"
#include "net/ZDUploadDialect.h"
#include "net/ZDUploadJournal.h"

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantMap>

#include <functional>
#include <memory>
#include <optional>

class ZDCredentialSource;
class ZDResumableUpload;
class ZDResumableUploadPrivate;

// Errors of the upload engine itself. Refusals of the service and transport
// failures keep their own domain (JSONHTTPRequestErrorDomain, ZDCurlErrorDomain,
// ZDURLErrorDomain); the engine adds to their userInfo:
// - ZDResponseBodyKey ("body"): the refused response's body (QByteArray, at
//   most 64 KiB), so that a plug-in can read the service's reason without
//   holding the request;
// - ZDRetriesExhaustedKey ("retriesExhausted"): true when the failure ended a
//   run of retries.
ZD_EXPORT extern const QString ZDResumableUploadErrorDomain;
ZD_EXPORT extern const QString ZDRetriesExhaustedKey;
// userInfo key of the error that led to one of the engine's own errors.
ZD_EXPORT extern const QString ZDUnderlyingErrorKey;
enum ZDResumableUploadError : qint32 {
    // The server broke the protocol: it confirmed bytes that were never sent,
    // reported a range that does not start at byte 0 or has a hole, took three
    // chunks in a row without keeping a byte of them, answered
    // without the header the protocol requires, or named a session on plain
    // http for an https endpoint (nothing is sent there). Also: a journal entry
    // of a plug-in's own dialect resumed without that dialect.
    ZDResumableUploadErrorProtocolViolation = 1,
    // The service refused a chunk's checksum three times in a row, or the
    // digest it reported for the whole file differs from the file's.
    ZDResumableUploadErrorChecksumMismatch = 2,
    // The file is no longer the one the upload started with (size, modification
    // time or its first bytes differ). It is never resumed onto the old session.
    ZDResumableUploadErrorFileChanged = 3,
    // The file cannot be read (gone, unreadable, or shrunk while being sent).
    ZDResumableUploadErrorFileUnreadable = 4,
    // The credential source could not renew the credentials (the user must sign
    // in again), or it has gone. The source's error is under ZDUnderlyingErrorKey.
    ZDResumableUploadErrorCredentialsUnavailable = 5,
    // The service forgot the session twice in a row (404 or 410 on the session).
    ZDResumableUploadErrorSessionExpired = 6,
    // The journal entry is being uploaded by another running upload (in this
    // process or another); the entry is left as it is.
    ZDResumableUploadErrorAlreadyRunning = 7,
};

// Hears an upload's progress and outcome.
//
// Callback contract:
// - A started upload that is not cancelled or aborted ends with exactly one of
//   uploadDidFinish() and uploadDidFailWithError().
// - Before it, any number of uploadHasSentBytes(), uploadWillRetry() and
//   uploadDidResume(), in the order the events happen. The byte count is the
//   server's confirmed offset plus what the current request has sent; after a
//   failure it goes back to what the server confirmed.
// - All calls arrive from the event loop of the thread that called start(),
//   never from inside start(), cancel() or abort().
// - Inside any of them the delegate may cancel or destroy the upload; nothing
//   else arrives afterwards. A delegate that is gone is not called.
class ZD_EXPORT ZDResumableUploadDelegate : public virtual ZDWeakTarget
{
public:
    ~ZDResumableUploadDelegate() override;
    // `response` is the service's last answer: parsed JSON where it is JSON,
    // else its raw bytes (an empty map when there is no body).
    virtual void uploadDidFinish(ZDResumableUpload *upload, const QVariant &response) = 0;
    virtual void uploadDidFailWithError(ZDResumableUpload *upload, const ZDError &error) = 0;
    virtual void uploadHasSentBytes(ZDResumableUpload *upload, qint64 sent, qint64 total);
    // A request failed with the retryable `reason`; the engine asks the server
    // for its offset again after `delayMsecs` (0: at once; -1: when the network
    // comes back, however long that takes).
    virtual void uploadWillRetry(ZDResumableUpload *upload, const ZDError &reason,
                                 qint64 delayMsecs, qint64 confirmedOffset);
    // The server reported `offset` after an interruption; sending goes on there.
    virtual void uploadDidResume(ZDResumableUpload *upload, qint64 offset);
};

// A file uploaded to a service in a way that survives the network: chunked and
// resumed from the server's own offset after any failure, retried by policy,
// recorded in a journal that outlives the process, and checked.
//
// The wire shape is a dialect's (ZDUploadDialect): a built-in one chosen by
// ZDUploadProtocol, or a service's own that a plug-in passes in.
//
// The server's offset, asked again after every failure, is the truth: sending
// goes on from there, never from the start (except with a dialect that cannot
// resume, such as Multipart). An offset beyond the bytes ever sent for the session, or a range that
// does not run from byte 0, fails the upload as a protocol violation.
// After any interruption (a journal's entry resumed included), a service that
// may still be settling a lost request (ZDUploadDialect::settlesLostRequests()
// false) is asked again after the policy's initial delay until two answers in
// a row agree; after six that do not, the policy's waits take over.
//
// Chunks are read from the file while they are sent, so memory stays flat
// whatever the file's size. Without setChunkSize() the size is chosen so that a
// request lasts about five seconds at the measured rate: it starts at 1 MiB,
// stays a multiple of the granularity (256 KiB unless set) and at most 64 MiB.
// A chunk cut without a byte of it kept halves the size (down to the
// granularity); it grows back a step with each chunk that goes through whole.
//
// Credentials: with a credential source, the engine asks it before every
// request (Reason::BeforeRequest) and once more after a 401 (Reason::Unauthorized),
// then continues from the server's offset. A 401 right after a renewal (before
// any answer accepted the new credentials) fails, and so does a fourth 401
// before bytes are confirmed again. A source that could not reach its service (a
// transport error or a 5xx, see ZDCredentialSource) is asked again after the
// policy's wait, like a request that failed on the network; a refused renewal
// fails the upload. Without a source it signs with the signer, if any.
//
// The journal (ZDUploadJournal) holds an entry from the session's creation until
// the upload ends: updated atomically after every confirmed chunk, removed on
// success, abort() and failures that cannot be resumed. An entry left by a
// crash or a failure of the network is resumed with the constructor that takes
// it; a file that changed since fails with ZDResumableUploadErrorFileChanged.
// An entry of a plug-in's own dialect (ZDUploadProtocol::Custom) is resumed
// only with the constructor that is given the dialect again; without it the
// upload fails with ZDResumableUploadErrorProtocolViolation.
// While it runs, the upload claims its entry (ZDUploadJournal::claim()); an entry
// another upload claims fails with ZDResumableUploadErrorAlreadyRunning.
//
// The service's answers are kept to 4 MiB each; a larger one fails the upload
// with ZDURLErrorResponseTooLarge, not retried.
//
// Lifetime: single-use. cancel() stops and keeps the journal entry (a pause
// the host may resume later); abort() also terminates the session on the server
// and removes the entry. Destroying the upload cancels it.
class ZD_EXPORT ZDResumableUpload
{
public:
    // Does not take ownership of `delegate`.
    ZDResumableUpload(ZDUploadProtocol protocol, const QUrl &endpoint, const QString &filePath,
                      ZDResumableUploadDelegate *delegate);
    // Resumes the upload a journal entry records, on its session.
    ZDResumableUpload(const ZDUploadJournalEntry &entry, ZDResumableUploadDelegate *delegate);
    // A service's own wire shape. Shares ownership of `dialect`; does not take
    // ownership of `delegate`.
    ZDResumableUpload(std::shared_ptr<ZDUploadDialect> dialect, const QUrl &endpoint,
                      const QString &filePath, ZDResumableUploadDelegate *delegate);
    // Resumes a journal entry in `dialect` (the one the entry was begun with).
    ZDResumableUpload(const ZDUploadJournalEntry &entry, std::shared_ptr<ZDUploadDialect> dialect,
                      ZDResumableUploadDelegate *delegate);
    virtual ~ZDResumableUpload();
    ZDResumableUpload(const ZDResumableUpload &) = delete;
    ZDResumableUpload &operator=(const ZDResumableUpload &) = delete;

    // tus: Upload-Metadata (values as text); 308: the JSON body of the first POST;
    // Multipart: the form fields; a dialect of one's own: what it makes of them.
    // Set before start().
    void setMetadata(const QVariantMap &metadata);
    // Multipart only: the field that carries the file ("file" unless set).
    void setFileFieldName(const QString &name);
    // Sent with every request.
    void setHTTPHeaderValue(const QString &name, const QString &value);

    // Shares ownership of `signer`.
    void setSigner(std::shared_ptr<RequestSigner> signer);
    // Does not take ownership of `source`; a source that goes away fails the
    // upload with ZDResumableUploadErrorCredentialsUnavailable.
    void setCredentialSource(ZDCredentialSource *source);

    // A fixed chunk size in bytes (rounded down to the granularity, at least one
    // granule); 0 chooses it by the measured rate (the default).
    void setChunkSize(qint64 bytes);
    void setChunkGranularity(qint64 bytes);
    // Per-chunk checksums where the dialect has them; on by default.
    void setChecksumsEnabled(bool enabled);
    // A whole-file digest the service reports in its final JSON answer under
    // `key` (hexadecimal, any case): compared with the file's own digest. It is
    // the one check that the stored bytes are the file's; a settled offset only
    // says how many there are. Where the service reports none, a plug-in should
    // keep per-chunk checksums on, and compare what the service says it stored
    // (a size, a digest from a later query) before it tells the user the video
    // is up.
    void setServerDigestKey(const QString &key, ZDDigestAlgorithm algorithm);
    // Marks refusals that the policy should retry although they are 4xx (a
    // service's own rate-limit answer, say a 403 whose body names the limit).
    void setRetryableRefusal(
        std::function<bool(const ZDHTTPResponse &response, const QByteArray &body)> isRetryable);

    void setRetryPolicy(const ZDRetryPolicy &policy);
    void setClock(std::shared_ptr<ZDUploadClock> clock);
    // ZDNetworkReachability::systemReachability() unless set.
    void setNetworkReachability(std::shared_ptr<ZDNetworkReachability> reachability);
    // Seeds the jitter, for tests that want the same waits every run.
    void setRandomSeed(quint32 seed);
    // Where the entry is kept; no journal unless set.
    void setJournal(const std::optional<ZDUploadJournal> &journal);
    void setAllowsCellularAccess(bool allow);

    // The journal entry's id (fixed at construction).
    QString journalId() const;
    QUrl sessionURL() const;
    qint64 totalBytes() const;
    // What the server has confirmed.
    qint64 confirmedOffset() const;
    // Every body byte put on the wire, resent ones included.
    qint64 bytesSent() const;

    void start();
    void cancel();
    void abort();

private:
    std::shared_ptr<ZDResumableUploadPrivate> d;
};
