#include "net/ZDResumableUpload.h"

#include "core/ZDLogging_p.h"
#include "net/ZDCurlCodes_p.h"
#include "net/ZDJSON_p.h"
#include "net/ZDResumableUpload_p.h"
#include "net/ZDRetryPolicy_p.h"

#include <QCoreApplication>
#include <QTimer>
#include <QUuid>

using namespace Qt::StringLiterals;

const QString ZDResumableUploadErrorDomain = u"ZDResumableUploadErrorDomain"_s;
const QString ZDUnderlyingErrorKey = u"underlyingError"_s;
const QString ZDRetriesExhaustedKey = u"retriesExhausted"_s;

namespace {

constexpr qint64 kMaximumChunk = 64 * 1024 * 1024;
constexpr qint64 kTargetRequestMsecs = 5000;
constexpr qsizetype kKeptBodyBytes = 64 * 1024;
// The services' answers are a few kilobytes of JSON at most; a server cannot
// make the engine hold more than this per request.
constexpr qint64 kMaximumAnswerBytes = 4 * 1024 * 1024;
constexpr int kChecksumRefusalsAllowed = 3;
// Chunks answered as taken while the offset stays put: a service that keeps
// nothing would otherwise be sent the same bytes forever.
constexpr int kChunksWithoutProgressAllowed = 3;
// Renewals after a 401 before bytes are confirmed again: tokens may die often,
// but a service that refuses every fresh one must not hold the upload forever.
constexpr int kRenewalsWithoutProgress = 3;
// Answers to the offset query that may disagree before the retry policy takes
// over: a server still taking in a lost request moves its offset for a while.
constexpr int kSettleAsksAllowed = 5;

QVariant responseObject(const QByteArray &body)
{
    if (body.isEmpty())
        return QVariantMap();
    auto parsed = zdParseJSON(body);
    if (auto *object = std::get_if<QVariant>(&parsed))
        return *object;
    return body;
}

// Session URLs may be signed in their query; the log never shows it.
QString loggable(const QUrl &url)
{
    return url.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo).toString();
}

// A fault of the network on the way: no route, a cut, or a server that
// stopped moving bytes (the transport's stall and time-out rules).
bool isNetworkFault(const ZDError &error)
{
    if (error.domain() == ZDCurlErrorDomain)
        return zdCurlCode(error.code()).retryable;
    return error.domain() == ZDURLErrorDomain &&
           (error.code() == ZDURLErrorStalled || error.code() == ZDURLErrorTimedOut);
}

// Whether a credential source's error says that its service could not be
// reached (the source stays signed in and a later ask may succeed), rather than
// that the service refused to renew the credentials.
bool isUnreachable(const ZDError &error)
{
    if (isNetworkFault(error))
        return true;
    return error.domain() == JSONHTTPRequestErrorDomain &&
           error.code() == JSONHTTPRequestErrorBadStatus &&
           error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode() >= 500;
}

// Notices a completion dropped unanswered: a credential source destroyed while
// it is asked takes the last copy of the completion along, and no answer comes.
class AnswerWatch
{
public:
    explicit AnswerWatch(std::function<void()> onDropped) : m_onDropped(std::move(onDropped)) {}
    ~AnswerWatch()
    {
        if (m_onDropped)
            m_onDropped();
    }
    AnswerWatch(const AnswerWatch &) = delete;
    AnswerWatch &operator=(const AnswerWatch &) = delete;
    void answered() { m_onDropped = nullptr; }

private:
    std::function<void()> m_onDropped;
};

} // namespace

ZDResumableUploadDelegate::~ZDResumableUploadDelegate() = default;
void ZDResumableUploadDelegate::uploadHasSentBytes(ZDResumableUpload *, qint64, qint64) {}
void ZDResumableUploadDelegate::uploadWillRetry(ZDResumableUpload *, const ZDError &, qint64,
                                                qint64)
{}
void ZDResumableUploadDelegate::uploadDidResume(ZDResumableUpload *, qint64) {}

// --- requests -------------------------------------------------------------------

ZDUploadDialectContext ZDResumableUploadPrivate::context() const
{
    return {endpoint,
            entry.sessionURL,
            filePath,
            total,
            metadata,
            fileFieldName,
            checksums && dialect->hasChecksums()};
}

