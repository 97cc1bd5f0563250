#include "net/ZDURLConnection_p.h"

#include "net/ZDBodyReader_p.h"
#include "net/ZDCurlCodes_p.h"
#include "net/ZDCurlDriver_p.h"
#include "net/ZDTransportSettings_p.h"

#include "core/ZDLogging_p.h"
#include "core/zdglobal.h"

#include <curl/curl.h>

#include <QElapsedTimer>
#include <QPointer>
#include <QTimer>

#include <algorithm>
#include <climits>
#include <optional>

namespace {

// Browsers give up after about twenty redirects.
constexpr long kMaxRedirects = 20;
// A connection that moves no byte for a minute has stalled: fail it rather
// than leave the user waiting without end.
constexpr long kIdleTimeoutSeconds = 60;
// Large upload chunks mean fewer event-loop turns per gigabyte of video.
constexpr long kUploadBufferSize = 2L * 1024 * 1024;
constexpr long kDownloadBufferSize = 256L * 1024;

ZDError makeError(const QString &domain, qint64 code, const QString &description,
                  const QByteArray &url, QVariantMap userInfo = {})
{
    userInfo.insert(ZDLocalizedDescriptionKey, description);
    userInfo.insert(ZDURLErrorURLKey, QString::fromUtf8(url));
    return ZDError(domain, code, userInfo);
}

// Text from the caller or a server shown in a description: control characters
// (a CR or LF above all) are written as escapes, never as themselves.
QString printable(const QByteArray &text)
{
    QString shown;
    for (const char c : text) {
        if (c == '\r')
            shown += QStringLiteral("\\r");
        else if (c == '\n')
            shown += QStringLiteral("\\n");
        else if (uchar(c) < 0x20 || c == 0x7f)
            shown += QStringLiteral("\\x%1").arg(uchar(c), 2, 16, QLatin1Char('0'));
        else
            shown += QLatin1Char(c);
    }
    return shown;
}

// Runs once per TLS connection being set up, after curl has given it its store.
CURLcode useAuthorities(CURL *easy, void *context, void *userdata)
{
    const char *systemFile = nullptr;
    curl_easy_getinfo(easy, CURLINFO_CAINFO, &systemFile);
    auto *authorities = static_cast<ZDCertificateAuthorities *>(userdata);
    return authorities->installInto(static_cast<ssl_ctx_st *>(context), systemFile)
               ? CURLE_OK
               : CURLE_SSL_CACERT_BADFILE;
}

// What a log may show of a URL: its query, fragment and user part may carry
// tokens or passwords and are left out.
QString loggableURL(const QByteArray &url)
{
    return QUrl::fromEncoded(url).toString(QUrl::RemoveUserInfo | QUrl::RemoveQuery |
                                           QUrl::RemoveFragment);
}

bool isValidHeaderField(const QByteArray &name, const QByteArray &value)
{
    const auto breaksLine = [](char c) { return c == '\r' || c == '\n' || c == '\0'; };
    if (name.isEmpty() || name.contains(':') || std::any_of(name.begin(), name.end(), breaksLine))
        return false;
    return std::none_of(value.begin(), value.end(), breaksLine);
}

} // namespace

struct ZDURLConnection::Private
{
    ZDURLConnection *q = nullptr;
    std::weak_ptr<ZDURLConnectionDelegate> delegate;
    CURL *easy = nullptr;
    curl_slist *headers = nullptr;
    QPointer<ZDCurlDriver> driver;
    bool inMulti = false;
    bool cancelled = false;
    // Only a handle whose transfer ended well goes back to the pool: one that
    // failed early (a refused scheme, say) keeps a state in which curl refuses
    // some options on the next use.
    bool recyclable = false;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // The header block being read, and the last complete final response.
    bool inHeaderBlock = false;
    ZDHTTPHeaderList blockHeaders;
    std::optional<ZDHTTPResponse> pendingResponse;
    bool responseDelivered = false;

