#include "net/ZDURLConnection_p.h"

#include "core/zdglobal.h"

#include <curl/curl.h>

#include <QCoreApplication>
#include <QFile>
#include <QNetworkInformation>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <algorithm>
#include <climits>
#include <cstring>
#include <mutex>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace {

// Browsers give up after about twenty redirects.
constexpr long kMaxRedirects = 20;
// A connection that moves no byte for a minute has stalled: fail it rather
// than leave the user waiting without end.
constexpr long kIdleTimeoutSeconds = 60;
// Large upload chunks mean fewer event-loop turns per gigabyte of video.
constexpr long kUploadBufferSize = 2L * 1024 * 1024;
constexpr long kDownloadBufferSize = 256L * 1024;

class CurlDriver;

ZDError makeError(const QString &domain, qint64 code, const QString &description,
                  const QByteArray &url)
{
    return ZDError(
        domain, code,
        {{ZDLocalizedDescriptionKey, description}, {ZDURLErrorURLKey, QString::fromUtf8(url)}});
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
    QPointer<CurlDriver> driver;
    bool inMulti = false;
    bool cancelled = false;
    char errorBuffer[CURL_ERROR_SIZE] = {};

    // The header block being read, and the last complete final response.
    bool inHeaderBlock = false;
    ZDHTTPHeaderList blockHeaders;
    std::optional<ZDHTTPResponse> pendingResponse;
    bool responseDelivered = false;

    // Upload progress: what curl reported and what the delegate was told.
    qint64 uploadNow = 0;
    qint64 uploadTotal = 0;
    qint64 uploadReported = 0;
    bool progressQueued = false;

    std::optional<ZDError> configure();
    void detach();
    void deliverPendingResponse();
    void dispatchProgress();
    void dispatchDone(CURLcode result);

    // Where the read callback stands in a body of several pieces, the file of
    // the piece being read, and the file that could not be read to its end.
    qsizetype readSegment = 0;
    qint64 readOffset = 0;
    std::unique_ptr<QFile> bodyFile;
    QString bodyFileFailure;

    static size_t headerCallback(char *buffer, size_t size, size_t count, void *userdata);
    static size_t readCallback(char *buffer, size_t size, size_t count, void *userdata);
    static int seekCallback(void *userdata, curl_off_t offset, int origin);
    static size_t writeCallback(char *buffer, size_t size, size_t count, void *userdata);
    static int progressCallback(void *clientp, curl_off_t, curl_off_t, curl_off_t ultotal,
                                curl_off_t ulnow);
};

namespace {

// Drives every connection of one thread: one multi handle, a socket notifier per
// socket and direction curl asks about, and one timer.
class CurlDriver : public QObject
{
public:
    static CurlDriver *forCurrentThread()
    {
        thread_local QPointer<CurlDriver> driver;
        if (!driver) {
            driver = new CurlDriver;
            QCoreApplication *app = QCoreApplication::instance();
            if (app && app->thread() == QThread::currentThread()) {
                driver->setParent(app);
            } else if (QThread *thread = QThread::currentThread()) {
                CurlDriver *d = driver;
                QObject::connect(
                    thread, &QThread::finished, d, [d] { delete d; }, Qt::DirectConnection);
            }
        }
        return driver;
    }

    ~CurlDriver() override
    {
        m_destroying = true;
        for (ZDURLConnection::Private *connection : m_connections) {
            curl_multi_remove_handle(m_multi, connection->easy);
            connection->inMulti = false;
        }
        m_connections.clear();
        curl_multi_cleanup(m_multi);
    }

    bool add(ZDURLConnection::Private *connection)
    {
        if (!m_multi || curl_multi_add_handle(m_multi, connection->easy) != CURLM_OK)
            return false;
        m_connections.insert(connection);
        connection->inMulti = true;
        connection->driver = this;
        return true;
    }

    void remove(ZDURLConnection::Private *connection)
    {
        curl_multi_remove_handle(m_multi, connection->easy);
        m_connections.erase(connection);
        connection->inMulti = false;
    }

    void queueProgress(std::weak_ptr<ZDURLConnection> connection)
    {
        m_progressQueue.push_back(std::move(connection));
    }

private:
    struct Notifiers
    {
        QSocketNotifier *read = nullptr;
        QSocketNotifier *write = nullptr;
    };

    CurlDriver()
    {
        static std::once_flag once;
        std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
        m_multi = curl_multi_init();
        if (!m_multi)
            return;
        curl_multi_setopt(m_multi, CURLMOPT_SOCKETFUNCTION, &CurlDriver::socketCallback);
        curl_multi_setopt(m_multi, CURLMOPT_SOCKETDATA, this);
        curl_multi_setopt(m_multi, CURLMOPT_TIMERFUNCTION, &CurlDriver::timerCallback);
        curl_multi_setopt(m_multi, CURLMOPT_TIMERDATA, this);
        m_timer.setSingleShot(true);
        QObject::connect(&m_timer, &QTimer::timeout, this,
                         [this] { socketAction(CURL_SOCKET_TIMEOUT, 0); });
    }

