#include "DemoVideoService.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QMap>
#include <QMultiMap>
#include <QOAuth1Signature>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QUrl>
#include <QVariant>

#include <httplib.h>

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

using namespace Qt::StringLiterals;

namespace {

using Parameters = QList<std::pair<QString, QString>>;
using OAuthParameters = QMap<QString, QString>;

// How far a request's oauth_timestamp may be from the service's clock.
constexpr qint64 kTimestampWindowSeconds = 300;
// Small bodies (the token exchange, the revoke call) are read whole; larger
// ones are refused.
constexpr qsizetype kMaxSmallBody = 64 * 1024;
// The text fields of an upload are held in memory until the signature is
// checked, so their number and size are bounded. The video is not.
constexpr qsizetype kMaxTextFieldBytes = 1024 * 1024;
constexpr qsizetype kMaxTextFields = 256;
// Silent uploads are dropped after this long without a byte.
constexpr time_t kReadTimeoutSeconds = 60;

constexpr char kOctetStream[] = "application/octet-stream";

QString randomString(int length, QStringView alphabet)
{
    QString result(length, Qt::Uninitialized);
    for (QChar &c : result)
        c = alphabet.at(QRandomGenerator::system()->bounded(int(alphabet.size())));
    return result;
}

QString newToken(int length)
{
    return randomString(length, u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789");
}

const QRegularExpression &videoIdPattern()
{
    static const QRegularExpression pattern(u"^[a-z0-9]{12}$"_s);
    return pattern;
}

QString newVideoId()
{
    return randomString(12, u"abcdefghijklmnopqrstuvwxyz0123456789");
}

bool equalInConstantTime(const QByteArray &a, const QByteArray &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a.at(i) ^ b.at(i));
    return difference == 0;
}

QByteArray headerValue(const httplib::Request &req, const char *name)
{
    return QByteArray::fromStdString(req.get_header_value(name));
}

void replyJson(httplib::Response &res, int status, const QJsonObject &object)
{
    const QByteArray body = QJsonDocument(object).toJson(QJsonDocument::Compact);
    res.status = status;
    res.set_content(body.constData(), size_t(body.size()), "application/json");
}

void replyJsonError(httplib::Response &res, int status, const QString &message)
{
    replyJson(res, status, QJsonObject{{u"error"_s, message}});
}

void replyText(httplib::Response &res, int status, const QByteArray &text)
{
    res.status = status;
    res.set_content(text.constData(), size_t(text.size()), "text/plain");
}

// The client goes on sending a body the handler left unread; the connection
// cannot carry another request.
void closeAfterReply(httplib::Response &res)
{
    res.set_header("Connection", "close");
}

// Form decoding: "+" is a space, then percent-escapes.
QString formDecoded(QByteArray text)
{
    text.replace('+', ' ');
    return QString::fromUtf8(QByteArray::fromPercentEncoding(text));
}

Parameters formParameters(const QByteArray &encoded)
{
    Parameters parameters;
    if (encoded.isEmpty())
        return parameters;
    for (const QByteArray &pair : encoded.split('&')) {
        const qsizetype equals = pair.indexOf('=');
        if (equals < 0)
            parameters.append({formDecoded(pair), QString()});
        else
            parameters.append({formDecoded(pair.left(equals)), formDecoded(pair.mid(equals + 1))});
    }
    return parameters;
}

Parameters queryParameters(const httplib::Request &req)
{
    const QByteArray target = QByteArray::fromStdString(req.target);
    const qsizetype query = target.indexOf('?');
    return query < 0 ? Parameters() : formParameters(target.mid(query + 1).split('#').front());
}

// The oauth_ parameters of an "Authorization: OAuth ..." header, percent-decoded
// (realm and other names are left out). Nothing when the header is missing or
// malformed, or names a parameter twice.
std::optional<OAuthParameters> oauthParameters(const QByteArray &header)
{
    const QByteArray text = header.trimmed();
    if (text.size() < 6 || qstrnicmp(text.constData(), "OAuth ", 6) != 0)
        return std::nullopt;
    OAuthParameters result;
    qsizetype at = 6;
    const auto skipSpaces = [&] {
        while (at < text.size() && (text.at(at) == ' ' || text.at(at) == '\t'))
            ++at;
    };
    for (;;) {
        skipSpaces();
        if (at >= text.size())
            return result;
        const qsizetype equals = text.indexOf('=', at);
        if (equals < 0)
            return std::nullopt;
        const QByteArray name = text.mid(at, equals - at).trimmed();
        at = equals + 1;
        skipSpaces();
        if (at >= text.size() || text.at(at) != '"')
            return std::nullopt;
        const qsizetype close = text.indexOf('"', at + 1);
        if (close < 0)
            return std::nullopt;
        const QByteArray value = text.mid(at + 1, close - at - 1);
        at = close + 1;
        const QString decodedName = QString::fromUtf8(QByteArray::fromPercentEncoding(name));
        if (decodedName.startsWith(u"oauth_")) {
            if (result.contains(decodedName))
                return std::nullopt;
            result.insert(decodedName, QString::fromUtf8(QByteArray::fromPercentEncoding(value)));
        }
        skipSpaces();
        if (at < text.size()) {
            if (text.at(at) != ',')
                return std::nullopt;
            ++at;
        }
    }
}

// The base string URI of a request to this service: the Host header as the
// client sent it (the client signed the address it used), without a default
// port, and the path.
QUrl signedUrl(const httplib::Request &req, int localPort)
{
    QString authority = QString::fromLatin1(headerValue(req, "Host")).trimmed().toLower();
    if (authority.isEmpty())
        authority = u"127.0.0.1:"_s + QString::number(localPort);
    QUrl url(u"http://"_s + authority);
    if (url.port() == 80)
        url.setPort(-1);
    url.setPath(QString::fromStdString(req.path));
    return url;
}

// Whether `signature` (base64, as sent) is the HMAC-SHA1 signature of a POST to
// `url` with `parameters`: those of the query and the body and the oauth_ ones,
// without oauth_signature.
bool signatureMatches(const QUrl &url, Parameters parameters, const QString &tokenSecret,
                      const QString &signature)
{
    // QOAuth1Signature writes the values of a repeated name in its map's order,
    // and QMultiMap::insert() puts a value before those already there: inserted
    // from the highest down, they come out in the ascending order RFC 5849 asks
    // for. Names are ordered as QStrings, which for the plain ASCII names this
    // service reads is also the order of their encodings.
    std::sort(parameters.begin(), parameters.end(), [](const auto &a, const auto &b) {
        if (a.first != b.first)
            return a.first > b.first;
        return QUrl::toPercentEncoding(a.second) > QUrl::toPercentEncoding(b.second);
    });
    QMultiMap<QString, QVariant> map;
    for (const auto &[name, value] : parameters)
        map.insert(name, value);
    // The URL carries no query: QOAuth1Signature would add its items itself.
    const QOAuth1Signature expected(url, QString::fromUtf16(DemoAccount::kConsumerSecret),
                                    tokenSecret, QOAuth1Signature::HttpRequestMethod::Post, map);
    // hmacSha1() is the raw digest, not its base64 text.
    const auto given = QByteArray::fromBase64Encoding(signature.toLatin1(),
                                                      QByteArray::AbortOnBase64DecodingErrors);
    return given && equalInConstantTime(expected.hmacSha1(), *given);
}

// Whether the body has a length or chunks: a POST with neither has no body, and
// reading one would wait for the client to close the connection.
bool hasFramedBody(const httplib::Request &req)
{
    if (req.get_header_value("Transfer-Encoding").find("chunked") != std::string::npos)
        return true;
    return req.has_header("Content-Length") && req.get_header_value<uint64_t>("Content-Length") > 0;
}

// Reads the body as plain bytes, whatever its Content-Type. True once all of it
// arrived; false when the connection ended first or `receiver` stopped it.
//
// cpp-httplib picks its reader from the request's Content-Type and would hand a
// multipart body to its multipart reader, which a plain receiver cannot take;
// the endpoints that read small bodies whole read them raw instead. The type is
// restored before returning.
bool readRawBody(const httplib::Request &req, const httplib::ContentReader &reader,
                 const httplib::ContentReceiver &receiver)
{
    if (!hasFramedBody(req))
        return true;
    // The handler's request is the server's own mutable object, passed as const.
    auto &headers = const_cast<httplib::Headers &>(req.headers);
    std::vector<std::string> types;
    for (auto [it, end] = headers.equal_range("Content-Type"); it != end; ++it)
        types.push_back(it->second);
    headers.erase("Content-Type");
    headers.emplace("Content-Type", kOctetStream);
    const bool complete = reader(receiver);
    headers.erase("Content-Type");
    for (const std::string &type : types)
        headers.emplace("Content-Type", type);
    return complete;
}

// A small body, read whole; nothing when it is larger than kMaxSmallBody or cut
// short.
std::optional<QByteArray> readSmallBody(const httplib::Request &req,
                                        const httplib::ContentReader &reader)
{
    QByteArray body;
    const bool complete = readRawBody(req, reader, [&](const char *data, size_t size) {
        if (body.size() + qsizetype(size) > kMaxSmallBody)
            return false;
        body.append(data, qsizetype(size));
        return true;
    });
    return complete ? std::optional(body) : std::nullopt;
}

bool isFormBody(const httplib::Request &req)
{
    return headerValue(req, "Content-Type")
        .trimmed()
        .toLower()
        .startsWith("application/x-www-form-urlencoded");
}

// The stored name of a video uploaded as `filename`: "video" and the filename's
// extension when it is a plain one.
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
    return kOctetStream;
}

