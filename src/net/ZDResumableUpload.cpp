#include "net/ZDResumableUpload.h"

#include "net/ZDCurlCodes_p.h"
#include "net/ZDFileUpload.h"
#include "net/ZDJSON_p.h"
#include "net/ZDNetworkInformation_p.h"
#include "net/ZDResumableUpload_p.h"
#include "net/ZDURLRequest.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QNetworkInformation>
#include <QTimer>
#include <QUuid>

#include <cmath>

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

class SystemClock final : public ZDUploadClock
{
public:
    SystemClock() { m_elapsed.start(); }
    qint64 msecsNow() const override { return m_elapsed.elapsed(); }
    std::shared_ptr<void> callAfter(qint64 msecs, std::function<void()> callback) override
    {
        // Deleted later: the callback may drop the handle while the timer emits.
        std::shared_ptr<QTimer> timer(new QTimer, [](QTimer *t) { t->deleteLater(); });
        timer->setSingleShot(true);
        QObject::connect(timer.get(), &QTimer::timeout, timer.get(), std::move(callback));
        timer->start(int(std::min<qint64>(msecs, std::numeric_limits<int>::max())));
        return timer;
    }

private:
    QElapsedTimer m_elapsed;
};

class SystemReachability final : public ZDNetworkReachability
{
public:
    // Loading the backend (a plug-in, then the system bus) takes milliseconds:
    // paid here, when an upload starts, instead of at its first cut.
    SystemReachability() { instance(); }
    bool isOffline() override
    {
        QNetworkInformation *info = instance();
        return info && info->reachability() == QNetworkInformation::Reachability::Disconnected;
    }
    std::shared_ptr<void> whenOnline(std::function<void()> callback) override
    {
        QNetworkInformation *info = instance();
        if (!info)
            return nullptr;
        // Deleted later: the callback may drop the handle while the signal is emitted.
        std::shared_ptr<QObject> watcher(new QObject, [](QObject *o) { o->deleteLater(); });
        auto once = std::make_shared<std::function<void()>>(std::move(callback));
        QObject::connect(info, &QNetworkInformation::reachabilityChanged, watcher.get(),
                         [once](QNetworkInformation::Reachability now) {
                             if (now == QNetworkInformation::Reachability::Disconnected || !*once)
                                 return;
                             std::exchange(*once, nullptr)();
                         });
        return watcher;
    }

private:
    static QNetworkInformation *instance() { return zdNetworkInformation(); }
};

QByteArray base64Digest(const QString &path, qint64 offset, qint64 length)
{
    const auto digest = ZDCreateDigestBytesWithFile(path, ZDDigestAlgorithm::SHA1, offset, length);
    return digest ? digest->toBase64() : QByteArray();
}

QByteArray tusMetadata(const QVariantMap &metadata)
{
    QByteArrayList pairs;
    for (auto it = metadata.cbegin(); it != metadata.cend(); ++it)
        pairs.append(it.key().toUtf8() + ' ' + it.value().toString().toUtf8().toBase64());
    return pairs.join(',');
}

// "bytes=0-n" as the 308 protocol reports it: the offset n + 1, 0 without a
// header, or -1 for anything else (another start, several ranges).
qint64 offsetFromRange(const QByteArray &range)
{
    if (range.isEmpty())
        return 0;
    const QByteArray value = range.trimmed();
    if (!value.startsWith("bytes=0-") || value.contains(','))
        return -1;
    bool ok = false;
    const qint64 last = value.mid(8).toLongLong(&ok);
    // "bytes=0--1" is how some servers say that nothing is stored yet.
    return ok && last >= -1 ? last + 1 : -1;
}

QVariant responseObject(const QByteArray &body)
{
    if (body.isEmpty())
        return QVariantMap();
    auto parsed = zdParseJSON(body);
    if (auto *object = std::get_if<QVariant>(&parsed))
        return *object;
    return body;
}

} // namespace

qint64 zdRetryAfterMsecs(const QByteArray &value, const QDateTime &now)
{
    const QByteArray text = value.trimmed();
    if (text.isEmpty())
        return -1;
    bool ok = false;
    const qint64 seconds = text.toLongLong(&ok);
    if (ok)
        return seconds >= 0 ? std::min<qint64>(seconds, 24 * 3600) * 1000 : -1;
    const QDateTime when = QDateTime::fromString(QString::fromLatin1(text), Qt::RFC2822Date);
    if (!when.isValid())
        return -1;
    return std::clamp<qint64>(now.msecsTo(when), 0, 24 * 3600 * 1000);
}