    ZDTransferLimits limits;
    std::shared_ptr<void> share; // outlives `easy`
    bool secureOnly = false;     // started on https: never continue on http
    bool hasUserAgent = false;
    std::shared_ptr<ZDCertificateAuthorities> authorities; // used by curl's TLS setup
    enum class Stop { None, InsecureRedirect, TooLarge, Stalled };
    Stop stop = Stop::None;
    QByteArray insecureTarget;
    qint64 receivedBytes = 0; // decoded body bytes given to the delegate
    qint64 headerBytes = 0;

    // The stall rule: when the request went out, and the current window.
    QElapsedTimer clock;
    qint64 sentAtMs = -1;
    qint64 windowStartMs = -1;
    qint64 windowStartBytes = 0;
    bool headStarted = false;

    // Upload progress: what curl reported and what the delegate was told.
    qint64 uploadNow = 0;
    qint64 uploadTotal = 0;
    qint64 uploadReported = 0;
    bool progressQueued = false;

    std::optional<ZDError> configure();
    std::optional<ZDError> applyOptions();
    bool checkStall(qint64 transferred);
    CURLMcode attach(); // CURLM_OK: the driver took the transfer
    void detach();
    void deliverPendingResponse();
    void dispatchProgress();
    void dispatchDone(CURLcode result);

    // Reads a body of several pieces for curl; none for a body given whole.
    std::optional<ZDBodyReader> bodyReader;

    static size_t headerCallback(char *buffer, size_t size, size_t count, void *userdata);
    static size_t readCallback(char *buffer, size_t size, size_t count, void *userdata);
    static int seekCallback(void *userdata, curl_off_t offset, int origin);
    static size_t writeCallback(char *buffer, size_t size, size_t count, void *userdata);
    static int progressCallback(void *clientp, curl_off_t, curl_off_t dlnow, curl_off_t ultotal,
                                curl_off_t ulnow);
};

ZDURLConnection::ZDURLConnection(const ZDURLRequest &request)
    : p(std::make_unique<Private>()), m_request(request)
{
    p->q = this;
}

ZDURLConnection::~ZDURLConnection()
{
    p->detach();
    if (p->easy) {
        if (p->driver && p->recyclable)
            p->driver->recycleEasyHandle(p->easy);
        else
            curl_easy_cleanup(p->easy);
    }
    curl_slist_free_all(p->headers);
}

std::shared_ptr<ZDURLConnection>
ZDURLConnection::fail(const ZDURLRequest &request, std::weak_ptr<ZDURLConnectionDelegate> delegate,
                      const ZDError &error)
{
    auto connection = std::make_shared<ZDURLConnection>(request);
    connection->p->delegate = std::move(delegate);
    QTimer::singleShot(0, [weak = connection->weak_from_this(), error] {
        const auto self = weak.lock();
        if (!self || self->p->cancelled)
            return;
        if (const auto target = self->p->delegate.lock())
            target->connectionDidFailWithError(self.get(), error);
    });
    return connection;
}

std::shared_ptr<ZDURLConnection>
ZDURLConnection::start(const ZDURLRequest &request, std::weak_ptr<ZDURLConnectionDelegate> delegate,
                       const ZDTransferLimits &limits)
{
    auto connection = std::make_shared<ZDURLConnection>(request);
    connection->p->delegate = delegate;
    connection->p->limits = limits;
    std::optional<ZDError> refusal = connection->p->configure();
    if (!refusal) {
        if (const CURLMcode result = connection->p->attach(); result != CURLM_OK) {
            const QVariantMap curlInfo{
                {ZDCurlCodeKey, qint64(result)},
                {ZDCurlMessageKey, QString::fromUtf8(curl_multi_strerror(result))}};
            refusal = makeError(ZDURLErrorDomain, ZDURLErrorTransportUnavailable,
                                QStringLiteral("The transport could not take the request."),
                                request.URLString(), curlInfo);
        }
    }
    if (refusal) {
        // The half-made transfer is dropped; a failing one holds no easy handle.
        connection.reset();
        return fail(request, std::move(delegate), *refusal);
    }
    connection->p->clock.start();
    return connection;
}