std::unique_ptr<JSONHTTPRequest>
ZDResumableUploadPrivate::makeRequest(const ZDUploadWireRequest &wire, JSONHTTPRequestDelegate *to)
{
    auto made = std::make_unique<JSONHTTPRequest>(wire.url, to, signer);
    if (wire.formFields) {
        made->setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
        made->setPostParams(*wire.formFields);
    } else {
        made->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    }
    made->setHTTPVerb(wire.verb);
    made->setResponseType(JSONHTTPResponseTypeRawData);
    made->setMaximumResponseSize(kMaximumAnswerBytes);
    made->setAllowsCellularAccess(allowsCellularAccess);
    for (const auto &[name, value] : headers)
        made->setHTTPHeaderValue(name, value);
    // Every request on a connection of its own (the transport honours the
    // header): curl silently sends a request again when a reused connection
    // turns out dead, and a chunk sent twice races the server's own cleanup of
    // the lost one. A fresh connection fails instead, and the engine asks the
    // server where it stands.
    made->setHTTPHeaderValue(u"Connection"_s, u"close"_s);
    for (const auto &[name, value] : wire.headers)
        made->setHTTPHeaderValue(name, value);
    if (wire.fileRange)
        made->setOverridePostBodySegments(ZDBodySegments{
            ZDBodySegment::file(filePath, wire.fileRange->offset, wire.fileRange->length)});
    else if (wire.body)
        made->setOverridePostBody(*wire.body);
    return made;
}

void ZDResumableUploadPrivate::send(const ZDUploadWireRequest &wire, Step sending)
{
    if (wire.fileRange)
        qCDebug(lcZDNet).noquote()
            << "upload" << entry.id << "sends bytes" << wire.fileRange->offset << "to"
            << wire.fileRange->offset + wire.fileRange->length << "of" << total << "with"
            << wire.verb << loggable(wire.url);
    else
        qCDebug(lcZDNet).noquote()
            << "upload" << entry.id << "sends" << wire.verb << loggable(wire.url);
    request = makeRequest(wire, this);
    step = sending;
    if (sending == Step::SendChunk || sending == Step::SendWhole) {
        lastWritten = 0;
        chunkStartedAt = clock->msecsNow();
    }
    request->start();
}

// --- steps --------------------------------------------------------------------

void ZDResumableUploadPrivate::start()
{
    if (!clock)
        clock = ZDUploadClock::systemClock();
    if (!reachability)
        reachability = ZDNetworkReachability::systemReachability();
    if (!dialect)
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The upload of %1 was begun in a dialect that was not given again."_s.arg(filePath));
    if (journal && dialect->isResumable()) {
        journalClaim = journal->claim(entry.id);
        if (!journalClaim)
            return failWith(ZDResumableUploadErrorAlreadyRunning,
                            u"The upload of %1 is already running."_s.arg(filePath));
    }
    const std::optional<ZDUploadFileIdentity> now = ZDUploadFileIdentity::ofFile(filePath);
    if (!now)
        return failWith(ZDResumableUploadErrorFileUnreadable,
                        u"The file %1 cannot be read."_s.arg(filePath));
    if (resuming && !(*now == entry.file)) {
        terminate(); // the session holds bytes of another file: nothing may go on there
        dropJournal();
        return failWith(ZDResumableUploadErrorFileChanged,
                        u"The file %1 changed since its upload began."_s.arg(filePath));
    }
    entry.file = *now;
    total = now->size;
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "starts:" << total << "bytes to"
                               << loggable(endpoint) << "on session" << loggable(entry.sessionURL);
    interrupted = !entry.sessionURL.isEmpty(); // a journal's session: ask where it stands
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { proceed(); });
}

void ZDResumableUploadPrivate::proceed()
{
    if (!dialect->isResumable())
        sendWhole();
    else if (entry.sessionURL.isEmpty())
        createSession();
    else
        queryOffset();
}

