// What a request meets when curl refuses one of the settings of a thread's
// transfer driver. The test stands between the library and curl: its own
// curl_multi_setopt and curl_share_setopt (this executable links the library
// statically, so its definitions are the ones the library calls) refuse the
// option a case names and pass everything else on to curl.

#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDURLRequest.h"

#include <curl/curl.h>
#include <dlfcn.h>

#include <QEventLoop>
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
};

QStringList *currentWarnings = nullptr;
QtMessageHandler previousHandler = nullptr;

void recordWarning(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    if (currentWarnings && type == QtWarningMsg && qstrcmp(context.category, "zd.net") == 0) {
        *currentWarnings << message;
        return;
    }
    previousHandler(type, context, message);
}

// Runs one request on a thread of its own, so that the thread's driver is made
// (and its settings asked) while the refusal holds.
Outcome requestOnAFreshThread(const QUrl &url)
{
    Outcome outcome;
    currentWarnings = &outcome.warnings;
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
    currentWarnings = nullptr;
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
};

void tst_TransportSettings::cleanup()
{
    refusedMultiOption = -1;
    refusedShareData = -1;
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

QTEST_MAIN(tst_TransportSettings)
#include "tst_transportsettings.moc"
