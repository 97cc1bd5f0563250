#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDFileUpload.h"
#include "net/ZDTransportSettings_p.h"

#include <QTcpServer>
#include <QTemporaryDir>
#include <QTest>

Q_DECLARE_METATYPE(std::optional<QVariantMap>)
Q_DECLARE_METATYPE(std::optional<QByteArray>)

using namespace Qt::StringLiterals;

namespace {

constexpr int kTimeoutMs = 30000;

// Records what it was asked to sign and signs with a fixed header.
class RecordingSigner : public RequestSigner
{
public:
    ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) override
    {
        seen.append(request);
        ZDURLRequest copy = request;
        copy.setValueForHTTPHeaderField("Test signature", "Authorization");
        return copy;
    }
    QList<ZDURLRequest> seen;
};

// Lets the event loop run long enough for a late, unexpected message to arrive.
void settle(int ms = 200)
{
    QTest::qWait(ms);
}

} // namespace

class tst_JSONHTTPRequest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void queryFollowsTheQuestionMarkRule_data();
    void queryFollowsTheQuestionMarkRule();
    void formBodyAppendsUnsignedParametersAfterSigning_data();
    void formBodyAppendsUnsignedParametersAfterSigning();
    void multipartBodyIsSignedThenUnsignedAndOnlyItsQueryIsSigned_data();
    void multipartBodyIsSignedThenUnsignedAndOnlyItsQueryIsSigned();
    void largePartsGoOutWhole_data();
    void largePartsGoOutWhole();
    void aStreamedFileThatGoesAwayFailsTheRequest_data();
    void aStreamedFileThatGoesAwayFailsTheRequest();
    void bodyFollowsTheMethodOrTheOverride_data();
    void bodyFollowsTheMethodOrTheOverride();
    void headerSetTwiceCarriesBothValues();
    void answersBecomeObjectsOrErrors_data();
    void answersBecomeObjectsOrErrors();
    void redirectsAreFollowedAndPostBecomesGet_data();
    void redirectsAreFollowedAndPostBecomesGet();
    void progressReportsRunningTotalsThatNeverGoBack();
    void cancelSendsNothingMore();
    void delegateMayDestroyTheRequestInsideEveryCallback();
    void destroyedDelegateIsNotCalled();
    void transportFailuresGiveExactlyOneFailure_data();
    void transportFailuresGiveExactlyOneFailure();
    void requestsThatMayNotGoFailBeforeSending_data();
    void requestsThatMayNotGoFailBeforeSending();

private:
    RecordedRequest runAndRecord(JSONHTTPRequest &request, RecordingDelegate &delegate);

    LoopbackHTTPServer m_server;
};

void tst_JSONHTTPRequest::initTestCase()
{
    QVERIFY(m_server.listen());
}

void tst_JSONHTTPRequest::init()
{
    m_server.clear();
    m_server.setHandler([](const RecordedRequest &) { return CannedReply::json("{\"ok\":true}"); });
}

void tst_JSONHTTPRequest::cleanup()
{
    zdSetCellularProbeForTesting({});
}

RecordedRequest tst_JSONHTTPRequest::runAndRecord(JSONHTTPRequest &request,
                                                  RecordingDelegate &delegate)
{
    request.start();
    [&] { QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs); }();
    settle(50);
    [&] {
        QCOMPARE(delegate.endings(), 1);
        QCOMPARE(m_server.requests().size(), 1);
    }();
    return m_server.requests().value(0);
}

// --- building ---------------------------------------------------------------

void tst_JSONHTTPRequest::queryFollowsTheQuestionMarkRule_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<std::optional<QVariantMap>>("getParams");
    QTest::addColumn<QByteArray>("target");
    const QVariantMap params{{u"b"_s, u"2"_s}, {u"a"_s, u"1 2"_s}};
    QTest::newRow("after existing query")
        << u"/a?x=1"_s << std::optional(params) << QByteArray("/a?x=1&a=1%202&b=2");
    QTest::newRow("first query") << u"/a"_s << std::optional(params)
                                 << QByteArray("/a?a=1%202&b=2");
    QTest::newRow("empty but set") << u"/a"_s << std::optional(QVariantMap()) << QByteArray("/a?");
    QTest::newRow("empty after query")
        << u"/a?x=1"_s << std::optional(QVariantMap()) << QByteArray("/a?x=1&");
    QTest::newRow("unset") << u"/a"_s << std::optional<QVariantMap>() << QByteArray("/a");
    QTest::newRow("sorted by code unit, values described")
        << u"/a"_s
        << std::optional(QVariantMap{{u"b"_s, 10}, {u"B"_s, true}, {u"\u00e9"_s, u"~*"_s}})
        << QByteArray("/a?B=true&b=10&%C3%A9=~%2A");
}