void ZDResumableUploadPrivate::withCredentials(ZDCredentialSource::Reason reason,
                                               std::function<void()> next)
{
    if (!hasCredentialSource)
        return next();
    ZDCredentialSource *source = credentialSource.get();
    if (!source)
        return failWith(ZDResumableUploadErrorCredentialsUnavailable,
                        u"The account's credentials are no longer available."_s);
    if (reason == ZDCredentialSource::Reason::Unauthorized)
        qCDebug(lcZDNet).noquote()
            << "upload" << entry.id << "asks for renewed credentials after a 401";
    step = Step::Credentials;
    credentialsTicket = std::make_shared<int>(0);
    std::weak_ptr<int> ticket = credentialsTicket;
    std::weak_ptr<ZDResumableUploadPrivate> weak = weak_from_this();
    auto watch = std::make_shared<AnswerWatch>([weak, ticket] {
        // Likely inside the source's destructor: the failure comes from the event loop.
        QTimer::singleShot(0, [weak, ticket] {
            const auto self = weak.lock();
            if (self && !ticket.expired() && self->step == Step::Credentials)
                self->failWith(ZDResumableUploadErrorCredentialsUnavailable,
                               u"The account's credentials are no longer available."_s);
        });
    });
    source->credentialsForRequest(
        reason, [weak, ticket, watch, reason, next = std::move(next)](
                    std::shared_ptr<RequestSigner> fresh, std::optional<ZDError> error) {
            watch->answered();
            const auto self = weak.lock();
            if (!self || ticket.expired() || self->step != Step::Credentials)
                return;
            if (error && isUnreachable(*error)) {
                // Asked again after the wait, for the same reason.
                self->renewalOwed = reason == ZDCredentialSource::Reason::Unauthorized;
                return self->retryAfter(*error, -1);
            }
            if (error || !fresh)
                return self->failWith(ZDResumableUploadErrorCredentialsUnavailable,
                                      u"The account's credentials could not be renewed."_s,
                                      error.value_or(ZDError()));
            self->signer = std::move(fresh);
            self->renewalOwed = false;
            next();
        });
}

void ZDResumableUploadPrivate::createSession()
{
    send(dialect->creationRequest(context()), Step::Create);
}

void ZDResumableUploadPrivate::queryOffset()
{
    send(dialect->offsetRequest(context()), Step::QueryOffset);
}

void ZDResumableUploadPrivate::sendChunk()
{
    if (!fileStillSame())
        return;
    chunkStart = entry.offset;
    chunkLength = std::min(chunkSize, total - chunkStart);
    chunkCut = false;
    settlingOffset = -1; // bytes are on the way: earlier answers say nothing any more
    settleAsks = 0;
    // Recorded before the bytes leave: a server that later claims more is wrong.
    entry.sentUpTo = std::max(entry.sentUpTo, chunkStart + chunkLength);
    saveJournal();
    send(dialect->chunkRequest(context(), chunkStart, chunkLength), Step::SendChunk);
}

void ZDResumableUploadPrivate::sendWhole()
{
    if (!fileStillSame())
        return;
    chunkStart = 0;
    chunkLength = total;
    send(dialect->singleRequest(context()), Step::SendWhole);
}

void ZDResumableUploadPrivate::terminate()
{
    if (!dialect || !dialect->hasTermination() || entry.sessionURL.isEmpty())
        return;
    // Fire and forget: the session is abandoned whatever the answer.
    struct Orphan : JSONHTTPRequestDelegate
    {
        std::unique_ptr<JSONHTTPRequest> request;
        QObject context; // scope of the calls that delete the orphan
        void end()
        {
            QTimer::singleShot(0, &context, [this] { delete this; });
        }
        void requestDidReceiveObject(JSONHTTPRequest *, const QVariant &) override { end(); }
        void requestDidFailWithError(JSONHTTPRequest *, const ZDError &) override { end(); }
    };
    auto *orphan = new Orphan;
    // An application that quits before the answer still frees the request.
    if (QCoreApplication *app = QCoreApplication::instance())
        QObject::connect(app, &QCoreApplication::aboutToQuit, &orphan->context,
                         [orphan] { delete orphan; });
    const ZDUploadWireRequest wire = dialect->terminationRequest(context());
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "ends its session:" << wire.verb
                               << loggable(wire.url);
    orphan->request = makeRequest(wire, orphan);
    orphan->request->start();
}

// --- outcomes -------------------------------------------------------------------

void ZDResumableUploadPrivate::createAnswered(const ZDHTTPResponse &response,
                                              const QByteArray &body)
{
    const ZDUploadSession opened = dialect->sessionFromAnswer(context(), response, body);
    if (opened.url.isEmpty())
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The service opened no upload session (status %1)."_s.arg(response.statusCode()));
    const QUrl session = endpoint.resolved(opened.url);
    // The session gets every chunk and every credential: never less secure
    // than the endpoint the plug-in chose.
    const bool secure = endpoint.scheme().compare(u"https"_s, Qt::CaseInsensitive) != 0 ||
                        session.scheme().compare(u"https"_s, Qt::CaseInsensitive) == 0;
    if (!secure || (session.scheme() != u"http"_s && session.scheme() != u"https"_s))
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service named an upload session that is not secure (%1)."_s.arg(
                            session.scheme()));
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "opened session" << loggable(session);
    entry.sessionURL = session;
    if (opened.expires.isValid())
        entry.expires = opened.expires;
    entry.offset = 0;
    entry.sentUpTo = 0;
    saveJournal();
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { sendChunk(); });
}