// One upload while it arrives, in incoming/<id>/. The folder goes away with the
// object unless the upload was published.
class IncomingUpload
{
public:
    IncomingUpload(const QString &incomingPath, const QString &videosPath, qint64 dieAfterBytes)
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
    ~IncomingUpload()
    {
        m_video.close();
        if (!m_published && !m_folder.isEmpty())
            QDir(m_folder).removeRecursively();
    }
    IncomingUpload(const IncomingUpload &) = delete;
    IncomingUpload &operator=(const IncomingUpload &) = delete;

    bool isValid() const { return !m_folder.isEmpty(); }
    QString id() const { return m_id; }

    bool partBegins(const httplib::MultipartFormData &part)
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

    bool partContent(const char *data, qsizetype size)
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

    // The status and message of what stopped the parse, if anything did.
    int problemStatus() const { return m_problemStatus; }
    QString problem() const { return m_problem; }

    Parameters fields() const
    {
        Parameters fields;
        for (const auto &[name, value] : m_fields)
            fields.append({name, QString::fromUtf8(value)});
        return fields;
    }
    bool hasVideo() const { return m_hasVideo; }
    QString filename() const { return m_filename; }
    qint64 bytes() const { return m_bytes; }
    QString md5() const { return QString::fromLatin1(m_md5.result().toHex()); }

