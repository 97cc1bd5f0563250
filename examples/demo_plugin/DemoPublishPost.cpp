#include "DemoPublishPost.h"

#include "DemoAuthenticator.h"
#include "DemoVideo.h"

#include <host/FileSizeFormatter.h>
#include <net/ZDDigest.h>
#include <net/ZDFileUpload.h>
#include <net/ZDURLRequest.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QTimer>

using namespace Qt::StringLiterals;

namespace {

// What the system says is available now (MemAvailable), or no limit when it
// does not say.
qint64 availableMemory()
{
    QFile meminfo(u"/proc/meminfo"_s);
    if (!meminfo.open(QIODevice::ReadOnly))
        return std::numeric_limits<qint64>::max();
    for (const QByteArray &line : meminfo.readAll().split('\n')) {
        if (line.startsWith("MemAvailable:")) {
            const QList<QByteArray> fields = line.simplified().split(' ');
            bool ok = false;
            const qint64 kib = fields.value(1).toLongLong(&ok);
            if (ok)
                return kib * 1024;
        }
    }
    return std::numeric_limits<qint64>::max();
}

// The service's explanation in a refusal's JSON body ({"error": "..."}), if any.
QString refusalReason(const QByteArray &body)
{
    return QJsonDocument::fromJson(body).object().value(u"error").toString();
}

// The service's answer for a published video, if it names one.
std::optional<DemoPublishedVideo> publishedVideoIn(const QVariant &response)
{
    const QVariantMap answer = response.toMap();
    DemoPublishedVideo published{
        answer.value(u"id"_s).toString(), QUrl(answer.value(u"url"_s).toString()),
        answer.value(u"md5"_s).toString(), answer.value(u"bytes"_s).toLongLong()};
    if (published.id.isEmpty() || !published.url.isValid() || published.md5.isEmpty())
        return std::nullopt;
    return published;
}

QString sizeText(qint64 bytes)
{
    return FileSizeFormatter(float(bytes), 1);
}

} // namespace

bool isCancellation(const ZDError &error)
{
    if (error.domain() == ZDPublishErrorDomain)
        return ZDPublishErrorKindForError(error) == ZDPublishErrorKind::Cancelled;
    return error.domain() == DemoVideo::ErrorDomain && error.code() == DemoVideo::ErrorCancelled;
}

DemoPublishPost::DemoPublishPost(ZDPublishPostDelegate *delegate, DemoVideoDetails details,
                                 DemoUploadOptions options)
    : ZDPublishPost(delegate), m_details(std::move(details)), m_options(options)
{}

DemoPublishPost::DemoPublishPost(ZDPublishPostDelegate *delegate,
                                 const ZDUploadJournalEntry &interrupted, DemoUploadOptions options)
    : ZDPublishPost(delegate), m_details(detailsOfInterruptedUpload(interrupted)),
      m_options(options), m_interrupted(interrupted)
{
    m_options.mode = DemoUploadOptions::Mode::Resumable;
}

DemoPublishPost::~DemoPublishPost() = default;

ZDUploadJournal demoUploadJournal(const DemoUploadOptions &options)
{
    return ZDUploadJournal(options.journalDirectory);
}

DemoVideoDetails DemoPublishPost::detailsOfInterruptedUpload(const ZDUploadJournalEntry &entry)
{
    const QVariantMap &fields = entry.metadata;
    return DemoVideoDetails{entry.file.path,
                            fields.value(u"title"_s).toString(),
                            fields.value(u"description"_s).toString(),
                            fields.value(u"tags"_s).toString().split(u',', Qt::SkipEmptyParts),
                            fields.value(u"category"_s).toString(),
                            fields.value(u"access"_s).toString()};
}

