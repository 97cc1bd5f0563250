#include "DemoResumableUpload.h"

#include "DemoIncomingUpload.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QScopeGuard>

#include <chrono>
#include <thread>

#include <unistd.h>

using namespace Qt::StringLiterals;
using namespace DemoHttp;

namespace {

constexpr char16_t kSessionFile[] = u"session.json";

const QRegularExpression &sessionIdPattern()
{
    static const QRegularExpression pattern(u"^[a-z0-9]{24}$"_s);
    return pattern;
}

void refuse(httplib::Response &res, int status, const QString &message)
{
    replyJsonError(res, status, message);
    closeAfterReply(res);
}

// "Range: bytes=0-n" for the bytes a session holds; no header while it holds none.
void setRange(httplib::Response &res, qint64 offset)
{
    if (offset > 0)
        res.set_header("Range", "bytes=0-" + std::to_string(offset - 1));
}

// The text fields of a session's JSON body: tags may come as a list.
QHash<QString, QString> textFields(const QJsonObject &body)
{
    QHash<QString, QString> field;
    for (const char16_t *name : {u"title", u"description", u"category", u"access", u"name"}) {
        if (body.contains(name))
            field.insert(QString::fromUtf16(name), body.value(name).toVariant().toString());
    }
    const QJsonValue tags = body.value(u"tags");
    if (tags.isArray()) {
        QStringList list;
        for (const QJsonValue &tag : tags.toArray())
            list << tag.toString();
        field.insert(u"tags"_s, list.join(u','));
    } else if (tags.isString()) {
        field.insert(u"tags"_s, tags.toString());
    }
    return field;
}

// The base64 SHA-1 a "Digest" header names ("sha=..."), or nothing.
std::optional<QByteArray> shaDigest(const QByteArray &header)
{
    for (const QByteArray &item : header.split(',')) {
        const QByteArray trimmed = item.trimmed();
        if (trimmed.startsWith("sha=") || trimmed.startsWith("SHA="))
            return QByteArray::fromBase64(trimmed.mid(4));
    }
    return std::nullopt;
}

} // namespace

ResumableUploads::ResumableUploads(const Settings &settings, DemoOAuth::Verifier *oauth,
                                   DemoOAuth2::Issuer *oauth2)
    : m_settings(settings), m_oauth(oauth), m_oauth2(oauth2)
{}

QString ResumableUploads::folder(const QString &id) const
{
    return m_settings.sessionsPath + u'/' + id;
}

bool ResumableUploads::prepare()
{
    if (!QDir().mkpath(m_settings.sessionsPath))
        return false;
    // A session the process was publishing when it ended has lost its
    // session.json; its bytes are of no use.
    for (const QString &id :
         QDir(m_settings.sessionsPath).entryList(QDir::AllEntries | QDir::NoDotAndDotDot)) {
        const QString path = folder(id);
        if (!sessionIdPattern().match(id).hasMatch() ||
            !QFileInfo::exists(path + u'/' + QString::fromUtf16(kSessionFile))) {
            if (!QDir(path).removeRecursively() && !QFile::remove(path))
                return false;
        }
    }
    removeExpired();
    return true;
}

void ResumableUploads::removeExpired()
{
    const QDateTime oldest =
        QDateTime::currentDateTimeUtc().addSecs(-m_settings.sessionLifetimeSeconds);
    const std::lock_guard lock(m_mutex);
    for (const QFileInfo &info :
         QDir(m_settings.sessionsPath).entryInfoList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (m_busy.contains(info.fileName()))
            continue;
        // Every request on a session touches its folder's newest file.
        QDateTime touched = info.lastModified();
        for (const QFileInfo &file : QDir(info.filePath()).entryInfoList(QDir::Files))
            touched = std::max(touched, file.lastModified());
        if (touched < oldest)
            QDir(info.filePath()).removeRecursively();
    }
}