void ZDURLConnection::cancel()
{
    p->cancelled = true;
    p->detach();
}

CURLMcode ZDURLConnection::Private::attach()
{
    ZDCurlDriver *current = ZDCurlDriver::forCurrentThread();
    if (const CURLMcode result = current->add(easy, q->weak_from_this()); result != CURLM_OK)
        return result;
    driver = current;
    inMulti = true;
    return CURLM_OK;
}

void ZDURLConnection::Private::detach()
{
    if (inMulti && driver)
        driver->remove(easy);
    inMulti = false;
}

void ZDURLConnection::driverDidRelease()
{
    p->inMulti = false;
}

void ZDURLConnection::driverDidFinish(int curlCode)
{
    p->dispatchDone(CURLcode(curlCode));
}

void ZDURLConnection::driverDidProgress()
{
    p->dispatchProgress();
}

std::optional<ZDError> ZDURLConnection::Private::configure()
{
    const ZDURLRequest &request = q->m_request;
    const QByteArray url = request.URLString();
    if (!request.allowsCellularAccess() && zdLinkIsCellular()) {
        return makeError(ZDURLErrorDomain, ZDURLErrorCellularAccessDenied,
                         QStringLiteral("The request does not allow cellular access."), url);
    }
    hasUserAgent = false;
    bool hasExpect = false;
    for (const auto &[name, value] : request.allHTTPHeaderFields()) {
        if (!isValidHeaderField(name, value)) {
            return makeError(ZDURLErrorDomain, ZDURLErrorInvalidHeaderField,
                             QStringLiteral("The header field \u201c%1\u201d is malformed.")
                                 .arg(printable(name)),
                             url);
        }
        hasUserAgent |= name.compare("User-Agent", Qt::CaseInsensitive) == 0;
        hasExpect |= name.compare("Expect", Qt::CaseInsensitive) == 0;
        // "Name;" is curl's spelling of a field with an empty value.
        const QByteArray line =
            value.isEmpty() ? QByteArray(name + ';') : QByteArray(name + ": " + value);
        headers = curl_slist_append(headers, line.constData());
    }
    // Waiting for "100 Continue" costs a round trip per upload, or a second with
    // servers that never send it.
    if (!hasExpect)
        headers = curl_slist_append(headers, "Expect:");

    driver = ZDCurlDriver::forCurrentThread();
    easy = driver->takeEasyHandle();
    share = driver->shareHandle();
    if (!easy) {
        return makeError(ZDURLErrorDomain, ZDURLErrorTransportUnavailable,
                         QStringLiteral("The transport could not take the request."), url);
    }
    secureOnly = url.left(6).compare("https:", Qt::CaseInsensitive) == 0;
    return applyOptions();
}

