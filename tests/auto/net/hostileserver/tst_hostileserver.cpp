// The request layer against servers that misbehave on purpose, and against the
// trust and proxy settings a Qt application makes. Every exchange here must end
// in exactly one delegate call carrying the documented error.

#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDFileUpload.h"
#include "net/ZDResumableUpload.h"

#include <QFile>
#include <QNetworkProxy>
#include <QProcess>
#include <QStandardPaths>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QTest>

#include <sys/resource.h>

Q_DECLARE_METATYPE(CannedReply)

using namespace Qt::StringLiterals;

namespace {

constexpr int kTimeoutMs = 60000;

// Records whether it was asked to sign anything.
class CountingSigner : public RequestSigner
{
public:
    ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) override
    {
        ++calls;
        return request;
    }
    int calls = 0;
};

// Runs the request to its one ending and checks that no second one follows.
void runToTheEnd(JSONHTTPRequest &request, RecordingDelegate &delegate)
{
    request.start();
    QTRY_VERIFY_WITH_TIMEOUT(delegate.endings() >= 1, kTimeoutMs);
    QTest::qWait(200);
    QCOMPARE(delegate.endings(), 1);
}

void expectURLError(const RecordingDelegate &delegate, ZDURLError code)
{
    QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Failure);
    const ZDError &error = delegate.last().error;
    QVERIFY2(error.domain() == ZDURLErrorDomain && error.code() == code,
             qPrintable(u"%1 %2: %3"_s.arg(error.domain())
                            .arg(error.code())
                            .arg(error.localizedDescription())));
    QVERIFY(!error.localizedDescription().isEmpty());
}

QByteArray gzipOfZeros(qint64 size)
{
    QProcess shell;
    shell.start(u"sh"_s, {u"-c"_s, u"head -c %1 /dev/zero | gzip -9"_s.arg(size)});
    shell.waitForFinished(120000);
    return shell.readAllStandardOutput();
}

quint16 freePort()
{
    QTcpServer probe;
    probe.listen(QHostAddress::LocalHost, 0);
    return probe.serverPort();
}

} // namespace

class tst_HostileServer : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();

    void httpsNeverContinuesOnHttp_data();
    void httpsNeverContinuesOnHttp();
    void oversizedResponsesFailAndDropTheirBytes_data();
    void oversizedResponsesFailAndDropTheirBytes();
    void slowServersAreCutButThinkingServersAreNot_data();
    void slowServersAreCutButThinkingServersAreNot();
    void aStalledUploadIsNotCutByTheStallRule();
    void anUploadSessionOnPlainHttpIsRefused_data();
    void anUploadSessionOnPlainHttpIsRefused();
    void manyRequestsAtOnceWaitForConnectionsUnderALowDescriptorLimit();
    void aPrivateAuthorityInQtsDefaultConfigurationIsTrusted();
    void qtsApplicationProxyCarriesRequests();

private:
    QTemporaryDir m_dir;
    TestCertificates m_certificates;
    LoopbackHTTPServer m_plain;
    LoopbackHTTPServer m_tls;
    QSslConfiguration m_qtDefault;
};

void tst_HostileServer::initTestCase()
{
    QVERIFY(m_dir.isValid());
    m_certificates = makeTestCertificates(m_dir.path());
    QVERIFY2(m_certificates.error.isEmpty(), qPrintable(m_certificates.error));
    QVERIFY(m_plain.listen());
    QVERIFY(m_tls.listenWithTls(m_certificates.serverConfiguration));
    m_qtDefault = QSslConfiguration::defaultConfiguration();
}

// Most tests trust the private authority the way an application would.
void tst_HostileServer::init()
{
    QSslConfiguration trusting = m_qtDefault;
    trusting.addCaCertificate(m_certificates.authority);
    QSslConfiguration::setDefaultConfiguration(trusting);
    m_plain.clear();
    m_tls.clear();
    m_plain.setHandler([](const RecordedRequest &) { return CannedReply::json("{}"); });
    m_tls.setHandler([](const RecordedRequest &) { return CannedReply::json("{}"); });
}

