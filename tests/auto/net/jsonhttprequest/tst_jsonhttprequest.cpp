#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDFileUpload.h"
#include "net/ZDTransportSettings_p.h"

#include <QProcess>
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
    void multipartBodyHoldsSignedThenUnsignedSequences();
    void largePartsGoOutWhole_data();
    void largePartsGoOutWhole();
    void aStreamedFileThatGoesAwayFailsTheRequest_data();
    void aStreamedFileThatGoesAwayFailsTheRequest();
    void signerSeesPostParametersInQueryButRequestGoesToPlainURL();
    void putAndOverrideBodiesSendExactlyWhatWasGiven();
    void unknownMethodKeepsTheVerbAndBuildsNoBody();
    void headerSetTwiceCarriesBothValues();
    void statusClassesDecideValidity_data();
    void statusClassesDecideValidity();
    void redirectsAreFollowedAndPostBecomesGet_data();
    void redirectsAreFollowedAndPostBecomesGet();
    void responseTypesDeliverTheirObjects_data();
    void responseTypesDeliverTheirObjects();
    void hostileJSONFailsWithTheParsersError();
    void progressReportsRunningTotalsThatNeverGoBack();
    void cancelSendsNothingMore();
    void delegateMayDestroyTheRequestInsideEveryCallback();
    void destroyedDelegateIsNotCalled();
    void transportFailuresGiveExactlyOneFailure_data();
    void transportFailuresGiveExactlyOneFailure();
    void cellularFlagIsHonouredWhenTheLinkIsCellular();
    void headerInjectionIsRefused();
    void failuresToStartArriveLaterFromTheEventLoop();

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