std::optional<QString> ResumableUploads::authorize(const httplib::Request &req,
                                                   httplib::Response &res)
{
    const QByteArray authorization = headerValue(req, "Authorization");
    if (std::optional<QString> account = m_oauth2->accountForAuthorization(authorization))
        return account;
    if (authorization.startsWith("Bearer ")) {
        res.set_header("WWW-Authenticate", R"(Bearer error="invalid_token")");
        refuse(res, 401, u"invalid_token"_s);
        return std::nullopt;
    }
    const std::optional<DemoOAuth::OAuthParameters> oauth =
        DemoOAuth::oauthParameters(authorization);
    if (!oauth) {
        refuse(res, 401, u"missing_or_malformed_authorization"_s);
        return std::nullopt;
    }
    DemoOAuth::Verifier::Credentials credentials;
    QString reason = m_oauth->check(*oauth, true, credentials);
    if (reason.isEmpty() &&
        !DemoOAuth::Verifier::verify(req, {}, *oauth, credentials.tokenSecret, m_port))
        reason = u"invalid_signature"_s;
    if (reason.isEmpty())
        reason = m_oauth->acceptNonce(*oauth, credentials);
    if (!reason.isEmpty()) {
        refuse(res, 401, reason);
        return std::nullopt;
    }
    return credentials.account;
}

void ResumableUploads::open(const httplib::Request &req, httplib::Response &res,
                            const httplib::ContentReader &reader)
{
    const std::optional<QString> account = authorize(req, res);
    if (!account)
        return;
    bool sized = false;
    const qint64 total = headerValue(req, "X-Upload-Content-Length").toLongLong(&sized);
    if (!sized || total <= 0)
        return refuse(res, 400,
                      u"The session needs the video's size in X-Upload-Content-Length."_s);
    const std::optional<QByteArray> body = readSmallBody(req, reader);
    if (!body)
        return refuse(res, 413, u"The session's metadata is too large."_s);
    const QJsonDocument document = QJsonDocument::fromJson(*body);
    if (!document.isObject())
        return refuse(res, 400, u"The session's metadata must be a JSON object."_s);
    const QHash<QString, QString> field = textFields(document.object());
    if (const QString problem = videoFieldsProblem(field); !problem.isEmpty())
        return refuse(res, 400, problem);

    removeExpired();
    const QString id = randomString(24, u"abcdefghijklmnopqrstuvwxyz0123456789");
    QJsonObject meta;
    for (auto it = field.cbegin(); it != field.cend(); ++it)
        meta.insert(it.key(), it.value());
    const QJsonObject stored{{u"fields"_s, meta},
                             {u"account"_s, *account},
                             {u"total"_s, total},
                             {u"video"_s, storedVideoName(field.value(u"name"_s))}};
    QFile file(folder(id) + u"/video.part"_s);
    if (!QDir(m_settings.sessionsPath).mkdir(id) || !file.open(QIODevice::WriteOnly))
        return refuse(res, 500, u"The session could not be stored."_s);
    file.close();
    // session.json last: a folder without it is not a session.
    QFile session(folder(id) + u'/' + QString::fromUtf16(kSessionFile));
    if (!session.open(QIODevice::WriteOnly) || session.write(QJsonDocument(stored).toJson()) < 0 ||
        !session.flush())
        return refuse(res, 500, u"The session could not be stored."_s);

    QUrl location = DemoOAuth::signedUrl(req, m_port);
    location.setPath(u"/api/uploads/"_s + id);
    res.set_header("Location", location.toString().toStdString());
    replyJson(res, 201, {{u"session"_s, id}});
}

