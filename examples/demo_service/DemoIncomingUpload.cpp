#include "DemoIncomingUpload.h"

#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>

#include <unistd.h>

using namespace Qt::StringLiterals;

namespace {

// The text fields of an upload are held in memory until the signature is
// checked, so their number and size are bounded. The video is not.
constexpr qsizetype kMaxTextFieldBytes = 1024 * 1024;
constexpr qsizetype kMaxTextFields = 256;

} // namespace

QString newVideoId()
{
    return DemoHttp::randomString(12, u"abcdefghijklmnopqrstuvwxyz0123456789");
}

QString videoFieldsProblem(const QHash<QString, QString> &field)
{
    if (field.value(u"title"_s).trimmed().isEmpty())
        return u"The video needs a title."_s;
    const QString access = field.value(u"access"_s, u"public"_s);
    if (access != u"public" && access != u"unlisted" && access != u"private")
        return u"Access must be public, unlisted or private."_s;
    return {};
}

QJsonObject videoMeta(const QString &id, const QHash<QString, QString> &field,
                      const QString &filename, qint64 bytes, const QString &md5,
                      const QString &account)
{
    QJsonArray tags;
    for (const QString &tag : field.value(u"tags"_s).split(u',')) {
        if (!tag.trimmed().isEmpty())
            tags.append(tag.trimmed());
    }
    return {
        {u"id"_s, id},
        {u"title"_s, field.value(u"title"_s)},
        {u"description"_s, field.value(u"description"_s)},
        {u"tags"_s, tags},
        {u"category"_s, field.value(u"category"_s)},
        {u"access"_s, field.value(u"access"_s, u"public"_s)},
        {u"filename"_s, filename},
        {u"bytes"_s, bytes},
        {u"md5"_s, md5},
        {u"account"_s, account},
        {u"published"_s, QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
    };
}

const QRegularExpression &videoIdPattern()
{
    static const QRegularExpression pattern(u"^[a-z0-9]{12}$"_s);
    return pattern;
}

QString storedVideoName(const QString &filename)
{
    static const QRegularExpression plainExtension(u"^[A-Za-z0-9]{1,8}$"_s);
    const QString base = filename.section(u'/', -1).section(u'\\', -1);
    const qsizetype dot = base.lastIndexOf(u'.');
    const QString extension = dot <= 0 ? QString() : base.sliced(dot + 1);
    return plainExtension.match(extension).hasMatch() ? u"video."_s + extension.toLower()
                                                      : u"video"_s;
}

std::string videoContentType(const QString &storedName)
{
    if (storedName.endsWith(u".mov"))
        return "video/quicktime";
    if (storedName.endsWith(u".mp4"))
        return "video/mp4";
    if (storedName.endsWith(u".m4v"))
        return "video/x-m4v";
    return DemoHttp::kOctetStream;
}

IncomingUpload::IncomingUpload(const QString &incomingPath, const QString &videosPath,
                               qint64 dieAfterBytes)
    : m_dieAfterBytes(dieAfterBytes)
{
    for (int attempt = 0; attempt < 8 && m_folder.isEmpty(); ++attempt) {
        const QString id = newVideoId();
        if (!QFileInfo::exists(videosPath + u'/' + id) && QDir(incomingPath).mkdir(id)) {
            m_id = id;
            m_folder = incomingPath + u'/' + id;
        }
    }
}

IncomingUpload::~IncomingUpload()
{
    m_video.close();
    if (!m_published && !m_folder.isEmpty())
        QDir(m_folder).removeRecursively();
}

bool IncomingUpload::partBegins(const httplib::MultipartFormData &part)
{
    m_sink = Sink::Discard;
    if (part.name.empty())
        return true;
    if (!part.filename.empty()) {
        if (part.name != "video")
            return true; // only the video is kept
        if (m_hasVideo)
            return refuse(400, u"The upload holds more than one video."_s);
        m_filename = QString::fromStdString(part.filename);
        m_video.setFileName(m_folder + u'/' + storedVideoName(m_filename));
        if (!m_video.open(QIODevice::WriteOnly))
            return refuse(500, u"The video could not be stored."_s);
        m_hasVideo = true;
        m_sink = Sink::Video;
        return true;
    }
    if (m_fields.size() >= kMaxTextFields)
        return refuse(413, u"The upload has too many fields."_s);
    m_fields.append({QString::fromStdString(part.name), QByteArray()});
    m_sink = Sink::Field;
    return true;
}

bool IncomingUpload::partContent(const char *data, qsizetype size)
{
    switch (m_sink) {
    case Sink::Discard:
        return true;
    case Sink::Field:
        m_fieldBytes += size;
        if (m_fieldBytes > kMaxTextFieldBytes)
            return refuse(413, u"The upload's text fields are too large."_s);
        m_fields.last().second.append(data, size);
        return true;
    case Sink::Video:
        if (m_video.write(data, size) != size)
            return refuse(500, u"The video could not be stored."_s);
        m_md5.addData(QByteArrayView(data, size));
        m_bytes += size;
        if (m_dieAfterBytes >= 0 && m_bytes > m_dieAfterBytes) {
            m_video.flush();
            ::_exit(70); // as if the machine went down mid-upload
        }
        return true;
    }
    return true;
}

DemoHttp::Parameters IncomingUpload::fields() const
{
    DemoHttp::Parameters fields;
    for (const auto &[name, value] : m_fields)
        fields.append({name, QString::fromUtf8(value)});
    return fields;
}

bool IncomingUpload::closeVideo()
{
    if (!m_video.isOpen())
        return true;
    const bool flushed = m_video.flush();
    m_video.close();
    return flushed && m_video.error() == QFileDevice::NoError;
}

bool IncomingUpload::publish(const QString &videosPath, const QJsonObject &meta)
{
    QFile file(m_folder + u"/meta.json"_s);
    if (!file.open(QIODevice::WriteOnly) || file.write(QJsonDocument(meta).toJson()) < 0 ||
        !file.flush())
        return false;
    file.close();
    if (!QDir().rename(m_folder, videosPath + u'/' + m_id))
        return false;
    m_published = true;
    return true;
}

bool IncomingUpload::refuse(int status, const QString &message)
{
    m_problemStatus = status;
    m_problem = message;
    return false;
}
