#pragma once

#include "core/ZDError.h"
#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"
#include "net/ZDURLRequest.h"

#include <QByteArray>
#include <QString>
#include <QUrl>
#include <QVariant>
#include <QVariantMap>

#include <memory>
#include <optional>

class JSONHTTPRequest;
class JSONHTTPRequestPrivate;

// The verb and body kind of a request (JSONHTTPRequest::setHTTPMethod()).
enum JSONHTTPRequestMethod : qint32 {
    JSONHTTPRequestMethodGET = 0,
    JSONHTTPRequestMethodMultipartPOST = 1,
    JSONHTTPRequestMethodFormPOST = 2,
    JSONHTTPRequestMethodPUT = 3,
};

// What a successful exchange delivers (JSONHTTPRequest::setResponseType()).
enum JSONHTTPResponseType : qint32 {
    // The body parsed as JSON. Fragments are allowed, so a bare string, number,
    // true, false or null parses too. Objects arrive as QVariantMap, arrays as
    // QVariantList, strings as QString, integers as qint64 (or quint64 above its
    // range), other numbers as double, null as QVariant::fromValue(nullptr).
    JSONHTTPResponseTypeJSON = 0,
    // The body read as UTF-8 and parsed by
    // ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape() with
    // separator "&" and no unescaping (values keep their percent-escapes),
    // delivered as a QVariantMap of QString values.
    JSONHTTPResponseTypeFormString = 1,
    // The body bytes, unparsed, as a QByteArray.
    JSONHTTPResponseTypeRawData = 2,
};

// Defaults of the transport's limits (JSONHTTPRequest::setMaximumResponseSize(),
// setMinimumTransferRate()).
inline constexpr qint64 JSONHTTPRequestDefaultMaximumResponseSize = 32LL * 1024 * 1024;
inline constexpr qint64 JSONHTTPRequestDefaultMaximumRawResponseSize = 1024LL * 1024 * 1024;
inline constexpr qint64 JSONHTTPRequestDefaultMinimumBytesPerSecond = 1024;
inline constexpr int JSONHTTPRequestDefaultStallWindowSeconds = 30;

// The library's own error domain and its codes.
ZD_EXPORT extern const QString JSONHTTPRequestErrorDomain;
enum JSONHTTPRequestError : qint32 {
    // The response was valid but its body yielded no object, and no parser error.
    JSONHTTPRequestErrorNoResult = 2,
    // The status was 4xx or 5xx; userInfo holds the ZDHTTPResponse under
    // ZDHTTPResponseKey.
    JSONHTTPRequestErrorBadStatus = 3,
};

// The userInfo keys the library writes into the errors it reports. Read them
// by name; their strings are part of the interface and never change.
// - ZDHTTPResponseKey ("response"): the ZDHTTPResponse (status and headers) of
//   a refused exchange.
// - ZDResponseBodyKey ("body"): the refused response's body as a QByteArray,
//   where the component that failed kept it (the upload engine, the upload job).
ZD_EXPORT extern const QString ZDHTTPResponseKey;
ZD_EXPORT extern const QString ZDResponseBodyKey;

// JSON parse failures pass through in the parser's own domain: the code is the
// parser's error code, the description its message.
ZD_EXPORT extern const QString ZDJSONErrorDomain;

// Signs requests for a service, in practice with OAuth 1.0. A JSONHTTPRequest
// hands it the request as built (URL with query, verb, headers, body) and sends
// the returned copy; the signature travels in a header, since the request's URL
// is reset after signing.
class ZD_EXPORT RequestSigner
{
public:
    virtual ~RequestSigner();
    virtual ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) = 0;
};

// The owner of a JSONHTTPRequest learns the outcome through this role.
//
// Callback contract:
// - Every started exchange that is not cancelled ends with exactly one of
//   requestDidReceiveObject() and requestDidFailWithError().
// - Before it, requestHasWrittenBytesExpectsToWrite() may arrive any number of
//   times with the body bytes sent so far and the body's total size; the count
//   never goes backwards.
// - All calls arrive on the thread that called start(), from its event loop,
//   never from inside start() or cancel().
// - Inside any of them the delegate may cancel, restart or destroy the request;
//   after a cancel or destruction no further call arrives.
// - A delegate that is destroyed while the exchange runs is simply not called.
class ZD_EXPORT JSONHTTPRequestDelegate : public virtual ZDWeakTarget
{
public:
    ~JSONHTTPRequestDelegate() override;
    virtual void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) = 0;
    virtual void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) = 0;
    // Optional: upload progress. Does nothing unless overridden.
    virtual void requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *request, qint64 written,
                                                      qint64 expected);
};

