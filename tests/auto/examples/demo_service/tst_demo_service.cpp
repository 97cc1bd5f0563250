#include "ChildService.h"
#include "TestSupport.h"

#include "net/ZDOAuth1Signer.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>
#include <QUuid>

using namespace Qt::StringLiterals;

namespace {

const QString kConsumerKey = u"zd-demo-consumer"_s;
const QString kConsumerSecret = u"zd-demo-consumer-secret"_s;

struct Reply
{
    int status = 0;
    QByteArray body;
};

// An OAuth 1.0a token, or an OAuth 2.0 bearer token alone.
struct Token
{
    QString key;
    QString secret;
    QString bearer;
};

// The demo service on a free port, with its data in `dataDir`.
class Service : public ChildService
{
public:
    bool start(const QString &dataDir, const QStringList &options = {})
    {
        const QString problem = ChildService::start(
            qEnvironmentVariable("ZD_DEMO_SERVICE"),
            QStringList{u"--port"_s, u"0"_s, u"--data"_s, dataDir, u"--quiet"_s} + options);
        return problem.isEmpty();
    }
    QString url(const QString &path) const { return ChildService::url(path).toString(); }
};

Reply curl(const QStringList &arguments)
{
    QProcess process;
    process.start(u"curl"_s, QStringList{u"-sS"_s, u"-w"_s, u"\n%{http_code}"_s} + arguments);
    process.waitForFinished(120000);
    const QByteArray out = process.readAllStandardOutput();
    const qsizetype end = out.lastIndexOf('\n');
    return {out.mid(end + 1).toInt(), out.left(end)};
}

// The Authorization header of a POST to `url` carrying `fields`, signed by the
// npm package oauth-1.0a rather than by this library.
QString nodeAuthorization(const QString &url, const QJsonObject &fields, const Token &token = {})
{
    QJsonObject request{{u"method"_s, u"POST"_s},
                        {u"url"_s, url},
                        {u"data"_s, fields},
                        {u"consumer"_s, QJsonArray{kConsumerKey, kConsumerSecret}},
                        {u"nonce"_s, QUuid::createUuid().toString(QUuid::Id128)},
                        {u"timestamp"_s, QDateTime::currentSecsSinceEpoch()},
                        {u"header"_s, true}};
    if (!token.key.isEmpty())
        request[u"token"_s] = QJsonArray{token.key, token.secret};
    QProcess node;
    node.start(QStandardPaths::findExecutable(u"node"_s),
               {qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tests/peers/oauth_sign.js"_s});
    node.write(QJsonDocument(QJsonArray{request}).toJson(QJsonDocument::Compact));
    node.closeWriteChannel();
    node.waitForFinished(60000);
    return u"Authorization: "_s + QString::fromUtf8(node.readAllStandardOutput().trimmed());
}

QJsonObject credentials(const QString &password)
{
    return {{u"x_auth_username"_s, u"demo"_s},
            {u"x_auth_password"_s, password},
            {u"x_auth_mode"_s, u"client_auth"_s}};
}

QString formBody(const QJsonObject &fields)
{
    QStringList pairs;
    for (auto it = fields.begin(); it != fields.end(); ++it)
        pairs << it.key() + u'=' + QString::fromLatin1(QUrl::toPercentEncoding(it->toString()));
    return pairs.join(u'&');
}

Token exchangeToken(const Service &service)
{
    const QString url = service.url(u"/oauth/access_token"_s);
    const QJsonObject form = credentials(u"demo-password"_s);
    const Reply reply =
        curl({u"-H"_s, nodeAuthorization(url, form), u"--data-binary"_s, formBody(form), url});
    static const QRegularExpression answer(
        u"^oauth_token=([A-Za-z0-9]+)&oauth_token_secret=([A-Za-z0-9]+)&screen_name=demo$"_s);
    const auto match = answer.match(QString::fromUtf8(reply.body));
    return {match.captured(1), match.captured(2), {}};
}

// An upload through curl: `fields` as text parts, the file as the video part,
// signed over `signedFields`. Both get the file's size as "size" unless they
// name one.
Reply curlUpload(const Service &service, const Token &token, QJsonObject fields,
                 const QString &videoPath, QJsonObject signedFields)
{
    const QString size = QString::number(QFileInfo(videoPath).size());
    for (QJsonObject *set : {&fields, &signedFields}) {
        if (!set->contains(u"size"))
            set->insert(u"size"_s, size);
    }
    const QString url = service.url(u"/api/videos"_s);
    QStringList arguments{u"-H"_s, nodeAuthorization(url, signedFields, token)};
    for (auto it = fields.begin(); it != fields.end(); ++it)
        arguments << u"--form-string"_s << it.key() + u'=' + it->toString();
    arguments << u"-F"_s << u"video=@"_s + videoPath << url;
    return curl(arguments);
}

QStringList entries(const QString &folder)
{
    return QDir(folder).entryList(QDir::AllEntries | QDir::NoDotAndDotDot);
}

qint64 bytesBelow(const QString &folder)
{
    qint64 bytes = 0;
    for (QDirIterator it(folder, QDir::Files, QDirIterator::Subdirectories); it.hasNext();)
        bytes += it.nextFileInfo().size();
    return bytes;
}

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    return writeFile(dir.filePath(name), bytes) ? dir.filePath(name) : QString();
}

struct RawReply
{
    int status = 0;
    QByteArray location;
    QByteArray range;
    QByteArray body;
};

// One request written by hand on its own connection, authorised by `token` unless
// it is empty (`signedMethod` names the method the signature is for). With
// `cutAfter` >= 0 the connection ends after that many body bytes and no answer
// is read.
RawReply send(const Service &service, const QByteArray &method, const QString &path,
              const QList<std::pair<QByteArray, QByteArray>> &headers, const QByteArray &body,
              const Token &token, qint64 cutAfter = -1, const QByteArray &signedMethod = {})
{
    QByteArray head = method + ' ' + path.toUtf8() +
                      " HTTP/1.1\r\nHost: 127.0.0.1:" + QByteArray::number(service.port()) +
                      "\r\nConnection: close\r\n" +
                      "Content-Length: " + QByteArray::number(body.size()) + "\r\n";
    if (!token.bearer.isEmpty())
        head += "Authorization: Bearer " + token.bearer.toLatin1() + "\r\n";
    if (!token.key.isEmpty()) {
        ZDOAuth1Signer signer(kConsumerKey, kConsumerSecret, token.key, token.secret);
        ZDURLRequest signing;
        signing.setURLString(service.url(path).toUtf8());
        signing.setHTTPMethod(signedMethod.isEmpty() ? method : signedMethod);
        head += "Authorization: " +
                signer.signedRequestForRequest(signing).valueForHTTPHeaderField("Authorization") +
                "\r\n";
    }
    for (const auto &[name, value] : headers)
        head += name + ": " + value + "\r\n";
    QTcpSocket socket;
    socket.connectToHost(u"127.0.0.1"_s, quint16(service.port()));
    if (!socket.waitForConnected(30000))
        return {};
    socket.write(head + "\r\n" + (cutAfter >= 0 ? body.left(cutAfter) : body));
    while (socket.bytesToWrite() > 0 && socket.waitForBytesWritten(60000)) {
    }
    if (cutAfter >= 0) {
        socket.disconnectFromHost();
        return {};
    }
    while (socket.state() == QAbstractSocket::ConnectedState && socket.waitForReadyRead(60000)) {
    }
    const QByteArray answer = socket.readAll();
    const qsizetype end = answer.indexOf("\r\n\r\n");
    RawReply reply{answer.mid(9, 3).toInt(), {}, {}, answer.mid(end + 4)};
    for (const QByteArray &line : answer.left(end).split('\n')) {
        if (line.toLower().startsWith("location:"))
            reply.location = line.mid(9).trimmed();
        if (line.toLower().startsWith("range:"))
            reply.range = line.mid(6).trimmed();
    }
    return reply;
}

// Opens a resumable session for `size` bytes; its path, or empty.
QString openSession(const Service &service, const Token &token, qint64 size,
                    const QJsonObject &metadata = {{u"title"_s, u"Resumed"_s},
                                                   {u"name"_s, u"resumed.mov"_s}})
{
    const RawReply reply = send(service, "POST", u"/api/uploads"_s,
                                {{"Content-Type", "application/json"},
                                 {"X-Upload-Content-Length", QByteArray::number(size)}},
                                QJsonDocument(metadata).toJson(QJsonDocument::Compact), token);
    return reply.status == 201 ? QUrl(QString::fromLatin1(reply.location)).path() : QString();
}

RawReply putChunk(const Service &service, const Token &token, const QString &session,
                  const QByteArray &file, qint64 first, qint64 length, qint64 cutAfter = -1,
                  QByteArray digest = {})
{
    const QByteArray chunk = file.mid(first, length);
    if (digest.isEmpty())
        digest = QCryptographicHash::hash(chunk, QCryptographicHash::Sha1).toBase64();
    const QByteArray range = "bytes " + QByteArray::number(first) + '-' +
                             QByteArray::number(first + length - 1) + '/' +
                             QByteArray::number(file.size());
    return send(service, "PUT", session,
                {{"Content-Range", range},
                 {"Content-Type", "application/octet-stream"},
                 {"Digest", "sha=" + digest}},
                chunk, token, cutAfter);
}

RawReply askOffset(const Service &service, const Token &token, const QString &session, qint64 total)
{
    return send(service, "PUT", session,
                {{"Content-Range", "bytes */" + QByteArray::number(total)}}, {}, token);
}

// Tokens from the service's OAuth 2.0 token endpoint.
struct Bearer
{
    int status = 0;
    QString error;
    QString access;
    QString refresh;
};

Bearer oauth2Token(const Service &service, const QString &form)
{
    const Reply reply = curl({u"--data-binary"_s, form, service.url(u"/oauth2/token"_s)});
    const QJsonObject answer = QJsonDocument::fromJson(reply.body).object();
    return {reply.status, answer.value(u"error").toString(),
            answer.value(u"access_token").toString(), answer.value(u"refresh_token").toString()};
}

Bearer passwordGrant(const Service &service)
{
    return oauth2Token(service, u"grant_type=password&username=demo&password=demo-password"_s);
}

Bearer refreshGrant(const Service &service, const QString &refreshToken)
{
    return oauth2Token(service, u"grant_type=refresh_token&refresh_token="_s + refreshToken);
}

// Whether the service lets `access` through to an upload: a live token gets as
// far as the body's form (400), a dead one is refused before it (401).
bool bearerAccepted(const Service &service, const QString &access)
{
    const Reply reply = curl({u"-X"_s, u"POST"_s, u"-H"_s, u"Authorization: Bearer "_s + access,
                              service.url(u"/api/videos"_s)});
    return reply.status == 400;
}

// A resumable upload of `video` authorised by `access` alone; the status of the
// request that ended it (201 when it was published, 0 when no session opened).
int bearerUpload(const Service &service, const QString &access, const QByteArray &video)
{
    const Token bearer{{}, {}, access};
    const QString session = openSession(service, bearer, video.size());
    return session.isEmpty() ? 401
                             : putChunk(service, bearer, session, video, 0, video.size()).status;
}

} // namespace

class tst_DemoService : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanupTestCase();
    void givesATokenOnlyForASignedRequestWithTheRightPassword();
    void storesASignedUploadWithItsChecksumAndMetadata();
    void keepsNothingOfAnUploadCutShort();
    void startUpClearsWhatADeadProcessLeftHalfWritten();
    void refusesResumableChunksThatAreUnsignedMisplacedOrCorrupt();
    void keepsASessionThroughARestartAndNothingElse();
    void keepsOAuth2SignInsThroughARestartWithTheirRotationAndRevocation();
    void writesNoExpiredOAuth2TokenBack();
    void givesNoOAuth2TokenItCannotKeep();

private:
    QString videos() const { return m_data.filePath(u"videos"_s); }
    QString incoming() const { return m_data.filePath(u"incoming"_s); }
    QString sessions() const { return m_data.filePath(u"sessions"_s); }

