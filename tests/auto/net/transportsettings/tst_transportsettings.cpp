// How Qt's network settings reach curl, what a request tells the debug log of
// them, and what a request meets when curl refuses one of the settings of a
// thread's transfer driver. For the last, the test stands between the library
// and curl: its own curl_multi_setopt and curl_share_setopt (this executable
// links the library statically, so its definitions are the ones the library
// calls) refuse the option a case names and pass everything else on to curl.

#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDTransportSettings_p.h"
#include "net/ZDURLRequest.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <QEventLoop>
#include <QLoggingCategory>
#include <QNetworkProxy>
#include <QTest>
#include <QThread>

#include <atomic>
#include <cstdarg>
#include <optional>

using namespace Qt::StringLiterals;

namespace {

std::atomic<int> refusedMultiOption{-1};
std::atomic<int> refusedShareData{-1};

template <typename Function> Function next(const char *name)
{
    return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

} // namespace

// Options carry their argument's type in their number (curl.h's CURLOPTTYPE_*).
extern "C" CURLMcode(curl_multi_setopt)(CURLM *multi, CURLMoption option, ...)
{
    if (option == refusedMultiOption)
        return CURLM_UNKNOWN_OPTION;
    using Real = CURLMcode (*)(CURLM *, CURLMoption, ...);
    static const Real real = next<Real>("curl_multi_setopt");
    va_list args;
    va_start(args, option);
    CURLMcode result;
    if (option < CURLOPTTYPE_OBJECTPOINT) {
        result = real(multi, option, va_arg(args, long));
    } else if (option < CURLOPTTYPE_FUNCTIONPOINT) {
        result = real(multi, option, va_arg(args, void *));
    } else if (option < CURLOPTTYPE_OFF_T) {
        using AnyFunction = void (*)();
        result = real(multi, option, va_arg(args, AnyFunction));
    } else {
        result = real(multi, option, va_arg(args, curl_off_t));
    }
    va_end(args);
    return result;
}

extern "C" CURLSHcode(curl_share_setopt)(CURLSH *share, CURLSHoption option, ...)
{
    using Real = CURLSHcode (*)(CURLSH *, CURLSHoption, ...);
    static const Real real = next<Real>("curl_share_setopt");
    va_list args;
    va_start(args, option);
    CURLSHcode result;
    if (option == CURLSHOPT_SHARE || option == CURLSHOPT_UNSHARE) {
        const int data = va_arg(args, int);
        result = data == refusedShareData ? CURLSHE_BAD_OPTION : real(share, option, data);
    } else {
        result = real(share, option, va_arg(args, void *));
    }
    va_end(args);
    return result;
}

namespace {

struct Outcome
{
    bool received = false;
    ZDError error;
    QStringList warnings; // zd.net warnings logged while the request ran
    QStringList debugLines;
};

Outcome *currentOutcome = nullptr;
QtMessageHandler previousHandler = nullptr;

void recordWarning(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (currentOutcome && qstrcmp(context.category, "zd.net") == 0 &&
        (type == QtWarningMsg || type == QtDebugMsg)) {
        (type == QtWarningMsg ? currentOutcome->warnings : currentOutcome->debugLines) << message;
        return;
    }
    previousHandler(type, context, message);
}

// Runs one request on a thread of its own, so that the thread's driver is made
// (and its settings asked) while the refusal holds.
Outcome requestOnAFreshThread(const QUrl &url)
{
    Outcome outcome;
    currentOutcome = &outcome;
    previousHandler = qInstallMessageHandler(recordWarning);
    std::atomic<bool> done{false};
    QThread *thread = QThread::create([&] {
        QEventLoop loop;
        RecordingDelegate delegate;
        delegate.onEnd = [&](JSONHTTPRequest *) { loop.quit(); };
        JSONHTTPRequest request(url, &delegate);
        request.start();
        if (delegate.endings() == 0)
            loop.exec();
        outcome.received = delegate.last().kind == RecordingDelegate::Event::Object;
        outcome.error = delegate.last().error;
        done = true;
    });
    thread->start();
    // The server answers on this thread's event loop.
    if (!QTest::qWaitFor([&] { return done.load(); }, 60000))
        qFatal("the request on its own thread never ended");
    thread->wait();
    delete thread;
    qInstallMessageHandler(previousHandler);
    currentOutcome = nullptr;
    return outcome;
}

} // namespace

class tst_TransportSettings : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void cleanup();
    void aRefusedDriverSettingFailsEveryRequestWithCurlsReason_data();
    void aRefusedDriverSettingFailsEveryRequestWithCurlsReason();
    void aRefusedShareSettingIsLoggedAndRequestsGoOnWithoutSharing_data();
    void aRefusedShareSettingIsLoggedAndRequestsGoOnWithoutSharing();
    void qtsProxyIsSpelledForCurlWithoutItsCredentials_data();
    void qtsProxyIsSpelledForCurlWithoutItsCredentials();
    void theDebugLogShowsTheRequestAndItsProxyButNoSecret();
};