// The part layout itself is tst_multipart's; here the sequences and the header.
void tst_JSONHTTPRequest::multipartBodyHoldsSignedThenUnsignedSequences()
{
    const QVariantMap title{{u"title"_s, u"Trip"_s}};
    const QVariantMap number{{u"n"_s, 1080}};
    for (const bool withSigned : {true, false}) {
        m_server.clear();
        RecordingDelegate delegate;
        InspectableRequest request(m_server.url(u"/upload"_s), &delegate);
        request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
        if (withSigned)
            request.setPostParams(title);
        request.setUnsignedPostParams(number);
        const RecordedRequest seen = runAndRecord(request, delegate);
        QCOMPARE(seen.headerValues("Content-Type"),
                 QList<QByteArray>{"multipart/form-data; boundary=" +
                                   request.HTTPRequestBoundary().toLatin1()});
        QCOMPARE(seen.body, (withSigned ? request._multipartParamData(title) : QByteArray()) +
                                request._multipartParamData(number));
    }
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

void tst_JSONHTTPRequest::signerSeesPostParametersInQueryButRequestGoesToPlainURL()
{
    RecordingDelegate delegate;
    auto signer = std::make_shared<RecordingSigner>();
    JSONHTTPRequest request(m_server.url(u"/upload?v=2"_s), &delegate, signer);
    request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    request.setSignsMultipartPOSTData(true);
    request.setGetParams(QVariantMap{{u"g"_s, u"1"_s}});
    request.setPostParams(QVariantMap{{u"title"_s, u"A & B"_s}});
    request.setUnsignedPostParams(QVariantMap{{u"video"_s, QByteArray("bytes")}});
    const RecordedRequest seen = runAndRecord(request, delegate);

    QCOMPARE(signer->seen.size(), 1);
    QVERIFY(signer->seen[0].URLString().endsWith("/upload?v=2&g=1&title=A%20%26%20B"));
    QCOMPARE(seen.target, QByteArray("/upload?v=2&g=1"));
    QCOMPARE(seen.header("Authorization"), QByteArray("Test signature"));
    QVERIFY(seen.body.contains("name=\"title\"\r\n\r\nA & B\r\n"));
    QVERIFY(seen.body.contains(
        "name=\"video\"\r\nContent-Type: application/octet-stream\r\n\r\nbytes"));
    // What the signer saw carried the signed sequence only.
    QVERIFY(!signer->seen[0].HTTPBody()->contains("bytes"));
}

void tst_JSONHTTPRequest::putAndOverrideBodiesSendExactlyWhatWasGiven()
{
    RecordingDelegate delegate;
    JSONHTTPRequest put(m_server.url(u"/put"_s), &delegate);
    put.setHTTPMethod(JSONHTTPRequestMethodPUT);
    put.setPostParams(QVariantMap{{u"ignored"_s, u"1"_s}});
    RecordedRequest seen = runAndRecord(put, delegate);
    QCOMPARE(seen.method, QByteArray("PUT"));
    QCOMPARE(seen.body, QByteArray());

    const QByteArray exact("\x00\r\n--not multipart\xff", 19);
    for (JSONHTTPRequestMethod method : {JSONHTTPRequestMethodPUT, JSONHTTPRequestMethodFormPOST,
                                         JSONHTTPRequestMethodMultipartPOST}) {
        m_server.clear();
        RecordingDelegate d;
        JSONHTTPRequest request(m_server.url(u"/override"_s), &d);
        request.setHTTPMethod(method);
        request.setPostParams(QVariantMap{{u"a"_s, u"1"_s}});
        request.setUnsignedPostParams(QVariantMap{{u"b"_s, u"2"_s}});
        request.setOverridePostBody(exact);
        seen = runAndRecord(request, d);
        QCOMPARE(seen.body, exact);
        // The multipart header depends on the parameters, not on the body sent.
        QCOMPARE(seen.header("Content-Type").startsWith("multipart/form-data"), false);
    }
}

void tst_JSONHTTPRequest::unknownMethodKeepsTheVerbAndBuildsNoBody()
{
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/seven"_s), &delegate);
    request.setHTTPMethod(JSONHTTPRequestMethod(7));
    request.setPostParams(QVariantMap{{u"a"_s, u"1"_s}});
    QCOMPARE(request.HTTPMethod(), JSONHTTPRequestMethod(7));
    const RecordedRequest seen = runAndRecord(request, delegate);
    QCOMPARE(seen.method, QByteArray("GET"));
    QVERIFY(seen.body.isEmpty());

    // After PUT, an unknown method leaves "PUT" in place.
    m_server.clear();
    RecordingDelegate second;
    JSONHTTPRequest put(m_server.url(u"/seven"_s), &second);
    put.setHTTPMethod(JSONHTTPRequestMethodPUT);
    put.setHTTPMethod(JSONHTTPRequestMethod(-1));
    QCOMPARE(runAndRecord(put, second).method, QByteArray("PUT"));
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

// --- responses --------------------------------------------------------------

void tst_JSONHTTPRequest::statusClassesDecideValidity_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<bool>("succeeds");
    QTest::addColumn<QVariant>("object");
    QTest::newRow("200 with empty body") << 200 << QByteArray() << true << QVariant(QVariantMap());
    QTest::newRow("204") << 204 << QByteArray() << true << QVariant(QVariantMap());
    QTest::newRow("3xx without Location")
        << 302 << QByteArray("[1]") << true << QVariant(QVariantList{qint64(1)});
    QTest::newRow("600 is valid") << 600 << QByteArray("\"x\"") << true << QVariant(u"x"_s);
    QTest::newRow("404") << 404 << QByteArray("{\"error\":1}") << false << QVariant();
    QTest::newRow("500 with empty body") << 500 << QByteArray() << false << QVariant();
    QTest::newRow("499 with invalid body") << 499 << QByteArray("<html>") << false << QVariant();
}

void tst_JSONHTTPRequest::statusClassesDecideValidity()
{
    QFETCH(int, status);
    QFETCH(QByteArray, body);
    QFETCH(bool, succeeds);
    QFETCH(QVariant, object);
    m_server.setHandler([&](const RecordedRequest &) {
        CannedReply reply = CannedReply::json(body, status);
        reply.reason = "Status";
        return reply;
    });
    RecordingDelegate delegate;
    InspectableRequest request(m_server.url(u"/status"_s), &delegate);
    runAndRecord(request, delegate);
    QVERIFY(request.response().has_value());
    QCOMPARE(request.response()->statusCode(), status);
    QCOMPARE(request.receivedValidResponse(), succeeds);
    if (succeeds) {
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);
        QCOMPARE(delegate.last().object, object);
        return;
    }
    const ZDError error = delegate.last().error;
    QCOMPARE(error.domain(), JSONHTTPRequestErrorDomain);
    QCOMPARE(error.code(), qint64(JSONHTTPRequestErrorBadStatus));
    QCOMPARE(error.userInfo().size(), 1);
    QCOMPARE(error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode(),
             status);
    // The error body is kept as received but never parsed or delivered.
    QCOMPARE(request.responseBody().value_or(QByteArray()), body);
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
    QCOMPARE(request.response()->statusCode(), 200);
    QCOMPARE(request.response()->URL().path(), u"/final"_s);
}