void tst_JSONHTTPRequest::queryFollowsTheQuestionMarkRule()
{
    QFETCH(QString, path);
    QFETCH(std::optional<QVariantMap>, getParams);
    QFETCH(QByteArray, target);
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(path), &delegate);
    request.setGetParams(getParams);
    const RecordedRequest seen = runAndRecord(request, delegate);
    QCOMPARE(seen.method, QByteArray("GET"));
    QCOMPARE(seen.target, target);
    QVERIFY(seen.body.isEmpty());
}

void tst_JSONHTTPRequest::formBodyAppendsUnsignedParametersAfterSigning_data()
{
    QTest::addColumn<std::optional<QVariantMap>>("post");
    QTest::addColumn<std::optional<QVariantMap>>("unsignedPost");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<std::optional<QByteArray>>("signedBody");
    const QVariantMap kv{{u"k"_s, u"v"_s}};
    QTest::newRow("both") << std::optional(QVariantMap{{u"a"_s, u"1"_s}}) << std::optional(kv)
                          << QByteArray("a=1&k=v") << std::optional(QByteArray("a=1"));
    QTest::newRow("signed part set but empty")
        << std::optional(QVariantMap()) << std::optional(kv) << QByteArray("~k=v")
        << std::optional(QByteArray(""));
    QTest::newRow("signed part unset") << std::optional<QVariantMap>() << std::optional(kv)
                                       << QByteArray("k=v") << std::optional<QByteArray>();
    QTest::newRow("signed only") << std::optional(QVariantMap{{u"a b"_s, u"&="_s}})
                                 << std::optional<QVariantMap>() << QByteArray("a%20b=%26%3D")
                                 << std::optional(QByteArray("a%20b=%26%3D"));
}

void tst_JSONHTTPRequest::formBodyAppendsUnsignedParametersAfterSigning()
{
    QFETCH(std::optional<QVariantMap>, post);
    QFETCH(std::optional<QVariantMap>, unsignedPost);
    QFETCH(QByteArray, body);
    QFETCH(std::optional<QByteArray>, signedBody);
    RecordingDelegate delegate;
    auto signer = std::make_shared<RecordingSigner>();
    JSONHTTPRequest request(m_server.url(u"/form"_s), &delegate, signer);
    request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    request.setPostParams(post);
    request.setUnsignedPostParams(unsignedPost);
    const RecordedRequest seen = runAndRecord(request, delegate);
    QCOMPARE(seen.method, QByteArray("POST"));
    QCOMPARE(seen.body, body);
    QCOMPARE(seen.header("Authorization"), QByteArray("Test signature"));
    QCOMPARE(signer->seen.size(), 1);
    QCOMPARE(signer->seen[0].HTTPBody(), signedBody);
    QCOMPARE(signer->seen[0].HTTPMethod(), QByteArray("POST"));
    QVERIFY(!signer->seen[0].hasHTTPHeaderField("Content-Type"));
}

// The part layout itself is tst_multipart's; here the sequences, the header and
// what the signer sees.
void tst_JSONHTTPRequest::multipartBodyIsSignedThenUnsignedAndOnlyItsQueryIsSigned_data()
{
    QTest::addColumn<bool>("withSigned");
    QTest::newRow("signed and unsigned") << true;
    QTest::newRow("unsigned only") << false;
}