void ZDResumableUploadPrivate::offsetAnswered(const ZDHTTPResponse &response,
                                              const QByteArray &body)
{
    const ZDUploadOffsetAnswer answer = dialect->offsetFromAnswer(context(), response, body);
    const qint64 offset = answer.offset;
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "is told the server holds" << offset
                               << "of" << total << "bytes (status" << response.statusCode() << ")";
    if (offset < 0)
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The service reported no usable offset (status %1)."_s.arg(response.statusCode()));
    if (offset > entry.sentUpTo || offset > total)
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service reported %1 bytes, more than the %2 sent."_s.arg(offset).arg(
                            entry.sentUpTo));
    if (!answer.complete && awaitsSettledOffset(offset))
        return;
    shrinkAfterCut(offset);
    const bool wasInterrupted = std::exchange(interrupted, false);
    refreshedAfter401 = false; // the renewed credentials were accepted
    if (offset > entry.offset)
        madeProgress(); // bytes of a lost request that the server kept count too
    entry.offset = offset;
    saveJournal();
    const auto self = shared_from_this();
    if (wasInterrupted) {
        if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
            target->uploadDidResume(q, offset);
        if (!q || step == Step::Done)
            return;
    }
    if (answer.complete)
        return finish(body);
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { sendChunk(); });
}

void ZDResumableUploadPrivate::chunkAnswered(const ZDHTTPResponse &response, const QByteArray &body)
{
    const qint64 end = chunkStart + chunkLength;
    const ZDUploadOffsetAnswer answer =
        dialect->chunkOffsetFromAnswer(context(), chunkStart, chunkLength, response, body);
    const qint64 offset = answer.offset;
    const bool complete = answer.complete;
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "had" << offset << "of" << total
                               << "bytes confirmed (status" << response.statusCode() << ")";
    if (offset < 0)
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service answered a chunk without a usable offset (status %1)."_s.arg(
                            response.statusCode()));
    if (complete && offset != total)
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The service ended the upload at %1 of %2 bytes."_s.arg(offset).arg(total));
    if (offset > end)
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The service reported %1 bytes, more than the %2 sent."_s.arg(offset).arg(end));
    adaptChunkSize(offset - chunkStart, clock->msecsNow() - chunkStartedAt);
    if (offset > entry.offset)
        madeProgress();
    else if (!complete && ++chunksWithoutProgress >= kChunksWithoutProgressAllowed)
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service kept none of the last %1 chunks it accepted."_s.arg(
                            kChunksWithoutProgressAllowed));
    refreshedAfter401 = false;
    entry.offset = offset;
    if (!complete)
        saveJournal();
    const auto self = shared_from_this();
    reportProgress(offset);
    if (!q || step == Step::Done)
        return;
    if (complete)
        return finish(body);
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { sendChunk(); });
}

void ZDResumableUploadPrivate::finish(const QByteArray &body)
{
    const QVariant object = responseObject(body);
    if (!serverDigestKey.isEmpty()) {
        const QString reported = object.toMap().value(serverDigestKey).toString();
        if (!reported.isEmpty()) {
            const auto own = ZDCreateDigestWithFile(filePath, serverDigestAlgorithm);
            if (!own || own->compare(reported, Qt::CaseInsensitive) != 0)
                return failWith(ZDResumableUploadErrorChecksumMismatch,
                                u"The service's digest of the file differs from the file's."_s);
        }
    }
    dropJournal();
    journalClaim.reset();
    step = Step::Done;
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "finished:" << total << "bytes,"
                               << bytesSent << "sent";
    const auto self = shared_from_this();
    if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
        target->uploadDidFinish(q, object);
}