ZDNetworkReachability::~ZDNetworkReachability() = default;

std::shared_ptr<ZDNetworkReachability> ZDNetworkReachability::systemReachability()
{
    return std::make_shared<SystemReachability>();
}

ZDUploadClock::~ZDUploadClock() = default;

std::shared_ptr<ZDUploadClock> ZDUploadClock::systemClock()
{
    return std::make_shared<SystemClock>();
}

qint64 ZDRetryPolicy::delayForAttempt(int attempt, double unitRandom) const
{
    const double base = double(initialDelayMsecs) * std::pow(multiplier, std::max(attempt - 1, 0));
    const double capped = std::min(base, double(maximumDelayMsecs));
    const double spread = capped * jitter * (2.0 * unitRandom - 1.0);
    return std::max<qint64>(0, qint64(capped + spread));
}

ZDResumableUploadDelegate::~ZDResumableUploadDelegate() = default;
void ZDResumableUploadDelegate::uploadHasSentBytes(ZDResumableUpload *, qint64, qint64) {}
void ZDResumableUploadDelegate::uploadWillRetry(ZDResumableUpload *, const ZDError &, qint64,
                                                qint64)
{}
void ZDResumableUploadDelegate::uploadDidResume(ZDResumableUpload *, qint64) {}

// --- steps --------------------------------------------------------------------

std::unique_ptr<ZDUploadRequest> ZDResumableUploadPrivate::makeRequest(const QUrl &url,
                                                                       const QByteArray &verb)
{
    auto made = std::make_unique<ZDUploadRequest>(url, this, signer);
    made->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    made->setHTTPVerb(verb);
    made->setResponseType(JSONHTTPResponseTypeRawData);
    made->setMaximumResponseSize(kMaximumAnswerBytes);
    made->setAllowsCellularAccess(allowsCellularAccess);
    for (const auto &[name, value] : headers)
        made->setHTTPHeaderValue(name, value);
    if (protocol == ZDUploadProtocol::Tus)
        made->setHTTPHeaderValue(u"Tus-Resumable"_s, u"1.0.0"_s);
    // Every request on a connection of its own (the transport honours the
    // header): curl silently sends a request again when a reused connection
    // turns out dead, and a chunk sent twice races the server's own cleanup of
    // the lost one. A fresh connection fails instead, and the engine asks the
    // server where it stands.
    made->setHTTPHeaderValue(u"Connection"_s, u"close"_s);
    return made;
}

void ZDResumableUploadPrivate::start()
{
    if (!clock)
        clock = ZDUploadClock::systemClock();
    if (!reachability)
        reachability = ZDNetworkReachability::systemReachability();
    if (journal && protocol != ZDUploadProtocol::Multipart) {
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
    if (protocol == ZDUploadProtocol::Multipart)
        return withCredentials(ZDCredentialSource::Reason::BeforeRequest,
                               [this] { sendMultipart(); });
    if (entry.sessionURL.isEmpty())
        return withCredentials(ZDCredentialSource::Reason::BeforeRequest,
                               [this] { createSession(); });
    interrupted = true; // a journal's session: ask where it stands
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { queryOffset(); });
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
    step = Step::Credentials;
    credentialsTicket = std::make_shared<int>(0);
    std::weak_ptr<int> ticket = credentialsTicket;
    std::weak_ptr<ZDResumableUploadPrivate> weak = weak_from_this();
    source->credentialsForRequest(
        reason, [weak, ticket, next = std::move(next)](std::shared_ptr<RequestSigner> fresh,
                                                       std::optional<ZDError> error) {
            const auto self = weak.lock();
            if (!self || ticket.expired() || self->step != Step::Credentials)
                return;
            if (error || !fresh)
                return self->failWith(ZDResumableUploadErrorCredentialsUnavailable,
                                      u"The account's credentials could not be renewed."_s,
                                      error.value_or(ZDError()));
            self->signer = std::move(fresh);
            next();
        });
}