    QTemporaryDir m_data;
    QTemporaryDir m_files;
    Service m_service;
};

void tst_DemoService::initTestCase()
{
    if (QStandardPaths::findExecutable(u"node"_s).isEmpty() ||
        QStandardPaths::findExecutable(u"curl"_s).isEmpty() ||
        !QFileInfo::exists(qEnvironmentVariable("ZD_SOURCE_DIR") +
                           u"/tests/peers/node_modules/oauth-1.0a"_s))
        QFAIL("node, curl or oauth-1.0a is missing: run tools/install-deps");
    QVERIFY(m_data.isValid() && m_files.isValid());
    QVERIFY(m_service.start(m_data.path()));
}

void tst_DemoService::cleanupTestCase()
{
    QVERIFY(m_service.stop());
}

void tst_DemoService::givesATokenOnlyForASignedRequestWithTheRightPassword()
{
    const QString url = m_service.url(u"/oauth/access_token"_s);
    const QJsonObject form = credentials(u"demo-password"_s);
    const QString authorization = nodeAuthorization(url, form);
    const auto post = [&](const QString &header, const QJsonObject &body) {
        return curl({u"-H"_s, header, u"--data-binary"_s, formBody(body), url});
    };

    const Reply granted = post(authorization, form);
    QCOMPARE(granted.status, 200);
    QVERIFY2(QRegularExpression(u"^oauth_token=[A-Za-z0-9]+&oauth_token_secret=[A-Za-z0-9]+"
                                "&screen_name=demo$"_s)
                 .match(QString::fromUtf8(granted.body))
                 .hasMatch(),
             granted.body.constData());

    const Reply replayed = post(authorization, form);
    QCOMPARE(replayed.status, 401);
    QVERIFY(replayed.body.startsWith("error="));

    const QJsonObject wrong = credentials(u"not-the-password"_s);
    const Reply refused = post(nodeAuthorization(url, wrong), wrong);
    QCOMPARE(refused.status, 401);
    QCOMPARE(refused.body, QByteArray("error=invalid_credentials"));

    // Signed for one password, sent with another: the body is covered.
    const Reply tampered = post(nodeAuthorization(url, wrong), form);
    QCOMPARE(tampered.status, 401);
    QCOMPARE(tampered.body, QByteArray("error=invalid_signature"));
}