void ZDResumableUploadPrivate::requestFailed(const ZDError &error,
                                             const std::optional<ZDHTTPResponse> &response,
                                             const QByteArray &body)
{
    if (step == Step::SendChunk && isNetworkFault(error))
        chunkCut = true;
    ZDError annotated = error;
    if (!body.isEmpty()) {
        QVariantMap info = error.userInfo();
        info.insert(ZDResponseBodyKey, body.left(kKeptBodyBytes));
        annotated = ZDError(error.domain(), error.code(), info);
    }
    if (error.domain() == ZDURLErrorDomain && error.code() == ZDURLErrorBodyFileUnreadable)
        return failWith(ZDResumableUploadErrorFileUnreadable,
                        u"The file %1 cannot be read to its end."_s.arg(filePath), error);
    if (error.domain() == ZDURLErrorDomain && isNetworkFault(error))
        return retryAfter(annotated, -1); // a server that took bytes, then went quiet
    if (error.domain() == ZDCurlErrorDomain) {
        if (!isNetworkFault(error))
            return fail(annotated);
        // A connection that carried bytes and broke: most often a passing cut.
        // A server that settles a lost request before it answers the offset
        // query may be asked at once; others may still be cleaning up after
        // it (a 308 server was seen truncating the file to the lost chunk's
        // start after it had answered), so they get the policy's wait.
        const bool atOnce =
            dialect->settlesLostRequests() && step == Step::SendChunk && lastWritten > 0;
        return retryAfter(annotated, atOnce ? 0 : -1);
    }
    if (!response || error.domain() != JSONHTTPRequestErrorDomain)
        return fail(annotated);

    const int status = response->statusCode();
    const qint64 retryAfterMsecs = zdRetryAfterMsecs(
        response->valueForHTTPHeaderField("Retry-After"), QDateTime::currentDateTimeUtc());
    const bool onSession = step == Step::QueryOffset || step == Step::SendChunk;
    if (status == 401 && hasCredentialSource && !refreshedAfter401 &&
        renewalsSinceProgress < kRenewalsWithoutProgress) {
        refreshedAfter401 = true;
        ++renewalsSinceProgress;
        interrupted = true;
        return withCredentials(ZDCredentialSource::Reason::Unauthorized, [this] { proceed(); });
    }
    if (onSession && (status == 404 || status == 410)) {
        // The service forgot the session: its bytes are gone, so a new session
        // starts from zero. Twice in a row means something else is wrong.
        if (++sessionLosses > 1)
            return failWith(ZDResumableUploadErrorSessionExpired,
                            u"The service forgot the upload session."_s, annotated);
        entry.sessionURL.clear();
        entry.offset = entry.sentUpTo = 0;
        return createSession();
    }
    if (step == Step::SendChunk && dialect->isChecksumRefusal(context(), *response, body)) {
        if (++checksumRefusals >= kChecksumRefusalsAllowed)
            return failWith(ZDResumableUploadErrorChecksumMismatch,
                            u"The service refused the chunk's checksum."_s, annotated);
        interrupted = true;
        return queryOffset();
    }
    if (onSession && status == 409) // tus: the offsets disagree; ask again
        return retryAfter(annotated, 0);
    const bool retryable = status >= 500 || status == 408 || status == 423 || status == 429 ||
                           (retryableRefusal && retryableRefusal(*response, body));
    if (retryable)
        return retryAfter(annotated, retryAfterMsecs);
    fail(annotated);
}

void ZDResumableUploadPrivate::retryAfter(const ZDError &reason, qint64 retryAfterMsecs)
{
    request.reset();
    interrupted = true;
    const auto keep = shared_from_this();
    // Offline: wait for the network instead of spending the budget.
    if (reachability->isOffline()) {
        step = Step::Waiting;
        std::weak_ptr<ZDResumableUploadPrivate> weak = weak_from_this();
        networkWait = reachability->whenOnline([weak] {
            const auto self = weak.lock();
            if (!self || self->step != Step::Waiting)
                return;
            self->networkWait.reset();
            self->attempt = 0;
            self->retriedAtOnce = false;
            self->retryAfter(ZDError(), 0);
        });
        if (networkWait) {
            qCDebug(lcZDNet).noquote() << "upload" << entry.id << "waits for the network";
            if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
                target->uploadWillRetry(q, reason, -1, entry.offset);
            return;
        }
    }

    // "At once" is granted once until bytes are confirmed again, so that a
    // server answering the same way forever meets the policy's waits.
    qint64 delay = 0;
    if (retryAfterMsecs != 0 || std::exchange(retriedAtOnce, true)) {
        ++attempt;
        delay = std::max(policy.delayForAttempt(attempt, random.generateDouble()), retryAfterMsecs);
    }
    if (waitedMsecs + delay > policy.budgetMsecs) {
        qCDebug(lcZDNet).noquote() << "upload" << entry.id << "gives up: a wait of" << delay
                                   << "ms would exceed the budget after" << waitedMsecs << "ms";
        QVariantMap info = reason.userInfo();
        info.insert(ZDRetriesExhaustedKey, true);
        return fail(ZDError(reason.domain(), reason.code(), info));
    }
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "retries in" << delay << "ms (retry"
                               << attempt << "after" << reason.domain() << reason.code() << ")";
    step = Step::Waiting;
    if (!reason.isNull()) {
        if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
            target->uploadWillRetry(q, reason, delay, entry.offset);
        if (!q || step != Step::Waiting)
            return;
    }
    proceedAfter(delay);
}