void tst_JSONHTTPRequest::multipartBodyIsSignedThenUnsignedAndOnlyItsQueryIsSigned()
{
    QFETCH(bool, withSigned);
    const QVariantMap title{{u"title"_s, u"A & B"_s}};
    const QVariantMap video{{u"video"_s, QByteArray("bytes")}, {u"n"_s, 1080}};
    RecordingDelegate delegate;
    auto signer = std::make_shared<RecordingSigner>();
    InspectableRequest request(m_server.url(u"/upload?v=2"_s), &delegate, signer);
    request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    request.setSignsMultipartPOSTData(true);
    request.setGetParams(QVariantMap{{u"g"_s, u"1"_s}});
    if (withSigned)
        request.setPostParams(title);
    request.setUnsignedPostParams(video);
    const RecordedRequest seen = runAndRecord(request, delegate);

    QCOMPARE(seen.target, QByteArray("/upload?v=2&g=1"));
    QCOMPARE(seen.header("Authorization"), QByteArray("Test signature"));
    QCOMPARE(seen.headerValues("Content-Type"),
             QList<QByteArray>{"multipart/form-data; boundary=" +
                               request.HTTPRequestBoundary().toLatin1()});
    QCOMPARE(seen.body, (withSigned ? request._multipartParamData(title) : QByteArray()) +
                            request._multipartParamData(video));
    // The signer saw the signed parameters in the query, never the unsigned ones.
    QCOMPARE(signer->seen.size(), 1);
    QVERIFY(signer->seen[0].URLString().endsWith(withSigned ? "/upload?v=2&g=1&title=A%20%26%20B"
                                                            : "/upload?v=2&g=1"));
    QVERIFY(!signer->seen[0].HTTPBody().value_or(QByteArray()).contains("bytes"));
}

// Large contents travel as pieces of their own; the wire must not show it, also
// when a 307 redirect makes the transport rewind and send the body again.
void tst_JSONHTTPRequest::largePartsGoOutWhole_data()
{
    QTest::addColumn<bool>("redirected");
    QTest::addColumn<bool>("streamed");
    QTest::newRow("direct") << false << false;
    QTest::newRow("after a 307") << true << false;
    QTest::newRow("streamed from its file") << false << true;
    QTest::newRow("streamed, after a 307") << true << true;
}

void tst_JSONHTTPRequest::largePartsGoOutWhole()
{
    QFETCH(bool, redirected);
    QFETCH(bool, streamed);
    m_server.setHandler([&](const RecordedRequest &request) {
        if (redirected && request.target == "/start")
            return CannedReply::redirect(307, "/final");
        return CannedReply::json("{}");
    });
    const QByteArray video = randomBytes(3 * 1024 * 1024 + 17);
    ZDFileUpload upload;
    upload.setName(u"clip.mov"_s);
    upload.setData(video);
    QTemporaryDir dir;
    const QString path = dir.filePath(u"clip.mov"_s);
    QVERIFY(writeFile(path, video));
    const QVariant part =
        streamed ? QVariant::fromValue(ZDStreamedFileUpload(path)) : QVariant::fromValue(upload);
    const QVariantMap signedParams{{u"title"_s, u"Trip"_s},
                                   {u"thumbnail"_s, QByteArray(200 * 1024, 't')}};
    const QVariantMap unsignedParams{{u"a-video"_s, part}, {u"b-note"_s, u"after the video"_s}};

    RecordingDelegate delegate;
    InspectableRequest request(m_server.url(u"/start"_s), &delegate);
    request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    request.setPostParams(signedParams);
    request.setUnsignedPostParams(unsignedParams);
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);

    // The same bytes a video held in memory gives.
    const QVariantMap inMemory{{u"a-video"_s, QVariant::fromValue(upload)},
                               {u"b-note"_s, u"after the video"_s}};
    const QByteArray expected =
        request._multipartParamData(signedParams) + request._multipartParamData(inMemory);
    QCOMPARE(m_server.requests().size(), redirected ? 2 : 1);
    for (const RecordedRequest &seen : m_server.requests()) {
        QCOMPARE(seen.method, QByteArray("POST"));
        QCOMPARE(seen.body.size(), expected.size());
        QVERIFY(seen.body == expected);
    }
}

void tst_JSONHTTPRequest::aStreamedFileThatGoesAwayFailsTheRequest_data()
{
    QTest::addColumn<bool>("removed");
    QTest::newRow("removed") << true;
    QTest::newRow("shrunk") << false;
}