std::optional<QVariant> DemoPublishPost::videoPart(ZDError &error)
{
    const QFileInfo info(m_details.path);
    QFile file(m_details.path);
    if (!info.exists()) {
        error = DemoVideo::error(
            DemoVideo::ErrorFileUnreadable,
            u"The video file \"%1\" cannot be read: it no longer exists."_s.arg(info.fileName()));
        return std::nullopt;
    }
    if (!info.isFile() || !file.open(QIODevice::ReadOnly)) {
        error = DemoVideo::error(DemoVideo::ErrorFileUnreadable,
                                 u"The video file \"%1\" cannot be read: %2."_s.arg(
                                     info.fileName(), file.errorString()));
        return std::nullopt;
    }
    const qint64 size = info.size();
    m_videoBytes = size;
    const bool streams =
        m_options.mode == DemoUploadOptions::Mode::Streamed ||
        (m_options.mode == DemoUploadOptions::Mode::Automatic && size >= m_options.streamThreshold);
    if (streams)
        return QVariant::fromValue(ZDStreamedFileUpload(m_details.path));

    const qint64 limit = m_options.memoryLimit.value_or(availableMemory());
    if (size > limit / 2) {
        error = DemoVideo::error(
            DemoVideo::ErrorFileTooLarge,
            u"The video (%1) is too large to upload from memory: that needs %2 and %3 is "
            u"available."_s.arg(sizeText(size), sizeText(2 * size), sizeText(limit)));
        return std::nullopt;
    }
    ZDFileUpload upload(m_details.path);
    if (upload.data().isNull() || upload.data().size() != size) {
        error = DemoVideo::error(
            DemoVideo::ErrorFileUnreadable,
            u"The video file \"%1\" could not be read to its end."_s.arg(info.fileName()));
        return std::nullopt;
    }
    return QVariant::fromValue(upload);
}

void DemoPublishPost::startUpload()
{
    if (m_options.mode == DemoUploadOptions::Mode::Resumable) {
        // The engine asks the OAuth 2.0 authenticator itself, before every
        // request and after a 401.
        sendResumable(DemoAuthenticator::usesOAuth2()
                          ? nullptr
                          : DemoAuthenticator::sharedAuthenticator()->accountSigner());
        return;
    }
    if (DemoAuthenticator::usesOAuth2()) {
        // Fresh credentials first: the token is renewed when it expires soon.
        DemoAuthenticator::sharedOAuth2Authenticator()->credentialsForRequest(
            ZDCredentialSource::Reason::BeforeRequest,
            [this, alive = QPointer<QObject>(&m_context)](std::shared_ptr<RequestSigner> signer,
                                                          std::optional<ZDError> error) {
                if (!alive)
                    return;
                if (error)
                    fail(DemoVideo::error(DemoVideo::ErrorSignInExpired,
                                          u"Sign in to Demo Video before publishing."_s, *error));
                else
                    sendUpload(signer);
            });
        return;
    }
    sendUpload(DemoAuthenticator::sharedAuthenticator()->accountSigner());
}

QVariantMap DemoPublishPost::textFields() const
{
    QVariantMap fields{{u"title"_s, m_details.title},
                       {u"description"_s, m_details.description},
                       {u"tags"_s, m_details.tags.join(u',')},
                       {u"access"_s, m_details.access}};
    if (!m_details.category.isEmpty())
        fields.insert(u"category"_s, m_details.category);
    return fields;
}