// One HTTP exchange with a web service.
//
// Configure the verb, the query parameters (getParams), the body parameters
// covered by the signature (postParams) and those appended after signing
// (unsignedPostParams), extra headers and the response type, then call start().
// Parameter values are strings or anything ZDAdditions::textualDescription()
// prints; for multipart POST also ZDFileUpload and QByteArray values.
//
// How start() builds the request:
// 1. Query: getParams, when set (even empty), are encoded with
//    encodedStringForParameterDictionary() and appended after "?" (or "&" when
//    the URL already holds a "?").
// 2. Body: an override body wins over everything. Otherwise, for multipart POST
//    with any body parameters, the header "Content-Type: multipart/form-data;
//    boundary=..." is added; postParams become a form-encoded body (form POST) or
//    a multipart body (multipart POST); GET and PUT build none.
// 3. Signing: the signer sees the request as built so far. With
//    signsMultipartPOSTData it sees the postParams encoded into the query
//    instead, while the request is sent to the URL without them.
// 4. Unsigned parameters are appended after signing: for form POST after "&"
//    (or "~" when postParams is set but empty), for multipart POST as a second
//    multipart sequence.
//
// The transport is libcurl on the calling thread's Qt event loop: redirects are
// followed (a POST answered by 301, 302 or 303 continues as GET), TLS peers are
// verified, compressed responses are decoded, only http and https are spoken.
//
// What protects the caller from a hostile or broken server (errors in
// ZDURLErrorDomain unless said otherwise, each the one failure of the exchange):
// - A request that started on https never continues on http: a redirect to an
//   http address fails with ZDURLErrorInsecureRedirect before anything is sent
//   there. A redirect to another host over https is followed, without the
//   Authorization header.
// - The response body is bounded by maximumResponseSize(): a Content-Length
//   above it fails before the body is read, a body (decoded, when compressed)
//   that grows beyond it fails as soon as it does, and a header block beyond
//   curl's limit fails too, all with ZDURLErrorResponseTooLarge; the bytes
//   received are dropped at once (rawData() is null afterwards).
// - A connection that moves no byte in either direction for 60 seconds (or takes
//   that long to connect) fails with curl's time-out (ZDCurlErrorDomain, 28).
// - Once the request is sent, the response must keep up a minimum average rate
//   (setMinimumTransferRate()), or it fails with ZDURLErrorStalled. The rule
//   never cuts a body that is still being sent: it starts when the body has
//   gone out (or when the response head starts arriving), so a server that
//   takes a request and then says nothing fails after one window (30 seconds
//   by default); thinking before the answer is allowed for as long.
// - An optional maximum duration for the whole exchange
//   (setMaximumDuration()) fails it with ZDURLErrorTimedOut.
// - Multipart keys holding a double quote, CR or LF are refused
//   (ZDURLErrorInvalidMultipartKey) before anything is built or signed; CR and
//   LF in file names are sent as %0D and %0A (see ZDFileUpload).
// - Each thread opens at most 6 connections to one host and 32 in all; further
//   requests wait in the transport's queue (their clocks run while they wait).
//
// Trust and proxies follow Qt's own networking: the CA certificates of
// QSslConfiguration::defaultConfiguration() are trusted on top of the system's
// store, and the proxy is the one QNetworkProxyFactory::proxyForQuery() gives
// for the URL (the application proxy, an application proxy factory, or the
// system's when QNetworkProxyFactory::setUseSystemConfiguration(true) was
// called; no proxy otherwise, whatever the environment says). Like Qt, nothing
// for 127.0.0.1 or localhost goes through a proxy. Both are read when start()
// is called; the authorities for https requests only (an http request that a
// server redirects to https is checked against the system's store alone), and
// connections already open stay in use after they change.
//
// Lifetime: a request is single-use (a second start() appends the query again).
// Destroying it cancels the exchange; no delegate call follows. The delegate may
// destroy the request from inside any of its callbacks.
class ZD_EXPORT JSONHTTPRequest
{
public:
    // Does not take ownership of `delegate`; shares ownership of `signer`, which
    // may be null for unsigned requests.
    JSONHTTPRequest(const QUrl &url, JSONHTTPRequestDelegate *delegate,
                    std::shared_ptr<RequestSigner> signer = nullptr);
    virtual ~JSONHTTPRequest();
    JSONHTTPRequest(const JSONHTTPRequest &) = delete;
    JSONHTTPRequest &operator=(const JSONHTTPRequest &) = delete;

    // Stores the method and writes its verb into the request. A value outside
    // 0 to 3 is stored, but the verb stays as it was and start() builds no body.
    void setHTTPMethod(JSONHTTPRequestMethod method);
    JSONHTTPRequestMethod HTTPMethod() const;

    // Adds `value` to the header field `name`: a field set twice carries both
    // values joined by ",". "Connection: close" also tells the transport: the
    // request gets a new connection and leaves it closed, so a dead connection
    // fails the request instead of being sent again silently.
    void setHTTPHeaderValue(const QString &name, const QString &value);

