#pragma once

#include "core/ZDError.h"
#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <memory>

class ZDPublishPost;
class ZDResumableUploadDelegate;
class ZDUploadClock;

// Where an upload job stands, for a host that shows more than a progress bar.
enum class ZDPublishPhase {
    Preparing = 0,        // before the first byte (sessions, credentials)
    Sending = 1,          // bytes are going out
    WaitingToRetry = 2,   // a retryable failure; the job tries again at retryInMsecs
    Resuming = 3,         // asking the service where it stands before sending on
    ServerProcessing = 4, // every byte is sent; the service has not answered yet
};

// A snapshot of a job's progress. The rate is smoothed (an exponential average
// over about five seconds) so that the ETA does not jump about; both are
// unknown (0 and -1) until a second of sending has been measured.
struct ZDPublishProgress
{
    ZDPublishPhase phase = ZDPublishPhase::Preparing;
    qint64 written = 0;
    qint64 expected = 0;
    double bytesPerSecond = 0;
    qint64 etaMsecs = -1;
    ZDError retryReason;     // WaitingToRetry: the failure, classified (see below)
    qint64 retryInMsecs = 0; // WaitingToRetry: how long until the next try; -1: until
                             // the network comes back
};

// What a host can do about a failed publication. Every error that ends a job
// through ZDPublishPost's helpers is in ZDPublishErrorDomain with one of these
// codes, a sentence for the user under ZDLocalizedDescriptionKey, the error
// that caused it under ZDUnderlyingErrorKey, the refused response's body under
// ZDResponseBodyKey ("body") when there was one, and for InvalidField the
// field's name under ZDInvalidFieldKey ("field").
ZD_EXPORT extern const QString ZDPublishErrorDomain;
ZD_EXPORT extern const QString ZDInvalidFieldKey;
enum class ZDPublishErrorKind : qint32 {
    SignInAgain = 1,             // credentials refused or not renewable
    QuotaOrRateLimit = 2,        // 429, or a refusal that names a quota or limit
    InvalidField = 3,            // the service refused a field of the form
    FileTooLarge = 4,            // 413
    FileChangedOrUnreadable = 5, // the video changed or cannot be read
    Network = 6,                 // the connection failed and retrying gave up
    ServiceFailure = 7,          // 5xx, protocol violations, answers that make no sense
    Cancelled = 8,               // the user or the host stopped it
};

// The kind of any error the library produces (request, transport, parser,
// resumable upload or an error already in ZDPublishErrorDomain).
ZD_EXPORT ZDPublishErrorKind ZDPublishErrorKindForError(const ZDError &error);
// The error in ZDPublishErrorDomain for `underlying`, as described above.
// `body` is the refused response's body (at most 64 KiB are kept); for
// InvalidField the field is read from a JSON body's "field" or "param" (also
// inside an "error" object) unless given.
ZD_EXPORT ZDError ZDPublishErrorWithError(const ZDError &underlying,
                                          const QByteArray &body = QByteArray());
ZD_EXPORT ZDError ZDPublishErrorWithKind(ZDPublishErrorKind kind,
                                         const ZDError &underlying = ZDError(),
                                         const QString &field = QString());

// Hears an upload job's progress and outcome.
class ZD_EXPORT ZDPublishPostDelegate : public virtual ZDWeakTarget
{
public:
    virtual void publishPostDidFailWithError(ZDPublishPost *post, const ZDError &error) = 0;
    virtual void publishPostSucceeded(ZDPublishPost *post) = 0;
    virtual void publishPostHasWrittenBytesExpectsToWrite(ZDPublishPost *post, qint64 written,
                                                          qint64 expected) = 0;
    // Optional: every change of phase, and every progress step while sending.
    // Does nothing unless overridden.
    virtual void publishPostDidUpdateProgress(ZDPublishPost *post,
                                              const ZDPublishProgress &progress);
};

// The base of a service's upload job. A service subclass starts its upload in
// startUpload(), usually with JSONHTTPRequest or ZDResumableUpload and with
// allowsCellularAccessForUploads() applied to its requests, and reports through
// delegate(): progress any number of times, then exactly one of success and
// failure. The delegate is not owned; once it is gone the job reports nowhere.
//
// The protected helpers do that reporting for it: _relayProgress() and
// _setPhase() keep the smoothed rate and ETA and tell the delegate;
// _succeed() and _failWithError() end the job, exactly once: a second ending
// is a programming fault and stops the program (ZD_ASSERT).
//
// With a ZDResumableUpload, a job does not report at all: it gives
// uploadRelay() to the upload as its delegate, starts it, and overrides at
// most the upload's two endings. The relay tells the delegate, in the order
// the engine's events happen:
// - Preparing once, from the event loop after the relay was first handed out
//   (never from inside startUpload()), unless the upload reported first;
// - every byte count (publishPostHasWrittenBytesExpectsToWrite), then Sending,
//   or ServerProcessing once every byte is sent;
// - on a retry, WaitingToRetry with the classified reason and the wait, then
//   the count again at the offset the service confirmed: the bytes that went
//   into a lost connection are not the service's;
// - on a resume, Resuming, then the count at the service's offset (back, or
//   forward when it kept bytes of a lost request);
// - finally _uploadDidFinish() or _uploadDidFail(), whose defaults succeed and
//   fail (classified) the job. A count that did not move is not told again.
//
// Callback contract: the delegate may destroy the job inside any call; a
// subclass that calls a helper touches nothing of itself afterwards unless it
// checked (the helpers themselves do not touch the job after the call).
class ZD_EXPORT ZDPublishPost
{
public:
    explicit ZDPublishPost(ZDPublishPostDelegate *delegate);
    virtual ~ZDPublishPost();

    ZDPublishPostDelegate *delegate() const { return m_delegate.get(); }

    bool allowsCellularAccessForUploads() const { return m_allowsCellularAccessForUploads; }
    void setAllowsCellularAccessForUploads(bool allow) { m_allowsCellularAccessForUploads = allow; }

    // Does nothing in the base.
    virtual void startUpload();

    // Where the job stands; valid also after it ended.
    const ZDPublishProgress &progress() const;
    bool hasEnded() const;

    // Time for the rate; the system clock unless set (tests set a fake one).
    void setClock(std::shared_ptr<ZDUploadClock> clock);

protected:
    void _relayProgress(qint64 written, qint64 expected);
    void _setPhase(ZDPublishPhase phase);
    void _setWaitingToRetry(const ZDError &reason, qint64 retryInMsecs);
    void _succeed();
    // Classifies `error` (ZDPublishErrorWithError) unless it already is in
    // ZDPublishErrorDomain, and ends the job with it.
    void _failWithError(const ZDError &error, const QByteArray &body = QByteArray());

    // The delegate for a ZDResumableUpload described above. Owned by the job;
    // give it to one upload at a time.
    ZDResumableUploadDelegate *uploadRelay();
    // The upload finished with the service's answer; the base succeeds. An
    // override that finds the answer wanting fails the job instead.
    virtual void _uploadDidFinish(const QVariant &response);
    // The upload failed with the engine's error (the refused body, if any,
    // under ZDResponseBodyKey); the base fails the job with it, classified. An
    // override may put the service's own words in front and end the job with
    // _failWithError() itself.
    virtual void _uploadDidFail(const ZDError &error);

private:
    class Private;
    ZDWeakRef<ZDPublishPostDelegate> m_delegate;
    bool m_allowsCellularAccessForUploads = false;
    std::unique_ptr<Private> d;
};
