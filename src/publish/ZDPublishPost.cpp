#include "publish/ZDPublishPost.h"

#include "core/ZDAssert.h"
#include "net/JSONHTTPRequest.h"
#include "net/ZDResumableUpload.h"
#include "net/ZDURLRequest.h"
#include "resources/ZDLocalizedString.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>
#include <utility>

using namespace Qt::StringLiterals;

const QString ZDPublishErrorDomain = u"ZDPublishErrorDomain"_s;
const QString ZDInvalidFieldKey = u"field"_s;

namespace {

constexpr qsizetype kKeptBodyBytes = 64 * 1024;
constexpr double kRateTimeConstantMsecs = 5000;
constexpr qint64 kFirstRateAfterMsecs = 1000;

QString sentenceKey(ZDPublishErrorKind kind)
{
    switch (kind) {
    case ZDPublishErrorKind::SignInAgain:
        return u"PUBLISH_ERROR_SIGN_IN_AGAIN"_s;
    case ZDPublishErrorKind::QuotaOrRateLimit:
        return u"PUBLISH_ERROR_QUOTA_OR_RATE_LIMIT"_s;
    case ZDPublishErrorKind::InvalidField:
        return u"PUBLISH_ERROR_INVALID_FIELD"_s;
    case ZDPublishErrorKind::FileTooLarge:
        return u"PUBLISH_ERROR_FILE_TOO_LARGE"_s;
    case ZDPublishErrorKind::FileChangedOrUnreadable:
        return u"PUBLISH_ERROR_FILE_CHANGED_OR_UNREADABLE"_s;
    case ZDPublishErrorKind::Network:
        return u"PUBLISH_ERROR_NETWORK"_s;
    case ZDPublishErrorKind::ServiceFailure:
        return u"PUBLISH_ERROR_SERVICE_FAILURE"_s;
    case ZDPublishErrorKind::Cancelled:
        return u"PUBLISH_ERROR_CANCELLED"_s;
    }
    return u"PUBLISH_ERROR_SERVICE_FAILURE"_s;
}

QString fieldFromBody(const QByteArray &body)
{
    const QJsonObject object = QJsonDocument::fromJson(body).object();
    for (const QJsonObject &candidate : {object, object.value(u"error"_s).toObject()}) {
        for (const QString &key : {u"field"_s, u"param"_s}) {
            if (candidate.value(key).isString())
                return candidate.value(key).toString();
        }
    }
    return QString();
}

bool namesALimit(const QByteArray &body)
{
    const QByteArray lower = body.toLower();
    return lower.contains("quota") || lower.contains("rate limit") || lower.contains("ratelimit") ||
           lower.contains("limit exceeded");
}

ZDPublishErrorKind kindOf(const ZDError &error, const QByteArray &body)
{
    const QString domain = error.domain();
    if (domain == ZDPublishErrorDomain)
        return ZDPublishErrorKind(error.code());
    if (domain == ZDResumableUploadErrorDomain) {
        switch (error.code()) {
        case ZDResumableUploadErrorCredentialsUnavailable:
            return ZDPublishErrorKind::SignInAgain;
        case ZDResumableUploadErrorFileChanged:
        case ZDResumableUploadErrorFileUnreadable:
            return ZDPublishErrorKind::FileChangedOrUnreadable;
        default:
            return ZDPublishErrorKind::ServiceFailure;
        }
    }
    if (domain == ZDCurlErrorDomain)
        return ZDPublishErrorKind::Network;
    if (domain == ZDURLErrorDomain)
        return error.code() == ZDURLErrorBodyFileUnreadable
                   ? ZDPublishErrorKind::FileChangedOrUnreadable
                   : ZDPublishErrorKind::Network;
    if (domain == JSONHTTPRequestErrorDomain && error.code() == JSONHTTPRequestErrorBadStatus) {
        const int status =
            error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode();
        if (status == 429 || namesALimit(body))
            return ZDPublishErrorKind::QuotaOrRateLimit;
        if (status == 401)
            return ZDPublishErrorKind::SignInAgain;
        if (status == 413)
            return ZDPublishErrorKind::FileTooLarge;
        if (status == 400 || status == 422)
            return ZDPublishErrorKind::InvalidField;
    }
    return ZDPublishErrorKind::ServiceFailure;
}

} // namespace

ZDPublishErrorKind ZDPublishErrorKindForError(const ZDError &error)
{
    return kindOf(error, error.userInfo().value(ZDResponseBodyKey).toByteArray());
}