void tst_JSONHTTPRequest::responseTypesDeliverTheirObjects_data()
{
    QTest::addColumn<int>("type");
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QVariant>("object"); // invalid: a failure is expected
    QTest::addColumn<QString>("errorDomain");
    QTest::addColumn<qint64>("errorCode");

    const QString own = JSONHTTPRequestErrorDomain;
    QTest::newRow("json object") << 0 << QByteArray(R"({"a":[1,2.5,"x",true,null],"b":{"c":-3}})")
                                 << QVariant(QVariantMap{
                                        {u"a"_s, QVariantList{qint64(1), 2.5, u"x"_s, true,
                                                              QVariant::fromValue(nullptr)}},
                                        {u"b"_s, QVariantMap{{u"c"_s, qint64(-3)}}}})
                                 << QString() << qint64(0);
    QTest::newRow("json string fragment") << 0 << QByteArray(" \"h\\u00e9llo\" ")
                                          << QVariant(u"h\u00e9llo"_s) << QString() << qint64(0);
    QTest::newRow("json number fragment")
        << 0 << QByteArray("42") << QVariant(qint64(42)) << QString() << qint64(0);
    QTest::newRow("json big unsigned")
        << 0 << QByteArray("18446744073709551615") << QVariant(quint64(18446744073709551615ull))
        << QString() << qint64(0);
    QTest::newRow("json null fragment")
        << 0 << QByteArray("null") << QVariant::fromValue(nullptr) << QString() << qint64(0);
    QTest::newRow("form string keeps escapes")
        << 1 << QByteArray("a=1%202&b=2")
        << QVariant(QVariantMap{{u"a"_s, u"1%202"_s}, {u"b"_s, u"2"_s}}) << QString() << qint64(0);
    QTest::newRow("form string not utf-8")
        << 1 << QByteArray("a=\xff") << QVariant() << own << qint64(JSONHTTPRequestErrorNoResult);
    QTest::newRow("form string with no pairs")
        << 1 << QByteArray("garbage") << QVariant(QVariantMap()) << QString() << qint64(0);
    QByteArray everyByte;
    for (int i = 0; i < 256; ++i)
        everyByte += char(i);
    QTest::newRow("raw bytes exact")
        << 2 << everyByte << QVariant(everyByte) << QString() << qint64(0);
    QTest::newRow("unknown type") << 5 << QByteArray("x") << QVariant() << own
                                  << qint64(JSONHTTPRequestErrorNoResult);
    QTest::newRow("unknown type, empty body")
        << 5 << QByteArray() << QVariant(QVariantMap()) << QString() << qint64(0);
    QTest::newRow("raw, empty body")
        << 2 << QByteArray() << QVariant(QVariantMap()) << QString() << qint64(0);
}

void tst_JSONHTTPRequest::responseTypesDeliverTheirObjects()
{
    QFETCH(int, type);
    QFETCH(QByteArray, body);
    QFETCH(QVariant, object);
    QFETCH(QString, errorDomain);
    QFETCH(qint64, errorCode);
    m_server.setHandler([&](const RecordedRequest &) { return CannedReply::json(body); });
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/typed"_s), &delegate);
    request.setResponseType(JSONHTTPResponseType(type));
    runAndRecord(request, delegate);
    if (object.isValid()) {
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);
        QCOMPARE(delegate.last().object, object);
        QCOMPARE(delegate.last().object.typeId(), object.typeId());
    } else {
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
        QCOMPARE(delegate.last().error.domain(), errorDomain);
        QCOMPARE(delegate.last().error.code(), errorCode);
        QVERIFY(delegate.last().error.userInfo().isEmpty());
    }
}