void tst_DemoService::storesASignedUploadWithItsChecksumAndMetadata()
{
    const Token token = exchangeToken(m_service);
    QVERIFY(!token.key.isEmpty());
    const QByteArray video = randomBytes(3 * 1024 * 1024 + 17);
    const QString path = writeFile(m_files, u"clip.mov"_s, video);
    const QJsonObject fields{{u"title"_s, u"Caf\u00e9 <b>& \"sea\""_s},
                             {u"description"_s, u"Waves + wind, 100% real"_s},
                             {u"tags"_s, u" beach, ,sun ,sea"_s},
                             {u"category"_s, u"22"_s},
                             {u"access"_s, u"unlisted"_s}};
    QJsonObject altered = fields;
    altered[u"access"_s] = u"public"_s;
    const Reply tampered = curlUpload(m_service, token, altered, path, fields);
    QCOMPARE(tampered.status, 401);
    QVERIFY(entries(videos()).isEmpty());
    QVERIFY(entries(incoming()).isEmpty());

    const Reply reply = curlUpload(m_service, token, fields, path, fields);
    QCOMPARE(reply.status, 201);
    const QJsonObject answer = QJsonDocument::fromJson(reply.body).object();
    const QString id = answer.value(u"id").toString();
    const QString md5 =
        QString::fromLatin1(QCryptographicHash::hash(video, QCryptographicHash::Md5).toHex());
    QVERIFY(QRegularExpression(u"^[a-z0-9]{12}$"_s).match(id).hasMatch());
    QCOMPARE(answer.value(u"md5").toString(), md5);
    QCOMPARE(answer.value(u"bytes").toInteger(), qint64(video.size()));
    QCOMPARE(answer.value(u"url").toString(), m_service.url(u"/videos/"_s + id));

    QFile stored(videos() + u'/' + id + u"/video.mov"_s);
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QVERIFY(stored.readAll() == video);
    const Reply served = curl({m_service.url(u"/videos/"_s + id)});
    QCOMPARE(served.status, 200);
    const QJsonObject meta = QJsonDocument::fromJson(served.body).object();
    QCOMPARE(meta.value(u"title").toString(), fields.value(u"title").toString());
    QCOMPARE(meta.value(u"description").toString(), fields.value(u"description").toString());
    QCOMPARE(meta.value(u"tags").toArray(), (QJsonArray{u"beach"_s, u"sun"_s, u"sea"_s}));
    QCOMPARE(meta.value(u"category").toString(), u"22"_s);
    QCOMPARE(meta.value(u"access").toString(), u"unlisted"_s);
    QCOMPARE(meta.value(u"filename").toString(), u"clip.mov"_s);
    QCOMPARE(meta.value(u"md5").toString(), md5);
    QCOMPARE(meta.value(u"bytes").toInteger(), qint64(video.size()));
    QCOMPARE(meta.value(u"account").toString(), u"demo"_s);
    QVERIFY(
        QDateTime::fromString(meta.value(u"published").toString(), Qt::ISODateWithMs).isValid());
    QVERIFY(entries(incoming()).isEmpty());

    const QString copy = m_files.filePath(u"served.mov"_s);
    QCOMPARE(curl({u"-o"_s, copy, m_service.url(u"/videos/%1/file"_s.arg(id))}).status, 200);
    QFile copied(copy);
    QVERIFY(copied.open(QIODevice::ReadOnly));
    QVERIFY(copied.readAll() == video);
    const Reply page = curl({m_service.url(u"/"_s)});
    QVERIFY(page.body.contains("Caf\xc3\xa9 &lt;b&gt;&amp; &quot;sea&quot;"));
    QVERIFY(page.body.contains(QByteArray("/videos/" + id.toLatin1() + "/file")));
}