    bool closeVideo()
    {
        if (!m_video.isOpen())
            return true;
        const bool flushed = m_video.flush();
        m_video.close();
        return flushed && m_video.error() == QFileDevice::NoError;
    }

    // Writes meta.json and moves the folder to <videos>/<id> in one rename.
    bool publish(const QString &videosPath, const QJsonObject &meta)
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

private:
    bool refuse(int status, const QString &message)
    {
        m_problemStatus = status;
        m_problem = message;
        return false;
    }

    enum class Sink { Discard, Field, Video };

    qint64 m_dieAfterBytes;
    QString m_id;
    QString m_folder;
    bool m_published = false;
    Sink m_sink = Sink::Discard;
    QList<std::pair<QString, QByteArray>> m_fields;
    qsizetype m_fieldBytes = 0;
    bool m_hasVideo = false;
    QString m_filename;
    QFile m_video;
    QCryptographicHash m_md5{QCryptographicHash::Md5};
    qint64 m_bytes = 0;
    int m_problemStatus = 0;
    QString m_problem;
};

// What the service serves a file from: the file, and one buffer for its pieces.
struct FileSource
{
    QFile file;
    QByteArray buffer;
};

} // namespace

struct DemoVideoService::Private
{
    struct Token
    {
        QString secret;
        QString account;
        bool revoked = false;
    };
    struct Credentials
    {
        QString token;
        QString tokenSecret;
        QString account;
    };