std::optional<ResumableUploads::Session>
ResumableUploads::acquire(const QString &id, const QString &account, httplib::Response &res)
{
    QFile file(folder(id) + u'/' + QString::fromUtf16(kSessionFile));
    const QJsonObject stored =
        sessionIdPattern().match(id).hasMatch() && file.open(QIODevice::ReadOnly)
            ? QJsonDocument::fromJson(file.readAll()).object()
            : QJsonObject();
    if (stored.isEmpty() || stored.value(u"account").toString() != account) {
        refuse(res, 404, u"No such upload session."_s);
        return std::nullopt;
    }
    {
        const std::lock_guard lock(m_mutex);
        if (m_busy.contains(id)) {
            refuse(res, 409, u"Another request is working on this session."_s);
            return std::nullopt;
        }
        m_busy.insert(id);
    }
    return Session{stored, stored.value(u"total").toInteger(),
                   QFileInfo(folder(id) + u"/video.part"_s).size()};
}

void ResumableUploads::release(const QString &id)
{
    const std::lock_guard lock(m_mutex);
    m_busy.remove(id);
    if (m_abandoned.remove(id))
        QDir(folder(id)).removeRecursively();
}

void ResumableUploads::put(const QString &id, const httplib::Request &req, httplib::Response &res,
                           const httplib::ContentReader &reader)
{
    const std::optional<QString> account = authorize(req, res);
    if (!account)
        return;
    static const QRegularExpression rangePattern(u"^bytes (?:(\\d+)-(\\d+)|\\*)/(\\d+)$"_s);
    const auto range =
        rangePattern.match(QString::fromLatin1(headerValue(req, "Content-Range").trimmed()));
    if (!range.hasMatch())
        return refuse(res, 400, u"A chunk needs Content-Range: bytes a-b/total or */total."_s);
    {
        const std::lock_guard lock(m_mutex);
        if (const auto published = m_published.constFind(id); published != m_published.cend())
            return replyJson(res, 201, *published);
    }
    std::optional<Session> session = acquire(id, *account, res);
    if (!session)
        return;
    const auto releaseSession = qScopeGuard([&] { release(id); });
    if (range.captured(3).toLongLong() != session->total)
        return refuse(res, 400, u"The upload's total is %1 bytes."_s.arg(session->total));

    if (range.capturedLength(1) == 0) { // how far it got
        if (!readSmallBody(req, reader))
            closeAfterReply(res);
        if (session->offset == session->total)
            return finish(id, *session, res);
        setRange(res, session->offset);
        return replyText(res, 308, {});
    }
    const qint64 first = range.captured(1).toLongLong();
    const qint64 last = range.captured(2).toLongLong();
    if (first != session->offset) {
        setRange(res, session->offset);
        return refuse(res, 409,
                      u"The chunk starts at byte %1 but the upload holds %2."_s.arg(first).arg(
                          session->offset));
    }
    bool framed = false;
    const qint64 length = headerValue(req, "Content-Length").toLongLong(&framed);
    if (last < first || last >= session->total || !framed || length != last - first + 1)
        return refuse(res, 400, u"The chunk's Content-Range and Content-Length disagree."_s);

    QFile video(folder(id) + u"/video.part"_s);
    if (!video.open(QIODevice::Append))
        return refuse(res, 500, u"The video could not be stored."_s);
    QCryptographicHash sha1(QCryptographicHash::Sha1);
    qint64 received = 0;
    bool writeFailed = false;
    bool cut = false;
    QElapsedTimer taking;
    taking.start();
    const bool complete = readRawBody(req, reader, [&](const char *data, size_t size) {
        if (video.write(data, qint64(size)) != qint64(size)) {
            writeFailed = true;
            return false;
        }
        sha1.addData(QByteArrayView(data, qsizetype(size)));
        received += qint64(size);
        if (m_settings.dieAfterBytes >= 0 && first + received > m_settings.dieAfterBytes) {
            video.flush();
            ::_exit(70); // as if the machine went down mid-upload
        }
        if (m_settings.cutEveryBytes > 0 &&
            (m_sinceCut += qint64(size)) >= m_settings.cutEveryBytes) {
            m_sinceCut = 0;
            cut = true;
            return false;
        }
        if (m_settings.bytesPerSecond > 0) {
            const qint64 due = received * 1000 / m_settings.bytesPerSecond;
            if (due > taking.elapsed())
                std::this_thread::sleep_for(std::chrono::milliseconds(due - taking.elapsed()));
        }
        return true;
    });
    writeFailed = !video.flush() || writeFailed;
    video.close();
    if (writeFailed) {
        video.resize(first);
        return refuse(res, 500, u"The video could not be stored."_s);
    }
    // Bytes of a dropped connection stay: the next offset query counts them.
    if (cut)
        return refuse(res, 503, u"The connection was cut (the service's fault injection)."_s);
    if (!complete)
        return refuse(res, 400, u"The chunk arrived incomplete."_s);
    if (const auto digest = shaDigest(headerValue(req, "Digest"));
        digest && *digest != sha1.result()) {
        video.resize(first);
        return refuse(res, 400, u"The chunk's checksum does not match its Digest."_s);
    }
    session->offset = first + received;
    if (session->offset == session->total)
        return finish(id, *session, res);
    setRange(res, session->offset);
    replyText(res, 308, {});
}