void ZDResumableUploadPrivate::createSession()
{
    if (protocol == ZDUploadProtocol::Tus) {
        request = makeRequest(endpoint, "POST");
        request->setHTTPHeaderValue(u"Upload-Length"_s, QString::number(total));
        if (!metadata.isEmpty())
            request->setHTTPHeaderValue(u"Upload-Metadata"_s,
                                        QString::fromLatin1(tusMetadata(metadata)));
        request->setOverridePostBody(QByteArray(""));
    } else {
        request = makeRequest(endpoint, "POST");
        request->setHTTPHeaderValue(u"Content-Type"_s, u"application/json; charset=utf-8"_s);
        request->setHTTPHeaderValue(u"X-Upload-Content-Length"_s, QString::number(total));
        request->setHTTPHeaderValue(
            u"X-Upload-Content-Type"_s,
            metadata.value(u"mimeType"_s, u"application/octet-stream"_s).toString());
        QVariantMap body = metadata;
        body.insert(u"size"_s, total);
        // Services of this kind name the upload by the file's name unless told.
        if (!body.contains(u"name"_s))
            body.insert(u"name"_s, QFileInfo(filePath).fileName());
        request->setOverridePostBody(
            QJsonDocument(QJsonObject::fromVariantMap(body)).toJson(QJsonDocument::Compact));
    }
    step = Step::Create;
    request->start();
}

void ZDResumableUploadPrivate::queryOffset()
{
    if (protocol == ZDUploadProtocol::Tus) {
        request = makeRequest(entry.sessionURL, "HEAD");
    } else {
        request = makeRequest(entry.sessionURL, "PUT");
        request->setHTTPHeaderValue(u"Content-Range"_s, u"bytes */%1"_s.arg(total));
        request->setOverridePostBody(QByteArray(""));
    }
    step = Step::QueryOffset;
    request->start();
}

void ZDResumableUploadPrivate::sendChunk()
{
    if (!fileStillSame())
        return;
    chunkStart = entry.offset;
    chunkLength = std::min(chunkSize, total - chunkStart);
    // Recorded before the bytes leave: a server that later claims more is wrong.
    entry.sentUpTo = std::max(entry.sentUpTo, chunkStart + chunkLength);
    saveJournal();
    const ZDBodySegments body{ZDBodySegment::file(filePath, chunkStart, chunkLength)};
    if (protocol == ZDUploadProtocol::Tus) {
        request = makeRequest(entry.sessionURL, "PATCH");
        request->setHTTPHeaderValue(u"Content-Type"_s, u"application/offset+octet-stream"_s);
        request->setHTTPHeaderValue(u"Upload-Offset"_s, QString::number(chunkStart));
        if (checksums)
            request->setHTTPHeaderValue(
                u"Upload-Checksum"_s,
                u"sha1 "_s + QString::fromLatin1(base64Digest(filePath, chunkStart, chunkLength)));
    } else {
        request = makeRequest(entry.sessionURL, "PUT");
        request->setHTTPHeaderValue(u"Content-Type"_s, u"application/octet-stream"_s);
        request->setHTTPHeaderValue(
            u"Content-Range"_s,
            u"bytes %1-%2/%3"_s.arg(chunkStart).arg(chunkStart + chunkLength - 1).arg(total));
        if (checksums)
            request->setHTTPHeaderValue(
                u"Digest"_s,
                u"sha="_s + QString::fromLatin1(base64Digest(filePath, chunkStart, chunkLength)));
    }
    request->setOverridePostBodySegments(body);
    step = Step::SendChunk;
    lastWritten = 0;
    chunkStartedAt = clock->msecsNow();
    request->start();
}

void ZDResumableUploadPrivate::sendMultipart()
{
    if (!fileStillSame())
        return;
    request = std::make_unique<ZDUploadRequest>(endpoint, this, signer);
    request->setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    request->setResponseType(JSONHTTPResponseTypeRawData);
    request->setMaximumResponseSize(kMaximumAnswerBytes);
    request->setAllowsCellularAccess(allowsCellularAccess);
    for (const auto &[name, value] : headers)
        request->setHTTPHeaderValue(name, value);
    QVariantMap fields = metadata;
    fields.insert(fileFieldName, QVariant::fromValue(ZDStreamedFileUpload(filePath)));
    request->setPostParams(fields);
    chunkStart = 0;
    chunkLength = total;
    step = Step::Multipart;
    lastWritten = 0;
    chunkStartedAt = clock->msecsNow();
    request->start();
}