void tst_DemoService::keepsNothingOfAnUploadCutShort()
{
    const Token token = exchangeToken(m_service);
    ZDOAuth1Signer signer(kConsumerKey, kConsumerSecret, token.key, token.secret);
    ZDURLRequest signing;
    signing.setURLString(m_service.url(u"/api/videos?size=4194304&title=Cut"_s).toUtf8());
    signing.setHTTPMethod("POST");
    const QByteArray authorization =
        signer.signedRequestForRequest(signing).valueForHTTPHeaderField("Authorization");

    // The library's layout, whose last part is only closed by an ordinary
    // delimiter line; the connection ends inside the video.
    const QByteArray boundary = "CUT-SHORT";
    const QByteArray head =
        "--" + boundary + "\r\nContent-Disposition: form-data; name=\"title\"\r\n\r\nCut\r\n--" +
        boundary + "\r\nContent-Disposition: form-data; name=\"size\"\r\n\r\n4194304\r\n--" +
        boundary + "\r\n--" + boundary +
        "\r\nContent-Disposition: form-data; name=\"video\"; "
        "filename=\"cut.mov\"\r\nContent-Type: video/quicktime\r\n\r\n";
    const qint64 declared = head.size() + 4 * 1024 * 1024 + boundary.size() + 6;
    const QStringList published = entries(videos());

    QTcpSocket socket;
    socket.connectToHost(u"127.0.0.1"_s, quint16(m_service.port()));
    QVERIFY(socket.waitForConnected(30000));
    socket.write("POST /api/videos HTTP/1.1\r\nHost: 127.0.0.1:" +
                 QByteArray::number(m_service.port()) + "\r\nAuthorization: " + authorization +
                 "\r\nContent-Type: multipart/form-data; boundary=" + boundary +
                 "\r\nContent-Length: " + QByteArray::number(declared) + "\r\n\r\n" + head +
                 QByteArray(1024 * 1024, 'v'));
    QTRY_VERIFY_WITH_TIMEOUT(bytesBelow(incoming()) > 0, 60000);
    socket.abort();
    QTRY_VERIFY_WITH_TIMEOUT(entries(incoming()).isEmpty(), 60000);
    QCOMPARE(entries(videos()), published);

    // A whole body whose video falls short of its signed size is refused too:
    // that is how the service tells a cut-off body from a complete one.
    const QString path = writeFile(m_files, u"short.mov"_s, randomBytes(64 * 1024));
    const QJsonObject fields{{u"title"_s, u"Short"_s}, {u"size"_s, u"65537"_s}};
    const Reply reply = curlUpload(m_service, token, fields, path, fields);
    QCOMPARE(reply.status, 400);
    QVERIFY(reply.body.contains("incomplete"));
    QCOMPARE(entries(videos()), published);
    QVERIFY(entries(incoming()).isEmpty());
}

