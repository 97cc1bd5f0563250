#include "net/JSONHTTPRequest.h"

#include "net/JSONHTTPRequest_p.h"
#include "net/ZDAdditions.h"
#include "net/ZDJSON_p.h"
#include "net/ZDMultipart_p.h"
#include "net/ZDText_p.h"

#include <QUuid>

#include <algorithm>

using namespace Qt::StringLiterals;

const QString JSONHTTPRequestErrorDomain = QStringLiteral("JSONHTTPRequestErrorDomain");
const QString ZDHTTPResponseKey = QStringLiteral("response");
const QString ZDResponseBodyKey = QStringLiteral("body");

namespace {

// Appends `encoding` to a URL after "?", or after "&" when it already has a "?".
void appendQuery(QByteArray &url, const QString &encoding)
{
    url += url.contains('?') ? '&' : '?';
    url += encoding.toLatin1(); // escaped text is ASCII
}

// The form body of `params`. The escaped text is ASCII without zero bytes, so
// nothing is cut at a zero byte.
QByteArray formBody(const QVariantMap &params)
{
    return JSONHTTPRequest::encodedStringForParameterDictionary(params).toLatin1();
}

QByteArray verbForMethod(JSONHTTPRequestMethod method)
{
    switch (method) {
    case JSONHTTPRequestMethodGET:
        return QByteArrayLiteral("GET");
    case JSONHTTPRequestMethodMultipartPOST:
    case JSONHTTPRequestMethodFormPOST:
        return QByteArrayLiteral("POST");
    case JSONHTTPRequestMethodPUT:
        return QByteArrayLiteral("PUT");
    }
    return QByteArray();
}

} // namespace

RequestSigner::~RequestSigner() = default;

JSONHTTPRequestDelegate::~JSONHTTPRequestDelegate() = default;

void JSONHTTPRequestDelegate::requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *, qint64,
                                                                   qint64)
{}

// --- building and sending -------------------------------------------------

const QString &JSONHTTPRequestPrivate::ensureBoundary()
{
    if (boundary.isEmpty())
        boundary = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
    return boundary;
}

qint64 JSONHTTPRequestPrivate::effectiveMaximumResponseSize() const
{
    if (maximumResponseSize > 0)
        return maximumResponseSize;
    return responseType == JSONHTTPResponseTypeRawData
               ? JSONHTTPRequestDefaultMaximumRawResponseSize
               : JSONHTTPRequestDefaultMaximumResponseSize;
}

// A multipart key that could end its quoted name or header line early is refused
// before the signer or the transport see anything.
std::optional<ZDError> JSONHTTPRequestPrivate::refusalBeforeBuilding() const
{
    if (method != JSONHTTPRequestMethodMultipartPOST || overridePostBody)
        return std::nullopt;
    for (const auto *params : {&postParams, &unsignedPostParams}) {
        if (!*params)
            continue;
        for (auto it = (*params)->cbegin(); it != (*params)->cend(); ++it) {
            if (zdMultipartKeyIsSafe(it.key()))
                continue;
            QString shown = it.key();
            shown.replace(u'\r', u"\\r"_s).replace(u'\n', u"\\n"_s);
            return ZDError(
                ZDURLErrorDomain, ZDURLErrorInvalidMultipartKey,
                {{ZDLocalizedDescriptionKey,
                  u"The multipart parameter name \u201c%1\u201d holds a double quote or a line "
                  u"break."_s.arg(shown)},
                 {ZDURLErrorURLKey, QString::fromUtf8(request.URLString())}});
        }
    }
    return std::nullopt;
}