void tst_JSONHTTPRequest::aStreamedFileThatGoesAwayFailsTheRequest()
{
    QFETCH(bool, removed);
    QTemporaryDir dir;
    QFile file(dir.filePath(u"clip.mov"_s));
    QVERIFY(writeFile(file.fileName(), QByteArray(1024 * 1024, 'v')));
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/upload"_s), &delegate);
    request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    request.setUnsignedPostParams(
        QVariantMap{{u"video"_s, QVariant::fromValue(ZDStreamedFileUpload(file.fileName()))}});
    request.start(); // the body is built with the file's size now
    if (removed) {
        QVERIFY(file.remove());
    } else {
        QVERIFY(file.resize(1000));
    }
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    settle(200);
    QCOMPARE(delegate.endings(), 1);
    QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
    QCOMPARE(delegate.last().error.domain(), ZDURLErrorDomain);
    QCOMPARE(delegate.last().error.code(), qint64(ZDURLErrorBodyFileUnreadable));
}

void tst_JSONHTTPRequest::bodyFollowsTheMethodOrTheOverride_data()
{
    QTest::addColumn<int>("before"); // a method set first; -2: none
    QTest::addColumn<int>("method");
    QTest::addColumn<std::optional<QByteArray>>("overrideBody");
    QTest::addColumn<QByteArray>("verb");
    QTest::addColumn<QByteArray>("body");
    const QByteArray exact("\x00\r\n--not multipart\xff", 19);
    QTest::newRow("PUT sends no parameters")
        << -2 << int(JSONHTTPRequestMethodPUT) << std::optional<QByteArray>() << QByteArray("PUT")
        << QByteArray();
    QTest::newRow("PUT override") << -2 << int(JSONHTTPRequestMethodPUT) << std::optional(exact)
                                  << QByteArray("PUT") << exact;
    QTest::newRow("form override") << -2 << int(JSONHTTPRequestMethodFormPOST)
                                   << std::optional(exact) << QByteArray("POST") << exact;
    QTest::newRow("multipart override") << -2 << int(JSONHTTPRequestMethodMultipartPOST)
                                        << std::optional(exact) << QByteArray("POST") << exact;
    QTest::newRow("unknown method")
        << -2 << 7 << std::optional<QByteArray>() << QByteArray("GET") << QByteArray();
    QTest::newRow("unknown after PUT")
        << int(JSONHTTPRequestMethodPUT) << -1 << std::optional<QByteArray>() << QByteArray("PUT")
        << QByteArray();
}

void tst_JSONHTTPRequest::bodyFollowsTheMethodOrTheOverride()
{
    QFETCH(int, before);
    QFETCH(int, method);
    QFETCH(std::optional<QByteArray>, overrideBody);
    QFETCH(QByteArray, verb);
    QFETCH(QByteArray, body);
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/body"_s), &delegate);
    if (before != -2)
        request.setHTTPMethod(JSONHTTPRequestMethod(before));
    request.setHTTPMethod(JSONHTTPRequestMethod(method));
    QCOMPARE(request.HTTPMethod(), JSONHTTPRequestMethod(method));
    request.setPostParams(QVariantMap{{u"a"_s, u"1"_s}});
    request.setUnsignedPostParams(QVariantMap{{u"b"_s, u"2"_s}});
    if (overrideBody)
        request.setOverridePostBody(*overrideBody);
    const RecordedRequest seen = runAndRecord(request, delegate);
    QCOMPARE(seen.method, verb);
    QCOMPARE(seen.body, body);
    // An overridden body is sent as it is, never announced as multipart.
    QVERIFY(!seen.header("Content-Type").startsWith("multipart/form-data"));
}

void tst_JSONHTTPRequest::headerSetTwiceCarriesBothValues()
{
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/h"_s), &delegate);
    request.setHTTPHeaderValue(u"X-Test"_s, u"one"_s);
    request.setHTTPHeaderValue(u"x-test"_s, u"two"_s);
    request.setHTTPHeaderValue(u"Accept"_s, u"application/json"_s);
    const RecordedRequest seen = runAndRecord(request, delegate);
    QCOMPARE(seen.header("X-Test"), QByteArray("one,two"));
    QCOMPARE(seen.header("Accept"), QByteArray("application/json"));
}