    static int socketCallback(CURL *, curl_socket_t socket, int what, void *userp, void *)
    {
        static_cast<CurlDriver *>(userp)->updateSocket(socket, what);
        return 0;
    }

    static int timerCallback(CURLM *, long timeoutMs, void *userp)
    {
        auto *self = static_cast<CurlDriver *>(userp);
        if (self->m_destroying)
            return 0;
        if (timeoutMs < 0)
            self->m_timer.stop();
        else
            self->m_timer.start(int(std::min<long>(timeoutMs, INT_MAX)));
        return 0;
    }

    void updateSocket(curl_socket_t socket, int what)
    {
        if (m_destroying)
            return;
        if (what == CURL_POLL_REMOVE) {
            if (auto it = m_sockets.find(socket); it != m_sockets.end()) {
                retire(it->second.read);
                retire(it->second.write);
                m_sockets.erase(it);
            }
            return;
        }
        Notifiers &notifiers = m_sockets[socket];
        const auto follow = [&](QSocketNotifier *&notifier, QSocketNotifier::Type type, int event,
                                bool wanted) {
            if (wanted && !notifier) {
                notifier = new QSocketNotifier(qintptr(socket), type, this);
                QObject::connect(notifier, &QSocketNotifier::activated, this,
                                 [this, socket, event] { socketAction(socket, event); });
            }
            if (notifier)
                notifier->setEnabled(wanted);
        };
        follow(notifiers.read, QSocketNotifier::Read, CURL_CSELECT_IN, what & CURL_POLL_IN);
        follow(notifiers.write, QSocketNotifier::Write, CURL_CSELECT_OUT, what & CURL_POLL_OUT);
    }

    // A notifier may be the one whose signal is being delivered: never delete it
    // on the spot.
    static void retire(QSocketNotifier *notifier)
    {
        if (!notifier)
            return;
        notifier->setEnabled(false);
        QObject::disconnect(notifier, nullptr, nullptr, nullptr);
        notifier->deleteLater();
    }

    void socketAction(curl_socket_t socket, int events)
    {
        int running = 0;
        curl_multi_socket_action(m_multi, socket, events, &running);
        dispatchEvents();
    }

    // Runs after curl has returned, so that delegates may cancel, destroy or
    // start connections freely.
    void dispatchEvents()
    {
        std::vector<std::pair<std::weak_ptr<ZDURLConnection>, CURLcode>> done;
        int left = 0;
        while (CURLMsg *message = curl_multi_info_read(m_multi, &left)) {
            if (message->msg != CURLMSG_DONE)
                continue;
            CURL *easy = message->easy_handle;
            const CURLcode result = message->data.result;
            ZDURLConnection::Private *connection = nullptr;
            curl_easy_getinfo(easy, CURLINFO_PRIVATE, &connection);
            remove(connection);
            done.emplace_back(connection->q->weak_from_this(), result);
        }
        for (const auto &weak : std::exchange(m_progressQueue, {})) {
            if (const auto connection = weak.lock())
                connection->p->dispatchProgress();
        }
        for (const auto &[weak, result] : done) {
            if (const auto connection = weak.lock())
                connection->p->dispatchDone(result);
        }
    }

    CURLM *m_multi = nullptr;
    QTimer m_timer;
    bool m_destroying = false;
    std::unordered_map<curl_socket_t, Notifiers> m_sockets;
    std::unordered_set<ZDURLConnection::Private *> m_connections;
    std::vector<std::weak_ptr<ZDURLConnection>> m_progressQueue;
};

std::function<bool()> &cellularProbe()
{
    static std::function<bool()> probe;
    return probe;
}

} // namespace

bool zdLinkIsCellular()
{
    if (const auto &probe = cellularProbe())
        return probe();
    if (!QCoreApplication::instance())
        return false;
    using Info = QNetworkInformation;
    if (!Info::instance())
        Info::loadBackendByFeatures(Info::Feature::TransportMedium);
    const Info *info = Info::instance();
    if (!info)
        return false;
    return info->transportMedium() == Info::TransportMedium::Cellular ||
           (info->supports(Info::Feature::Metered) && info->isMetered());
}

void zdSetCellularProbeForTesting(std::function<bool()> probe)
{
    cellularProbe() = std::move(probe);
}

ZDURLConnection::ZDURLConnection(const ZDURLRequest &request)
    : p(std::make_unique<Private>()), m_request(request)
{
    p->q = this;
}

