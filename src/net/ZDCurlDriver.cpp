#include "net/ZDCurlDriver_p.h"

#include "net/ZDURLConnection_p.h"

#include "core/ZDLogging_p.h"

#include <QCoreApplication>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>

#include <algorithm>
#include <climits>
#include <mutex>

namespace {

// A notifier may be the one whose signal is being delivered: never delete it
// on the spot.
void retire(QSocketNotifier *notifier)
{
    if (!notifier)
        return;
    notifier->setEnabled(false);
    QObject::disconnect(notifier, nullptr, nullptr, nullptr);
    notifier->deleteLater();
}

} // namespace

ZDCurlDriver *ZDCurlDriver::forCurrentThread()
{
    thread_local QPointer<ZDCurlDriver> driver;
    if (!driver) {
        driver = new ZDCurlDriver;
        QCoreApplication *app = QCoreApplication::instance();
        if (app && app->thread() == QThread::currentThread()) {
            driver->setParent(app);
        } else if (QThread *thread = QThread::currentThread()) {
            ZDCurlDriver *d = driver;
            QObject::connect(
                thread, &QThread::finished, d, [d] { delete d; }, Qt::DirectConnection);
        }
    }
    return driver;
}

ZDCurlDriver::ZDCurlDriver()
{
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    if (CURLSH *share = curl_share_init()) {
        m_share = std::shared_ptr<void>(
            share, [](void *handle) { curl_share_cleanup(static_cast<CURLSH *>(handle)); });
        // One thread uses the share handle, so it needs no lock functions.
        for (const curl_lock_data data : {CURL_LOCK_DATA_SSL_SESSION, CURL_LOCK_DATA_DNS}) {
            const CURLSHcode result = curl_share_setopt(share, CURLSHOPT_SHARE, data);
            if (result != CURLSHE_OK) {
                // Sharing only saves work: the requests go on without it.
                qCWarning(lcZDNet).nospace()
                    << "The requests of this thread share no TLS sessions or DNS answers: "
                       "the transport refused a share setting ("
                    << curl_share_strerror(result) << ", code " << int(result) << ").";
                m_share.reset();
                break;
            }
        }
    }
    m_multi = curl_multi_init();
    if (!m_multi) {
        m_setupResult = CURLM_OUT_OF_MEMORY;
        return;
    }
    // Beyond these, transfers wait for a connection instead of failing when the
    // process runs out of descriptors; browsers keep to about six per host.
    const auto set = [this](CURLMoption option, auto value) {
        if (m_setupResult == CURLM_OK)
            m_setupResult = curl_multi_setopt(m_multi, option, value);
    };
    set(CURLMOPT_MAX_HOST_CONNECTIONS, kMaxHostConnections);
    set(CURLMOPT_MAX_TOTAL_CONNECTIONS, kMaxTotalConnections);
    set(CURLMOPT_SOCKETFUNCTION, &ZDCurlDriver::socketCallback);
    set(CURLMOPT_SOCKETDATA, this);
    set(CURLMOPT_TIMERFUNCTION, &ZDCurlDriver::timerCallback);
    set(CURLMOPT_TIMERDATA, this);
    if (m_setupResult != CURLM_OK) {
        // Without its callbacks or its limits the multi handle would drive
        // transfers other than as documented: no transfer is handed to it.
        qCWarning(lcZDNet).nospace()
            << "The transport cannot run requests on this thread: it refused a setting of its "
               "transfer driver ("
            << curl_multi_strerror(m_setupResult) << ", code " << int(m_setupResult) << ").";
        curl_multi_cleanup(m_multi);
        m_multi = nullptr;
        return;
    }
    m_timer.setSingleShot(true);
    QObject::connect(&m_timer, &QTimer::timeout, this,
                     [this] { socketAction(CURL_SOCKET_TIMEOUT, 0); });
}