void JSONHTTPRequestPrivate::start()
{
    cancel();
    if (const std::optional<ZDError> refusal = refusalBeforeBuilding()) {
        connection = ZDURLConnection::fail(request, weak_from_this(), *refusal);
        return;
    }

    QByteArray urlString = request.URLString();
    if (getParams)
        appendQuery(urlString, JSONHTTPRequest::encodedStringForParameterDictionary(*getParams));

    std::optional<QByteArray> signingURL;
    if (overridePostBodySegments) {
        request.setHTTPBodySegments(overridePostBodySegments);
    } else if (overridePostBody) {
        request.setHTTPBody(overridePostBody);
    } else {
        if (method == JSONHTTPRequestMethodMultipartPOST && (postParams || unsignedPostParams)) {
            request.addValueForHTTPHeaderField(
                "multipart/form-data; boundary=" + ensureBoundary().toLatin1(), "Content-Type");
        }
        if (postParams) {
            if (method == JSONHTTPRequestMethodFormPOST) {
                request.setHTTPBody(formBody(*postParams));
            } else if (method == JSONHTTPRequestMethodMultipartPOST) {
                request.setHTTPBodySegments(zdMultipartSegments(*postParams, ensureBoundary()));
                if (signsMultipartPOSTData && signer) {
                    signingURL = urlString;
                    appendQuery(*signingURL,
                                JSONHTTPRequest::encodedStringForParameterDictionary(*postParams));
                }
            }
        }
    }

    if (signer) {
        request.setURLString(signingURL.value_or(urlString));
        request = signer->signedRequestForRequest(request);
    }
    request.setURLString(urlString);

    // Parameters added after signing are never covered by the signature.
    if (unsignedPostParams && !overridePostBody && !overridePostBodySegments) {
        // The body's pieces are extended, never copied: a video in the unsigned
        // parameters is sent from its own buffer.
        std::optional<ZDBodySegments> body = request.HTTPBodySegments();
        if (method == JSONHTTPRequestMethodFormPOST) {
            if (body) {
                // A signed part that is set but empty is followed by "~", not "&":
                // receivers of this library's form bodies expect that marker.
                body->append(QByteArray(1, postParams && !postParams->isEmpty() ? '&' : '~'));
            }
            body = body.value_or(ZDBodySegments()) << formBody(*unsignedPostParams);
        } else if (method == JSONHTTPRequestMethodMultipartPOST) {
            body = body.value_or(ZDBodySegments())
                   << zdMultipartSegments(*unsignedPostParams, ensureBoundary());
        } else if (!body) {
            body = ZDBodySegments(); // an empty body, no longer none
        }
        request.setHTTPBodySegments(std::move(body));
    }

    ZDTransferLimits limits;
    limits.maximumResponseSize = effectiveMaximumResponseSize();
    limits.minimumBytesPerSecond = minimumBytesPerSecond;
    limits.stallWindowSeconds = stallWindowSeconds;
    limits.maximumDurationMs = maximumDurationMs;
    expectedBodySize = -1;
    connection = ZDURLConnection::start(request, weak_from_this(), limits);
}

void JSONHTTPRequestPrivate::cancel()
{
    response.reset();
    rawData.reset();
    if (connection) {
        connection->cancel();
        connection.reset();
    }
}

// --- loading callbacks ----------------------------------------------------

void JSONHTTPRequestPrivate::connectionDidReceiveResponse(ZDURLConnection *,
                                                          const ZDHTTPResponse &newResponse)
{
    const int statusClass = newResponse.statusCode() / 100;
    receivedValidResponse = statusClass != 4 && statusClass != 5;
    response = newResponse;
    // The body's buffer is made once at its announced size (the transport has
    // checked it against the limit); a compressed body's decoded size is unknown.
    bool known = false;
    const qint64 announced =
        newResponse.valueForHTTPHeaderField("Content-Length").toLongLong(&known);
    expectedBodySize = known && newResponse.valueForHTTPHeaderField("Content-Encoding").isEmpty()
                           ? std::min(announced, effectiveMaximumResponseSize())
                           : -1;
}

void JSONHTTPRequestPrivate::connectionDidReceiveData(ZDURLConnection *from, QByteArrayView chunk)
{
    if (from != connection.get())
        return;
    if (!rawData) {
        rawData.emplace();
        if (expectedBodySize > chunk.size())
            rawData->reserve(expectedBodySize);
    }
    // A body of unknown size (a compressed one) grows by doubling, up to the
    // limit, through reserve(), which reallocates: a large block moves without a
    // copy. append()'s own growth copies into a new block, so that the body is
    // held twice at the peak.
    if (const qsizetype needed = rawData->size() + chunk.size(); needed > rawData->capacity()) {
        const qint64 doubled =
            std::min(2 * qint64(rawData->capacity()), effectiveMaximumResponseSize());
        rawData->reserve(qsizetype(std::max(doubled, qint64(needed))));
    }
    rawData->append(chunk);
}