void DemoPublishPost::sendResumable(const std::shared_ptr<RequestSigner> &signer)
{
    const bool oauth2 = DemoAuthenticator::usesOAuth2();
    if (!signer && !oauth2) {
        QTimer::singleShot(0, &m_context, [this] {
            _failWithError(ZDPublishErrorWithKind(
                ZDPublishErrorKind::SignInAgain,
                DemoVideo::error(DemoVideo::ErrorSignInExpired,
                                 u"Sign in to Demo Video before publishing."_s)));
        });
        return;
    }
    const QUrl endpoint = DemoVideo::endpoint(u"api/uploads"_s);
    if (m_interrupted) {
        // The demo service may come back on another address (run-demo picks a
        // free port each time) while it keeps its sessions: the session goes
        // on at the service as it is reached now.
        ZDUploadJournalEntry entry = *m_interrupted;
        if (entry.endpoint != endpoint) {
            QUrl session = endpoint.resolved(QUrl(entry.sessionURL.path()));
            session.setQuery(entry.sessionURL.query());
            entry.sessionURL = session;
            entry.endpoint = endpoint;
        }
        m_upload = std::make_unique<ZDResumableUpload>(entry, uploadRelay());
    } else {
        m_upload = std::make_unique<ZDResumableUpload>(ZDUploadProtocol::ResumeIncomplete, endpoint,
                                                       m_details.path, uploadRelay());
        m_upload->setMetadata(textFields());
    }
    m_upload->setJournal(demoUploadJournal(m_options));
    if (oauth2)
        m_upload->setCredentialSource(DemoAuthenticator::sharedOAuth2Authenticator());
    else
        m_upload->setSigner(signer);
    m_upload->setServerDigestKey(u"md5"_s, ZDDigestAlgorithm::MD5);
    m_upload->setAllowsCellularAccess(allowsCellularAccessForUploads());
    m_upload->start();
}

void DemoPublishPost::_uploadDidFail(const ZDError &error)
{
    const ZDError classified = ZDPublishErrorWithError(error);
    const int status =
        error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode();
    const QString reason = refusalReason(error.userInfo().value(ZDResponseBodyKey).toByteArray());
    QString sentence;
    switch (ZDPublishErrorKindForError(classified)) {
    case ZDPublishErrorKind::SignInAgain:
        // The token was revoked or expired: the user has to sign in again.
        DemoAuthenticator::activeAuthenticator()->invalidateAuthentication();
        sentence =
            u"Demo Video no longer accepts your sign-in. Sign in again and publish once more."_s;
        break;
    case ZDPublishErrorKind::InvalidField:
    case ZDPublishErrorKind::QuotaOrRateLimit:
    case ZDPublishErrorKind::FileTooLarge:
    case ZDPublishErrorKind::ServiceFailure:
        if (!reason.isEmpty() && status > 0)
            sentence =
                u"Demo Video refused the video: %1 (HTTP status %2)"_s.arg(reason).arg(status);
        break;
    case ZDPublishErrorKind::Network:
        sentence = u"The connection to Demo Video failed: %1"_s.arg(error.localizedDescription());
        break;
    case ZDPublishErrorKind::FileChangedOrUnreadable:
        if (m_interrupted && error.domain() == ZDResumableUploadErrorDomain &&
            error.code() == ZDResumableUploadErrorFileChanged)
            sentence = u"\"%1\" has changed since its upload was interrupted, so the upload was "
                       u"not resumed. Publish the video again to send it as it is now."_s.arg(
                           QFileInfo(m_details.path).fileName());
        break;
    default:
        break;
    }
    if (sentence.isEmpty())
        return _failWithError(classified);
    QVariantMap info = classified.userInfo();
    info.insert(ZDLocalizedDescriptionKey, sentence);
    _failWithError(ZDError(classified.domain(), classified.code(), info));
}

void DemoPublishPost::_uploadDidFinish(const QVariant &response)
{
    m_published = publishedVideoIn(response);
    if (!m_published)
        return _failWithError(ZDPublishErrorWithKind(
            ZDPublishErrorKind::ServiceFailure,
            ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorNoResult)));
    _succeed();
}