// Refusals come from the event loop, never from inside start(), in one line, and
// the server sees nothing.
void tst_JSONHTTPRequest::requestsThatMayNotGoFailBeforeSending_data()
{
    QTest::addColumn<QString>("what"); // what `value` is
    QTest::addColumn<QString>("value");
    QTest::addColumn<qint64>("code"); // a ZDURLError; 0: it goes; -1: any failure
    const auto row = [](const char *name, const QString &what, const QString &value, qint64 code) {
        QTest::newRow(name) << what << value << code;
    };
    row("huge URL", u"url"_s, m_server.url(u"/r?q="_s + QString(9000000, u'a')).toString(),
        ZDURLErrorBadURL);
    row("line break in a header", u"header"_s, u"a\r\nX-Injected: 1"_s,
        ZDURLErrorInvalidHeaderField);
    const qint64 forged = ZDURLErrorInvalidMultipartKey;
    row("key with a quote forging a filename", u"signed key"_s, u"t\"; filename=\"evil.sh"_s,
        forged);
    row("key with CR LF injecting a header", u"signed key"_s, u"a\r\nContent-Type: text/html"_s,
        forged);
    row("key with a bare LF", u"key"_s, u"a\nb"_s, forged);
    row("key with a bare CR", u"key"_s, u"a\rb"_s, forged);
    row("cellular refused", u"cellular"_s, u"refused"_s, ZDURLErrorCellularAccessDenied);
    row("cellular never set", u"cellular"_s, QString(), 0);
    row("cellular refused, link is not", u"wifi"_s, u"refused"_s, 0);
    row("ftp", u"url"_s, u"ftp://127.0.0.1/file"_s, -1);
    row("unparsable", u"url"_s, u"http://[::1"_s, -1);
    row("file", u"url"_s, u"file:///etc/passwd"_s, -1);
}

void tst_JSONHTTPRequest::requestsThatMayNotGoFailBeforeSending()
{
    QFETCH(QString, what);
    QFETCH(QString, value);
    QFETCH(qint64, code);
    zdSetCellularProbeForTesting([what] { return what == u"cellular"_s; });
    RecordingDelegate delegate;
    auto signer = std::make_shared<RecordingSigner>();
    JSONHTTPRequest request(what == u"url"_s ? QUrl(value) : m_server.url(u"/r"_s), &delegate,
                            signer);
    QCOMPARE(request.allowsCellularAccess(), false); // never set reads false, yet may go
    if (what == u"header"_s)
        request.setHTTPHeaderValue(u"X-Note"_s, value);
    if (value == u"refused"_s)
        request.setAllowsCellularAccess(false);
    if (what.endsWith(u"key"_s)) {
        request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
        const QVariantMap params{{value, u"value"_s}, {u"fine"_s, u"1"_s}};
        (what == u"key"_s ? request.setUnsignedPostParams(params) : request.setPostParams(params));
    }
    request.start();
    QVERIFY(delegate.events.empty());
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    settle(100);
    QCOMPARE(delegate.endings(), 1);
    QCOMPARE(m_server.requests().size(), code == 0 ? 1 : 0);
    if (code == 0) {
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);
        return;
    }
    QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
    QVERIFY(!delegate.last().error.localizedDescription().contains(u'\n'));
    if (what.endsWith(u"key"_s)) // refused before anything is built or signed
        QVERIFY(signer->seen.isEmpty());
    if (code > 0) {
        QCOMPARE(delegate.last().error.domain(), ZDURLErrorDomain);
        QCOMPARE(delegate.last().error.code(), code);
    }
    // A refusal leaves the transport as it was: the next request goes.
    zdSetCellularProbeForTesting({});
    RecordingDelegate next;
    JSONHTTPRequest after(m_server.url(u"/after"_s), &next);
    runAndRecord(after, next);
}

// --- responses --------------------------------------------------------------

