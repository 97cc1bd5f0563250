#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/ZDOAuth1Signer.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRegularExpression>
#include <QStandardPaths>
#include <QTest>

using namespace Qt::StringLiterals;

namespace {

// The signature value of an Authorization header.
QString signatureIn(const QByteArray &header)
{
    static const QRegularExpression field(u"oauth_signature=\"([^\"]*)\""_s);
    return QUrl::fromPercentEncoding(
        field.match(QString::fromLatin1(header)).captured(1).toLatin1());
}

ZDURLRequest requestFor(const QByteArray &method, const QByteArray &url,
                        const QByteArray &body = {}, const QByteArray &contentType = {})
{
    ZDURLRequest request;
    request.setURLString(url);
    request.setHTTPMethod(method);
    if (!body.isNull())
        request.setHTTPBody(body);
    if (!contentType.isNull())
        request.setValueForHTTPHeaderField(contentType, "Content-Type");
    return request;
}

} // namespace

class tst_OAuth : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void matchesTheWorkedExampleOfRfc5849();
    void agreesWithAnIndependentImplementation();
    void multipartBodiesAreNotSignedButTheirQueryIs();
    void signedRequestsReachTheServerWithTheirHeader();
};

// RFC 5849, section 3.1 and 3.4.1.1. The signature printed in section 3.1 is a
// known erratum; r6/TJjbCOr97/+UU0NsvSne7s5g= is the correct value.
void tst_OAuth::matchesTheWorkedExampleOfRfc5849()
{
    const ZDOAuth1Signer::Parameters parameters{{u"b5"_s, u"=%3D"_s},
                                                {u"a3"_s, u"a"_s},
                                                {u"c@"_s, QString()},
                                                {u"a2"_s, u"r b"_s},
                                                {u"oauth_consumer_key"_s, u"9djdj82h48djs9d2"_s},
                                                {u"oauth_token"_s, u"kkk9d7dh3k39sjv7"_s},
                                                {u"oauth_signature_method"_s, u"HMAC-SHA1"_s},
                                                {u"oauth_timestamp"_s, u"137131201"_s},
                                                {u"oauth_nonce"_s, u"7d8f3e4a"_s},
                                                {u"c2"_s, QString()},
                                                {u"a3"_s, u"2 q"_s}};
    const QByteArray base = ZDOAuth1Signer::signatureBaseString(
        "POST", "http://example.com/request?b5=%3D%253D&a3=a&c%40=&a2=r%20b", parameters);
    QCOMPARE(base,
             QByteArray(
                 "POST&http%3A%2F%2Fexample.com%2Frequest&a2%3Dr%2520b%26a3%3D2%2520q%26a3%3Da"
                 "%26b5%3D%253D%25253D%26c%2540%3D%26c2%3D%26oauth_consumer_key%3D9djdj82h48djs9d2"
                 "%26oauth_nonce%3D7d8f3e4a%26oauth_signature_method%3DHMAC-SHA1%26oauth_timestamp"
                 "%3D137131201%26oauth_token%3Dkkk9d7dh3k39sjv7"));
    QCOMPARE(ZDOAuth1Signer::hmacSha1Signature(base, u"j49sk3j29djd"_s, u"dh893hdasih9"_s),
             u"r6/TJjbCOr97/+UU0NsvSne7s5g="_s);
    // The base string URI drops a default port and lowers scheme and host.
    QVERIFY(ZDOAuth1Signer::signatureBaseString("get", "HTTP://Example.COM:80/r%20x?a=1", {})
                .startsWith("GET&http%3A%2F%2Fexample.com%2Fr%2520x&"));
    QVERIFY(ZDOAuth1Signer::signatureBaseString("GET", "https://example.com:8443/", {})
                .startsWith("GET&https%3A%2F%2Fexample.com%3A8443%2F&"));
}