    Options options;
    QString incomingPath;
    QString videosPath;
    httplib::Server server;
    int port = 0;
    QString error;

    std::mutex mutex; // guards tokens and nonces: handlers run on a thread pool
    QHash<QString, Token> tokens;
    // Nonces of accepted requests, by timestamp, kept while the timestamp is in
    // the window.
    std::set<std::pair<qint64, QString>> nonces;

    void route();

    QString checkOAuth(const OAuthParameters &oauth, bool withToken, Credentials &credentials);
    QString acceptNonce(const OAuthParameters &oauth, const Credentials &credentials);
    bool verify(const httplib::Request &req, Parameters parameters, const OAuthParameters &oauth,
                const QString &tokenSecret) const;

    void accessToken(const httplib::Request &req, httplib::Response &res,
                     const httplib::ContentReader &reader);
    void upload(const httplib::Request &req, httplib::Response &res,
                const httplib::ContentReader &reader);
    void revoke(const httplib::Request &req, httplib::Response &res,
                const httplib::ContentReader &reader);
    void listing(httplib::Response &res) const;
    void metadata(const QString &id, httplib::Response &res) const;
    void videoFile(const QString &id, httplib::Response &res) const;

    QJsonObject readMeta(const QString &id) const;
};

// The reason a request's OAuth parameters are refused before its signature is
// checked, or an empty string. With `withToken`, the request must carry a live
// token, whose secret and owner go into `credentials`.
QString DemoVideoService::Private::checkOAuth(const OAuthParameters &oauth, bool withToken,
                                              Credentials &credentials)
{
    for (const char16_t *name : {u"oauth_consumer_key", u"oauth_signature_method",
                                 u"oauth_timestamp", u"oauth_nonce", u"oauth_signature"}) {
        if (oauth.value(QString::fromUtf16(name)).isEmpty())
            return u"missing_parameter"_s;
    }
    if (oauth.value(u"oauth_consumer_key"_s) != QString::fromUtf16(DemoAccount::kConsumerKey))
        return u"unknown_consumer"_s;
    if (oauth.value(u"oauth_signature_method"_s) != u"HMAC-SHA1")
        return u"unsupported_signature_method"_s;
    if (oauth.contains(u"oauth_version"_s) && oauth.value(u"oauth_version"_s) != u"1.0")
        return u"unsupported_version"_s;
    bool isNumber = false;
    const qint64 timestamp = oauth.value(u"oauth_timestamp"_s).toLongLong(&isNumber);
    if (!isNumber || qAbs(QDateTime::currentSecsSinceEpoch() - timestamp) > kTimestampWindowSeconds)
        return u"timestamp_refused"_s;

    const QString token = oauth.value(u"oauth_token"_s);
    if (!withToken)
        return token.isEmpty() ? QString() : u"unexpected_token"_s;
    if (token.isEmpty())
        return u"missing_token"_s;
    std::lock_guard lock(mutex);
    const auto found = tokens.constFind(token);
    if (found == tokens.cend())
        return u"invalid_token"_s;
    if (found->revoked)
        return u"token_revoked"_s;
    if (nonces.count({timestamp, oauth.value(u"oauth_nonce"_s)}))
        return u"nonce_replayed"_s;
    credentials = {token, found->secret, found->account};
    return {};
}