void tst_JSONHTTPRequest::answersBecomeObjectsOrErrors_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QVariant>("object"); // invalid: a failure is expected
    QTest::addColumn<QString>("errorDomain");
    QTest::addColumn<qint64>("errorCode"); // -1: the parser's, any but 0

    const QString own = JSONHTTPRequestErrorDomain;
    const qint64 badStatus = JSONHTTPRequestErrorBadStatus;
    const qint64 noResult = JSONHTTPRequestErrorNoResult;
    const auto ok = [](const char *name, int status, int type, const QByteArray &body,
                       const QVariant &object) {
        QTest::newRow(name) << status << type << body << object << QString() << qint64(0);
    };
    const auto fails = [](const char *name, int status, int type, const QByteArray &body,
                          const QString &domain, qint64 code) {
        QTest::newRow(name) << status << type << body << QVariant() << domain << code;
    };
    ok("200 with empty body", 200, 0, {}, QVariantMap());
    ok("204", 204, 0, {}, QVariantMap());
    ok("3xx without Location", 302, 0, "[1]", QVariantList{qint64(1)});
    ok("600 is valid", 600, 0, "\"x\"", u"x"_s);
    fails("404", 404, 0, "{\"error\":1}", own, badStatus);
    fails("500 with empty body", 500, 0, {}, own, badStatus);
    fails("499 with invalid body", 499, 0, "<html>", own, badStatus);

    ok("json object", 200, 0, R"({"a":[1,2.5,"x",true,null],"b":{"c":-3}})",
       QVariantMap{
           {u"a"_s, QVariantList{qint64(1), 2.5, u"x"_s, true, QVariant::fromValue(nullptr)}},
           {u"b"_s, QVariantMap{{u"c"_s, qint64(-3)}}}});
    ok("json string fragment", 200, 0, " \"h\\u00e9llo\" ", u"h\u00e9llo"_s);
    ok("json number fragment", 200, 0, "42", qint64(42));
    ok("json big unsigned", 200, 0, "18446744073709551615", quint64(18446744073709551615ull));
    ok("json null fragment", 200, 0, "null", QVariant::fromValue(nullptr));
    QByteArray big = "[";
    QVariantList bigList;
    for (int i = 0; i < 200000; ++i) {
        big += "{\"n\":" + QByteArray::number(i) + "},";
        bigList.append(QVariantMap{{u"n"_s, qint64(i)}});
    }
    bigList.append(QVariant::fromValue(nullptr));
    ok("json large document", 200, 0, big + "null]", bigList);
    const QList<QByteArray> hostile{"not json",
                                    "{\"a\":1,}",
                                    "\"raw \x01 control\"",
                                    "2.",
                                    ".2e-3",
                                    "[1] [2]",
                                    "\"\xff\xfe\"",
                                    QByteArray(200000, '['),
                                    QByteArray(100000, '[') + QByteArray(100000, ']'),
                                    "1e999999"};
    for (qsizetype i = 0; i < hostile.size(); ++i)
        fails(QByteArray("hostile json " + QByteArray::number(i)).constData(), 200, 0, hostile[i],
              ZDJSONErrorDomain, -1);

    ok("form string keeps escapes", 200, 1, "a=1%202&b=2",
       QVariantMap{{u"a"_s, u"1%202"_s}, {u"b"_s, u"2"_s}});
    fails("form string not utf-8", 200, 1, "a=\xff", own, noResult);
    ok("form string with no pairs", 200, 1, "garbage", QVariantMap());
    QByteArray everyByte;
    for (int i = 0; i < 256; ++i)
        everyByte += char(i);
    ok("raw bytes exact", 200, 2, everyByte, everyByte);
    ok("raw, empty body", 200, 2, {}, QVariantMap());
    fails("unknown type", 200, 5, "x", own, noResult);
    ok("unknown type, empty body", 200, 5, {}, QVariantMap());
}