void tst_HostileServer::cleanup()
{
    QSslConfiguration::setDefaultConfiguration(m_qtDefault);
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
}

void tst_HostileServer::httpsNeverContinuesOnHttp_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<bool>("post");
    QTest::newRow("GET, 302") << 302 << false;
    QTest::newRow("GET, 301") << 301 << false;
    QTest::newRow("form POST, 307") << 307 << true;
    QTest::newRow("form POST, 308") << 308 << true;
    QTest::newRow("form POST, 303") << 303 << true;
}

// A sign-in over https that the server redirects to http fails before a byte
// reaches the plain listener: neither the password nor the signature.
void tst_HostileServer::httpsNeverContinuesOnHttp()
{
    QFETCH(int, status);
    QFETCH(bool, post);
    const QByteArray target = m_plain.url(u"/steal"_s).toEncoded();
    m_tls.setHandler(
        [&](const RecordedRequest &) { return CannedReply::redirect(status, target); });

    RecordingDelegate delegate;
    auto signer = std::make_shared<CountingSigner>();
    JSONHTTPRequest request(m_tls.url(u"/signin"_s), &delegate, signer);
    request.setHTTPHeaderValue(u"Authorization"_s, u"Bearer secret-token"_s);
    if (post) {
        request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
        request.setPostParams(QVariantMap{{u"password"_s, u"secret-password"_s}});
    }
    runToTheEnd(request, delegate);
    expectURLError(delegate, ZDURLErrorInsecureRedirect);
    QCOMPARE(delegate.last().error.userInfo().value(ZDURLErrorURLKey).toString(),
             QString::fromUtf8(target));
    QCOMPARE(m_tls.requests().size(), 1);
    QVERIFY(m_plain.requests().isEmpty());

    // The same redirect within https is followed.
    m_tls.setHandler([&](const RecordedRequest &recorded) {
        return recorded.target == "/signin"
                   ? CannedReply::redirect(status, m_tls.url(u"/next"_s).toEncoded())
                   : CannedReply::json("{\"ok\":1}");
    });
    RecordingDelegate followed;
    JSONHTTPRequest secure(m_tls.url(u"/signin"_s), &followed);
    runToTheEnd(secure, followed);
    QCOMPARE(followed.last().kind, RecordingDelegate::Event::Object);
}

void tst_HostileServer::oversizedResponsesFailAndDropTheirBytes_data()
{
    QTest::addColumn<CannedReply>("reply");
    QTest::addColumn<int>("responseType");
    QTest::addColumn<qint64>("limit"); // 0: the default
    QTest::addColumn<bool>("fits");

    CannedReply withLength;
    withLength.body = QByteArray(5000, 'x');
    QTest::newRow("Content-Length above the limit")
        << withLength << int(JSONHTTPResponseTypeRawData) << qint64(4999) << false;
    QTest::newRow("Content-Length at the limit")
        << withLength << int(JSONHTTPResponseTypeRawData) << qint64(5000) << true;
    CannedReply withoutLength = withLength;
    withoutLength.sendContentLength = false;
    QTest::newRow("no Content-Length, body above the limit")
        << withoutLength << int(JSONHTTPResponseTypeRawData) << qint64(4096) << false;
    QTest::newRow("no Content-Length, body at the limit")
        << withoutLength << int(JSONHTTPResponseTypeRawData) << qint64(5000) << true;

    // Announces 10 GiB and sends nothing more: refused on the head alone.
    CannedReply announced;
    announced.headers = {{"Content-Length", "10737418240"}};
    announced.sendContentLength = false;
    QTest::newRow("10 GiB announced, default JSON limit")
        << announced << int(JSONHTTPResponseTypeJSON) << qint64(0) << false;
    QTest::newRow("10 GiB announced, default raw limit")
        << announced << int(JSONHTTPResponseTypeRawData) << qint64(0) << false;

    // 64 MiB of zeros in about 64 KiB of gzip, twice the default JSON limit.
    CannedReply bomb;
    bomb.headers = {{"Content-Type", "application/json"}, {"Content-Encoding", "gzip"}};
    bomb.body = gzipOfZeros(64LL * 1024 * 1024);
    QTest::newRow("compression bomb")
        << bomb << int(JSONHTTPResponseTypeJSON) << qint64(0) << false;

    CannedReply hugeHeader = CannedReply::json("{}");
    hugeHeader.headers.append({"X-Padding", QByteArray(1024 * 1024, 'h')});
    QTest::newRow("1 MiB header line")
        << hugeHeader << int(JSONHTTPResponseTypeJSON) << qint64(0) << false;
}