// Records the nonce of a request whose signature was verified. A nonce is
// accepted once per timestamp; the token, if any, must still be live.
QString DemoVideoService::Private::acceptNonce(const OAuthParameters &oauth,
                                               const Credentials &credentials)
{
    const qint64 timestamp = oauth.value(u"oauth_timestamp"_s).toLongLong();
    const qint64 oldest = QDateTime::currentSecsSinceEpoch() - kTimestampWindowSeconds;
    std::lock_guard lock(mutex);
    if (!credentials.token.isEmpty() && tokens.value(credentials.token).revoked)
        return u"token_revoked"_s;
    while (!nonces.empty() && nonces.begin()->first < oldest)
        nonces.erase(nonces.begin());
    if (!nonces.insert({timestamp, oauth.value(u"oauth_nonce"_s)}).second)
        return u"nonce_replayed"_s;
    return {};
}

bool DemoVideoService::Private::verify(const httplib::Request &req, Parameters parameters,
                                       const OAuthParameters &oauth,
                                       const QString &tokenSecret) const
{
    parameters += queryParameters(req);
    for (auto it = oauth.cbegin(); it != oauth.cend(); ++it) {
        if (it.key() != u"oauth_signature")
            parameters.append({it.key(), it.value()});
    }
    return signatureMatches(signedUrl(req, port), std::move(parameters), tokenSecret,
                            oauth.value(u"oauth_signature"_s));
}

void DemoVideoService::Private::accessToken(const httplib::Request &req, httplib::Response &res,
                                            const httplib::ContentReader &reader)
{
    const std::optional<OAuthParameters> oauth = oauthParameters(headerValue(req, "Authorization"));
    Credentials none;
    QString reason = oauth ? checkOAuth(*oauth, false, none) : u"missing_parameter"_s;
    if (!reason.isEmpty()) {
        replyText(res, 401, QByteArray("error=") + reason.toLatin1());
        closeAfterReply(res);
        return;
    }
    const std::optional<QByteArray> body = readSmallBody(req, reader);
    if (!body) {
        replyText(res, 413, "error=body_too_large");
        closeAfterReply(res);
        return;
    }
    const Parameters form = isFormBody(req) ? formParameters(*body) : Parameters();
    if (!verify(req, form, *oauth, QString())) {
        replyText(res, 401, "error=invalid_signature");
        return;
    }
    reason = acceptNonce(*oauth, none);
    if (!reason.isEmpty()) {
        replyText(res, 401, QByteArray("error=") + reason.toLatin1());
        return;
    }

    QMap<QString, QString> fields;
    for (auto it = form.crbegin(); it != form.crend(); ++it)
        fields.insert(it->first, it->second); // the first of a repeated name wins
    if (fields.value(u"x_auth_mode"_s) != u"client_auth") {
        replyText(res, 400, "error=unsupported_auth_mode");
        return;
    }
    const QByteArray userName = fields.value(u"x_auth_username"_s).toUtf8();
    const QByteArray password = fields.value(u"x_auth_password"_s).toUtf8();
    const bool userMatches =
        equalInConstantTime(userName, QString::fromUtf16(DemoAccount::kUserName).toUtf8());
    const bool passwordMatches =
        equalInConstantTime(password, QString::fromUtf16(DemoAccount::kPassword).toUtf8());
    if (!userMatches || !passwordMatches) {
        replyText(res, 401, "error=invalid_credentials");
        return;
    }

    const QString token = newToken(32);
    const QString secret = newToken(40);
    const QString account = QString::fromUtf16(DemoAccount::kDisplayName);
    {
        std::lock_guard lock(mutex);
        tokens.insert(token, {secret, account, false});
    }
    const QString answer = u"oauth_token="_s + token + u"&oauth_token_secret="_s + secret +
                           u"&screen_name="_s +
                           QString::fromLatin1(QUrl::toPercentEncoding(account));
    res.status = 200;
    res.set_content(answer.toStdString(), "text/plain");
}

