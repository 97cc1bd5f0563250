#include "DemoVideoService.h"

#include "DemoHttp.h"
#include "DemoIncomingUpload.h"
#include "DemoOAuth.h"
#include "DemoOAuth2.h"
#include "DemoResumableUpload.h"

#include <QByteArray>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLocale>
#include <QMap>
#include <QUrl>

#include <httplib.h>

#include <algorithm>
#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <utility>

using namespace Qt::StringLiterals;
using namespace DemoHttp;
using DemoOAuth::OAuthParameters;

namespace {

// Silent uploads are dropped after this long without a byte.
constexpr time_t kReadTimeoutSeconds = 60;

// What the service serves a file from: the file, and one buffer for its pieces.
struct FileSource
{
    QFile file;
    QByteArray buffer;
};

} // namespace

struct DemoVideoService::Private
{
    using Credentials = DemoOAuth::Verifier::Credentials;

    Options options;
    QString incomingPath;
    QString videosPath;
    httplib::Server server;
    int port = 0;
    QString error;

    DemoOAuth::Verifier oauthVerifier;
    DemoOAuth2::Issuer oauth2Issuer;
    std::unique_ptr<ResumableUploads> resumable;

    void route();

    bool verify(const httplib::Request &req, Parameters parameters, const OAuthParameters &oauth,
                const QString &tokenSecret) const
    {
        return DemoOAuth::Verifier::verify(req, std::move(parameters), oauth, tokenSecret, port);
    }

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

void DemoVideoService::Private::accessToken(const httplib::Request &req, httplib::Response &res,
                                            const httplib::ContentReader &reader)
{
    const std::optional<OAuthParameters> oauth =
        DemoOAuth::oauthParameters(headerValue(req, "Authorization"));
    Credentials none;
    QString reason = oauth ? oauthVerifier.check(*oauth, false, none) : u"missing_parameter"_s;
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
    reason = oauthVerifier.acceptNonce(*oauth, none);
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

    const QString account = QString::fromUtf16(DemoAccount::kDisplayName);
    const auto [token, secret] = oauthVerifier.issueToken(account);
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
    const QByteArray authorization = headerValue(req, "Authorization");
    const std::optional<QString> bearer = oauth2Issuer.accountForAuthorization(authorization);
    if (!bearer && authorization.startsWith("Bearer ")) {
        res.set_header("WWW-Authenticate", R"(Bearer error="invalid_token")");
        return refuse(401, u"invalid_token"_s);
    }
    const std::optional<OAuthParameters> oauth = DemoOAuth::oauthParameters(authorization);
    if (!oauth && !bearer)
        return refuse(401, u"missing_or_malformed_authorization"_s);
    Credentials credentials{{}, {}, bearer.value_or(QString())};
    if (const QString reason = bearer ? QString() : oauthVerifier.check(*oauth, true, credentials);
        !reason.isEmpty())
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
    if (!bearer && !verify(req, fields, *oauth, credentials.tokenSecret))
        return refuse(401, u"invalid_signature"_s);
    if (const QString reason = bearer ? QString() : oauthVerifier.acceptNonce(*oauth, credentials);
        !reason.isEmpty())
        return refuse(401, reason);

    QHash<QString, QString> field;
    for (auto it = fields.crbegin(); it != fields.crend(); ++it)
        field.insert(it->first, it->second); // the first of a repeated name wins
    if (const QString problem = videoFieldsProblem(field); !problem.isEmpty())
        return refuse(400, problem);
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

    const QJsonObject meta = videoMeta(incoming.id(), field, incoming.filename(), incoming.bytes(),
                                       incoming.md5(), credentials.account);
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
    const int revoked = oauthVerifier.revokeAll() + oauth2Issuer.revokeAll();
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
    server.Post("/oauth2/token", [this](const httplib::Request &req, httplib::Response &res) {
        oauth2Issuer.token(req, res);
    });
    server.Post("/api/videos",
                [this](const httplib::Request &req, httplib::Response &res,
                       const httplib::ContentReader &reader) { upload(req, res, reader); });
    server.Post("/api/uploads", [this](const httplib::Request &req, httplib::Response &res,
                                       const httplib::ContentReader &reader) {
        resumable->open(req, res, reader);
    });
    server.Put("/api/uploads/([a-z0-9]+)",
               [this](const httplib::Request &req, httplib::Response &res,
                      const httplib::ContentReader &reader) {
                   resumable->put(QString::fromStdString(req.matches[1]), req, res, reader);
               });
    server.Delete("/api/uploads/([a-z0-9]+)",
                  [this](const httplib::Request &req, httplib::Response &res) {
                      resumable->remove(QString::fromStdString(req.matches[1]), req, res);
                  });
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
    d->oauth2Issuer.setTokensDieAfter(options.tokensDieAfterSeconds);
    d->resumable = std::make_unique<ResumableUploads>(
        ResumableUploads::Settings{QDir(options.dataDirectory).absoluteFilePath(u"sessions"_s),
                                   d->videosPath, options.rejectUploads, options.dieAfterBytes,
                                   24 * 3600, options.cutEveryBytes,
                                   options.throttleBytesPerSecond},
        &d->oauthVerifier, &d->oauth2Issuer);
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
        !QDir().mkpath(d->videosPath) || !d->resumable->prepare() ||
        !d->oauthVerifier.setStore(
            QDir(d->options.dataDirectory).absoluteFilePath(u"oauth-tokens.json"_s)) ||
        !d->oauth2Issuer.setStore(
            QDir(d->options.dataDirectory).absoluteFilePath(u"oauth2-tokens.json"_s))) {
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
    d->resumable->setPort(d->port);
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