void tst_HostileServer::oversizedResponsesFailAndDropTheirBytes()
{
    QFETCH(CannedReply, reply);
    QFETCH(int, responseType);
    QFETCH(qint64, limit);
    QFETCH(bool, fits);
    QVERIFY(!reply.body.isNull() || !reply.headers.isEmpty());
    m_plain.setHandler([&](const RecordedRequest &) { return reply; });

    RecordingDelegate delegate;
    JSONHTTPRequest request(m_plain.url(u"/big"_s), &delegate);
    request.setResponseType(JSONHTTPResponseType(responseType));
    if (limit > 0)
        request.setMaximumResponseSize(limit);
    runToTheEnd(request, delegate);
    if (fits) {
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);
        QCOMPARE(delegate.last().object.toByteArray(), reply.body);
        return;
    }
    expectURLError(delegate, ZDURLErrorResponseTooLarge);
    QVERIFY(!request.responseBody());
}

void tst_HostileServer::slowServersAreCutButThinkingServersAreNot_data()
{
    QTest::addColumn<CannedReply>("reply");
    QTest::addColumn<qint64>("maximumDurationMs");
    QTest::addColumn<int>("windowSeconds");
    QTest::addColumn<int>("expectedError"); // 0: success

    CannedReply drip = CannedReply::json("{\"padding\":\"" + QByteArray(2000, 'p') + "\"}");
    drip.dripBytesPerSecond = 2;
    QTest::newRow("2 bytes a second") << drip << qint64(0) << 1 << int(ZDURLErrorStalled);
    CannedReply silent = CannedReply::json("{}");
    silent.delayMs = 600000;
    QTest::newRow("takes the request, then never answers")
        << silent << qint64(0) << 1 << int(ZDURLErrorStalled);
    QTest::newRow("no answer within the maximum duration")
        << silent << qint64(1500) << 30 << int(ZDURLErrorTimedOut);
    CannedReply thinking = CannedReply::json("{\"ok\":1}");
    thinking.delayMs = 1500;
    QTest::newRow("thinks within a window, then answers at once")
        << thinking << qint64(0) << 30 << 0;
}

// The stall rule here: 100 bytes a second over windows of the row's length.
void tst_HostileServer::slowServersAreCutButThinkingServersAreNot()
{
    QFETCH(CannedReply, reply);
    QFETCH(qint64, maximumDurationMs);
    QFETCH(int, windowSeconds);
    QFETCH(int, expectedError);
    m_plain.setHandler([&](const RecordedRequest &) { return reply; });

    RecordingDelegate delegate;
    JSONHTTPRequest request(m_plain.url(u"/slow"_s), &delegate);
    QCOMPARE(request.minimumBytesPerSecond(), JSONHTTPRequestDefaultMinimumBytesPerSecond);
    QCOMPARE(request.stallWindowSeconds(), JSONHTTPRequestDefaultStallWindowSeconds);
    request.setMinimumTransferRate(100, windowSeconds);
    request.setMaximumDuration(maximumDurationMs);
    runToTheEnd(request, delegate);
    if (expectedError == 0)
        QCOMPARE(delegate.last().kind, RecordingDelegate::Event::Object);
    else
        expectURLError(delegate, ZDURLError(expectedError));
}