ZDError ZDPublishErrorWithKind(ZDPublishErrorKind kind, const ZDError &underlying,
                               const QString &field)
{
    // A refusal that names no field gets a sentence that names none either.
    const bool unnamed = kind == ZDPublishErrorKind::InvalidField && field.isEmpty();
    QString sentence =
        ZDLocalizedString(unnamed ? u"PUBLISH_ERROR_INVALID_REQUEST"_s : sentenceKey(kind));
    if (kind == ZDPublishErrorKind::InvalidField && !unnamed)
        sentence = sentence.arg(field);
    QVariantMap info{{ZDLocalizedDescriptionKey, sentence}};
    if (!underlying.isNull()) {
        info.insert(ZDUnderlyingErrorKey, QVariant::fromValue(underlying));
        if (underlying.userInfo().contains(ZDResponseBodyKey))
            info.insert(ZDResponseBodyKey, underlying.userInfo().value(ZDResponseBodyKey));
    }
    if (kind == ZDPublishErrorKind::InvalidField)
        info.insert(ZDInvalidFieldKey, field);
    return ZDError(ZDPublishErrorDomain, qint64(kind), info);
}

ZDError ZDPublishErrorWithError(const ZDError &underlying, const QByteArray &body)
{
    if (underlying.domain() == ZDPublishErrorDomain)
        return underlying;
    QByteArray kept =
        body.isNull() ? underlying.userInfo().value(ZDResponseBodyKey).toByteArray() : body;
    kept.truncate(kKeptBodyBytes);
    ZDError carried = underlying;
    if (!kept.isEmpty() && !underlying.userInfo().contains(ZDResponseBodyKey)) {
        QVariantMap info = underlying.userInfo();
        info.insert(ZDResponseBodyKey, kept);
        carried = ZDError(underlying.domain(), underlying.code(), info);
    }
    const ZDPublishErrorKind kind = kindOf(underlying, kept);
    return ZDPublishErrorWithKind(
        kind, carried, kind == ZDPublishErrorKind::InvalidField ? fieldFromBody(kept) : QString());
}

void ZDPublishPostDelegate::publishPostDidUpdateProgress(ZDPublishPost *, const ZDPublishProgress &)
{}

// --- the job's own state ------------------------------------------------------------

class ZDPublishPost::Private : public ZDResumableUploadDelegate
{
public:
    explicit Private(ZDPublishPost *owner) : q(owner) {}

    ZDPublishPost *q;
    ZDPublishProgress progress;
    bool ended = false;
    std::shared_ptr<ZDUploadClock> clock;
    qint64 lastSampleAt = -1;
    qint64 lastSampleBytes = 0;
    qint64 firstSampleAt = -1;

    ZDUploadClock &time()
    {
        if (!clock)
            clock = ZDUploadClock::systemClock();
        return *clock;
    }

    void sample(qint64 written)
    {
        const qint64 now = time().msecsNow();
        if (lastSampleAt < 0 || written < lastSampleBytes) {
            // The first sample, or the count went back after a failure.
            lastSampleAt = now;
            lastSampleBytes = written;
            if (firstSampleAt < 0)
                firstSampleAt = now;
            return;
        }
        const qint64 elapsed = now - lastSampleAt;
        if (elapsed <= 0)
            return;
        const double instant = double(written - lastSampleBytes) * 1000.0 / double(elapsed);
        const double weight = 1.0 - std::exp(-double(elapsed) / kRateTimeConstantMsecs);
        progress.bytesPerSecond =
            progress.bytesPerSecond <= 0
                ? instant
                : progress.bytesPerSecond + weight * (instant - progress.bytesPerSecond);
        lastSampleAt = now;
        lastSampleBytes = written;
        if (now - firstSampleAt >= kFirstRateAfterMsecs && progress.bytesPerSecond > 0) {
            progress.etaMsecs = qint64(double(std::max<qint64>(progress.expected - written, 0)) *
                                       1000.0 / progress.bytesPerSecond);
        }
    }

    // Both return whether the job is still alive: its delegate may destroy it.
    bool tell()
    {
        const std::weak_ptr<const void> alive = weakToken();
        if (ZDPublishPostDelegate *target = q->delegate())
            target->publishPostDidUpdateProgress(q, progress);
        return !alive.expired();
    }
    bool tellCount()
    {
        const std::weak_ptr<const void> alive = weakToken();
        if (ZDPublishPostDelegate *target = q->delegate())
            target->publishPostHasWrittenBytesExpectsToWrite(q, progress.written,
                                                             progress.expected);
        return !alive.expired();
    }