void tst_OAuth::agreesWithAnIndependentImplementation()
{
    const QString node = QStandardPaths::findExecutable(u"node"_s);
    const QString script =
        qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tests/peers/oauth_sign.js"_s;
    if (node.isEmpty() || !QFileInfo::exists(qEnvironmentVariable("ZD_SOURCE_DIR") +
                                             u"/tests/peers/node_modules/oauth-1.0a"_s))
        QFAIL("node or oauth-1.0a is missing: run tools/install-deps");

    struct Case
    {
        QByteArray method, url, body;
        QJsonObject data;
        bool token;
    };
    const QList<Case> cases{
        {"GET", "http://127.0.0.1:8080/v1/videos?page=2&q=sea%20%26%20sun", {}, {}, true},
        {"POST",
         "https://video.example/oauth/access_token",
         "x_auth_username=ann&x_auth_password=s3cr%C3%A9t%21",
         {{u"x_auth_username"_s, u"ann"_s}, {u"x_auth_password"_s, u"s3cr\u00e9t!"_s}},
         false},
        {"POST",
         "https://video.example/upload?title=Caf%C3%A9%20%F0%9F%98%80&tags=a%2Cb",
         {},
         {},
         true},
        {"PUT",
         "http://video.example/v/1",
         "a=%2A&b=~",
         {{u"a"_s, u"*"_s}, {u"b"_s, u"~"_s}},
         true},
    };
    QJsonArray requests;
    QStringList ours;
    for (const Case &c : cases) {
        ZDOAuth1Signer signer(u"consumer key"_s, u"consumer secret"_s);
        if (c.token)
            signer.setToken(u"token/1"_s, u"token secret"_s);
        signer.setNonceAndTimestampSource([] { return std::pair{u"n0nce"_s, qint64(1700000000)}; });
        const ZDURLRequest signedRequest = signer.signedRequestForRequest(
            requestFor(c.method, c.url, c.body.isEmpty() ? QByteArray() : c.body));
        ours << signatureIn(signedRequest.valueForHTTPHeaderField("Authorization"));
        QJsonObject request{{u"method"_s, QString::fromLatin1(c.method)},
                            {u"url"_s, QString::fromLatin1(c.url)},
                            {u"data"_s, c.data},
                            {u"consumer"_s, QJsonArray{u"consumer key"_s, u"consumer secret"_s}},
                            {u"nonce"_s, u"n0nce"_s},
                            {u"timestamp"_s, 1700000000}};
        if (c.token)
            request[u"token"_s] = QJsonArray{u"token/1"_s, u"token secret"_s};
        requests.append(request);
    }
    QProcess process;
    process.start(node, {script});
    process.write(QJsonDocument(requests).toJson(QJsonDocument::Compact));
    process.closeWriteChannel();
    QVERIFY(process.waitForFinished(60000));
    QVERIFY2(process.exitCode() == 0, process.readAllStandardError().constData());
    const QStringList theirs =
        QString::fromUtf8(process.readAllStandardOutput()).split(u'\n', Qt::SkipEmptyParts);
    QCOMPARE(ours, theirs);
}

void tst_OAuth::multipartBodiesAreNotSignedButTheirQueryIs()
{
    ZDOAuth1Signer signer(u"k"_s, u"s"_s, u"t"_s, u"ts"_s);
    signer.setNonceAndTimestampSource([] { return std::pair{u"n"_s, qint64(1)}; });
    const QByteArray multipart =
        "--B\r\nContent-Disposition: form-data; name=\"a\"\r\n\r\n1\r\n--B\r\n";
    const auto header = [&](const ZDURLRequest &request) {
        return signer.signedRequestForRequest(request).valueForHTTPHeaderField("Authorization");
    };
    const QByteArray withBody =
        header(requestFor("POST", "http://h/u?a=1", multipart, "multipart/form-data; boundary=B"));
    const QByteArray withoutBody = header(requestFor("POST", "http://h/u?a=1"));
    QCOMPARE(signatureIn(withBody), signatureIn(withoutBody));
    QVERIFY(signatureIn(withoutBody) != signatureIn(header(requestFor("POST", "http://h/u?a=2"))));
    QVERIFY(withBody.startsWith("OAuth oauth_consumer_key=\"k\", oauth_nonce=\"n\""));
    QVERIFY(withBody.contains("oauth_token=\"t\""));
    QVERIFY(withBody.contains("oauth_version=\"1.0\""));
}

void tst_OAuth::signedRequestsReachTheServerWithTheirHeader()
{
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    auto signer = std::make_shared<ZDOAuth1Signer>(u"k"_s, u"s"_s, u"t"_s, u"ts"_s);
    RecordingDelegate delegate;
    JSONHTTPRequest request(server.url(u"/v1/upload"_s), &delegate, signer);
    request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    request.setPostParams(QVariantMap{{u"title"_s, u"Trip"_s}});
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, 30000);
    const RecordedRequest seen = server.requests().value(0);
    QVERIFY(seen.header("Authorization").startsWith("OAuth "));
    // The server can check it: the same base string signs to the same value.
    ZDOAuth1Signer::Parameters parameters{{u"title"_s, u"Trip"_s}};
    static const QRegularExpression field(u"(oauth_[a-z_]+)=\"([^\"]*)\""_s);
    auto it = field.globalMatch(QString::fromLatin1(seen.header("Authorization")));
    QString sent;
    while (it.hasNext()) {
        const auto match = it.next();
        const QString value = QUrl::fromPercentEncoding(match.captured(2).toLatin1());
        if (match.captured(1) == u"oauth_signature")
            sent = value;
        else
            parameters.append({match.captured(1), value});
    }
    const QByteArray base = ZDOAuth1Signer::signatureBaseString(
        "POST", server.url(u"/v1/upload"_s).toEncoded(), parameters);
    QCOMPARE(ZDOAuth1Signer::hmacSha1Signature(base, u"s"_s, u"ts"_s), sent);
}

QTEST_GUILESS_MAIN(tst_OAuth)
#include "tst_oauth.moc"