// Every option is checked: an option curl refuses would otherwise leave the
// transfer doing something other than what was asked.
std::optional<ZDError> ZDURLConnection::Private::applyOptions()
{
    const ZDURLRequest &request = q->m_request;
    const QByteArray url = request.URLString();
    std::optional<ZDError> refusal;
    const auto set = [&](CURLoption option, auto value) {
        const CURLcode result = curl_easy_setopt(easy, option, value);
        if (result == CURLE_OK || refusal)
            return;
        const QVariantMap curlInfo{
            {ZDCurlCodeKey, qint64(result)},
            {ZDCurlMessageKey, QString::fromUtf8(curl_easy_strerror(result))}};
        refusal =
            option == CURLOPT_URL
                ? makeError(ZDURLErrorDomain, ZDURLErrorBadURL,
                            QStringLiteral("The address is malformed or too long."), url, curlInfo)
                : makeError(ZDURLErrorDomain, ZDURLErrorTransportUnavailable,
                            QStringLiteral("The transport refused one of the request's settings."),
                            url, curlInfo);
    };

    set(CURLOPT_ERRORBUFFER, errorBuffer);
    set(CURLOPT_URL, url.constData());
    // A request that started on https never continues on http; the header
    // callback names the refused redirect before curl would even try it.
    set(CURLOPT_PROTOCOLS_STR, secureOnly ? "https" : "http,https");
    set(CURLOPT_REDIR_PROTOCOLS_STR, secureOnly ? "https" : "http,https");
    set(CURLOPT_FOLLOWLOCATION, 1L);
    set(CURLOPT_MAXREDIRS, kMaxRedirects);
    set(CURLOPT_NOSIGNAL, 1L);
    // A request that says "Connection: close" gets a connection of its own and
    // leaves none behind. On a reused connection that turns out dead, curl
    // sends the request again by itself, body and all; the caller who asked
    // for a connection of its own wants that failure instead.
    if (request.valueForHTTPHeaderField("Connection")
            .trimmed()
            .compare("close", Qt::CaseInsensitive) == 0) {
        set(CURLOPT_FRESH_CONNECT, 1L);
        set(CURLOPT_FORBID_REUSE, 1L);
    }
    set(CURLOPT_ACCEPT_ENCODING, "");
    set(CURLOPT_CONNECTTIMEOUT, kIdleTimeoutSeconds);
    set(CURLOPT_LOW_SPEED_LIMIT, 1L);
    set(CURLOPT_LOW_SPEED_TIME, kIdleTimeoutSeconds);
    if (limits.maximumDurationMs > 0)
        set(CURLOPT_TIMEOUT_MS, long(std::min<qint64>(limits.maximumDurationMs, LONG_MAX)));
    if (limits.maximumResponseSize > 0)
        set(CURLOPT_MAXFILESIZE_LARGE, curl_off_t(limits.maximumResponseSize));
    set(CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
    set(CURLOPT_BUFFERSIZE, kDownloadBufferSize);
    set(CURLOPT_PRIVATE, this);
    set(CURLOPT_HEADERFUNCTION, &Private::headerCallback);
    set(CURLOPT_HEADERDATA, this);
    set(CURLOPT_WRITEFUNCTION, &Private::writeCallback);
    set(CURLOPT_WRITEDATA, this);
    set(CURLOPT_XFERINFOFUNCTION, &Private::progressCallback);
    set(CURLOPT_XFERINFODATA, this);
    set(CURLOPT_NOPROGRESS, 0L);
    set(CURLOPT_HTTPHEADER, headers);
    if (!hasUserAgent)
        set(CURLOPT_USERAGENT, "ZDPublish/" ZD_VERSION_STRING);

    const ZDProxySetting proxy = zdProxyForURL(url);
    set(CURLOPT_PROXY, proxy.url.constData());
    if (!proxy.user.isEmpty()) {
        set(CURLOPT_PROXYUSERNAME, proxy.user.constData());
        set(CURLOPT_PROXYPASSWORD, proxy.password.constData());
    }
    // Qt's TLS settings are read for https requests only: reading them the
    // first time loads Qt's TLS backend. (An http request redirected to https
    // is checked against the system's store alone.)
    if (secureOnly)
        authorities = zdCertificateAuthorities();
    if (authorities && !authorities->isEmpty()) {
        set(CURLOPT_SSL_CTX_FUNCTION, &useAuthorities);
        set(CURLOPT_SSL_CTX_DATA, authorities.get());
    }

    // The body is handed to curl in place: m_request keeps the bytes alive. A
    // body of one piece is given as it is; one of several pieces (a multipart
    // body around a large file) is read piece by piece, never joined.
    const QByteArray verb = request.HTTPMethod();
    const std::optional<ZDBodySegments> &body = request.HTTPBodySegments();
    const qint64 bodyLength = request.HTTPBodyLength();
    const auto setBody = [&] {
        set(CURLOPT_POST, 1L);
        set(CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(bodyLength));
        if (!body || body->isEmpty() || (body->size() == 1 && !body->front().isFile())) {
            set(CURLOPT_POSTFIELDS,
                body && !body->isEmpty() ? body->front().bytes().constData() : "");
            return;
        }
        bodyReader.emplace(*body);
        set(CURLOPT_READFUNCTION, &Private::readCallback);
        set(CURLOPT_READDATA, this);
        set(CURLOPT_SEEKFUNCTION, &Private::seekCallback);
        set(CURLOPT_SEEKDATA, this);
    };
    const bool bodyless = !body || bodyLength == 0;
    if (verb == "GET" && bodyless) {
        set(CURLOPT_HTTPGET, 1L);
    } else if (verb == "HEAD" && bodyless) {
        set(CURLOPT_NOBODY, 1L);
    } else if (verb == "POST") {
        // A plain POST (no custom verb) lets curl turn it into a GET on 301, 302
        // and 303, as browsers do.
        setBody();
    } else {
        set(CURLOPT_CUSTOMREQUEST, verb.constData());
        if (body)
            setBody();
    }
    qCDebug(lcZDNet).noquote().nospace()
        << verb << ' ' << loggableURL(url) << ' '
        << (proxy.url.isEmpty() ? QByteArray("direct") : "via proxy " + proxy.hostAndPort);
    return refusal;
}

size_t ZDURLConnection::Private::readCallback(char *buffer, size_t size, size_t count,
                                              void *userdata)
{
    const qint64 read =
        static_cast<Private *>(userdata)->bodyReader->read(buffer, qint64(size * count));
    return read < 0 ? CURL_READFUNC_ABORT : size_t(read);
}

// Curl rewinds the body when a redirect or an authentication round repeats it.
int ZDURLConnection::Private::seekCallback(void *userdata, curl_off_t offset, int origin)
{
    if (origin != SEEK_SET || offset < 0)
        return CURL_SEEKFUNC_CANTSEEK;
    return static_cast<Private *>(userdata)->bodyReader->rewind(qint64(offset))
               ? CURL_SEEKFUNC_OK
               : CURL_SEEKFUNC_FAIL;
}

size_t ZDURLConnection::Private::headerCallback(char *buffer, size_t size, size_t count,
                                                void *userdata)
{
    auto *self = static_cast<Private *>(userdata);
    const size_t length = size * count;
    self->headerBytes += qint64(length);
    self->headStarted = true;
    QByteArrayView line(buffer, qsizetype(length));
    while (line.endsWith('\n') || line.endsWith('\r'))
        line.chop(1);
    if (line.startsWith("HTTP/")) {
        self->inHeaderBlock = true;
        self->blockHeaders.clear();
    } else if (line.isEmpty()) {
        if (!self->inHeaderBlock)
            return length; // the end of a trailer block
        self->inHeaderBlock = false;
        long status = 0;
        curl_easy_getinfo(self->easy, CURLINFO_RESPONSE_CODE, &status);
        if (status >= 100 && status < 200)
            return length; // an interim response; the final one follows
        const char *effectiveURL = nullptr;
        curl_easy_getinfo(self->easy, CURLINFO_EFFECTIVE_URL, &effectiveURL);
        const QUrl here = QUrl::fromEncoded(QByteArray(effectiveURL));
        ZDHTTPResponse response(here, int(status), self->blockHeaders);
        const QByteArray location = response.valueForHTTPHeaderField("Location");
        if (status >= 300 && status < 400 && !location.isEmpty()) {
            // Stopped here rather than refused by curl when it tries, so that the
            // error can say what happened.
            const QUrl target = here.resolved(QUrl::fromEncoded(location));
            if (self->secureOnly && target.scheme().compare(u"https", Qt::CaseInsensitive) != 0) {
                self->stop = Stop::InsecureRedirect;
                self->insecureTarget = target.toEncoded();
                return 0;
            }
            return length; // curl follows it and discards its body
        }
        curl_off_t announced = -1;
        curl_easy_getinfo(self->easy, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &announced);
        if (self->limits.maximumResponseSize > 0 && announced > self->limits.maximumResponseSize) {
            self->stop = Stop::TooLarge;
            return 0;
        }
        self->pendingResponse = response;
        self->responseDelivered = false;
    } else if (self->inHeaderBlock) {
        if ((line.startsWith(' ') || line.startsWith('\t')) && !self->blockHeaders.isEmpty()) {
            self->blockHeaders.last().second += ' ' + line.trimmed().toByteArray();
        } else if (const qsizetype colon = line.indexOf(':'); colon > 0) {
            self->blockHeaders.append({line.first(colon).trimmed().toByteArray(),
                                       line.sliced(colon + 1).trimmed().toByteArray()});
        }
    }
    return length;
}

size_t ZDURLConnection::Private::writeCallback(char *buffer, size_t size, size_t count,
                                               void *userdata)
{
    auto *self = static_cast<Private *>(userdata);
    const size_t length = size * count;
    // Counted after decoding: a small compressed body cannot grow past the limit.
    self->receivedBytes += qint64(length);
    if (self->limits.maximumResponseSize > 0 &&
        self->receivedBytes > self->limits.maximumResponseSize) {
        self->stop = Stop::TooLarge;
        return 0;
    }
    self->deliverPendingResponse();
    if (const auto delegate = self->delegate.lock())
        delegate->connectionDidReceiveData(self->q, QByteArrayView(buffer, qsizetype(length)));
    return length;
}

// The stall rule, run from curl's progress callback (at least once a second
// while the transfer runs). `transferred` counts every byte moved both ways.
bool ZDURLConnection::Private::checkStall(qint64 transferred)
{
    if (limits.minimumBytesPerSecond <= 0 || limits.stallWindowSeconds <= 0)
        return false;
    const qint64 now = clock.elapsed();
    if (windowStartMs < 0) {
        // The first window opens once the body has gone out (or the response
        // starts): a server that takes a chunk and then says nothing is caught
        // within a window, not only by the idle rule. Thinking is allowed for
        // as long as one window.
        if (!headStarted && sentAtMs < 0)
            return false;
        windowStartMs = now;
        windowStartBytes = transferred;
        return false;
    }
    const qint64 windowMs = qint64(limits.stallWindowSeconds) * 1000;
    if (now - windowStartMs < windowMs)
        return false;
    const qint64 moved = transferred - windowStartBytes;
    if (moved * 1000 < limits.minimumBytesPerSecond * (now - windowStartMs))
        return true;
    windowStartMs = now;
    windowStartBytes = transferred;
    return false;
}

int ZDURLConnection::Private::progressCallback(void *clientp, curl_off_t, curl_off_t dlnow,
                                               curl_off_t ultotal, curl_off_t ulnow)
{
    auto *self = static_cast<Private *>(clientp);
    const qint64 bodyLength = self->q->m_request.HTTPBodyLength();
    // Uploads are never cut by the stall rule: it waits until the body is out.
    if (self->sentAtMs < 0 && (bodyLength <= 0 || ulnow >= bodyLength))
        self->sentAtMs = self->clock.elapsed();
    if ((self->sentAtMs >= 0 || self->headStarted) &&
        self->checkStall(qint64(dlnow) + qint64(ulnow) + self->headerBytes)) {
        self->stop = Stop::Stalled;
        return 1;
    }
    // After a redirect that repeats the body curl counts from zero again; the
    // delegate only ever hears of progress beyond what it was told.
    if (ulnow <= self->uploadReported || ulnow == self->uploadNow)
        return 0;
    self->uploadNow = ulnow;
    self->uploadTotal = ultotal;
    if (!self->progressQueued && self->driver) {
        self->progressQueued = true;
        self->driver->queueProgress(self->q->weak_from_this());
    }
    return 0;
}

void ZDURLConnection::Private::deliverPendingResponse()
{
    if (!pendingResponse || responseDelivered)
        return;
    responseDelivered = true;
    if (const auto d = delegate.lock())
        d->connectionDidReceiveResponse(q, *pendingResponse);
}

void ZDURLConnection::Private::dispatchProgress()
{
    progressQueued = false;
    if (cancelled || uploadNow <= uploadReported)
        return;
    const qint64 step = uploadNow - uploadReported;
    uploadReported = uploadNow;
    if (const auto d = delegate.lock())
        d->connectionDidSendBodyData(q, step, uploadNow, uploadTotal);
}

void ZDURLConnection::Private::dispatchDone(CURLcode result)
{
    recyclable = result == CURLE_OK;
    if (cancelled)
        return;
    long status = 0;
    curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
    qCDebug(lcZDNet).noquote().nospace()
        << q->m_request.HTTPMethod() << ' ' << loggableURL(q->m_request.URLString())
        << " ended: status " << status << ", curl code " << int(result);
    const auto d = delegate.lock();
    if (!d)
        return;
    if (result == CURLE_OK) {
        deliverPendingResponse();
        d->connectionDidFinishLoading(q);
        return;
    }
    const QByteArray url = q->m_request.URLString();
    const QString curlMessage = errorBuffer[0] ? QString::fromUtf8(errorBuffer)
                                               : QString::fromUtf8(curl_easy_strerror(result));
    const QVariantMap curlInfo{{ZDCurlCodeKey, qint64(result)}, {ZDCurlMessageKey, curlMessage}};
    const auto fail = [&](qint64 code, const QString &description, const QByteArray &where) {
        d->connectionDidFailWithError(
            q, makeError(ZDURLErrorDomain, code, description, where, curlInfo));
    };
    if (result == CURLE_ABORTED_BY_CALLBACK && bodyReader &&
        !bodyReader->unreadableFilePath().isEmpty()) {
        fail(ZDURLErrorBodyFileUnreadable,
             QStringLiteral("The file \u201c%1\u201d could not be read to its end.")
                 .arg(bodyReader->unreadableFilePath()),
             url);
        return;
    }
    // A header block beyond curl's limit shows as "out of memory" or as a
    // receive error naming the headers.
    const bool headTooLarge =
        !pendingResponse &&
        (result == CURLE_OUT_OF_MEMORY ||
         (result == CURLE_RECV_ERROR && curlMessage.contains(u"header", Qt::CaseInsensitive)));
    if (stop == Stop::TooLarge || result == CURLE_FILESIZE_EXCEEDED || headTooLarge) {
        fail(ZDURLErrorResponseTooLarge,
             QStringLiteral("The server's response is larger than the request allows."), url);
        return;
    }
    if (stop == Stop::InsecureRedirect) {
        fail(ZDURLErrorInsecureRedirect,
             QStringLiteral("The server redirected a secure request to an insecure address; "
                            "the redirect was not followed."),
             insecureTarget);
        return;
    }
    if (stop == Stop::Stalled) {
        fail(ZDURLErrorStalled, QStringLiteral("The server is sending its response too slowly."),
             url);
        return;
    }
    if (result == CURLE_OPERATION_TIMEDOUT && limits.maximumDurationMs > 0 &&
        clock.elapsed() >= limits.maximumDurationMs) {
        fail(ZDURLErrorTimedOut, QStringLiteral("The request took longer than it may."), url);
        return;
    }
    d->connectionDidFailWithError(
        q, makeError(ZDCurlErrorDomain, result, zdCurlCode(result).description, url, curlInfo));
}