void tst_TransportSettings::cleanup()
{
    refusedMultiOption = -1;
    refusedShareData = -1;
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
    QLoggingCategory::setFilterRules({});
}

void tst_TransportSettings::aRefusedDriverSettingFailsEveryRequestWithCurlsReason_data()
{
    QTest::addColumn<int>("option");
    QTest::newRow("connections per host") << int(CURLMOPT_MAX_HOST_CONNECTIONS);
    QTest::newRow("connections in all") << int(CURLMOPT_MAX_TOTAL_CONNECTIONS);
    QTest::newRow("socket callback") << int(CURLMOPT_SOCKETFUNCTION);
    QTest::newRow("timer data") << int(CURLMOPT_TIMERDATA);
}

void tst_TransportSettings::aRefusedDriverSettingFailsEveryRequestWithCurlsReason()
{
    QFETCH(int, option);
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([](const RecordedRequest &) { return CannedReply::json("{}"); });

    refusedMultiOption = option;
    const Outcome outcome = requestOnAFreshThread(server.url(u"/refused"_s));
    QVERIFY(!outcome.received);
    QCOMPARE(outcome.error.domain(), ZDURLErrorDomain);
    QCOMPARE(outcome.error.code(), qint64(ZDURLErrorTransportUnavailable));
    QCOMPARE(outcome.error.userInfo().value(ZDCurlCodeKey).toLongLong(),
             qint64(CURLM_UNKNOWN_OPTION));
    QCOMPARE(outcome.error.userInfo().value(ZDCurlMessageKey).toString(),
             QString::fromUtf8(curl_multi_strerror(CURLM_UNKNOWN_OPTION)));
    QCOMPARE(outcome.warnings.size(), 1);
    QVERIFY2(outcome.warnings[0].contains(u"cannot run requests"_s),
             qPrintable(outcome.warnings[0]));
    QVERIFY(server.requests().isEmpty());

    // The next thread's driver is made whole again.
    refusedMultiOption = -1;
    const Outcome after = requestOnAFreshThread(server.url(u"/after"_s));
    QVERIFY2(after.received, qPrintable(after.error.localizedDescription()));
    QVERIFY(after.warnings.isEmpty());
}

void tst_TransportSettings::aRefusedShareSettingIsLoggedAndRequestsGoOnWithoutSharing_data()
{
    QTest::addColumn<int>("data");
    QTest::newRow("TLS sessions") << int(CURL_LOCK_DATA_SSL_SESSION);
    QTest::newRow("DNS answers") << int(CURL_LOCK_DATA_DNS);
}

void tst_TransportSettings::aRefusedShareSettingIsLoggedAndRequestsGoOnWithoutSharing()
{
    QFETCH(int, data);
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([](const RecordedRequest &) { return CannedReply::json("{\"ok\":1}"); });

    refusedShareData = data;
    const Outcome outcome = requestOnAFreshThread(server.url(u"/shared"_s));
    QVERIFY2(outcome.received, qPrintable(outcome.error.localizedDescription()));
    QCOMPARE(server.requests().size(), 1);
    QCOMPARE(outcome.warnings.size(), 1);
    QVERIFY2(outcome.warnings[0].contains(u"share no TLS sessions or DNS answers"_s),
             qPrintable(outcome.warnings[0]));
}