void ZDResumableUploadPrivate::proceedAfter(qint64 msecs)
{
    step = Step::Waiting;
    waitedMsecs += msecs;
    std::weak_ptr<ZDResumableUploadPrivate> weak = weak_from_this();
    timer = clock->callAfter(msecs, [weak] {
        const auto self = weak.lock();
        if (!self || self->step != Step::Waiting)
            return;
        self->timer.reset();
        self->withCredentials(self->renewalOwed ? ZDCredentialSource::Reason::Unauthorized
                                                : ZDCredentialSource::Reason::BeforeRequest,
                              [raw = self.get()] { raw->proceed(); });
    });
}

void ZDResumableUploadPrivate::madeProgress()
{
    attempt = 0;
    waitedMsecs = 0;
    checksumRefusals = 0;
    renewalsSinceProgress = 0;
    chunksWithoutProgress = 0;
    retriedAtOnce = false;
}

void ZDResumableUploadPrivate::fail(const ZDError &error)
{
    // Keep the entry only where resuming later can still work: a network that
    // gave up, not a refusal or a broken file; and never touch the entry of
    // another running upload.
    const bool keep = (error.userInfo().value(ZDRetriesExhaustedKey).toBool() && resumable()) ||
                      (error.domain() == ZDResumableUploadErrorDomain &&
                       error.code() == ZDResumableUploadErrorAlreadyRunning);
    // An entry whose dialect was not given stays for the upload that brings it.
    if (!keep && dialect)
        dropJournal();
    stop();
    step = Step::Done;
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "failed:" << error.domain()
                               << error.code() << "at" << entry.offset << "of" << total << "bytes";
    const auto self = shared_from_this();
    if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
        target->uploadDidFailWithError(q, error);
}

void ZDResumableUploadPrivate::failWith(ZDResumableUploadError code, const QString &description,
                                        const ZDError &underlying)
{
    QVariantMap info{{ZDLocalizedDescriptionKey, description}};
    if (!underlying.isNull())
        info.insert(ZDUnderlyingErrorKey, QVariant::fromValue(underlying));
    fail(ZDError(ZDResumableUploadErrorDomain, code, info));
}

// --- helpers --------------------------------------------------------------------

void ZDResumableUploadPrivate::stop()
{
    journalClaim.reset();
    request.reset();
    timer.reset();
    networkWait.reset();
    credentialsTicket.reset();
}

void ZDResumableUploadPrivate::saveJournal()
{
    if (journal && resumable() && !entry.sessionURL.isEmpty())
        journal->save(entry);
}

void ZDResumableUploadPrivate::dropJournal()
{
    if (journal)
        journal->remove(entry.id);
}

bool ZDResumableUploadPrivate::fileStillSame()
{
    const std::optional<ZDUploadFileIdentity> now = ZDUploadFileIdentity::ofFile(filePath);
    if (!now) {
        failWith(ZDResumableUploadErrorFileUnreadable,
                 u"The file %1 cannot be read."_s.arg(filePath));
        return false;
    }
    if (!(*now == entry.file)) {
        terminate();
        failWith(ZDResumableUploadErrorFileChanged,
                 u"The file %1 changed while it was being uploaded."_s.arg(filePath));
        return false;
    }
    return true;
}

void ZDResumableUploadPrivate::adaptChunkSize(qint64 bytes, qint64 msecs)
{
    if (fixedChunkSize > 0)
        return;
    qint64 wanted = msecs <= 0 ? chunkSize * 2 : bytes * kTargetRequestMsecs / msecs;
    // Grow at most fourfold per chunk and shrink at most by half, so one odd
    // measurement does not swing it.
    wanted = std::clamp(wanted, chunkSize / 2, chunkSize * 4);
    const qint64 maximum = std::max(granularity, kMaximumChunk / granularity * granularity);
    const qint64 ceiling = chunkCeiling > 0 ? chunkCeiling : maximum;
    chunkSize =
        std::clamp(wanted / granularity * granularity, granularity, std::max(granularity, ceiling));
    // Each chunk that goes through whole lets the size grow back a step
    // towards where the cuts began.
    if (chunkCeiling > 0 && bytes >= chunkLength)
        chunkCeiling = chunkCeiling * 2 >= maximum ? 0 : chunkCeiling * 2;
}

void ZDResumableUploadPrivate::shrinkAfterCut(qint64 offset)
{
    // A service that keeps nothing of a cut chunk (a checksum covers it whole)
    // would be sent the same range after every cut: a network that breaks more
    // often than a chunk takes must meet smaller chunks.
    if (!std::exchange(chunkCut, false) || fixedChunkSize > 0 || offset > chunkStart)
        return;
    chunkSize = std::max(granularity, chunkSize / 2 / granularity * granularity);
    chunkCeiling = chunkSize;
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "lost a chunk whole; chunks are now"
                               << chunkSize << "bytes";
}