void DemoVideoService::Private::upload(const httplib::Request &req, httplib::Response &res,
                                       const httplib::ContentReader &reader)
{
    // The header first: a request that cannot be authorised is refused before
    // a byte of its body is read.
    const auto refuse = [&](int status, const QString &message) {
        replyJsonError(res, status, message);
        closeAfterReply(res);
    };
    const std::optional<OAuthParameters> oauth = oauthParameters(headerValue(req, "Authorization"));
    if (!oauth)
        return refuse(401, u"missing_or_malformed_authorization"_s);
    Credentials credentials;
    if (const QString reason = checkOAuth(*oauth, true, credentials); !reason.isEmpty())
        return refuse(401, reason);
    if (!req.is_multipart_form_data())
        return refuse(400, u"The upload must be a multipart/form-data body."_s);
    if (!hasFramedBody(req))
        return refuse(411, u"The upload has no Content-Length."_s);

    IncomingUpload incoming(incomingPath, videosPath, options.dieAfterBytes);
    if (!incoming.isValid())
        return refuse(500, u"The upload could not be stored."_s);
    // cpp-httplib's streaming multipart reader hands over each part's header and
    // then its content in pieces, so the video goes to disk as it arrives. It
    // answers false both for a body cut off by a dropped connection and for a
    // complete body that ends on an ordinary delimiter line (the publishing
    // library's layout); the signed "size" field tells the two apart below.
    reader(
        [&](const httplib::MultipartFormData &part) { return incoming.partBegins(part); },
        [&](const char *data, size_t size) { return incoming.partContent(data, qsizetype(size)); });
    if (incoming.problemStatus() != 0)
        return refuse(incoming.problemStatus(), incoming.problem());
    if (!incoming.closeVideo())
        return refuse(500, u"The video could not be stored."_s);

    const Parameters fields = incoming.fields();
    if (!verify(req, fields, *oauth, credentials.tokenSecret))
        return refuse(401, u"invalid_signature"_s);
    if (const QString reason = acceptNonce(*oauth, credentials); !reason.isEmpty())
        return refuse(401, reason);

    QHash<QString, QString> field;
    for (auto it = fields.crbegin(); it != fields.crend(); ++it)
        field.insert(it->first, it->second); // the first of a repeated name wins
    const QString title = field.value(u"title"_s);
    if (title.trimmed().isEmpty())
        return refuse(400, u"The video needs a title."_s);
    const QString access = field.value(u"access"_s, u"public"_s);
    if (access != u"public" && access != u"unlisted" && access != u"private")
        return refuse(400, u"Access must be public, unlisted or private."_s);
    if (!incoming.hasVideo())
        return refuse(400, u"The upload holds no video."_s);
    bool sized = false;
    const qint64 declared = field.value(u"size"_s).toLongLong(&sized);
    if (!sized)
        return refuse(400, u"The upload needs the video's size in bytes (the size field)."_s);
    if (declared != incoming.bytes())
        return refuse(
            400,
            u"The video arrived incomplete: %1 of %2 bytes."_s.arg(incoming.bytes()).arg(declared));
    if (options.rejectUploads)
        return refuse(422, u"This demo service is not accepting videos right now."_s);

    QJsonArray tags;
    for (const QString &tag : field.value(u"tags"_s).split(u',')) {
        if (!tag.trimmed().isEmpty())
            tags.append(tag.trimmed());
    }
    const QJsonObject meta{
        {u"id"_s, incoming.id()},
        {u"title"_s, title},
        {u"description"_s, field.value(u"description"_s)},
        {u"tags"_s, tags},
        {u"category"_s, field.value(u"category"_s)},
        {u"access"_s, access},
        {u"filename"_s, incoming.filename()},
        {u"bytes"_s, incoming.bytes()},
        {u"md5"_s, incoming.md5()},
        {u"account"_s, credentials.account},
        {u"published"_s, QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs)},
    };
    if (!incoming.publish(videosPath, meta))
        return refuse(500, u"The video could not be published."_s);
    replyJson(res, 201,
              {{u"id"_s, incoming.id()},
               {u"url"_s, u"http://127.0.0.1:%1/videos/%2"_s.arg(port).arg(incoming.id())},
               {u"md5"_s, incoming.md5()},
               {u"bytes"_s, incoming.bytes()}});
}