void tst_JSONHTTPRequest::hostileJSONFailsWithTheParsersError()
{
    const QList<QByteArray> bodies{
        "not json",
        "{\"a\":1,}",
        "\"raw \x01 control\"",
        "2.",
        ".2e-3",
        "[1] [2]",
        "\"\xff\xfe\"",
        QByteArray(200000, '['),
        QByteArray(100000, '[') + QByteArray(100000, ']'),
        "1e999999",
    };
    for (const QByteArray &body : bodies) {
        m_server.clear();
        m_server.setHandler([&](const RecordedRequest &) { return CannedReply::json(body); });
        RecordingDelegate delegate;
        JSONHTTPRequest request(m_server.url(u"/hostile"_s), &delegate);
        runAndRecord(request, delegate);
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
        const ZDError error = delegate.last().error;
        QCOMPARE(error.domain(), ZDJSONErrorDomain);
        QVERIFY(error.code() != 0);
        QVERIFY2(!error.userInfo().value(ZDLocalizedDescriptionKey).toString().isEmpty(),
                 body.left(20).constData());
    }

    // A large valid document arrives whole.
    QByteArray big = "[";
    for (int i = 0; i < 200000; ++i)
        big += "{\"n\":" + QByteArray::number(i) + "},";
    big += "null]";
    m_server.setHandler([&](const RecordedRequest &) { return CannedReply::json(big); });
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/big"_s), &delegate);
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    QCOMPARE(delegate.last().object.toList().size(), 200001);
    QCOMPARE(delegate.last().object.toList().at(199999).toMap().value(u"n"_s),
             QVariant(qint64(199999)));
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

void tst_JSONHTTPRequest::cellularFlagIsHonouredWhenTheLinkIsCellular()
{
    zdSetCellularProbeForTesting([] { return true; });

    // Never set: reads false, yet the request may use the cellular link.
    RecordingDelegate allowed;
    JSONHTTPRequest untouched(m_server.url(u"/cell"_s), &allowed);
    QCOMPARE(untouched.allowsCellularAccess(), false);
    runAndRecord(untouched, allowed);
    QCOMPARE(allowed.last().kind, RecordingDelegate::Event::Object);

    m_server.clear();
    RecordingDelegate refused;
    JSONHTTPRequest request(m_server.url(u"/cell"_s), &refused);
    request.setAllowsCellularAccess(false);
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(refused.endings() == 1, kTimeoutMs);
    QCOMPARE(refused.last().error.domain(), ZDURLErrorDomain);
    QCOMPARE(refused.last().error.code(), qint64(ZDURLErrorCellularAccessDenied));
    QVERIFY(m_server.requests().isEmpty());

    zdSetCellularProbeForTesting([] { return false; });
    RecordingDelegate wifi;
    JSONHTTPRequest onWifi(m_server.url(u"/cell"_s), &wifi);
    onWifi.setAllowsCellularAccess(false);
    runAndRecord(onWifi, wifi);
    QCOMPARE(wifi.last().kind, RecordingDelegate::Event::Object);
}

void tst_JSONHTTPRequest::headerInjectionIsRefused()
{
    RecordingDelegate delegate;
    JSONHTTPRequest request(m_server.url(u"/inject"_s), &delegate);
    request.setHTTPHeaderValue(u"X-Note"_s, u"a\r\nX-Injected: 1"_s);
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
    QCOMPARE(delegate.last().error.domain(), ZDURLErrorDomain);
    QCOMPARE(delegate.last().error.code(), qint64(ZDURLErrorInvalidHeaderField));
    settle(100);
    QVERIFY(m_server.requests().isEmpty());
}

void tst_JSONHTTPRequest::failuresToStartArriveLaterFromTheEventLoop()
{
    for (const QString &url :
         {u"ftp://127.0.0.1/file"_s, u"http://[::1"_s, u"file:///etc/passwd"_s}) {
        RecordingDelegate delegate;
        JSONHTTPRequest request(QUrl(url), &delegate);
        request.start();
        QVERIFY(delegate.events.empty());
        QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() == 1, kTimeoutMs);
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
    }
}

QTEST_GUILESS_MAIN(tst_JSONHTTPRequest)
#include "tst_jsonhttprequest.moc"