// The server leaves a 32 MiB upload unread for three seconds, far beyond the
// stall rule's window and rate: the body is still going out, so the rule does
// not apply, and the upload completes.
void tst_HostileServer::aStalledUploadIsNotCutByTheStallRule()
{
    LoopbackHTTPServer slowReader;
    slowReader.setReadPauseMs(3000);
    QVERIFY(slowReader.listen());
    RecordingDelegate delegate;
    JSONHTTPRequest request(slowReader.url(u"/upload"_s), &delegate);
    request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
    ZDFileUpload video;
    video.setName(u"clip.mov"_s);
    video.setData(QByteArray(32 * 1024 * 1024, 'v'));
    request.setPostParams(QVariantMap{{u"video"_s, QVariant::fromValue(video)}});
    request.setMinimumTransferRate(64 * 1024 * 1024, 1);
    runToTheEnd(request, delegate);
    QVERIFY2(delegate.last().kind == RecordingDelegate::Event::Object,
             qPrintable(delegate.last().error.localizedDescription()));
    QCOMPARE(slowReader.requests().size(), 1);
    QVERIFY(slowReader.requests().first().body.size() > 32 * 1024 * 1024);
}

// A thousand requests started at once in a process allowed 256 descriptors:
// they queue for connections and every one succeeds. Runs in a child process,
// whose limit the rest of the suite does not share.
void tst_HostileServer::manyRequestsAtOnceWaitForConnectionsUnderALowDescriptorLimit()
{
    constexpr int kRequests = 1000;
    if (!qEnvironmentVariableIsSet("ZD_DESCRIPTOR_CHILD")) {
        QProcess child;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(u"ZD_DESCRIPTOR_CHILD"_s, u"1"_s);
        child.setProcessEnvironment(env);
        child.start(QCoreApplication::applicationFilePath(),
                    {u"manyRequestsAtOnceWaitForConnectionsUnderALowDescriptorLimit"_s});
        QVERIFY(child.waitForFinished(300000));
        const QByteArray output = child.readAllStandardOutput() + child.readAllStandardError();
        QVERIFY2(child.exitStatus() == QProcess::NormalExit && child.exitCode() == 0,
                 output.right(3000).constData());
        QVERIFY2(output.contains("PASS   : tst_HostileServer::manyRequests"),
                 output.right(3000).constData());
        return;
    }
    const rlimit low{256, 256};
    QCOMPARE(setrlimit(RLIMIT_NOFILE, &low), 0);
    std::vector<std::unique_ptr<RecordingDelegate>> delegates;
    std::vector<std::unique_ptr<JSONHTTPRequest>> requests;
    for (int i = 0; i < kRequests; ++i) {
        delegates.push_back(std::make_unique<RecordingDelegate>());
        requests.push_back(std::make_unique<JSONHTTPRequest>(m_plain.url(u"/n?i=%1"_s.arg(i)),
                                                             delegates.back().get()));
        requests.back()->start();
    }
    const auto ended = [&] {
        return std::all_of(delegates.begin(), delegates.end(),
                           [](const auto &d) { return d->endings() >= 1; });
    };
    QTRY_VERIFY_WITH_TIMEOUT(ended(), 240000);
    QTest::qWait(200);
    for (const auto &delegate : delegates) {
        QCOMPARE(delegate->endings(), 1);
        QVERIFY2(delegate->last().kind == RecordingDelegate::Event::Object,
                 qPrintable(delegate->last().error.localizedDescription()));
    }
    QCOMPARE(m_plain.requests().size(), kRequests);
}