void ResumableUploads::finish(const QString &id, const Session &session, httplib::Response &res)
{
    const QString path = folder(id);
    QFile sessionFile(path + u'/' + QString::fromUtf16(kSessionFile));
    if (m_settings.rejectUploads) {
        QDir(path).removeRecursively();
        return refuse(res, 422, u"This demo service is not accepting videos right now."_s);
    }
    QFile video(path + u"/video.part"_s);
    QCryptographicHash md5(QCryptographicHash::Md5);
    if (!video.open(QIODevice::ReadOnly) || !md5.addData(&video))
        return refuse(res, 500, u"The video could not be read back."_s);
    video.close();

    QHash<QString, QString> field;
    const QJsonObject fields = session.meta.value(u"fields").toObject();
    for (auto it = fields.begin(); it != fields.end(); ++it)
        field.insert(it.key(), it.value().toString());
    const QString videoId = newVideoId();
    const QString digest = QString::fromLatin1(md5.result().toHex());
    const QJsonObject meta = videoMeta(videoId, field, field.value(u"name"_s), session.total,
                                       digest, session.meta.value(u"account").toString());
    // meta.json and the video's name first, then the folder moves in one
    // rename; session.json goes before, so a crash in between leaves a folder
    // the next start removes rather than a session that claims all its bytes.
    QFile metaFile(path + u"/meta.json"_s);
    const QString videoName = session.meta.value(u"video").toString();
    if (!metaFile.open(QIODevice::WriteOnly) || metaFile.write(QJsonDocument(meta).toJson()) < 0 ||
        !metaFile.flush() || !video.rename(path + u'/' + videoName) || !sessionFile.remove() ||
        !QDir().rename(path, m_settings.videosPath + u'/' + videoId)) {
        QDir(path).removeRecursively();
        return refuse(res, 500, u"The video could not be published."_s);
    }
    const QJsonObject answer{
        {u"id"_s, videoId},
        {u"url"_s, u"http://127.0.0.1:%1/videos/%2"_s.arg(m_port).arg(videoId)},
        {u"md5"_s, digest},
        {u"bytes"_s, session.total}};
    {
        const std::lock_guard lock(m_mutex);
        m_published.insert(id, answer);
    }
    replyJson(res, 201, answer);
}

void ResumableUploads::remove(const QString &id, const httplib::Request &req,
                              httplib::Response &res)
{
    const std::optional<QString> account = authorize(req, res);
    if (!account)
        return;
    {
        // A chunk still arriving on a connection the client gave up: the
        // session goes once that request is done with it.
        const std::lock_guard lock(m_mutex);
        if (m_busy.contains(id)) {
            m_abandoned.insert(id);
            res.status = 204;
            return;
        }
    }
    if (!acquire(id, *account, res))
        return;
    QDir(folder(id)).removeRecursively();
    release(id);
    res.status = 204;
}