ZDCurlDriver::~ZDCurlDriver()
{
    m_destroying = true;
    for (const auto &[easy, connection] : m_transfers) {
        curl_multi_remove_handle(m_multi, easy);
        if (const auto owner = connection.lock())
            owner->driverDidRelease();
    }
    m_transfers.clear();
    for (CURL *easy : m_idleHandles)
        curl_easy_cleanup(easy);
    curl_multi_cleanup(m_multi);
}

CURL *ZDCurlDriver::takeEasyHandle()
{
    if (!m_idleHandles.empty()) {
        CURL *easy = m_idleHandles.back();
        m_idleHandles.pop_back();
        return easy;
    }
    CURL *easy = curl_easy_init();
    if (easy && m_share && curl_easy_setopt(easy, CURLOPT_SHARE, m_share.get()) != CURLE_OK) {
        curl_easy_cleanup(easy);
        return nullptr;
    }
    return easy;
}

void ZDCurlDriver::recycleEasyHandle(CURL *easy)
{
    // A few idle handles cover sequential requests and small bursts.
    constexpr size_t kMaxIdleHandles = 8;
    if (m_destroying || m_idleHandles.size() >= kMaxIdleHandles) {
        curl_easy_cleanup(easy);
        return;
    }
    // Keeps the share handle, the TLS session and DNS caches; drops every option.
    curl_easy_reset(easy);
    m_idleHandles.push_back(easy);
}

CURLMcode ZDCurlDriver::add(CURL *easy, std::weak_ptr<ZDURLConnection> connection)
{
    if (!m_multi)
        return m_setupResult;
    const CURLMcode result = curl_multi_add_handle(m_multi, easy);
    if (result == CURLM_OK)
        m_transfers.emplace(easy, std::move(connection));
    return result;
}

void ZDCurlDriver::remove(CURL *easy)
{
    if (m_multi)
        curl_multi_remove_handle(m_multi, easy);
    m_transfers.erase(easy);
}

void ZDCurlDriver::queueProgress(std::weak_ptr<ZDURLConnection> connection)
{
    m_progressQueue.push_back(std::move(connection));
}

int ZDCurlDriver::socketCallback(CURL *, curl_socket_t socket, int what, void *userp, void *)
{
    static_cast<ZDCurlDriver *>(userp)->updateSocket(socket, what);
    return 0;
}

int ZDCurlDriver::timerCallback(CURLM *, long timeoutMs, void *userp)
{
    auto *self = static_cast<ZDCurlDriver *>(userp);
    if (self->m_destroying)
        return 0;
    if (timeoutMs < 0)
        self->m_timer.stop();
    else
        self->m_timer.start(int(std::min<long>(timeoutMs, INT_MAX)));
    return 0;
}

void ZDCurlDriver::updateSocket(curl_socket_t socket, int what)
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

void ZDCurlDriver::socketAction(curl_socket_t socket, int events)
{
    int running = 0;
    curl_multi_socket_action(m_multi, socket, events, &running);
    dispatchEvents();
}

// Runs after curl has returned, so that delegates may cancel, destroy or start
// connections freely.
void ZDCurlDriver::dispatchEvents()
{
    std::vector<std::pair<std::weak_ptr<ZDURLConnection>, CURLcode>> done;
    int left = 0;
    while (CURLMsg *message = curl_multi_info_read(m_multi, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        CURL *easy = message->easy_handle;
        const CURLcode result = message->data.result;
        const auto it = m_transfers.find(easy);
        if (it == m_transfers.end())
            continue;
        std::weak_ptr<ZDURLConnection> connection = it->second;
        remove(easy);
        if (const auto owner = connection.lock())
            owner->driverDidRelease();
        done.emplace_back(std::move(connection), result);
    }
    for (const auto &weak : std::exchange(m_progressQueue, {})) {
        if (const auto connection = weak.lock())
            connection->driverDidProgress();
    }
    for (const auto &[weak, result] : done) {
        if (const auto connection = weak.lock())
            connection->driverDidFinish(result);
    }
}
