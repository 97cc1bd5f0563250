#pragma once

// Drives every transfer of one thread: one curl multi handle, a socket notifier
// per socket and direction curl asks about, and one timer, all on that thread's
// Qt event loop. No worker thread exists.
//
// What the transfers of one thread share: the multi handle's connection cache
// and CA store cache, a share handle for TLS sessions and DNS answers, and easy
// handles, which are reset and reused. Connections are limited per host and in
// all; transfers beyond the limits wait in curl's queue.
//
// Every setting is checked. A share setting curl refuses is logged (zd.net)
// and the thread's requests go on without sharing. A multi setting it refuses
// is logged too, and then the driver takes no transfer: each request of the
// thread fails with ZDURLErrorTransportUnavailable and curl's code and message.

#include <curl/curl.h>

#include <QObject>
#include <QTimer>

#include <memory>
#include <unordered_map>
#include <vector>

class QSocketNotifier;
class ZDURLConnection;

class ZDCurlDriver : public QObject
{
public:
    // The driver of the calling thread, made on first use. It lives until the
    // application object (main thread) or the thread goes away.
    static ZDCurlDriver *forCurrentThread();
    ~ZDCurlDriver() override;

    // Hands `easy` to the multi handle. Its end is reported to `connection`
    // (ZDURLConnection::driverDidFinish) from the event loop, after curl has
    // returned. Anything but CURLM_OK: the transfer was not taken (a driver
    // whose multi handle refused one of its settings takes none, and answers
    // with that refusal).
    CURLMcode add(CURL *easy, std::weak_ptr<ZDURLConnection> connection);
    // Takes `easy` out of the multi handle; nothing more is reported for it.
    void remove(CURL *easy);

    // Asks for ZDURLConnection::driverDidProgress once curl has returned.
    void queueProgress(std::weak_ptr<ZDURLConnection> connection);

    // An easy handle in its default state, attached to the thread's share
    // handle, or null when curl has no memory left. Give it back with
    // recycleEasyHandle() (or clean it up, holding shareHandle() until then).
    CURL *takeEasyHandle();
    void recycleEasyHandle(CURL *easy);
    // Keeps the share handle alive while an easy handle that uses it lives.
    std::shared_ptr<void> shareHandle() const { return m_share; }

    static constexpr long kMaxHostConnections = 6;
    static constexpr long kMaxTotalConnections = 32;

private:
    struct Notifiers
    {
        QSocketNotifier *read = nullptr;
        QSocketNotifier *write = nullptr;
    };

    ZDCurlDriver();
    static int socketCallback(CURL *, curl_socket_t socket, int what, void *userp, void *);
    static int timerCallback(CURLM *, long timeoutMs, void *userp);
    void updateSocket(curl_socket_t socket, int what);
    void socketAction(curl_socket_t socket, int events);
    void dispatchEvents();

    std::shared_ptr<void> m_share;
    std::vector<CURL *> m_idleHandles;
    CURLM *m_multi = nullptr;
    CURLMcode m_setupResult = CURLM_OK; // why m_multi is null
    QTimer m_timer;
    bool m_destroying = false;
    std::unordered_map<curl_socket_t, Notifiers> m_sockets;
    std::unordered_map<CURL *, std::weak_ptr<ZDURLConnection>> m_transfers;
    std::vector<std::weak_ptr<ZDURLConnection>> m_progressQueue;
};