void tst_DemoService::startUpClearsWhatADeadProcessLeftHalfWritten()
{
    QTemporaryDir data;
    const QString incomingFolder = data.filePath(u"incoming"_s);
    const QString path = writeFile(m_files, u"doomed.mov"_s, randomBytes(2 * 1024 * 1024));
    {
        Service dying;
        QVERIFY(dying.start(data.path(), {u"--die-after-bytes"_s, u"100000"_s}));
        const QJsonObject fields{{u"title"_s, u"Doomed"_s}};
        curlUpload(dying, exchangeToken(dying), fields, path, fields);
        QVERIFY(dying.process().waitForFinished(60000));
        QCOMPARE(dying.process().exitCode(), 70);
    }
    QCOMPARE(entries(incomingFolder).size(), 1);
    QVERIFY(bytesBelow(incomingFolder) > 100000);
    QVERIFY(bytesBelow(incomingFolder) < 2 * 1024 * 1024);
    QVERIFY(entries(data.filePath(u"videos"_s)).isEmpty());

    Service next;
    QVERIFY(next.start(data.path()));
    QVERIFY(entries(incomingFolder).isEmpty());
}

void tst_DemoService::refusesResumableChunksThatAreUnsignedMisplacedOrCorrupt()
{
    const Token token = exchangeToken(m_service);
    const QByteArray video = randomBytes(300 * 1024);
    QCOMPARE(send(m_service, "POST", u"/api/uploads"_s, {{"X-Upload-Content-Length", "300"}},
                  R"({"title":"x"})", {})
                 .status,
             401);
    QCOMPARE(send(m_service, "POST", u"/api/uploads"_s, {{"X-Upload-Content-Length", "300"}},
                  R"({"title":" "})", token)
                 .status,
             400);
    const QString session = openSession(m_service, token, video.size());
    QVERIFY(session.startsWith(u"/api/uploads/"));
    const QStringList published = entries(videos());

    // Signed for another method, skipping ahead, or with a wrong digest: nothing
    // is stored.
    const QByteArray range = "bytes 0-99/" + QByteArray::number(video.size());
    QCOMPARE(send(m_service, "PUT", session, {{"Content-Range", range}}, video.left(100), token, -1,
                  "POST")
                 .status,
             401);
    const RawReply ahead = putChunk(m_service, token, session, video, 100, 100);
    QCOMPARE(ahead.status, 409);
    QVERIFY(ahead.range.isEmpty());
    const RawReply corrupt =
        putChunk(m_service, token, session, video, 0, 100, -1, QByteArray(20, 'x').toBase64());
    QCOMPARE(corrupt.status, 400);
    QVERIFY(corrupt.body.contains("checksum"));
    const RawReply empty = askOffset(m_service, token, session, video.size());
    QCOMPARE(empty.status, 308);
    QVERIFY(empty.range.isEmpty());

    QCOMPARE(putChunk(m_service, token, session, video, 0, 100).range, "bytes=0-99");
    // The bytes a dropped connection delivered count.
    putChunk(m_service, token, session, video, 100, 100 * 1024, 40 * 1024);
    // Asked only once the service holds them: an offset query that came first
    // would find the session busy and the service would turn the chunk away.
    const QString part = sessions() + u'/' + session.section(u'/', -1) + u"/video.part"_s;
    QTRY_COMPARE_WITH_TIMEOUT(QFileInfo(part).size(), 100 + 40 * 1024, 60000);
    QTRY_COMPARE_WITH_TIMEOUT(askOffset(m_service, token, session, video.size()).range,
                              QByteArray("bytes=0-") + QByteArray::number(100 + 40 * 1024 - 1),
                              60000);
    QCOMPARE(entries(videos()), published);

    const qint64 offset = 100 + 40 * 1024;
    const RawReply done = putChunk(m_service, token, session, video, offset, video.size() - offset);
    QCOMPARE(done.status, 201);
    const QJsonObject answer = QJsonDocument::fromJson(done.body).object();
    QCOMPARE(answer.value(u"md5").toString(),
             QString::fromLatin1(QCryptographicHash::hash(video, QCryptographicHash::Md5).toHex()));
    QFile stored(videos() + u'/' + answer.value(u"id").toString() + u"/video.mov"_s);
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QVERIFY(stored.readAll() == video);
    // A client that lost the answer gets it again rather than a new session.
    const RawReply again = askOffset(m_service, token, session, video.size());
    QCOMPARE(again.status, 201);
    QCOMPARE(QJsonDocument::fromJson(again.body).object(), answer);
    QVERIFY(entries(sessions()).isEmpty());
}