void tst_JSONHTTPRequest::answersBecomeObjectsOrErrors()
{
    QFETCH(int, status);
    QFETCH(int, type);
    QFETCH(QByteArray, body);
    QFETCH(QVariant, object);
    QFETCH(QString, errorDomain);
    QFETCH(qint64, errorCode);
    m_server.setHandler([&](const RecordedRequest &) {
        CannedReply reply = CannedReply::json(body, status);
        reply.reason = "Status";
        return reply;
    });
    RecordingDelegate delegate;
    InspectableRequest request(m_server.url(u"/typed"_s), &delegate);
    request.setResponseType(JSONHTTPResponseType(type));
    runAndRecord(request, delegate);
    QCOMPARE(request.response()->statusCode(), status);
    QCOMPARE(request.receivedValidResponse(), errorCode != JSONHTTPRequestErrorBadStatus);
    if (object.isValid()) {
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);
        QCOMPARE(delegate.last().object, object);
        QCOMPARE(delegate.last().object.typeId(), object.typeId());
        return;
    }
    QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
    const ZDError error = delegate.last().error;
    QCOMPARE(error.domain(), errorDomain);
    if (errorCode < 0) {
        QVERIFY(error.code() != 0);
        QVERIFY(!error.userInfo().value(ZDLocalizedDescriptionKey).toString().isEmpty());
    } else if (errorCode == JSONHTTPRequestErrorBadStatus) {
        QCOMPARE(error.code(), errorCode);
        QCOMPARE(error.userInfo().size(), 1);
        QCOMPARE(error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode(),
                 status);
        // The error body is kept as received but never parsed or delivered.
        QCOMPARE(request.responseBody().value_or(QByteArray()), body);
    } else {
        QCOMPARE(error.code(), errorCode);
        QVERIFY(error.userInfo().isEmpty());
    }
}

void tst_JSONHTTPRequest::redirectsAreFollowedAndPostBecomesGet_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("finalMethod");
    QTest::newRow("301") << 301 << QByteArray("GET");
    QTest::newRow("302") << 302 << QByteArray("GET");
    QTest::newRow("303") << 303 << QByteArray("GET");
    QTest::newRow("307 keeps the POST") << 307 << QByteArray("POST");
}

void tst_JSONHTTPRequest::redirectsAreFollowedAndPostBecomesGet()
{
    QFETCH(int, status);
    QFETCH(QByteArray, finalMethod);
    m_server.setHandler([&](const RecordedRequest &request) {
        if (request.target == "/start")
            return CannedReply::redirect(status, "/final");
        return CannedReply::json("{\"arrived\":\"" + request.method + "\"}");
    });
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/start"_s), &delegate);
    request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    request.setPostParams(QVariantMap{{u"a"_s, u"1"_s}});
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    settle(50);
    QCOMPARE(delegate.endings(), 1);
    QCOMPARE(m_server.requests().size(), 2);
    QCOMPARE(m_server.requests()[0].method, QByteArray("POST"));
    QCOMPARE(m_server.requests()[1].method, finalMethod);
    QCOMPARE(m_server.requests()[1].target, QByteArray("/final"));
    QCOMPARE(delegate.last().object.toMap().value(u"arrived"_s).toString(),
             QString::fromLatin1(finalMethod));
    QCOMPARE(request.response()->URL().path(), u"/final"_s);
}

// --- progress, cancelling and lifetime --------------------------------------

void tst_JSONHTTPRequest::progressReportsRunningTotalsThatNeverGoBack()
{
    const QByteArray payload(8 * 1024 * 1024, 'v');
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/progress"_s), &delegate);
    request.setHTTPMethod(JSONHTTPRequestMethodPUT);
    request.setOverridePostBody(payload);
    runAndRecord(request, delegate);

    QCOMPARE(m_server.requests()[0].body.size(), payload.size());
    qint64 previous = 0;
    int progressEvents = 0;
    for (const auto &event : delegate.events) {
        if (event.kind != RecordingDelegate::Event::Progress)
            continue;
        ++progressEvents;
        QVERIFY(event.written > previous);
        QCOMPARE(event.expected, qint64(payload.size()));
        previous = event.written;
    }
    QVERIFY(progressEvents >= 1);
    QCOMPARE(previous, qint64(payload.size()));
    QCOMPARE(delegate.events.back().kind, RecordingDelegate::Event::Object);
}

void tst_JSONHTTPRequest::cancelSendsNothingMore()
{
    // Cancelled right after start: nothing at all.
    {
        RecordingDelegate delegate;
        InspectableRequest request(m_server.url(u"/c"_s), &delegate);
        request.start();
        QVERIFY(request.hasConnection());
        request.cancel();
        QVERIFY(!request.hasConnection());
        request.cancel(); // idle: does nothing
        settle(300);
        QVERIFY(delegate.events.empty());
    }
    // Cancelled from inside a progress message: no further message.
    {
        RecordingDelegate delegate;
        JSONHTTPRequest request(m_server.url(u"/c"_s), &delegate);
        request.setHTTPMethod(JSONHTTPRequestMethodPUT);
        request.setOverridePostBody(QByteArray(16 * 1024 * 1024, 'x'));
        delegate.onProgress = [](JSONHTTPRequest *r) { r->cancel(); };
        request.start();
        QTRY_VERIFY_WITH_TIMEOUT(!delegate.events.empty(), kTimeoutMs);
        settle(300);
        QCOMPARE(delegate.events.size(), size_t(1));
        QVERIFY(!request.response().has_value());
    }
}