std::optional<QVariant> JSONHTTPRequestPrivate::objectFromBody(ZDError &parserError) const
{
    switch (responseType) {
    case JSONHTTPResponseTypeJSON: {
        auto parsed = zdParseJSON(*rawData);
        if (auto *error = std::get_if<ZDError>(&parsed)) {
            parserError = *error;
            return std::nullopt;
        }
        return std::get<QVariant>(std::move(parsed));
    }
    case JSONHTTPResponseTypeFormString: {
        const std::optional<QString> text = zdDecodeUtf8Strictly(*rawData);
        if (!text)
            return std::nullopt;
        const QMap<QString, QString> pairs =
            ZDAdditions::dictionaryWithResponseStringUsingSeparatorUnescape(
                *text, QStringLiteral("&"), false);
        QVariantMap object;
        for (auto it = pairs.cbegin(); it != pairs.cend(); ++it)
            object.insert(it.key(), it.value());
        return object;
    }
    case JSONHTTPResponseTypeRawData:
        return QVariant(*rawData);
    }
    return std::nullopt;
}

void JSONHTTPRequestPrivate::connectionDidFinishLoading(ZDURLConnection *)
{
    // The delegate may destroy the request; this state lives until we return.
    const auto self = shared_from_this();
    JSONHTTPRequestDelegate *target = delegate.get();
    if (!target || !q)
        return;
    if (!receivedValidResponse) {
        QVariantMap userInfo;
        if (response)
            userInfo.insert(ZDHTTPResponseKey, QVariant::fromValue(*response));
        target->requestDidFailWithError(
            q, ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorBadStatus, userInfo));
        return;
    }
    if (!rawData) {
        target->requestDidReceiveObject(q, QVariantMap());
        return;
    }
    ZDError parserError;
    const std::optional<QVariant> object = objectFromBody(parserError);
    if (!parserError.isNull())
        target->requestDidFailWithError(q, parserError);
    else if (!object)
        target->requestDidFailWithError(
            q, ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorNoResult));
    else
        target->requestDidReceiveObject(q, *object);
}

void JSONHTTPRequestPrivate::connectionDidFailWithError(ZDURLConnection *, const ZDError &error)
{
    const auto self = shared_from_this();
    // What was received of a response that grew too large goes at once.
    if (error.domain() == ZDURLErrorDomain && error.code() == ZDURLErrorResponseTooLarge)
        rawData.reset();
    if (JSONHTTPRequestDelegate *target = delegate.get(); target && q)
        target->requestDidFailWithError(q, error);
}

void JSONHTTPRequestPrivate::connectionDidSendBodyData(ZDURLConnection *, qint64,
                                                       qint64 totalWritten, qint64 totalExpected)
{
    const auto self = shared_from_this();
    if (JSONHTTPRequestDelegate *target = delegate.get(); target && q)
        target->requestHasWrittenBytesExpectsToWrite(q, totalWritten, totalExpected);
}

// --- public object ----------------------------------------------------------

JSONHTTPRequest::JSONHTTPRequest(const QUrl &url, JSONHTTPRequestDelegate *delegate,
                                 std::shared_ptr<RequestSigner> signer)
    : d(std::make_shared<JSONHTTPRequestPrivate>())
{
    d->q = this;
    d->request = ZDURLRequest(url);
    d->delegate = delegate;
    d->signer = std::move(signer);
}

JSONHTTPRequest::~JSONHTTPRequest()
{
    d->cancel();
    d->q = nullptr;
}

void JSONHTTPRequest::setHTTPMethod(JSONHTTPRequestMethod method)
{
    d->method = method;
    if (const QByteArray verb = verbForMethod(method); !verb.isNull())
        d->request.setHTTPMethod(verb);
}

void JSONHTTPRequest::setHTTPVerb(const QByteArray &verb)
{
    if (!verb.isEmpty())
        d->request.setHTTPMethod(verb);
}

void JSONHTTPRequest::setOverridePostBodySegments(const std::optional<ZDBodySegments> &body)
{
    d->overridePostBodySegments = body;
}

JSONHTTPRequestMethod JSONHTTPRequest::HTTPMethod() const
{
    return d->method;
}

void JSONHTTPRequest::setHTTPHeaderValue(const QString &name, const QString &value)
{
    d->request.addValueForHTTPHeaderField(value.toUtf8(), name.toUtf8());
}

void JSONHTTPRequest::setOverridePostBody(const std::optional<QByteArray> &body)
{
    d->overridePostBody = body;
}