    // After a failure the service's offset is the truth. The phase is told
    // first and the count after it, so that a host knows why its bar moves.
    template <class TellPhase>
    void moveToOffset(ZDResumableUpload *upload, qint64 offset, TellPhase tellPhase)
    {
        if (ended)
            return;
        const qint64 total = upload ? upload->totalBytes() : progress.expected;
        const bool moved = offset != progress.written || total != progress.expected;
        progress.written = offset;
        progress.expected = total;
        lastSampleAt = -1; // a jump is no transfer: the rate goes on from here
        const std::weak_ptr<const void> alive = weakToken();
        tellPhase();
        if (moved && !alive.expired() && !ended)
            tellCount();
    }

    // The relay for a ZDResumableUpload.
    void uploadDidFinish(ZDResumableUpload *, const QVariant &response) override
    {
        q->_uploadDidFinish(response);
    }
    void uploadDidFailWithError(ZDResumableUpload *, const ZDError &error) override
    {
        q->_uploadDidFail(error);
    }
    void uploadHasSentBytes(ZDResumableUpload *, qint64 sent, qint64 total) override
    {
        q->_relayProgress(sent, total);
    }
    void uploadWillRetry(ZDResumableUpload *upload, const ZDError &reason, qint64 delayMsecs,
                         qint64 confirmedOffset) override
    {
        moveToOffset(upload, confirmedOffset,
                     [&] { q->_setWaitingToRetry(ZDPublishErrorWithError(reason), delayMsecs); });
    }
    void uploadDidResume(ZDResumableUpload *upload, qint64 offset) override
    {
        moveToOffset(upload, offset, [&] { q->_setPhase(ZDPublishPhase::Resuming); });
    }

    bool relayHandedOut = false;
    std::shared_ptr<void> preparingReport;
};

ZDPublishPost::ZDPublishPost(ZDPublishPostDelegate *delegate)
    : m_delegate(delegate), d(std::make_unique<Private>(this))
{}

ZDPublishPost::~ZDPublishPost() = default;

void ZDPublishPost::startUpload() {}

const ZDPublishProgress &ZDPublishPost::progress() const
{
    return d->progress;
}
bool ZDPublishPost::hasEnded() const
{
    return d->ended;
}
void ZDPublishPost::setClock(std::shared_ptr<ZDUploadClock> clock)
{
    d->clock = std::move(clock);
}

void ZDPublishPost::_relayProgress(qint64 written, qint64 expected)
{
    if (d->ended)
        return;
    d->progress.expected = expected;
    d->sample(written);
    d->progress.written = written;
    d->progress.phase = expected > 0 && written >= expected ? ZDPublishPhase::ServerProcessing
                                                            : ZDPublishPhase::Sending;
    d->progress.retryReason = ZDError();
    d->progress.retryInMsecs = 0;
    if (d->tellCount())
        d->tell();
}

void ZDPublishPost::_setPhase(ZDPublishPhase phase)
{
    if (d->ended)
        return;
    d->progress.phase = phase;
    if (phase != ZDPublishPhase::WaitingToRetry) {
        d->progress.retryReason = ZDError();
        d->progress.retryInMsecs = 0;
    }
    d->tell();
}

void ZDPublishPost::_setWaitingToRetry(const ZDError &reason, qint64 retryInMsecs)
{
    if (d->ended)
        return;
    d->progress.phase = ZDPublishPhase::WaitingToRetry;
    d->progress.retryReason = reason;
    d->progress.retryInMsecs = retryInMsecs;
    d->tell();
}

void ZDPublishPost::_succeed()
{
    ZD_ASSERT(!d->ended, "ZDPublishPost::_succeed (the job has already ended)");
    d->ended = true;
    if (ZDPublishPostDelegate *target = delegate())
        target->publishPostSucceeded(this);
}

void ZDPublishPost::_failWithError(const ZDError &error, const QByteArray &body)
{
    ZD_ASSERT(!d->ended, "ZDPublishPost::_failWithError (the job has already ended)");
    d->ended = true;
    const ZDError classified = ZDPublishErrorWithError(error, body);
    if (ZDPublishPostDelegate *target = delegate())
        target->publishPostDidFailWithError(this, classified);
}

ZDResumableUploadDelegate *ZDPublishPost::uploadRelay()
{
    if (!std::exchange(d->relayHandedOut, true)) {
        // Usually called inside startUpload(), where the delegate must not hear
        // from the job yet (it may destroy it): the phase follows from the loop.
        Private *state = d.get();
        d->preparingReport = d->time().callAfter(0, [state, alive = state->weakToken()] {
            if (!alive.expired() && !state->ended &&
                state->progress.phase == ZDPublishPhase::Preparing)
                state->tell();
        });
    }
    return d.get();
}

void ZDPublishPost::_uploadDidFinish(const QVariant &)
{
    _succeed();
}

void ZDPublishPost::_uploadDidFail(const ZDError &error)
{
    _failWithError(error);
}