bool ZDResumableUploadPrivate::awaitsSettledOffset(qint64 offset)
{
    // A server that answers the offset query while it still takes in (or rolls
    // back) a lost request reports a number that later changes under the next
    // chunk: bytes would be written at an offset the server then undoes.
    if (!interrupted || dialect->settlesLostRequests())
        return false;
    if (std::exchange(settlingOffset, offset) == offset) {
        settlingOffset = -1;
        settleAsks = 0;
        return false;
    }
    // The asks spend the budget as the policy's waits do.
    const qint64 wait = policy.initialDelayMsecs;
    if (++settleAsks > kSettleAsksAllowed || waitedMsecs + wait > policy.budgetMsecs) {
        settlingOffset = -1;
        settleAsks = 0;
        retryAfter(ZDError(ZDResumableUploadErrorDomain, ZDResumableUploadErrorProtocolViolation,
                           {{ZDLocalizedDescriptionKey,
                             u"The service's offset did not settle after an interruption."_s}}),
                   -1);
        return true;
    }
    qCDebug(lcZDNet).noquote() << "upload" << entry.id << "asks again in" << wait << "ms whether"
                               << offset << "bytes stay";
    proceedAfter(wait);
    return true;
}

void ZDResumableUploadPrivate::reportProgress(qint64 sent)
{
    if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
        target->uploadHasSentBytes(q, sent, total);
}

// --- request callbacks -------------------------------------------------------------

void ZDResumableUploadPrivate::requestDidReceiveObject(JSONHTTPRequest *from, const QVariant &)
{
    if (from != request.get())
        return;
    const auto self = shared_from_this();
    std::unique_ptr<JSONHTTPRequest> done = std::move(request);
    const ZDHTTPResponse response = done->response().value_or(ZDHTTPResponse());
    const QByteArray body = done->responseBody().value_or(QByteArray());
    switch (step) {
    case Step::Create:
        return createAnswered(response, body);
    case Step::QueryOffset:
        return offsetAnswered(response, body);
    case Step::SendChunk:
        return chunkAnswered(response, body);
    case Step::SendWhole:
        reportProgress(total);
        if (!q || step == Step::Done)
            return;
        return finish(body);
    default:
        return;
    }
}

void ZDResumableUploadPrivate::requestDidFailWithError(JSONHTTPRequest *from, const ZDError &error)
{
    if (from != request.get())
        return;
    const auto self = shared_from_this();
    std::unique_ptr<JSONHTTPRequest> done = std::move(request);
    requestFailed(error, done->response(), done->responseBody().value_or(QByteArray()));
}

void ZDResumableUploadPrivate::requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *from,
                                                                    qint64 written, qint64)
{
    if (from != request.get() || (step != Step::SendChunk && step != Step::SendWhole))
        return;
    const auto self = shared_from_this();
    // `written` counts this request's body; bytesSent is the total of all bodies.
    bytesSent += std::max<qint64>(0, written - lastWritten);
    lastWritten = std::max(lastWritten, written);
    reportProgress(chunkStart + std::min(written, chunkLength));
}

// --- public object --------------------------------------------------------------

ZDResumableUpload::ZDResumableUpload(ZDUploadProtocol protocol, const QUrl &endpoint,
                                     const QString &filePath, ZDResumableUploadDelegate *delegate)
    : ZDResumableUpload(ZDUploadDialect::forProtocol(protocol), endpoint, filePath, delegate)
{}

ZDResumableUpload::ZDResumableUpload(std::shared_ptr<ZDUploadDialect> dialect, const QUrl &endpoint,
                                     const QString &filePath, ZDResumableUploadDelegate *delegate)
    : d(std::make_shared<ZDResumableUploadPrivate>())
{
    d->q = this;
    d->delegate = delegate;
    d->dialect = std::move(dialect);
    d->endpoint = endpoint;
    d->filePath = filePath;
    d->entry.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    d->entry.protocol = d->dialect ? d->dialect->protocol() : ZDUploadProtocol::Custom;
    d->entry.endpoint = endpoint;
}

ZDResumableUpload::ZDResumableUpload(const ZDUploadJournalEntry &entry,
                                     ZDResumableUploadDelegate *delegate)
    : ZDResumableUpload(entry, ZDUploadDialect::forProtocol(entry.protocol), delegate)
{}