ZDURLConnection::~ZDURLConnection()
{
    p->detach();
    if (p->easy)
        curl_easy_cleanup(p->easy);
    curl_slist_free_all(p->headers);
}

std::shared_ptr<ZDURLConnection>
ZDURLConnection::start(const ZDURLRequest &request, std::weak_ptr<ZDURLConnectionDelegate> delegate)
{
    auto connection = std::make_shared<ZDURLConnection>(request);
    connection->p->delegate = std::move(delegate);
    std::optional<ZDError> refusal = connection->p->configure();
    if (!refusal && !CurlDriver::forCurrentThread()->add(connection->p.get())) {
        refusal = makeError(ZDURLErrorDomain, ZDURLErrorTransportUnavailable,
                            QStringLiteral("The transport could not take the request."),
                            request.URLString());
    }
    if (refusal) {
        QTimer::singleShot(0, [weak = connection->weak_from_this(), error = *refusal] {
            const auto self = weak.lock();
            if (!self || self->p->cancelled)
                return;
            if (const auto target = self->p->delegate.lock())
                target->connectionDidFailWithError(self.get(), error);
        });
    }
    return connection;
}

void ZDURLConnection::cancel()
{
    p->cancelled = true;
    p->detach();
}

void ZDURLConnection::Private::detach()
{
    if (inMulti && driver)
        driver->remove(this);
    inMulti = false;
}

std::optional<ZDError> ZDURLConnection::Private::configure()
{
    const ZDURLRequest &request = q->m_request;
    const QByteArray url = request.URLString();
    if (!request.allowsCellularAccess() && zdLinkIsCellular()) {
        return makeError(ZDURLErrorDomain, ZDURLErrorCellularAccessDenied,
                         QStringLiteral("The request does not allow cellular access."), url);
    }
    bool hasUserAgent = false;
    bool hasExpect = false;
    for (const auto &[name, value] : request.allHTTPHeaderFields()) {
        if (!isValidHeaderField(name, value)) {
            return makeError(ZDURLErrorDomain, ZDURLErrorInvalidHeaderField,
                             QStringLiteral("The header field \u201c%1\u201d is malformed.")
                                 .arg(QString::fromUtf8(name)),
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

    easy = curl_easy_init();
    if (!easy) {
        return makeError(ZDURLErrorDomain, ZDURLErrorTransportUnavailable,
                         QStringLiteral("The transport could not take the request."), url);
    }
    curl_easy_setopt(easy, CURLOPT_URL, url.constData());
    curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(easy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(easy, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "");
    curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT, kIdleTimeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, kIdleTimeoutSeconds);
    curl_easy_setopt(easy, CURLOPT_UPLOAD_BUFFERSIZE, kUploadBufferSize);
    curl_easy_setopt(easy, CURLOPT_BUFFERSIZE, kDownloadBufferSize);
    curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, errorBuffer);
    curl_easy_setopt(easy, CURLOPT_PRIVATE, this);
    curl_easy_setopt(easy, CURLOPT_HEADERFUNCTION, &Private::headerCallback);
    curl_easy_setopt(easy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Private::writeCallback);
    curl_easy_setopt(easy, CURLOPT_WRITEDATA, this);
    curl_easy_setopt(easy, CURLOPT_XFERINFOFUNCTION, &Private::progressCallback);
    curl_easy_setopt(easy, CURLOPT_XFERINFODATA, this);
    curl_easy_setopt(easy, CURLOPT_NOPROGRESS, 0L);
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    if (!hasUserAgent)
        curl_easy_setopt(easy, CURLOPT_USERAGENT, "ZDPublish/" ZD_VERSION_STRING);

    // The body is handed to curl in place: m_request keeps the bytes alive. A
    // body of one piece is given as it is; one of several pieces (a multipart
    // body around a large file) is read piece by piece, never joined.
    const QByteArray verb = request.HTTPMethod();
    const std::optional<ZDBodySegments> &body = request.HTTPBodySegments();
    const qint64 bodyLength = request.HTTPBodyLength();
    const auto setBody = [&] {
        curl_easy_setopt(easy, CURLOPT_POST, 1L);
        curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t(bodyLength));
        if (!body || body->isEmpty() || (body->size() == 1 && !body->front().isFile())) {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS,
                             body && !body->isEmpty() ? body->front().bytes().constData() : "");
            return;
        }
        curl_easy_setopt(easy, CURLOPT_READFUNCTION, &Private::readCallback);
        curl_easy_setopt(easy, CURLOPT_READDATA, this);
        curl_easy_setopt(easy, CURLOPT_SEEKFUNCTION, &Private::seekCallback);
        curl_easy_setopt(easy, CURLOPT_SEEKDATA, this);
    };
    const bool bodyless = !body || bodyLength == 0;
    if (verb == "GET" && bodyless) {
        curl_easy_setopt(easy, CURLOPT_HTTPGET, 1L);
    } else if (verb == "HEAD" && bodyless) {
        curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
    } else if (verb == "POST") {
        // A plain POST (no custom verb) lets curl turn it into a GET on 301, 302
        // and 303, as browsers do.
        setBody();
    } else {
        curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, verb.constData());
        if (body)
            setBody();
    }
    return std::nullopt;
}