void ZDResumableUploadPrivate::terminate()
{
    if (protocol == ZDUploadProtocol::Multipart || entry.sessionURL.isEmpty())
        return;
    // Fire and forget: the session is abandoned whatever the answer.
    struct Orphan : JSONHTTPRequestDelegate
    {
        std::unique_ptr<ZDUploadRequest> request;
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
    orphan->request = std::make_unique<ZDUploadRequest>(entry.sessionURL, orphan, signer);
    orphan->request->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    orphan->request->setHTTPVerb("DELETE");
    orphan->request->setResponseType(JSONHTTPResponseTypeRawData);
    for (const auto &[name, value] : headers)
        orphan->request->setHTTPHeaderValue(name, value);
    if (protocol == ZDUploadProtocol::Tus)
        orphan->request->setHTTPHeaderValue(u"Tus-Resumable"_s, u"1.0.0"_s);
    orphan->request->start();
}

// --- outcomes -------------------------------------------------------------------

void ZDResumableUploadPrivate::createAnswered(const ZDHTTPResponse &response)
{
    const QByteArray location = response.valueForHTTPHeaderField("Location");
    if (location.isEmpty() || (response.statusCode() != 200 && response.statusCode() != 201))
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The service opened no upload session (status %1)."_s.arg(response.statusCode()));
    const QUrl session = endpoint.resolved(QUrl::fromEncoded(location));
    // The session gets every chunk and every credential: never less secure
    // than the endpoint the plug-in chose.
    const bool secure = endpoint.scheme().compare(u"https"_s, Qt::CaseInsensitive) != 0 ||
                        session.scheme().compare(u"https"_s, Qt::CaseInsensitive) == 0;
    if (!secure || (session.scheme() != u"http"_s && session.scheme() != u"https"_s))
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service named an upload session that is not secure (%1)."_s.arg(
                            session.scheme()));
    entry.sessionURL = session;
    const QByteArray expires = response.valueForHTTPHeaderField("Upload-Expires");
    if (!expires.isEmpty())
        entry.expires = QDateTime::fromString(QString::fromLatin1(expires), Qt::RFC2822Date);
    entry.offset = 0;
    entry.sentUpTo = 0;
    saveJournal();
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { sendChunk(); });
}

void ZDResumableUploadPrivate::offsetAnswered(const ZDHTTPResponse &response)
{
    qint64 offset = -1;
    if (protocol == ZDUploadProtocol::Tus) {
        bool ok = false;
        offset = response.valueForHTTPHeaderField("Upload-Offset").trimmed().toLongLong(&ok);
        if (!ok)
            offset = -1;
    } else if (response.statusCode() == 200 || response.statusCode() == 201) {
        offset = total; // already complete
    } else if (response.statusCode() == 308) {
        offset = offsetFromRange(response.valueForHTTPHeaderField("Range"));
    }
    if (offset < 0)
        return failWith(
            ZDResumableUploadErrorProtocolViolation,
            u"The service reported no usable offset (status %1)."_s.arg(response.statusCode()));
    if (offset > entry.sentUpTo || offset > total)
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service reported %1 bytes, more than the %2 sent."_s.arg(offset).arg(
                            entry.sentUpTo));
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
    if (offset == total && protocol == ZDUploadProtocol::ResumeIncomplete &&
        response.statusCode() != 308)
        return finish(QByteArray());
    if (offset == total && protocol == ZDUploadProtocol::Tus)
        return finish(QByteArray());
    withCredentials(ZDCredentialSource::Reason::BeforeRequest, [this] { sendChunk(); });
}

void ZDResumableUploadPrivate::chunkAnswered(const ZDHTTPResponse &response, const QByteArray &body)
{
    const qint64 end = chunkStart + chunkLength;
    qint64 offset = -1;
    bool complete = false;
    if (protocol == ZDUploadProtocol::Tus) {
        bool ok = false;
        offset = response.valueForHTTPHeaderField("Upload-Offset").trimmed().toLongLong(&ok);
        if (!ok)
            offset = -1;
        complete = offset == total;
    } else if (response.statusCode() == 308) {
        offset = offsetFromRange(response.valueForHTTPHeaderField("Range"));
    } else if (response.statusCode() == 200 || response.statusCode() == 201) {
        offset = end;
        complete = true;
        if (end != total)
            return failWith(
                ZDResumableUploadErrorProtocolViolation,
                u"The service ended the upload at %1 of %2 bytes."_s.arg(end).arg(total));
    }
    if (offset < 0)
        return failWith(ZDResumableUploadErrorProtocolViolation,
                        u"The service answered a chunk without a usable offset (status %1)."_s.arg(
                            response.statusCode()));
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
    const auto self = shared_from_this();
    if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
        target->uploadDidFinish(q, object);
}