ZDResumableUpload::ZDResumableUpload(const ZDUploadJournalEntry &entry,
                                     std::shared_ptr<ZDUploadDialect> dialect,
                                     ZDResumableUploadDelegate *delegate)
    : ZDResumableUpload(std::move(dialect), entry.endpoint, entry.file.path, delegate)
{
    d->entry = entry;
    if (d->dialect)
        d->entry.protocol = d->dialect->protocol();
    d->metadata = entry.metadata;
    d->resuming = true;
}

ZDResumableUpload::~ZDResumableUpload()
{
    d->stop();
    d->q = nullptr;
}

void ZDResumableUpload::setMetadata(const QVariantMap &metadata)
{
    d->metadata = metadata;
    d->entry.metadata = metadata;
}
void ZDResumableUpload::setFileFieldName(const QString &name)
{
    d->fileFieldName = name;
}
void ZDResumableUpload::setHTTPHeaderValue(const QString &name, const QString &value)
{
    d->headers.append({name, value});
}
void ZDResumableUpload::setSigner(std::shared_ptr<RequestSigner> signer)
{
    d->signer = std::move(signer);
}
void ZDResumableUpload::setCredentialSource(ZDCredentialSource *source)
{
    d->credentialSource = source;
    d->hasCredentialSource = source != nullptr;
}
void ZDResumableUpload::setChunkSize(qint64 bytes)
{
    d->fixedChunkSize = std::max<qint64>(bytes, 0);
    if (d->fixedChunkSize > 0)
        d->chunkSize =
            std::max(d->granularity, d->fixedChunkSize / d->granularity * d->granularity);
}
void ZDResumableUpload::setChunkGranularity(qint64 bytes)
{
    d->granularity = std::max<qint64>(bytes, 1);
    d->chunkSize =
        std::max(d->granularity, (d->fixedChunkSize > 0 ? d->fixedChunkSize : d->chunkSize) /
                                     d->granularity * d->granularity);
}
void ZDResumableUpload::setChecksumsEnabled(bool enabled)
{
    d->checksums = enabled;
}
void ZDResumableUpload::setServerDigestKey(const QString &key, ZDDigestAlgorithm algorithm)
{
    d->serverDigestKey = key;
    d->serverDigestAlgorithm = algorithm;
}
void ZDResumableUpload::setRetryableRefusal(
    std::function<bool(const ZDHTTPResponse &, const QByteArray &)> isRetryable)
{
    d->retryableRefusal = std::move(isRetryable);
}
void ZDResumableUpload::setRetryPolicy(const ZDRetryPolicy &policy)
{
    d->policy = policy;
}
void ZDResumableUpload::setClock(std::shared_ptr<ZDUploadClock> clock)
{
    d->clock = std::move(clock);
}
void ZDResumableUpload::setNetworkReachability(std::shared_ptr<ZDNetworkReachability> reachability)
{
    d->reachability = std::move(reachability);
}
void ZDResumableUpload::setRandomSeed(quint32 seed)
{
    d->random.seed(seed);
}
void ZDResumableUpload::setJournal(const std::optional<ZDUploadJournal> &journal)
{
    d->journal = journal;
}
void ZDResumableUpload::setAllowsCellularAccess(bool allow)
{
    d->allowsCellularAccess = allow;
}

QString ZDResumableUpload::journalId() const
{
    return d->entry.id;
}
QUrl ZDResumableUpload::sessionURL() const
{
    return d->entry.sessionURL;
}
qint64 ZDResumableUpload::totalBytes() const
{
    return d->total;
}
qint64 ZDResumableUpload::confirmedOffset() const
{
    return d->entry.offset;
}
qint64 ZDResumableUpload::bytesSent() const
{
    return d->bytesSent;
}

void ZDResumableUpload::start()
{
    if (d->step != ZDResumableUploadPrivate::Step::Idle)
        return;
    // Begun from the event loop, so that no delegate call comes from inside start().
    std::weak_ptr<ZDResumableUploadPrivate> weak = d;
    d->step = ZDResumableUploadPrivate::Step::Waiting;
    if (!d->clock)
        d->clock = ZDUploadClock::systemClock();
    d->timer = ZDUploadClock::systemClock()->callAfter(0, [weak] {
        if (const auto self = weak.lock();
            self && self->step == ZDResumableUploadPrivate::Step::Waiting) {
            self->timer.reset();
            self->start();
        }
    });
}

void ZDResumableUpload::cancel()
{
    d->stop();
    d->step = ZDResumableUploadPrivate::Step::Done;
}

void ZDResumableUpload::abort()
{
    d->stop();
    d->terminate();
    d->dropJournal();
    d->step = ZDResumableUploadPrivate::Step::Done;
}