void tst_DemoService::keepsASessionThroughARestartAndNothingElse()
{
    QTemporaryDir data;
    const QByteArray video = randomBytes(300 * 1024);
    QString session;
    {
        Service dying;
        QVERIFY(dying.start(data.path(), {u"--die-after-bytes"_s, u"100000"_s}));
        const Token token = exchangeToken(dying);
        session = openSession(dying, token, video.size());
        QVERIFY(!session.isEmpty());
        putChunk(dying, token, session, video, 0, video.size());
        QVERIFY(dying.process().waitForFinished(60000));
        QCOMPARE(dying.process().exitCode(), 70);
    }
    const QString sessionsFolder = data.filePath(u"sessions"_s);
    QCOMPARE(entries(sessionsFolder).size(), 1);
    const qint64 kept = bytesBelow(sessionsFolder + u'/' + entries(sessionsFolder).first());
    QVERIFY(kept > 100000);
    QVERIFY(QDir(sessionsFolder).mkdir(u"leftover"_s));

    Service next;
    QVERIFY(next.start(data.path()));
    QCOMPARE(entries(sessionsFolder).size(), 1); // the leftover is gone, the session is not
    QVERIFY(entries(data.filePath(u"videos"_s)).isEmpty());
    const Token token = exchangeToken(next);
    const RawReply offset = askOffset(next, token, session, video.size());
    QCOMPARE(offset.status, 308);
    static const QRegularExpression held(u"^bytes=0-(\\d+)$"_s);
    const qint64 resumeAt =
        held.match(QString::fromLatin1(offset.range)).captured(1).toLongLong() + 1;
    QVERIFY(resumeAt > 100000);
    QVERIFY(resumeAt < kept); // session.json is in the folder too
    const RawReply done = putChunk(next, token, session, video, resumeAt, video.size() - resumeAt);
    QCOMPARE(done.status, 201);
    QFile stored(data.filePath(u"videos/"_s) +
                 QJsonDocument::fromJson(done.body).object().value(u"id").toString() +
                 u"/video.mov"_s);
    QVERIFY(stored.open(QIODevice::ReadOnly));
    QVERIFY(stored.readAll() == video);

    // An abandoned session leaves nothing.
    const QString abandoned = openSession(next, token, video.size());
    QCOMPARE(putChunk(next, token, abandoned, video, 0, 1000).status, 308);
    QCOMPARE(send(next, "DELETE", abandoned, {}, {}, token).status, 204);
    QCOMPARE(askOffset(next, token, abandoned, video.size()).status, 404);
    QVERIFY(entries(sessionsFolder).isEmpty());
}