void DemoVideoService::Private::revoke(const httplib::Request &req, httplib::Response &res,
                                       const httplib::ContentReader &reader)
{
    if (!readSmallBody(req, reader))
        closeAfterReply(res);
    int revoked = 0;
    {
        std::lock_guard lock(mutex);
        for (Token &token : tokens) {
            revoked += !token.revoked;
            token.revoked = true;
        }
    }
    replyJson(res, 200, {{u"revoked"_s, revoked}});
}

QJsonObject DemoVideoService::Private::readMeta(const QString &id) const
{
    QFile file(videosPath + u'/' + id + u"/meta.json"_s);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QJsonDocument::fromJson(file.readAll()).object();
}

void DemoVideoService::Private::listing(httplib::Response &res) const
{
    QList<QJsonObject> videos;
    for (const QString &id : QDir(videosPath).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (videoIdPattern().match(id).hasMatch()) {
            if (const QJsonObject meta = readMeta(id); !meta.isEmpty())
                videos.append(meta);
        }
    }
    std::sort(videos.begin(), videos.end(), [](const QJsonObject &a, const QJsonObject &b) {
        const auto key = [](const QJsonObject &o) {
            return std::pair(o.value(u"published").toString(), o.value(u"id").toString());
        };
        return key(a) > key(b);
    });

    const auto cell = [](const QString &text) -> QString {
        return u"<td>"_s + text.toHtmlEscaped() + u"</td>";
    };
    QString html = u"<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
                   "<title>Demo video service</title><style>"
                   "body{font-family:sans-serif;margin:2em}table{border-collapse:collapse}"
                   "th,td{border:1px solid #ccc;padding:.3em .6em;text-align:left;"
                   "vertical-align:top}</style></head><body>\n<h1>Demo video service</h1>\n"_s;
    if (videos.isEmpty()) {
        html += u"<p>No videos have been published yet.</p>\n"_s;
    } else {
        html += u"<table>\n<tr><th>Title</th><th>Description</th><th>Tags</th><th>Category</th>"
                "<th>Access</th><th>Size</th><th>MD5</th><th>Account</th><th>Published</th>"
                "</tr>\n"_s;
        for (const QJsonObject &meta : std::as_const(videos)) {
            const QString id = meta.value(u"id").toString();
            QStringList tags;
            for (const QJsonValue &tag : meta.value(u"tags").toArray())
                tags << tag.toString();
            const qint64 bytes = meta.value(u"bytes").toInteger();
            html += u"<tr><td><a href=\"/videos/"_s + id + u"/file\">"_s +
                    meta.value(u"title").toString().toHtmlEscaped() + u"</a></td>"_s +
                    cell(meta.value(u"description").toString()) + cell(tags.join(u", "_s)) +
                    cell(meta.value(u"category").toString()) +
                    cell(meta.value(u"access").toString()) +
                    cell(QLocale::c().formattedDataSize(bytes, 1) + u" ("_s +
                         QString::number(bytes) + u" bytes)"_s) +
                    u"<td><code>"_s + meta.value(u"md5").toString().toHtmlEscaped() +
                    u"</code></td>"_s + cell(meta.value(u"account").toString()) +
                    cell(meta.value(u"published").toString()) + u"</tr>\n"_s;
        }
        html += u"</table>\n"_s;
    }
    html += u"</body></html>\n"_s;
    res.status = 200;
    res.set_content(html.toStdString(), "text/html; charset=utf-8");
}

void DemoVideoService::Private::metadata(const QString &id, httplib::Response &res) const
{
    QFile file(videosPath + u'/' + id + u"/meta.json"_s);
    if (!file.open(QIODevice::ReadOnly))
        return replyJsonError(res, 404, u"No such video."_s);
    const QByteArray meta = file.readAll();
    res.status = 200;
    res.set_content(meta.constData(), size_t(meta.size()), "application/json");
}