// A server whose certificate a private authority signed: refused until the
// application adds the authority to Qt's default configuration, trusted after.
// (An authority and server of their own: no connection or cache of the other
// tests can stand in for the handshake.)
void tst_HostileServer::aPrivateAuthorityInQtsDefaultConfigurationIsTrusted()
{
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const TestCertificates own = makeTestCertificates(dir.path());
    QVERIFY2(own.error.isEmpty(), qPrintable(own.error));
    LoopbackHTTPServer server;
    QVERIFY(server.listenWithTls(own.serverConfiguration));

    RecordingDelegate refused;
    JSONHTTPRequest first(server.url(u"/private"_s), &refused);
    runToTheEnd(first, refused);
    QCOMPARE(refused.last().error.domain(), ZDCurlErrorDomain);
    QCOMPARE(refused.last().error.code(), qint64(60)); // CURLE_PEER_FAILED_VERIFICATION
    QCOMPARE(refused.last().error.userInfo().value(ZDCurlCodeKey).toLongLong(), 60);
    QVERIFY(server.requests().isEmpty());

    QSslConfiguration trusting = QSslConfiguration::defaultConfiguration();
    trusting.addCaCertificate(own.authority);
    QSslConfiguration::setDefaultConfiguration(trusting);
    RecordingDelegate trusted;
    JSONHTTPRequest second(server.url(u"/private"_s), &trusted);
    runToTheEnd(second, trusted);
    QVERIFY2(trusted.last().kind == RecordingDelegate::Event::Object,
             qPrintable(trusted.last().error.localizedDescription()));
    QCOMPARE(server.requests().size(), 1);
}

// A real proxy (squid) set as Qt's application proxy carries plain requests
// (it marks them with its Via header) and tunnels https ones. Qt never proxies
// 127.0.0.1 or localhost, so the requests name a host that only squid's hosts
// file knows.
void tst_HostileServer::qtsApplicationProxyCarriesRequests()
{
    const QString squid =
        QStandardPaths::findExecutable(u"squid"_s, {u"/usr/sbin"_s, u"/usr/bin"_s});
    if (squid.isEmpty())
        QFAIL("squid is missing: run tools/install-deps");
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    // Squid started as root works as its own user: let it read the files.
    QFile::setPermissions(dir.path(), QFile::permissions(dir.path()) | QFile::ReadOther |
                                          QFile::ExeOther | QFile::ReadGroup | QFile::ExeGroup);
    const auto write = [&](const QString &name, const QByteArray &text) {
        QFile file(dir.filePath(name));
        const bool ok = file.open(QIODevice::WriteOnly) && file.write(text) == text.size();
        file.setPermissions(file.permissions() | QFile::ReadOther | QFile::ReadGroup);
        return ok;
    };
    const quint16 port = freePort();
    QVERIFY(write(u"hosts"_s, "127.0.0.1 " + QByteArray(kTestHostName) + "\n"));
    QVERIFY(write(u"squid.conf"_s,
                  "http_port 127.0.0.1:" + QByteArray::number(port) + "\nhosts_file " +
                      dir.filePath(u"hosts"_s).toUtf8() +
                      "\ndns_nameservers 127.0.0.1\nhttp_access allow all\ncache deny all\n"
                      "cache_mem 8 MB\naccess_log none\ncache_log /dev/null\npid_filename none\n"
                      "visible_hostname zdpublish-test\nshutdown_lifetime 0 seconds\n"));
    QProcess proxy;
    proxy.setProcessChannelMode(QProcess::MergedChannels);
    proxy.start(squid, {u"-N"_s, u"-f"_s, dir.filePath(u"squid.conf"_s)});
    QVERIFY2(proxy.waitForStarted(), qPrintable(proxy.errorString()));
    const auto listening = [&] {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        return probe.waitForConnected(200);
    };
    QTRY_VERIFY2_WITH_TIMEOUT(listening(), proxy.readAll().constData(), 30000);
    const auto named = [](const LoopbackHTTPServer &server, const QString &path) {
        QUrl url = server.url(path);
        url.setHost(QString::fromLatin1(kTestHostName));
        return url;
    };

    QNetworkProxy::setApplicationProxy(
        QNetworkProxy(QNetworkProxy::HttpProxy, u"127.0.0.1"_s, port));
    RecordingDelegate plain;
    JSONHTTPRequest viaProxy(named(m_plain, u"/proxied"_s), &plain);
    runToTheEnd(viaProxy, plain);
    QVERIFY2(plain.last().kind == RecordingDelegate::Event::Object,
             qPrintable(plain.last().error.localizedDescription()));
    QCOMPARE(m_plain.requests().size(), 1);
    QVERIFY2(m_plain.requests().first().header("Via").contains("zdpublish-test"),
             m_plain.requests().first().header("Via").constData());

    RecordingDelegate tunnelled;
    JSONHTTPRequest secure(named(m_tls, u"/tunnelled"_s), &tunnelled);
    runToTheEnd(secure, tunnelled);
    QVERIFY2(tunnelled.last().kind == RecordingDelegate::Event::Object,
             qPrintable(tunnelled.last().error.localizedDescription() + u" "_s +
                        tunnelled.last().error.userInfo().value(ZDCurlMessageKey).toString()));
    QCOMPARE(m_tls.requests().size(), 1);

    // Without the proxy, the name means nothing to the system's resolver.
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
    RecordingDelegate direct;
    JSONHTTPRequest straight(named(m_plain, u"/direct"_s), &direct);
    runToTheEnd(straight, direct);
    QCOMPARE(direct.last().error.domain(), ZDCurlErrorDomain);
    QCOMPARE(direct.last().error.code(), qint64(6)); // CURLE_COULDNT_RESOLVE_HOST
    QCOMPARE(m_plain.requests().size(), 1);

    proxy.terminate();
    QVERIFY(proxy.waitForFinished(30000));
}