void tst_TransportSettings::qtsProxyIsSpelledForCurlWithoutItsCredentials_data()
{
    QTest::addColumn<QNetworkProxy>("proxy");
    QTest::addColumn<QByteArray>("url");
    const auto proxy = [](QNetworkProxy::ProxyType type, const QString &host) {
        return QNetworkProxy(type, host, 3128, u"pat"_s, u"pr0xy-pass"_s);
    };
    QTest::newRow("http") << proxy(QNetworkProxy::HttpProxy, u"proxy.example"_s)
                          << QByteArray("http://proxy.example:3128");
    // The proxy resolves the name: the host may be one only it knows.
    QTest::newRow("socks5") << proxy(QNetworkProxy::Socks5Proxy, u"proxy.example"_s)
                            << QByteArray("socks5h://proxy.example:3128");
    QTest::newRow("IPv6 address") << proxy(QNetworkProxy::HttpProxy, u"::1"_s)
                                  << QByteArray("http://[::1]:3128");
    QTest::newRow("international name")
        << proxy(QNetworkProxy::HttpCachingProxy, u"b\u00fccher.example"_s)
        << QByteArray("http://xn--bcher-kva.example:3128");
    QTest::newRow("none") << QNetworkProxy(QNetworkProxy::NoProxy) << QByteArray();
    QTest::newRow("one curl cannot use")
        << proxy(QNetworkProxy::FtpCachingProxy, u"ftp.example"_s) << QByteArray();
}

void tst_TransportSettings::qtsProxyIsSpelledForCurlWithoutItsCredentials()
{
    QFETCH(QNetworkProxy, proxy);
    QFETCH(QByteArray, url);
    QNetworkProxy::setApplicationProxy(proxy);
    const ZDProxySetting setting = zdProxyForURL("https://service.example/upload");
    QCOMPARE(setting.url, url);
    QVERIFY(url.endsWith(setting.hostAndPort));
    if (!url.isEmpty()) {
        QCOMPARE(setting.user, "pat");
        QCOMPARE(setting.password, "pr0xy-pass");
    }
}

void tst_TransportSettings::theDebugLogShowsTheRequestAndItsProxyButNoSecret()
{
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([](const RecordedRequest &) { return CannedReply::json("{}"); });
    // The server stands in as the proxy too: it answers whatever it is asked,
    // here for a name that only the proxy knows (Qt sends no local address
    // through a proxy).
    QNetworkProxy::setApplicationProxy(QNetworkProxy(
        QNetworkProxy::HttpProxy, u"127.0.0.1"_s, server.port(), u"proxy-user"_s, u"proxy-pass"_s));
    QLoggingCategory::setFilterRules(u"zd.net.debug=true"_s);

    QUrl url = server.url(u"/logged/path?oauth_token=query-secret#fragment-secret"_s);
    url.setUserInfo(u"url-user:url-pass"_s);
    url.setHost(u"zd-log.test"_s);
    const Outcome outcome = requestOnAFreshThread(url);
    QVERIFY2(outcome.received, qPrintable(outcome.error.localizedDescription()));
    QCOMPARE(server.requests().size(), 1);

    const QString log = outcome.debugLines.join(u'\n');
    const QString port = QString::number(server.port());
    const QStringList expected{u"GET http://zd-log.test:"_s + port + u"/logged/path"_s,
                               u"via proxy 127.0.0.1:"_s + port, u"status 200"_s, u"curl code 0"_s};
    for (const QString &shown : expected)
        QVERIFY2(log.contains(shown), qPrintable(shown + u" is not in:\n"_s + log));
    for (const auto secret : {u"query-secret", u"fragment-secret", u"url-user", u"url-pass",
                              u"proxy-user", u"proxy-pass"})
        QVERIFY2(!log.contains(secret), qPrintable(log));
}

QTEST_MAIN(tst_TransportSettings)
#include "tst_transportsettings.moc"