void DemoVideoService::Private::videoFile(const QString &id, httplib::Response &res) const
{
    const QJsonObject meta = readMeta(id);
    if (meta.isEmpty())
        return replyJsonError(res, 404, u"No such video."_s);
    const QString name = storedVideoName(meta.value(u"filename").toString());
    auto source = std::make_shared<FileSource>();
    source->file.setFileName(videosPath + u'/' + id + u'/' + name);
    if (!source->file.open(QIODevice::ReadOnly))
        return replyJsonError(res, 404, u"No such video."_s);
    res.status = 200;
    res.set_content_provider(
        size_t(source->file.size()), videoContentType(name),
        [source](size_t offset, size_t length, httplib::DataSink &sink) {
            constexpr qint64 kPiece = 256 * 1024;
            source->buffer.resize(qMin(kPiece, qint64(length)));
            if (!source->file.seek(qint64(offset)))
                return false;
            const qint64 read = source->file.read(source->buffer.data(), source->buffer.size());
            return read > 0 && sink.write(source->buffer.constData(), size_t(read));
        });
}

void DemoVideoService::Private::route()
{
    server.Post("/oauth/access_token",
                [this](const httplib::Request &req, httplib::Response &res,
                       const httplib::ContentReader &reader) { accessToken(req, res, reader); });
    server.Post("/api/videos",
                [this](const httplib::Request &req, httplib::Response &res,
                       const httplib::ContentReader &reader) { upload(req, res, reader); });
    server.Post("/admin/revoke",
                [this](const httplib::Request &req, httplib::Response &res,
                       const httplib::ContentReader &reader) { revoke(req, res, reader); });
    server.Get("/", [this](const httplib::Request &, httplib::Response &res) { listing(res); });
    server.Get("/videos/([a-z0-9]{12})",
               [this](const httplib::Request &req, httplib::Response &res) {
                   metadata(QString::fromStdString(req.matches[1]), res);
               });
    server.Get("/videos/([a-z0-9]{12})/file",
               [this](const httplib::Request &req, httplib::Response &res) {
                   videoFile(QString::fromStdString(req.matches[1]), res);
               });
    server.set_read_timeout(kReadTimeoutSeconds);
    server.set_logger([this](const httplib::Request &req, const httplib::Response &res) {
        // The unread rest of a refused body reaches the server as request lines
        // that do not parse; those are not requests.
        if (!options.logRequests || req.path.empty() || req.path.front() != '/')
            return;
        std::fprintf(stderr, "%s %s %d\n", req.method.c_str(), req.path.c_str(), res.status);
    });
}

DemoVideoService::DemoVideoService(const Options &options) : d(std::make_unique<Private>())
{
    d->options = options;
    d->incomingPath = QDir(options.dataDirectory).absoluteFilePath(u"incoming"_s);
    d->videosPath = QDir(options.dataDirectory).absoluteFilePath(u"videos"_s);
    d->route();
}

DemoVideoService::~DemoVideoService()
{
    d->server.stop();
}

bool DemoVideoService::listen(int port)
{
    // A process that ended mid-upload leaves its half-written folder behind.
    if (!QDir(d->incomingPath).removeRecursively() || !QDir().mkpath(d->incomingPath) ||
        !QDir().mkpath(d->videosPath)) {
        d->error = u"cannot prepare the data folder %1"_s.arg(d->options.dataDirectory);
        return false;
    }
    if (port == 0) {
        d->port = d->server.bind_to_any_port("127.0.0.1");
    } else if (d->server.bind_to_port("127.0.0.1", port)) {
        d->port = port;
    } else {
        d->port = -1;
    }
    if (d->port <= 0) {
        d->error = u"cannot listen on 127.0.0.1:%1"_s.arg(port);
        return false;
    }
    return true;
}

int DemoVideoService::port() const
{
    return d->port;
}

QString DemoVideoService::errorString() const
{
    return d->error;
}

bool DemoVideoService::serve()
{
    return d->server.listen_after_bind();
}

void DemoVideoService::stop()
{
    d->server.stop();
}