void tst_JSONHTTPRequest::delegateMayDestroyTheRequestInsideEveryCallback()
{
    for (const bool inProgress : {false, true}) {
        for (const bool failing : {false, true}) {
            m_server.setHandler([&](const RecordedRequest &) {
                return CannedReply::json("{\"a\":1}", failing ? 500 : 200);
            });
            RecordingDelegate delegate;
            auto request = std::make_unique<JSONHTTPRequest>(m_server.url(u"/d"_s), &delegate);
            request->setHTTPMethod(JSONHTTPRequestMethodPUT);
            request->setOverridePostBody(QByteArray(1024 * 1024, 'x'));
            const auto destroy = [&](JSONHTTPRequest *r) {
                QCOMPARE(r, request.get());
                request.reset();
            };
            (inProgress ? delegate.onProgress : delegate.onEnd) = destroy;
            request->start();
            QTRY_VERIFY_WITH_TIMEOUT(!request, kTimeoutMs);
            settle(100);
            // Nothing follows the message in which the request was destroyed.
            if (inProgress)
                QCOMPARE(delegate.events.size(), size_t(1));
            else
                QCOMPARE(delegate.endings(), 1);
            QCOMPARE(delegate.last().kind == RecordingDelegate::Event::Progress, inProgress);
        }
    }
}

void tst_JSONHTTPRequest::destroyedDelegateIsNotCalled()
{
    auto delegate = std::make_unique<RecordingDelegate>();
    JSONHTTPRequest request(m_server.url(u"/gone"_s), delegate.get());
    request.start();
    delegate.reset();
    QTRY_VERIFY_WITH_TIMEOUT(m_server.requests().size() == 1, kTimeoutMs);
    settle(200); // the answer arrives and finds nobody to tell
}

void tst_JSONHTTPRequest::transportFailuresGiveExactlyOneFailure_data()
{
    QTest::addColumn<int>("ending");
    QTest::addColumn<qint64>("curlCode");
    QTest::newRow("closed mid-body") << int(CannedReply::Ending::CloseMidBody) << qint64(18);
    QTest::newRow("reset mid-body") << int(CannedReply::Ending::ResetMidBody) << qint64(-1);
    QTest::newRow("reset before answering") << int(CannedReply::Ending::ResetAtOnce) << qint64(-1);
    QTest::newRow("connection refused") << -1 << qint64(7);
}

void tst_JSONHTTPRequest::transportFailuresGiveExactlyOneFailure()
{
    QFETCH(int, ending);
    QFETCH(qint64, curlCode);
    QUrl url = m_server.url(u"/broken"_s);
    if (ending < 0) {
        // A port that was just free and is closed again refuses connections.
        QTcpServer probe;
        QVERIFY(probe.listen(QHostAddress::LocalHost, 0));
        url.setPort(probe.serverPort());
        probe.close();
    } else {
        m_server.setHandler([&](const RecordedRequest &) {
            CannedReply reply = CannedReply::json(QByteArray(100000, ' ') + "{}");
            reply.ending = CannedReply::Ending(ending);
            reply.partialBytes = 10;
            return reply;
        });
    }
    RecordingDelegate delegate;
    JSONHTTPRequest request(url, &delegate);
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    settle(300);
    QCOMPARE(delegate.events.size(), size_t(1));
    const ZDError error = delegate.last().error;
    QCOMPARE(error.domain(), ZDCurlErrorDomain);
    if (curlCode > 0)
        QCOMPARE(error.code(), curlCode);
    QVERIFY(!error.localizedDescription().isEmpty());
    QVERIFY(error.userInfo().value(ZDURLErrorURLKey).toString().contains(u"/"_s));
}

QTEST_GUILESS_MAIN(tst_JSONHTTPRequest)
#include "tst_jsonhttprequest.moc"