void JSONHTTPRequest::setAllowsCellularAccess(bool allow)
{
    d->allowsCellularAccess = allow;
    d->request.setAllowsCellularAccess(allow);
}

bool JSONHTTPRequest::allowsCellularAccess() const
{
    return d->allowsCellularAccess;
}

const std::optional<QVariantMap> &JSONHTTPRequest::getParams() const
{
    return d->getParams;
}

void JSONHTTPRequest::setGetParams(const std::optional<QVariantMap> &params)
{
    d->getParams = params;
}

const std::optional<QVariantMap> &JSONHTTPRequest::postParams() const
{
    return d->postParams;
}

void JSONHTTPRequest::setPostParams(const std::optional<QVariantMap> &params)
{
    d->postParams = params;
}

const std::optional<QVariantMap> &JSONHTTPRequest::unsignedPostParams() const
{
    return d->unsignedPostParams;
}

void JSONHTTPRequest::setUnsignedPostParams(const std::optional<QVariantMap> &params)
{
    d->unsignedPostParams = params;
}

bool JSONHTTPRequest::signsMultipartPOSTData() const
{
    return d->signsMultipartPOSTData;
}

void JSONHTTPRequest::setSignsMultipartPOSTData(bool signs)
{
    d->signsMultipartPOSTData = signs;
}

JSONHTTPResponseType JSONHTTPRequest::responseType() const
{
    return d->responseType;
}

void JSONHTTPRequest::setResponseType(JSONHTTPResponseType type)
{
    d->responseType = type;
}

void JSONHTTPRequest::setMaximumResponseSize(qint64 bytes)
{
    d->maximumResponseSize = std::max<qint64>(bytes, 0);
}

qint64 JSONHTTPRequest::maximumResponseSize() const
{
    return d->effectiveMaximumResponseSize();
}

void JSONHTTPRequest::setMinimumTransferRate(qint64 bytesPerSecond, int windowSeconds)
{
    d->minimumBytesPerSecond = std::max<qint64>(bytesPerSecond, 0);
    d->stallWindowSeconds = std::max(windowSeconds, 1);
}

qint64 JSONHTTPRequest::minimumBytesPerSecond() const
{
    return d->minimumBytesPerSecond;
}

int JSONHTTPRequest::stallWindowSeconds() const
{
    return d->stallWindowSeconds;
}

void JSONHTTPRequest::setMaximumDuration(qint64 milliseconds)
{
    d->maximumDurationMs = std::max<qint64>(milliseconds, 0);
}

qint64 JSONHTTPRequest::maximumDuration() const
{
    return d->maximumDurationMs;
}

std::optional<ZDHTTPResponse> JSONHTTPRequest::response() const
{
    return d->response;
}

const std::optional<QByteArray> &JSONHTTPRequest::responseBody() const
{
    return d->rawData;
}

QString JSONHTTPRequest::encodedStringForParameterDictionary(const QVariantMap &params)
{
    QString encoded;
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        if (it != params.cbegin())
            encoded += u'&';
        encoded +=
            ZDAdditions::urlParameterEscapedString(it.key()) + u'=' +
            ZDAdditions::urlParameterEscapedString(ZDAdditions::textualDescription(it.value()));
    }
    return encoded;
}

QString JSONHTTPRequest::HTTPRequestBoundary()
{
    return d->ensureBoundary();
}

void JSONHTTPRequest::start()
{
    d->start();
}

void JSONHTTPRequest::cancel()
{
    d->cancel();
}

const ZDURLRequest &JSONHTTPRequest::request() const
{
    return d->request;
}

bool JSONHTTPRequest::hasConnection() const
{
    return d->connection != nullptr;
}

const std::optional<QByteArray> &JSONHTTPRequest::rawData() const
{
    return d->rawData;
}

const std::optional<QByteArray> &JSONHTTPRequest::overridePostBody() const
{
    return d->overridePostBody;
}

JSONHTTPRequestDelegate *JSONHTTPRequest::delegate() const
{
    return d->delegate.get();
}

bool JSONHTTPRequest::receivedValidResponse() const
{
    return d->receivedValidResponse;
}

RequestSigner *JSONHTTPRequest::signer() const
{
    return d->signer.get();
}

QByteArray JSONHTTPRequest::_multipartParamData(const QVariantMap &params)
{
    return zdMultipartParamData(params, d->ensureBoundary());
}