void tst_DemoService::keepsOAuth2SignInsThroughARestartWithTheirRotationAndRevocation()
{
    QTemporaryDir data;
    auto service = std::make_unique<Service>();
    QVERIFY(service->start(data.path()));
    const auto restart = [&] {
        const bool stopped = service->stop();
        service = std::make_unique<Service>();
        return stopped && service->start(data.path());
    };
    const Bearer first = passwordGrant(*service);
    QCOMPARE(first.status, 200);
    QVERIFY(restart());

    const QByteArray video = randomBytes(200 * 1024 + 9);
    QCOMPARE(bearerUpload(*service, first.access, video), 201);
    QCOMPARE(entries(data.filePath(u"videos"_s)).size(), 1);
    // Nobody else may read the store, and a copy of it is no sign-in.
    QFile store(data.filePath(u"oauth2-tokens.json"_s));
    QCOMPARE(store.permissions() & ~(QFileDevice::ReadUser | QFileDevice::WriteUser),
             QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    QVERIFY(store.open(QIODevice::ReadOnly));
    const QByteArray stored = store.readAll();
    QVERIFY(!stored.contains(first.access.toLatin1()));
    QVERIFY(!stored.contains(first.refresh.toLatin1()));

    // A refresh token from before the restart renews once, and its use
    // outlives the next restart.
    const Bearer renewed = refreshGrant(*service, first.refresh);
    QCOMPARE(renewed.status, 200);
    QVERIFY(renewed.access != first.access && renewed.refresh != first.refresh);
    QCOMPARE(refreshGrant(*service, first.refresh).error, u"invalid_grant"_s);
    QVERIFY(restart());
    QCOMPARE(refreshGrant(*service, first.refresh).error, u"invalid_grant"_s);
    QVERIFY(bearerAccepted(*service, renewed.access));
    const Bearer again = refreshGrant(*service, renewed.refresh);
    QCOMPARE(again.status, 200);

    // Revoked, the tokens stay dead after a restart; a new sign-in works.
    const Bearer second = passwordGrant(*service);
    QCOMPARE(second.status, 200);
    const Reply revoked = curl({u"-X"_s, u"POST"_s, service->url(u"/admin/revoke"_s)});
    QCOMPARE(revoked.status, 200);
    QCOMPARE(QJsonDocument::fromJson(revoked.body).object().value(u"revoked").toInt(), 4);
    QVERIFY(restart());
    for (const Bearer &dead : {first, renewed, again, second}) {
        QVERIFY(!bearerAccepted(*service, dead.access));
        QCOMPARE(refreshGrant(*service, dead.refresh).error, u"invalid_grant"_s);
    }
    const Bearer fresh = passwordGrant(*service);
    QCOMPARE(fresh.status, 200);
    QCOMPARE(bearerUpload(*service, fresh.access, video), 201);
}

void tst_DemoService::writesNoExpiredOAuth2TokenBack()
{
    QTemporaryDir data;
    Service service;
    QVERIFY(service.start(data.path(), {u"--tokens-die-after"_s, u"1"_s}));
    const Bearer first = passwordGrant(service);
    QCOMPARE(first.status, 200);
    QTRY_VERIFY_WITH_TIMEOUT(!bearerAccepted(service, first.access), 60000);
    QCOMPARE(passwordGrant(service).status, 200);

    QFile store(data.filePath(u"oauth2-tokens.json"_s));
    QVERIFY(store.open(QIODevice::ReadOnly));
    const QJsonObject stored = QJsonDocument::fromJson(store.readAll()).object();
    QCOMPARE(stored.value(u"access").toObject().size(), 1);  // the dead one is gone
    QCOMPARE(stored.value(u"refresh").toObject().size(), 2); // both still renew
}

void tst_DemoService::givesNoOAuth2TokenItCannotKeep()
{
    QTemporaryDir data;
    Service service;
    QVERIFY(service.start(data.path()));
    const Bearer first = passwordGrant(service);
    QCOMPARE(first.status, 200);
    // A folder in the store's place: no write can replace it.
    const QString store = data.filePath(u"oauth2-tokens.json"_s);
    QVERIFY(QFile::remove(store) && QDir().mkdir(store));
    QCOMPARE(passwordGrant(service).error, u"server_error"_s);
    QCOMPARE(refreshGrant(service, first.refresh).error, u"server_error"_s);

    // The refresh token was not used up by a renewal that was not kept.
    QVERIFY(QDir().rmdir(store));
    const Bearer renewed = refreshGrant(service, first.refresh);
    QCOMPARE(renewed.status, 200);
    QVERIFY(service.stop());
    Service next;
    QVERIFY(next.start(data.path()));
    QVERIFY(bearerAccepted(next, renewed.access));
}

QTEST_GUILESS_MAIN(tst_DemoService)
#include "tst_demo_service.moc"