void tst_HostileServer::anUploadSessionOnPlainHttpIsRefused_data()
{
    QTest::addColumn<int>("protocol");
    QTest::newRow("tus") << int(ZDUploadProtocol::Tus);
    QTest::newRow("308") << int(ZDUploadProtocol::ResumeIncomplete);
}

// An https service that names its upload session on plain http would receive
// the video and the credentials in the clear: the upload stops first.
void tst_HostileServer::anUploadSessionOnPlainHttpIsRefused()
{
    QFETCH(int, protocol);
    const QString session = m_plain.url(u"/session/1"_s).toString();
    m_tls.setHandler([session](const RecordedRequest &) {
        CannedReply reply;
        reply.status = 201;
        reply.headers = {{"Location", session.toUtf8()}};
        return reply;
    });
    const QString path = m_dir.filePath(u"clip.mov"_s);
    QVERIFY(writeFile(path, QByteArray(100 * 1024, 'v')));

    struct Outcome : ZDResumableUploadDelegate
    {
        void uploadDidFinish(ZDResumableUpload *, const QVariant &) override { ++endings; }
        void uploadDidFailWithError(ZDResumableUpload *, const ZDError &failure) override
        {
            ++endings;
            error = failure;
        }
        int endings = 0;
        ZDError error;
    } outcome;
    ZDResumableUpload upload(ZDUploadProtocol(protocol), m_tls.url(u"/files"_s), path, &outcome);
    upload.setHTTPHeaderValue(u"Authorization"_s, u"Bearer secret-token"_s);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(outcome.endings, 1, 30000);
    QCOMPARE(outcome.error.domain(), ZDResumableUploadErrorDomain);
    QCOMPARE(outcome.error.code(), ZDResumableUploadErrorProtocolViolation);
    QCOMPARE(m_tls.requests().size(), 1);
    QTest::qWait(100);
    QVERIFY(m_plain.requests().isEmpty());
}

QTEST_GUILESS_MAIN(tst_HostileServer)
#include "tst_hostileserver.moc"