void DemoPublishPost::sendUpload(const std::shared_ptr<RequestSigner> &signer)
{
    if (!signer) {
        failLater(DemoVideo::error(DemoVideo::ErrorSignInExpired,
                                   u"Sign in to Demo Video before publishing."_s));
        return;
    }
    ZDError error;
    const std::optional<QVariant> video = videoPart(error);
    if (!video) {
        failLater(error);
        return;
    }

    m_request =
        std::make_unique<JSONHTTPRequest>(DemoVideo::endpoint(u"api/videos"_s), this, signer);
    m_request->setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    m_request->setResponseType(JSONHTTPResponseTypeJSON);
    m_request->setAllowsCellularAccess(allowsCellularAccessForUploads());
    // Every text field is covered by the signature; the video is not.
    m_request->setSignsMultipartPOSTData(true);
    // The size lets the service tell a complete upload from one cut off.
    QVariantMap fields = textFields();
    fields.insert(u"size"_s, QString::number(m_videoBytes));
    m_request->setPostParams(fields);
    m_request->setUnsignedPostParams(QVariantMap{{u"video"_s, *video}});
    m_request->start();
}

void DemoPublishPost::cancel()
{
    if (m_upload && !hasEnded()) {
        m_upload->abort(); // nothing resumes it later: the session goes too
        QTimer::singleShot(0, &m_context, [this] {
            if (!hasEnded())
                _failWithError(ZDPublishErrorWithKind(ZDPublishErrorKind::Cancelled));
        });
        return;
    }
    if (!m_request)
        return;
    m_request.reset();
    failLater(DemoVideo::error(DemoVideo::ErrorCancelled, u"Publishing was cancelled."_s));
}

void DemoPublishPost::failLater(const ZDError &error)
{
    QTimer::singleShot(0, &m_context, [this, error] { fail(error); });
}

void DemoPublishPost::fail(const ZDError &error)
{
    if (ZDPublishPostDelegate *target = delegate())
        target->publishPostDidFailWithError(this, error);
}

void DemoPublishPost::requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *, qint64 written,
                                                           qint64 expected)
{
    if (ZDPublishPostDelegate *target = delegate())
        target->publishPostHasWrittenBytesExpectsToWrite(this, written, expected);
}

void DemoPublishPost::requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object)
{
    m_published = publishedVideoIn(object);
    if (!m_published) {
        requestDidFailWithError(request,
                                ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorNoResult));
        return;
    }
    m_request.reset();
    if (ZDPublishPostDelegate *target = delegate())
        target->publishPostSucceeded(this);
}

void DemoPublishPost::requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error)
{
    const QString reason =
        request ? refusalReason(request->responseBody().value_or(QByteArray())) : QString();
    m_request.reset();
    ZDError reported;
    if (error.domain() == JSONHTTPRequestErrorDomain &&
        error.code() == JSONHTTPRequestErrorBadStatus) {
        const int status =
            error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode();
        if (status == 401) {
            // The token was revoked or expired: the user has to sign in again.
            DemoAuthenticator::activeAuthenticator()->invalidateAuthentication();
            reported = DemoVideo::error(
                DemoVideo::ErrorSignInExpired,
                u"Demo Video no longer accepts your sign-in. Sign in again and publish once more."_s,
                error);
        } else {
            reported = DemoVideo::error(
                DemoVideo::ErrorRefused,
                reason.isEmpty()
                    ? u"Demo Video refused the video (HTTP status %1)."_s.arg(status)
                    : u"Demo Video refused the video: %1 (HTTP status %2)"_s.arg(reason).arg(
                          status),
                error);
        }
    } else if (error.domain() == ZDURLErrorDomain && error.code() == ZDURLErrorBodyFileUnreadable) {
        reported = DemoVideo::error(
            DemoVideo::ErrorFileUnreadable,
            u"The video file changed or went away while it was being sent."_s, error);
    } else if (error.domain() == JSONHTTPRequestErrorDomain ||
               error.domain() == ZDJSONErrorDomain) {
        reported = DemoVideo::error(DemoVideo::ErrorBadAnswer,
                                    u"Demo Video sent an answer that could not be read."_s, error);
    } else {
        reported = DemoVideo::error(
            DemoVideo::ErrorConnection,
            u"The connection to Demo Video failed: %1"_s.arg(error.localizedDescription()), error);
    }
    fail(reported);
}