    // When set, these bytes are sent as the body, whatever the method and the
    // parameters say.
    void setOverridePostBody(const std::optional<QByteArray> &body);
    // The same, as pieces sent back to back (a piece may be a range of a file,
    // read as it is sent). Wins over setOverridePostBody().
    void setOverridePostBodySegments(const std::optional<ZDBodySegments> &body);

    // Writes `verb` into the request in place of the method's verb, for the
    // verbs the methods do not cover ("HEAD", "PATCH", "DELETE", "OPTIONS").
    // The method still decides the body; with an override body any verb sends
    // it. Call it after setHTTPMethod(), which writes the method's own verb.
    void setHTTPVerb(const QByteArray &verb);

    // Reads false until set, although a new request does allow cellular access.
    // Set to false, the request is refused (ZDURLErrorCellularAccessDenied) while
    // the system reports a cellular or metered link; on systems that report no
    // link type the flag does not restrict anything.
    void setAllowsCellularAccess(bool allow);
    bool allowsCellularAccess() const;

    const std::optional<QVariantMap> &getParams() const;
    void setGetParams(const std::optional<QVariantMap> &params);
    const std::optional<QVariantMap> &postParams() const;
    void setPostParams(const std::optional<QVariantMap> &params);
    const std::optional<QVariantMap> &unsignedPostParams() const;
    void setUnsignedPostParams(const std::optional<QVariantMap> &params);

    bool signsMultipartPOSTData() const;
    void setSignsMultipartPOSTData(bool signs);

    JSONHTTPResponseType responseType() const;
    void setResponseType(JSONHTTPResponseType type);

    // The largest response body the exchange accepts, in bytes (see above). By
    // default JSONHTTPRequestDefaultMaximumResponseSize for JSON and form-string
    // responses and JSONHTTPRequestDefaultMaximumRawResponseSize for raw data;
    // a value of 0 or less restores the default of the response type.
    void setMaximumResponseSize(qint64 bytes);
    qint64 maximumResponseSize() const;

    // The stall rule: once the request is sent, the exchange fails with
    // ZDURLErrorStalled when fewer than `bytesPerSecond` bytes a second arrive
    // on average over a window of `windowSeconds` seconds (windows follow each
    // other; headers and body count). By default
    // JSONHTTPRequestDefaultMinimumBytesPerSecond over
    // JSONHTTPRequestDefaultStallWindowSeconds; a rate of 0 turns the rule off
    // (the 60-second idle rule stays). Never applies while the body is sent.
    void setMinimumTransferRate(qint64 bytesPerSecond, int windowSeconds);
    qint64 minimumBytesPerSecond() const;
    int stallWindowSeconds() const;

    // The longest the whole exchange may take, from start() to the last byte,
    // redirects, waiting in the queue and the upload included; 0 (the default)
    // means no limit. Beyond it the exchange fails with ZDURLErrorTimedOut.
    // Long uploads should leave it at 0 and rely on the stall and idle rules.
    void setMaximumDuration(qint64 milliseconds);
    qint64 maximumDuration() const;

    // The last response received, status and headers; it stays readable after
    // the delegate call, so a plug-in can read why a service refused.
    std::optional<ZDHTTPResponse> response() const;
    // The last response's body as received (decoded when it came compressed),
    // whatever the status: null before a body arrived, after cancel(), and when
    // the body went over maximumResponseSize() (nothing of it is kept).
    const std::optional<QByteArray> &responseBody() const;

    // "k1=v1&k2=v2" with the keys sorted by UTF-16 code unit and every key and
    // value escaped by ZDAdditions::urlParameterEscapedString().
    static QString encodedStringForParameterDictionary(const QVariantMap &params);

    // The multipart boundary: a random UUID in upper case, made on first use and
    // kept for the life of the request.
    QString HTTPRequestBoundary();

    // Builds, signs and sends the request; see above. Must be called on a thread
    // that runs a Qt event loop; every delegate call arrives on that thread.
    void start();
    // Stops the exchange and drops the response and the received data. No
    // delegate call follows. Does nothing when idle.
    void cancel();

protected:
    // What a subclass may read.
    const ZDURLRequest &request() const;
    bool hasConnection() const; // from start() until cancel() or destruction
    const std::optional<QByteArray> &rawData() const;
    const std::optional<QByteArray> &overridePostBody() const;
    JSONHTTPRequestDelegate *delegate() const;
    bool receivedValidResponse() const;
    RequestSigner *signer() const;

    // The multipart/form-data encoding of `params` with this request's boundary.
    QByteArray _multipartParamData(const QVariantMap &params);

private:
    friend class JSONHTTPRequestPrivate;
    std::shared_ptr<JSONHTTPRequestPrivate> d;
};