size_t ZDURLConnection::Private::readCallback(char *buffer, size_t size, size_t count,
                                              void *userdata)
{
    auto *self = static_cast<Private *>(userdata);
    const ZDBodySegments &segments = *self->q->m_request.HTTPBodySegments();
    size_t written = 0;
    const size_t room = size * count;
    while (written < room && self->readSegment < segments.size()) {
        const ZDBodySegment &segment = segments[self->readSegment];
        const qint64 want =
            std::min<qint64>(qint64(room - written), segment.size() - self->readOffset);
        if (!segment.isFile()) {
            std::memcpy(buffer + written, segment.bytes().constData() + self->readOffset,
                        size_t(want));
        } else {
            // The file is opened when its piece is reached and read in place.
            if (!self->bodyFile) {
                self->bodyFile = std::make_unique<QFile>(segment.filePath());
                if (!self->bodyFile->open(QIODevice::ReadOnly) ||
                    !self->bodyFile->seek(segment.fileOffset() + self->readOffset)) {
                    self->bodyFileFailure = segment.filePath();
                    return CURL_READFUNC_ABORT;
                }
            }
            if (self->bodyFile->read(buffer + written, want) != want) {
                self->bodyFileFailure = segment.filePath(); // gone or shrunk since
                return CURL_READFUNC_ABORT;
            }
        }
        written += size_t(want);
        self->readOffset += want;
        if (self->readOffset == segment.size()) {
            ++self->readSegment;
            self->readOffset = 0;
            self->bodyFile.reset();
        }
    }
    return written;
}

// Curl rewinds the body when a redirect or an authentication round repeats it.
int ZDURLConnection::Private::seekCallback(void *userdata, curl_off_t offset, int origin)
{
    auto *self = static_cast<Private *>(userdata);
    if (origin != SEEK_SET || offset < 0)
        return CURL_SEEKFUNC_CANTSEEK;
    const ZDBodySegments &segments = *self->q->m_request.HTTPBodySegments();
    self->bodyFile.reset();
    self->readSegment = 0;
    while (self->readSegment < segments.size() && offset >= segments[self->readSegment].size()) {
        offset -= segments[self->readSegment].size();
        ++self->readSegment;
    }
    self->readOffset = offset;
    return offset > 0 && self->readSegment == segments.size() ? CURL_SEEKFUNC_FAIL
                                                              : CURL_SEEKFUNC_OK;
}

size_t ZDURLConnection::Private::headerCallback(char *buffer, size_t size, size_t count,
                                                void *userdata)
{
    auto *self = static_cast<Private *>(userdata);
    const size_t length = size * count;
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
        self->pendingResponse = ZDHTTPResponse(QUrl::fromEncoded(QByteArray(effectiveURL)),
                                               int(status), self->blockHeaders);
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
    self->deliverPendingResponse();
    if (const auto delegate = self->delegate.lock())
        delegate->connectionDidReceiveData(self->q, QByteArrayView(buffer, qsizetype(length)));
    return length;
}

int ZDURLConnection::Private::progressCallback(void *clientp, curl_off_t, curl_off_t,
                                               curl_off_t ultotal, curl_off_t ulnow)
{
    auto *self = static_cast<Private *>(clientp);
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
    if (cancelled)
        return;
    const auto d = delegate.lock();
    if (!d)
        return;
    if (result == CURLE_OK) {
        deliverPendingResponse();
        d->connectionDidFinishLoading(q);
        return;
    }
    if (result == CURLE_ABORTED_BY_CALLBACK && !bodyFileFailure.isEmpty()) {
        d->connectionDidFailWithError(
            q, makeError(ZDURLErrorDomain, ZDURLErrorBodyFileUnreadable,
                         QStringLiteral("The file \u201c%1\u201d could not be read to its end.")
                             .arg(bodyFileFailure),
                         q->m_request.URLString()));
        return;
    }
    const QString description = errorBuffer[0] ? QString::fromUtf8(errorBuffer)
                                               : QString::fromUtf8(curl_easy_strerror(result));
    d->connectionDidFailWithError(
        q, makeError(ZDCurlErrorDomain, result, description, q->m_request.URLString()));
}