void ZDResumableUploadPrivate::requestFailed(const ZDError &error,
                                             const std::optional<ZDHTTPResponse> &response,
                                             const QByteArray &body)
{
    ZDError annotated = error;
    if (!body.isEmpty()) {
        QVariantMap info = error.userInfo();
        info.insert(ZDResponseBodyKey, body.left(kKeptBodyBytes));
        annotated = ZDError(error.domain(), error.code(), info);
    }
    if (error.domain() == ZDURLErrorDomain && error.code() == ZDURLErrorBodyFileUnreadable)
        return failWith(ZDResumableUploadErrorFileUnreadable,
                        u"The file %1 cannot be read to its end."_s.arg(filePath), error);
    if (error.domain() == ZDCurlErrorDomain) {
        if (!zdCurlCode(error.code()).retryable)
            return fail(annotated);
        // A connection that carried bytes and broke: most often a passing cut.
        // A tus server serialises the requests of an upload, so its answer to
        // the offset query waits until it is done with the lost one; a 308
        // server may still be cleaning up after it (one was seen truncating
        // the file to the lost chunk's start after it had answered), so it
        // gets the policy's wait.
        const bool atOnce =
            protocol == ZDUploadProtocol::Tus && step == Step::SendChunk && lastWritten > 0;
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
        return withCredentials(ZDCredentialSource::Reason::Unauthorized, [this] {
            if (entry.sessionURL.isEmpty())
                createSession();
            else if (protocol == ZDUploadProtocol::Multipart)
                sendMultipart();
            else
                queryOffset();
        });
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
    if (step == Step::SendChunk &&
        (status == 460 || (status == 400 && checksums && protocol != ZDUploadProtocol::Tus &&
                           body.contains("hecksum")))) {
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
        QVariantMap info = reason.userInfo();
        info.insert(ZDRetriesExhaustedKey, true);
        return fail(ZDError(reason.domain(), reason.code(), info));
    }
    step = Step::Waiting;
    if (!reason.isNull()) {
        if (ZDResumableUploadDelegate *target = delegate.get(); target && q)
            target->uploadWillRetry(q, reason, delay, entry.offset);
        if (!q || step != Step::Waiting)
            return;
    }
    waitedMsecs += delay;
    std::weak_ptr<ZDResumableUploadPrivate> weak = weak_from_this();
    timer = clock->callAfter(delay, [weak] {
        const auto self = weak.lock();
        if (!self || self->step != Step::Waiting)
            return;
        self->timer.reset();
        self->withCredentials(ZDCredentialSource::Reason::BeforeRequest, [raw = self.get()] {
            if (raw->protocol == ZDUploadProtocol::Multipart)
                raw->sendMultipart();
            else if (raw->entry.sessionURL.isEmpty())
                raw->createSession();
            else
                raw->queryOffset();
        });
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
    const bool resumable = (error.userInfo().value(ZDRetriesExhaustedKey).toBool() &&
                            protocol != ZDUploadProtocol::Multipart) ||
                           (error.domain() == ZDResumableUploadErrorDomain &&
                            error.code() == ZDResumableUploadErrorAlreadyRunning);
    if (!resumable)
        dropJournal();
    stop();
    step = Step::Done;
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
    if (journal && protocol != ZDUploadProtocol::Multipart && !entry.sessionURL.isEmpty())
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
        if (protocol != ZDUploadProtocol::Multipart)
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
    wanted = std::clamp(wanted / granularity * granularity, granularity,
                        std::max(granularity, kMaximumChunk / granularity * granularity));
    chunkSize = wanted;
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
    std::unique_ptr<ZDUploadRequest> done = std::move(request);
    const ZDHTTPResponse response = done->response().value_or(ZDHTTPResponse());
    const QByteArray body = done->body();
    switch (step) {
    case Step::Create:
        return createAnswered(response);
    case Step::QueryOffset:
        return offsetAnswered(response);
    case Step::SendChunk:
        return chunkAnswered(response, body);
    case Step::Multipart:
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
    std::unique_ptr<ZDUploadRequest> done = std::move(request);
    requestFailed(error, done->response(), done->body());
}

void ZDResumableUploadPrivate::requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *from,
                                                                    qint64 written, qint64)
{
    if (from != request.get() || (step != Step::SendChunk && step != Step::Multipart))
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
    : d(std::make_shared<ZDResumableUploadPrivate>())
{
    d->q = this;
    d->delegate = delegate;
    d->protocol = protocol;
    d->endpoint = endpoint;
    d->filePath = filePath;
    d->entry.id = QUuid::createUuid().toString(QUuid::WithoutBraces);
    d->entry.protocol = protocol;
    d->entry.endpoint = endpoint;
}

ZDResumableUpload::ZDResumableUpload(const ZDUploadJournalEntry &entry,
                                     ZDResumableUploadDelegate *delegate)
    : ZDResumableUpload(entry.protocol, entry.endpoint, entry.file.path, delegate)
{
    d->entry = entry;
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
