// The OAuth 2.0 authenticator against a certified provider (browser and device
// sign-in, refresh with rotation), a password-grant server with a second factor,
// and a small server of our own for what the real ones never send.

#include "ChildService.h"
#include "LoopbackHTTPServer.h"
#include "TestSupport.h"

#include "auth/ZDAuthorizedRequest.h"
#include "auth/ZDBearerSigner.h"
#include "auth/ZDCredentialStore.h"
#include "auth/ZDOAuth2Authenticator.h"
#include "core/ZDNotificationCenter.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDDevice.h"

#include <QAccessible>
#include <QApplication>
#include <QDirIterator>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QNetworkInterface>
#include <QProcess>
#include <QPushButton>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>
#include <QUrlQuery>

using namespace Qt::StringLiterals;

namespace {

QStringList g_logLines;
QtMessageHandler g_previousHandler = nullptr;

void recordMessage(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
    g_logLines.append(message);
    g_previousHandler(type, context, message);
}

QString peersDir()
{
    return qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tests/peers"_s;
}

// A node peer from tests/peers; without it the run cannot go on.
std::unique_ptr<ChildService> startPeer(const QString &script, const QStringList &args)
{
    auto peer = std::make_unique<ChildService>();
    const QString problem = QDir(peersDir() + u"/node_modules"_s).exists()
                                ? peer->start(u"node"_s, QStringList{script} + args,
                                              QProcess::SeparateChannels, peersDir())
                                : u"tests/peers/node_modules is missing: run tools/install-deps"_s;
    if (!problem.isEmpty())
        qFatal("%s cannot run: %s", qPrintable(script), qPrintable(problem));
    return peer;
}

// The scripted browser: runs tests/peers/browser.js on an address.
class Browser
{
public:
    ~Browser()
    {
        for (QProcess *process : std::as_const(m_runs)) {
            process->kill();
            process->waitForFinished(5000);
            delete process;
        }
    }
    void open(const QUrl &url, const QStringList &options = {})
    {
        auto *process = new QProcess;
        process->setWorkingDirectory(peersDir());
        process->start(u"node"_s,
                       QStringList{u"browser.js"_s, url.toString(QUrl::FullyEncoded)} + options);
        m_runs.append(process);
    }
    // What the last run printed (status line and page), once it ended.
    QString lastOutput()
    {
        // waitForFinished() is false for a run that has already ended.
        if (m_runs.isEmpty() || (m_runs.last()->state() != QProcess::NotRunning &&
                                 !m_runs.last()->waitForFinished(30000)))
            return {};
        return QString::fromUtf8(m_runs.last()->readAllStandardOutput() +
                                 m_runs.last()->readAllStandardError());
    }

private:
    QList<QProcess *> m_runs;
};

// Records the authenticator's notifications in order: "state:N" and "failure".
class NotificationLog : public ZDWeakTarget
{
public:
    explicit NotificationLog(ZDAuthenticator *authenticator)
    {
        auto &center = ZDNotificationCenter::defaultCenter();
        center.addObserver(this, ZDAuthenticatorStateChangeNotification, authenticator,
                           [this](const ZDNotification &n) {
                               entries << u"state:"_s + n.userInfo.value(u"state"_s).toString();
                           });
        center.addObserver(this, ZDAuthenticatorFailureNotification, authenticator,
                           [this](const ZDNotification &) { entries << u"failure"_s; });
    }
    ~NotificationLog() override { ZDNotificationCenter::defaultCenter().removeObserver(this); }
    QStringList entries;
};

ZDOAuth2Configuration providerConfiguration(const ChildService &provider)
{
    ZDOAuth2Configuration configuration;
    configuration.authorizationEndpoint = provider.url(u"/auth"_s);
    configuration.tokenEndpoint = provider.url(u"/token"_s);
    configuration.deviceAuthorizationEndpoint = provider.url(u"/device/auth"_s);
    configuration.clientId = u"zd-native"_s;
    configuration.scopes = {u"openid"_s, u"offline_access"_s, u"profile"_s};
    configuration.extraAuthorizationParameters = {{u"prompt"_s, u"consent"_s}};
    configuration.serviceName = u"Test Service"_s;
    return configuration;
}

// A configuration whose every endpoint is on `server`.
ZDOAuth2Configuration loopbackConfiguration(const LoopbackHTTPServer &server)
{
    ZDOAuth2Configuration configuration;
    configuration.authorizationEndpoint = server.url(u"/auth"_s);
    configuration.tokenEndpoint = server.url(u"/token"_s);
    configuration.deviceAuthorizationEndpoint = server.url(u"/device"_s);
    configuration.clientId = u"loopback-client"_s;
    return configuration;
}

struct Answer
{
    bool done = false;
    std::shared_ptr<RequestSigner> signer;
    std::optional<ZDError> error;
};

Answer ask(ZDCredentialSource &source, ZDCredentialSource::Reason reason)
{
    auto answer = std::make_shared<Answer>();
    source.credentialsForRequest(
        reason, [answer](std::shared_ptr<RequestSigner> signer, std::optional<ZDError> error) {
            answer->done = true;
            answer->signer = std::move(signer);
            answer->error = std::move(error);
        });
    QDeadlineTimer deadline(30000);
    while (!answer->done && !deadline.hasExpired())
        QTest::qWait(20);
    return *answer;
}

QByteArray bearerOf(const std::shared_ptr<RequestSigner> &signer)
{
    if (!signer)
        return {};
    return signer->signedRequestForRequest(ZDURLRequest(QUrl(u"https://example.org/"_s)))
        .valueForHTTPHeaderField("Authorization");
}

QJsonObject storedTokens(ZDCredentialStore &store)
{
    return QJsonDocument::fromJson(store.load(u"oauth2"_s).value_or(QByteArray())).object();
}

} // namespace

class tst_oauth2 : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void cleanup();
    void cleanupTestCase();

    void pkceChallengeMatchesTheStandardsVector();
    void bearerSignerKeepsTokensOffPlainHttpToOtherHosts_data();
    void bearerSignerKeepsTokensOffPlainHttpToOtherHosts();

    void browserSignInReachesSignedInAndTheProviderAcceptsTheToken();
    void tokensAreRenewedAheadOfExpiryOnUnauthorizedAndRotatedTokensAreSavedFirst();
    void onlyARefusedGrantEndsTheSignInOnRefresh_data();
    void onlyARefusedGrantEndsTheSignInOnRefresh();
    void browserAttemptEndsWithAFailure_data();
    void browserAttemptEndsWithAFailure();
    void redirectListenerIsLoopbackOnlyAndExchangesTheFirstRedirectOnly();

    void deviceSignInShowsTheCodeAndQRCodeAndPollsUntilApproved();
    void devicePollingSlowsDownAndEndsOnTerminalErrors_data();
    void devicePollingSlowsDownAndEndsOnTerminalErrors();

    void passwordSignInAsksForTheSecondFactorWhenTheServiceWantsIt_data();
    void passwordSignInAsksForTheSecondFactorWhenTheServiceWantsIt();
    void anUnreachableServiceIsNotCalledAWrongPassword();
    void anUnregisteredErrorCodeStaysOutOfTheDescription_data();
    void anUnregisteredErrorCodeStaysOutOfTheDescription();
    void aRequestRefusedWith401IsRenewedAndRepeatedOnce();
    void credentialStoreWithoutKeyringKeepsValuesInMemory();

private:
    ChildService *provider();
    void signInWithBrowser(ZDOAuth2Authenticator &authenticator, Browser &browser);
    void remember(ZDCredentialStore &store);

    ChildService *passwordServer();
    std::unique_ptr<ChildService> m_provider;
    std::unique_ptr<ChildService> m_passwordServer;
    QStringList m_secrets; // every token seen, checked against logs, errors and files
    QStringList m_errorTexts;
    QTemporaryDir m_home;
};

void tst_oauth2::initTestCase()
{
    g_previousHandler = qInstallMessageHandler(recordMessage);
}

void tst_oauth2::cleanup()
{
    ZDDevice::setURLOpener({});
}

void tst_oauth2::cleanupTestCase()
{
    QVERIFY(!m_secrets.isEmpty());
    for (const QString &secret : std::as_const(m_secrets)) {
        QVERIFY(!secret.isEmpty());
        for (const QString &line : std::as_const(g_logLines))
            QVERIFY2(!line.contains(secret), "a log line holds a token");
        for (const QString &text : std::as_const(m_errorTexts))
            QVERIFY2(!text.contains(secret), "an error description holds a token");
    }
    // Nothing was written to the home, configuration or cache folders.
    QDirIterator files(m_home.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray content = file.readAll();
        for (const QString &secret : std::as_const(m_secrets))
            QVERIFY2(!content.contains(secret.toUtf8()), qPrintable(file.fileName()));
    }
}

ChildService *tst_oauth2::provider()
{
    if (!m_provider)
        m_provider = startPeer(u"oidc_provider.mjs"_s, {u"--access-ttl"_s, u"3600"_s});
    return m_provider.get();
}

void tst_oauth2::remember(ZDCredentialStore &store)
{
    const QJsonObject tokens = storedTokens(store);
    for (const char *key : {"access_token", "refresh_token"}) {
        const QString value = tokens.value(QLatin1String(key)).toString();
        if (!value.isEmpty() && !m_secrets.contains(value))
            m_secrets << value;
    }
}

void tst_oauth2::signInWithBrowser(ZDOAuth2Authenticator &authenticator, Browser &browser)
{
    ZDDevice::setURLOpener([&browser](const QUrl &url) {
        browser.open(url);
        return true;
    });
    authenticator.authenticateWithUsernamePassword(QString(), QString());
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn,
                              60000);
}

void tst_oauth2::pkceChallengeMatchesTheStandardsVector()
{
    QCOMPARE(ZDOAuth2Authenticator::codeChallengeForVerifier(
                 u"dBjftJeZ4CVP-mB92K27uhbUJU1p1r_wW1gFWFOEjXk"_s),
             u"E9Melhoa2OwvFrEMTJguCHaoeK1t8URWbuGJSstw-cM"_s);
}

void tst_oauth2::bearerSignerKeepsTokensOffPlainHttpToOtherHosts_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("carried");
    QTest::newRow("https") << u"https://api.example.org/v1"_s << true;
    QTest::newRow("loopback") << u"http://127.0.0.1:8080/v1"_s << true;
    QTest::newRow("plain http") << u"http://api.example.org/v1"_s << false;
    QTest::newRow("other scheme") << u"ftp://api.example.org/"_s << false;
}

void tst_oauth2::bearerSignerKeepsTokensOffPlainHttpToOtherHosts()
{
    QFETCH(QString, url);
    QFETCH(bool, carried);
    ZDURLRequest request{QUrl(url)};
    request.setValueForHTTPHeaderField("Basic old", "Authorization");
    const ZDURLRequest result = ZDBearerSigner(u"tok"_s).signedRequestForRequest(request);
    QCOMPARE(result.valueForHTTPHeaderField("Authorization"),
             carried ? QByteArray("Bearer tok") : QByteArray("Basic old"));
}

void tst_oauth2::browserSignInReachesSignedInAndTheProviderAcceptsTheToken()
{
    auto store = std::make_shared<ZDMemoryCredentialStore>();
    ZDOAuth2Authenticator authenticator(providerConfiguration(*provider()),
                                        ZDOAuth2Authenticator::Flow::Browser, store);
    NotificationLog log(&authenticator);
    Browser browser;
    QUrl opened;
    ZDDevice::setURLOpener([&](const QUrl &url) {
        opened = url;
        browser.open(url);
        return true;
    });
    authenticator.authenticateWithUsernamePassword(QString(), QString());
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn,
                              60000);
    QCOMPARE(log.entries, (QStringList{u"state:1"_s, u"state:2"_s}));
    QCOMPARE(authenticator.account(), u"alice"_s);
    QCOMPARE(authenticator.redirectPort(), quint16(0)); // the listener closed
    QVERIFY(browser.lastOutput().startsWith(u"200\n"_s));

    // What went to the browser: PKCE with S256, a loopback redirect, a state.
    const QUrlQuery query(opened);
    QCOMPARE(query.queryItemValue(u"code_challenge_method"_s), u"S256"_s);
    QCOMPARE(query.queryItemValue(u"code_challenge"_s).size(), 43);
    QVERIFY(query.queryItemValue(u"redirect_uri"_s, QUrl::FullyDecoded)
                .startsWith(u"http://127.0.0.1:"_s));
    QVERIFY(query.queryItemValue(u"state"_s).size() >= 16);

    // The provider's user-info endpoint accepts the bearer token.
    ChildService *peer = provider();
    RecordingDelegate receiver;
    JSONHTTPRequest me(peer->url(u"/me"_s), &receiver, authenticator.accountSigner());
    me.start();
    QTRY_COMPARE_WITH_TIMEOUT(receiver.endings(), 1, 30000);
    QCOMPARE(receiver.last().object.toMap().value(u"sub"_s).toString(), u"alice"_s);

    // Stored as one value, found again by a new authenticator.
    remember(*store);
    ZDOAuth2Authenticator again(providerConfiguration(*peer), ZDOAuth2Authenticator::Flow::Browser,
                                store);
    again.loadCredentials();
    QCOMPARE(again.authenticatorState(), ZDAuthenticatorStateSignedIn);
    QCOMPARE(again.account(), u"alice"_s);
}

void tst_oauth2::tokensAreRenewedAheadOfExpiryOnUnauthorizedAndRotatedTokensAreSavedFirst()
{
    auto store = std::make_shared<ZDMemoryCredentialStore>();
    ZDOAuth2Authenticator authenticator(providerConfiguration(*provider()),
                                        ZDOAuth2Authenticator::Flow::Browser, store);
    QDateTime now = QDateTime::currentDateTimeUtc();
    authenticator.setClock([&now] { return now; });
    Browser browser;
    signInWithBrowser(authenticator, browser);
    remember(*store);
    const QJsonObject first = storedTokens(*store);

    // Well before expiry: the same token, no refresh.
    Answer answer = ask(authenticator, ZDCredentialSource::Reason::BeforeRequest);
    QVERIFY(!answer.error);
    QCOMPARE(bearerOf(answer.signer), "Bearer " + first.value(u"access_token").toString().toUtf8());

    // Within the leeway of the expiry: renewed, rotated, saved.
    now = now.addSecs(3600 - 30);
    answer = ask(authenticator, ZDCredentialSource::Reason::BeforeRequest);
    QVERIFY(!answer.error);
    remember(*store);
    const QJsonObject second = storedTokens(*store);
    QVERIFY(second.value(u"access_token") != first.value(u"access_token"));
    QVERIFY(second.value(u"refresh_token") != first.value(u"refresh_token"));
    QCOMPARE(bearerOf(answer.signer),
             "Bearer " + second.value(u"access_token").toString().toUtf8());

    // A 401 renews at once, even with a fresh token; two askers share one refresh.
    Answer a, b;
    authenticator.credentialsForRequest(ZDCredentialSource::Reason::Unauthorized,
                                        [&a](auto signer, auto error) {
                                            a = {true, signer, error};
                                        });
    authenticator.credentialsForRequest(ZDCredentialSource::Reason::BeforeRequest,
                                        [&b](auto signer, auto error) {
                                            b = {true, signer, error};
                                        });
    QTRY_VERIFY_WITH_TIMEOUT(a.done && b.done, 30000);
    remember(*store);
    const QJsonObject third = storedTokens(*store);
    QVERIFY(third.value(u"refresh_token") != second.value(u"refresh_token"));
    QCOMPARE(bearerOf(a.signer), bearerOf(b.signer));
    QCOMPARE(bearerOf(a.signer), "Bearer " + third.value(u"access_token").toString().toUtf8());

    // The stored refresh token is the live one: a new process renews with it.
    ZDOAuth2Authenticator restarted(providerConfiguration(*provider()),
                                    ZDOAuth2Authenticator::Flow::Browser, store);
    restarted.loadCredentials();
    answer = ask(restarted, ZDCredentialSource::Reason::Unauthorized);
    QVERIFY2(!answer.error,
             qPrintable(answer.error ? answer.error->localizedDescription() : QString()));
    remember(*store);
}

void tst_oauth2::onlyARefusedGrantEndsTheSignInOnRefresh_data()
{
    QTest::addColumn<int>("status"); // 0: the connection is reset, no answer
    QTest::addColumn<QString>("code");
    QTest::addColumn<bool>("signsOut");
    QTest::newRow("503 temporarily_unavailable") << 503 << u"temporarily_unavailable"_s << false;
    QTest::newRow("500 server_error") << 500 << u"server_error"_s << false;
    QTest::newRow("429") << 429 << u"temporarily_unavailable"_s << false;
    QTest::newRow("reset") << 0 << QString() << false;
    QTest::newRow("400 invalid_grant") << 400 << u"invalid_grant"_s << true;
    QTest::newRow("401 invalid_client") << 401 << u"invalid_client"_s << true;
}

void tst_oauth2::onlyARefusedGrantEndsTheSignInOnRefresh()
{
    QFETCH(int, status);
    QFETCH(QString, code);
    QFETCH(bool, signsOut);
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([&](const RecordedRequest &) {
        CannedReply reply =
            CannedReply::json(QJsonDocument(QJsonObject{{u"error"_s, code}}).toJson(), status);
        if (!status)
            reply.ending = CannedReply::Ending::ResetAtOnce;
        return reply;
    });
    const ZDOAuth2Configuration configuration = loopbackConfiguration(server);
    auto store = std::make_shared<ZDMemoryCredentialStore>();
    const QByteArray tokens =
        R"({"account":"dana","access_token":"at-secret-3","refresh_token":"rt-secret-3"})";
    store->save(u"oauth2"_s, tokens);
    m_secrets << u"at-secret-3"_s << u"rt-secret-3"_s;
    ZDOAuth2Authenticator authenticator(configuration, ZDOAuth2Authenticator::Flow::Password,
                                        store);
    authenticator.loadCredentials();
    NotificationLog log(&authenticator);

    const Answer answer = ask(authenticator, ZDCredentialSource::Reason::Unauthorized);
    QVERIFY(answer.error && !answer.signer);
    m_errorTexts << answer.error->localizedDescription();
    if (signsOut) {
        QCOMPARE(log.entries, (QStringList{u"state:0"_s, u"failure"_s}));
        QCOMPARE(authenticator.authenticatorState(), ZDAuthenticatorStateSignedOut);
        QCOMPARE(authenticator.lastFailureSentence(),
                 ZDLocalizedString(u"OAUTH2_FAILED_EXPIRED"_s));
        QVERIFY(!store->load(u"oauth2"_s));
        QCOMPARE(answer.error->domain(), ZDOAuth2ErrorDomain);
        QCOMPARE(answer.error->userInfo().value(ZDOAuth2ErrorCodeKey).toString(), code);
        // Asking again while signed out is answered at once, never left hanging.
        QVERIFY(ask(authenticator, ZDCredentialSource::Reason::BeforeRequest).error);
        QCOMPARE(server.requests().size(), 1);
    } else {
        // A passing fault: the askers get the transport's error, nothing else changes.
        QVERIFY(log.entries.isEmpty());
        QCOMPARE(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn);
        QCOMPARE(store->load(u"oauth2"_s).value_or(QByteArray()), tokens);
        QVERIFY(answer.error->domain() != ZDOAuth2ErrorDomain);
    }
}

void tst_oauth2::browserAttemptEndsWithAFailure_data()
{
    QTest::addColumn<QString>("fault");
    QTest::addColumn<int>("code");
    QTest::newRow("wrong state") << u"state"_s << int(ZDOAuth2ErrorStateMismatch);
    QTest::newRow("wrong verifier") << u"verifier"_s << int(ZDOAuth2ErrorRefused);
    QTest::newRow("consent denied") << u"deny"_s << int(ZDOAuth2ErrorDenied);
    QTest::newRow("browser never returns") << u"silent"_s << int(ZDOAuth2ErrorTimedOut);
    QTest::newRow("no browser") << u"nobrowser"_s << int(ZDOAuth2ErrorBrowserUnavailable);
}

void tst_oauth2::browserAttemptEndsWithAFailure()
{
    QFETCH(QString, fault);
    QFETCH(int, code);
    ZDOAuth2Authenticator authenticator(providerConfiguration(*provider()),
                                        ZDOAuth2Authenticator::Flow::Browser, nullptr);
    authenticator.setBrowserTimeout(fault == u"silent"_s ? 300 : 60000);
    NotificationLog log(&authenticator);
    Browser browser;
    quint16 port = 0;
    ZDDevice::setURLOpener([&](const QUrl &url) {
        port = authenticator.redirectPort();
        QUrlQuery query(url);
        if (fault == u"state"_s) {
            query.removeQueryItem(u"state"_s);
            query.addQueryItem(u"state"_s, u"forged"_s);
        } else if (fault == u"verifier"_s) {
            // The code gets bound to another verifier's challenge.
            query.removeQueryItem(u"code_challenge"_s);
            query.addQueryItem(u"code_challenge"_s,
                               ZDOAuth2Authenticator::codeChallengeForVerifier(
                                   u"another-verifier-0123456789-0123456789"_s));
        }
        QUrl sent = url;
        sent.setQuery(query);
        if (fault == u"silent"_s)
            return true;
        if (fault == u"nobrowser"_s)
            return false;
        browser.open(sent, fault == u"deny"_s ? QStringList{u"--deny"_s} : QStringList{});
        return true;
    });
    authenticator.authenticateWithUsernamePassword(QString(), QString());
    QTRY_VERIFY_WITH_TIMEOUT(log.entries.contains(u"failure"_s), 60000);
    QCOMPARE(log.entries, (QStringList{u"state:1"_s, u"state:0"_s, u"failure"_s}));
    QCOMPARE(authenticator.lastError().domain(), ZDOAuth2ErrorDomain);
    QCOMPARE(authenticator.lastError().code(), code);
    m_errorTexts << authenticator.lastError().localizedDescription();
    QCOMPARE(authenticator.redirectPort(), quint16(0));
    if (port) { // the listener is gone: nothing answers on its port any more
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(!probe.waitForConnected(5000));
    }
}

void tst_oauth2::redirectListenerIsLoopbackOnlyAndExchangesTheFirstRedirectOnly()
{
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([](const RecordedRequest &) {
        // Still thinking when the second redirect comes.
        CannedReply reply = CannedReply::json(R"({"error":"invalid_grant"})", 400);
        reply.delayMs = 3000;
        return reply;
    });
    const ZDOAuth2Configuration configuration = loopbackConfiguration(server);
    ZDOAuth2Authenticator authenticator(configuration, ZDOAuth2Authenticator::Flow::Browser,
                                        nullptr);
    QUrl opened;
    ZDDevice::setURLOpener([&](const QUrl &url) {
        opened = url;
        return true;
    });
    authenticator.authenticateWithUsernamePassword(QString(), QString());
    const quint16 port = authenticator.redirectPort();
    QVERIFY(port != 0);

    QList<QHostAddress> others{QHostAddress::LocalHostIPv6};
    for (const QHostAddress &address : QNetworkInterface::allAddresses()) {
        if (!address.isLoopback())
            others << address;
    }
    for (const QHostAddress &address : std::as_const(others)) {
        QTcpSocket probe;
        probe.connectToHost(address, port);
        QVERIFY2(!probe.waitForConnected(3000), qPrintable(address.toString()));
    }
    // A request to another path is answered 404 and leaves the attempt running.
    QTcpSocket stray;
    stray.connectToHost(QHostAddress::LocalHost, port);
    QVERIFY(stray.waitForConnected(5000));
    stray.write("GET /favicon.ico HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
    QTRY_VERIFY_WITH_TIMEOUT(
        stray.bytesAvailable() > 0 || stray.state() != QAbstractSocket::ConnectedState, 10000);
    QVERIFY(stray.readAll().startsWith("HTTP/1.1 404"));
    QCOMPARE(authenticator.redirectPort(), port);
    QCOMPARE(authenticator.authenticatorState(), ZDOAuth2Authenticator::StateSigningIn);

    // Two connections open before the first redirect arrives; both carry it.
    QTcpSocket first, second;
    for (QTcpSocket *socket : {&first, &second}) {
        socket->connectToHost(QHostAddress::LocalHost, port);
        QVERIFY(socket->waitForConnected(5000));
    }
    const QByteArray redirect =
        "GET /callback?code=c-1&state=" +
        QUrlQuery(opened).queryItemValue(u"state"_s, QUrl::FullyEncoded).toLatin1() +
        " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n";
    first.write(redirect);
    QTRY_VERIFY_WITH_TIMEOUT(first.bytesAvailable() > 0, 10000);
    second.write(redirect);
    QTRY_VERIFY_WITH_TIMEOUT(second.bytesAvailable() > 0, 10000);
    QVERIFY(first.readAll().startsWith("HTTP/1.1 200"));
    QVERIFY(second.readAll().startsWith("HTTP/1.1 400"));
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedOut,
                              30000);
    QCOMPARE(server.requests().size(), 1);
}

void tst_oauth2::deviceSignInShowsTheCodeAndQRCodeAndPollsUntilApproved()
{
    auto store = std::make_shared<ZDMemoryCredentialStore>();
    ZDOAuth2Authenticator authenticator(providerConfiguration(*provider()),
                                        ZDOAuth2Authenticator::Flow::Device, store);
    QWidget window;
    window.resize(400, 700);
    window.show();
    ZDAlertView::setDefaultWindow(&window);
    ZDAlertView *signIn = authenticator.authenticationDialogWithTargetAction(nullptr, {});
    QCOMPARE(signIn->alertViewStyle(), ZDAlertView::Style::Default); // no text fields
    delete signIn;

    authenticator.authenticateWithUsernamePassword(QString(), QString());
    QTRY_VERIFY_WITH_TIMEOUT(authenticator.pendingDialog(), 30000);
    ZDAlertView *dialog = authenticator.pendingDialog();
    QVERIFY(!dialog->image().isNull());
    QVERIFY(dialog->message().contains(u"/device"_s));
    QVERIFY(dialog->isVisibleAlert());
    if (const QString shots = qEnvironmentVariable("ZD_SCREENSHOT_DIR"); !shots.isEmpty()) {
        QTest::qWait(800); // the alert's fade-in
        window.grab().save(shots + u"/device-dialog.png"_s);
    }

    // The user scans the code: the complete address carries the user code.
    const QString message = dialog->message();
    Browser browser;
    const QRegularExpression userCode(u"([A-Z]{4}-[A-Z]{4})"_s);
    const auto match = userCode.match(message);
    QVERIFY2(match.hasMatch(), qPrintable(message));
    QUrl complete = provider()->url(u"/device"_s);
    complete.setQuery(u"user_code="_s + match.captured(1));
    browser.open(complete);
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn,
                              60000);
    QVERIFY(!authenticator.pendingDialog());
    QCOMPARE(authenticator.account(), u"alice"_s);
    remember(*store);
    ZDAlertView::setDefaultWindow(nullptr);
}

void tst_oauth2::devicePollingSlowsDownAndEndsOnTerminalErrors_data()
{
    QTest::addColumn<QByteArrayList>("answers");
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("code");
    QTest::newRow("slow_down then success")
        << QByteArrayList{"slow_down", "authorization_pending", "ok"} << 2 << 0;
    QTest::newRow("expired") << QByteArrayList{"authorization_pending", "expired_token"} << 0
                             << int(ZDOAuth2ErrorRefused);
    QTest::newRow("denied") << QByteArrayList{"access_denied"} << 0 << int(ZDOAuth2ErrorDenied);
}

void tst_oauth2::devicePollingSlowsDownAndEndsOnTerminalErrors()
{
    QFETCH(QByteArrayList, answers);
    QFETCH(int, state);
    QFETCH(int, code);
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    qsizetype next = 0;
    QList<QDateTime> polls;
    server.setHandler([&](const RecordedRequest &request) {
        if (request.target == "/device")
            return CannedReply::json(R"({"device_code":"dc-secret-1","user_code":"ABCD-EFGH",)"
                                     R"("verification_uri":"http://127.0.0.1/activate",)"
                                     R"("expires_in":600,"interval":1})");
        polls << QDateTime::currentDateTimeUtc();
        const QByteArray answer = answers.value(next++, "access_denied");
        if (answer == "ok")
            return CannedReply::json(R"({"access_token":"at-secret-1","token_type":"Bearer",)"
                                     R"("expires_in":60,"username":"bob"})");
        return CannedReply::json(R"({"error":")" + answer + R"("})", 400);
    });
    const ZDOAuth2Configuration configuration = loopbackConfiguration(server);
    ZDOAuth2Authenticator authenticator(configuration, ZDOAuth2Authenticator::Flow::Device,
                                        nullptr);
    NotificationLog log(&authenticator);
    authenticator.authenticateWithUsernamePassword(QString(), QString());
    QTRY_VERIFY_WITH_TIMEOUT(log.entries.size() >= 2, 60000);
    QCOMPARE(authenticator.authenticatorState(), state);
    QCOMPARE(polls.size(), answers.size());
    if (state != 2) {
        QCOMPARE(log.entries, (QStringList{u"state:1"_s, u"state:0"_s, u"failure"_s}));
        QCOMPARE(authenticator.lastError().code(), code);
        m_errorTexts << authenticator.lastError().localizedDescription();
    } else {
        // After slow_down the wait grows from 1 to 6 seconds (a lower bound only).
        QVERIFY(polls[0].msecsTo(polls[1]) >= 5990);
        QVERIFY(polls[1].msecsTo(polls[2]) >= 5990);
        QCOMPARE(authenticator.account(), u"bob"_s);
    }
    QVERIFY(!authenticator.pendingDialog());
    for (const RecordedRequest &request : server.requests()) {
        if (request.target == "/token")
            QVERIFY(request.body.contains("device_code=dc-secret-1"));
    }
    m_secrets << u"dc-secret-1"_s << u"at-secret-1"_s;
}

ChildService *tst_oauth2::passwordServer()
{
    if (!m_passwordServer)
        m_passwordServer = startPeer(u"password_server.js"_s, {u"--access-ttl"_s, u"2"_s});
    return m_passwordServer.get();
}

static ZDOAuth2Configuration passwordConfiguration(const ChildService &server)
{
    ZDOAuth2Configuration configuration;
    configuration.tokenEndpoint = server.url(u"/token"_s);
    configuration.clientId = u"zd-password"_s;
    configuration.scopes = {u"upload"_s};
    configuration.serviceName = u"Password Service"_s;
    return configuration;
}

void tst_oauth2::passwordSignInAsksForTheSecondFactorWhenTheServiceWantsIt_data()
{
    QTest::addColumn<QString>("user");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("factor"); // typed when asked; empty: cancel the dialog
    QTest::addColumn<QStringList>("notifications");
    // The sentence the dialog shown again names the failure with; empty: none.
    QTest::addColumn<QString>("failureKey");
    const QStringList signedIn{u"state:1"_s, u"state:2"_s};
    const QStringList failed{u"state:1"_s, u"state:0"_s, u"failure"_s};
    QTest::newRow("no factor needed")
        << u"alice"_s << u"pw"_s << QString() << signedIn << QString();
    QTest::newRow("factor given") << u"carol"_s << u"pw"_s << u"123456"_s << signedIn << QString();
    QTest::newRow("wrong factor") << u"carol"_s << u"pw"_s << u"000000"_s << failed
                                  << u"OAUTH2_FAILED_SECOND_FACTOR"_s;
    QTest::newRow("factor dialog cancelled")
        << u"carol"_s << u"pw"_s << QString() << failed << u"OAUTH2_FAILED_NO_SECOND_FACTOR"_s;
    QTest::newRow("wrong password")
        << u"alice"_s << u"nope"_s << QString() << failed << u"OAUTH2_FAILED_PASSWORD"_s;
}

void tst_oauth2::passwordSignInAsksForTheSecondFactorWhenTheServiceWantsIt()
{
    QFETCH(QString, user);
    QFETCH(QString, password);
    QFETCH(QString, factor);
    QFETCH(QStringList, notifications);
    QFETCH(QString, failureKey);
    auto store = std::make_shared<ZDMemoryCredentialStore>();
    ZDOAuth2Authenticator authenticator(passwordConfiguration(*passwordServer()),
                                        ZDOAuth2Authenticator::Flow::Password, store);
    authenticator.setSecondFactor(
        u"X-ZD-OTP"_s, [](const ZDHTTPResponse &response, const QVariantMap &) {
            return response.valueForHTTPHeaderField("x-zd-otp") == "required";
        });
    QWidget window;
    window.resize(400, 700);
    window.show();
    ZDAlertView::setDefaultWindow(&window);
    NotificationLog log(&authenticator);

    // The form's dialog has the two fields; its texts start the grant.
    ZDAlertView *signIn = authenticator.authenticationDialogWithTargetAction(nullptr, {});
    QCOMPARE(signIn->alertViewStyle(), ZDAlertView::Style::LoginAndPasswordInput);
    delete signIn;

    authenticator.authenticateWithUsernamePassword(user, password);
    if (user == u"carol"_s) {
        QTRY_VERIFY_WITH_TIMEOUT(authenticator.pendingDialog(), 30000);
        ZDAlertView *dialog = authenticator.pendingDialog();
        QTRY_VERIFY(dialog->textFieldAtIndex(0));
        if (factor.isEmpty()) {
            QTest::mouseClick(dialog->buttonAtIndex(dialog->cancelButtonIndex()), Qt::LeftButton);
        } else {
            QTest::keyClicks(dialog->textFieldAtIndex(0), factor);
            QTest::keyClick(dialog->textFieldAtIndex(0), Qt::Key_Return);
        }
    }
    QTRY_VERIFY_WITH_TIMEOUT(log.entries.size() == notifications.size(), 30000);
    QCOMPARE(log.entries, notifications);
    QVERIFY(!authenticator.pendingDialog());
    if (notifications.last() == u"state:2"_s)
        QCOMPARE(authenticator.account(), user);
    else
        m_errorTexts << authenticator.lastError().localizedDescription();

    // The dialog the form shows next says why the last try failed, first, and
    // a screen reader hears it with the dialog.
    const QString sentence = failureKey.isEmpty() ? QString() : ZDLocalizedString(failureKey);
    QVERIFY(failureKey.isEmpty() || !sentence.isEmpty());
    QCOMPARE(authenticator.lastFailureSentence(), sentence);
    std::unique_ptr<ZDAlertView> again(
        authenticator.authenticationDialogWithTargetAction(nullptr, {}));
    const QString instructions = ZDLocalizedString(u"OAUTH2_PASSWORD_SIGN_IN_MESSAGE"_s);
    QCOMPARE(again->message(), sentence.isEmpty() ? instructions : sentence + u'\n' + instructions);
    QAccessibleInterface *spoken = QAccessible::queryAccessibleInterface(again.get());
    QVERIFY(spoken);
    QCOMPARE(spoken->role(), QAccessible::Dialog);
    QCOMPARE(spoken->text(QAccessible::Description), again->message());
    if (const QString shots = qEnvironmentVariable("ZD_SCREENSHOT_DIR");
        !shots.isEmpty() && !sentence.isEmpty()) {
        QPointer<ZDAlertView> shown = again.release(); // shown alerts delete themselves
        shown->show(&window);
        QTest::qWait(800); // the alert's fade-in
        const QString name = QString::fromLatin1(QTest::currentDataTag()).replace(u' ', u'-');
        QVERIFY(window.grab().save(shots + u"/oauth2-sign-in-again-"_s + name + u".png"_s));
        shown->dismissWithClickedButtonIndex(shown->cancelButtonIndex(), false);
        QTRY_VERIFY(!shown);
    }
    if (!sentence.isEmpty()) {
        // A new attempt starts without the old failure.
        authenticator.authenticateWithUsernamePassword(u"alice"_s, u"pw"_s);
        QVERIFY(authenticator.lastFailureSentence().isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn,
                                  30000);
        QVERIFY(authenticator.lastFailureSentence().isEmpty());
    }
    remember(*store);
    m_secrets << password;
    ZDAlertView::setDefaultWindow(nullptr);
}

void tst_oauth2::anUnreachableServiceIsNotCalledAWrongPassword()
{
    QTcpServer closed;
    QVERIFY(closed.listen(QHostAddress::LocalHost, 0));
    ZDOAuth2Configuration configuration;
    configuration.tokenEndpoint = QUrl(u"http://127.0.0.1:%1/token"_s.arg(closed.serverPort()));
    configuration.clientId = u"zd-password"_s;
    configuration.serviceName = u"Password Service"_s;
    closed.close();
    ZDOAuth2Authenticator authenticator(configuration, ZDOAuth2Authenticator::Flow::Password,
                                        nullptr);
    authenticator.authenticateWithUsernamePassword(u"alice"_s, u"pw"_s);
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedOut,
                              30000);
    QCOMPARE(authenticator.lastFailureSentence(),
             ZDLocalizedString(u"OAUTH2_FAILED_UNREACHABLE"_s));
}

void tst_oauth2::anUnregisteredErrorCodeStaysOutOfTheDescription_data()
{
    QTest::addColumn<int>("flow");
    QTest::addColumn<QString>("code");
    QTest::addColumn<bool>("named");                // the description may name the code
    const QString echo = u"password=pw-secret-9"_s; // a service echoing the request
    QTest::newRow("token answer") << int(ZDOAuth2Authenticator::Flow::Password) << echo << false;
    QTest::newRow("redirect") << int(ZDOAuth2Authenticator::Flow::Browser) << echo << false;
    QTest::newRow("registered code")
        << int(ZDOAuth2Authenticator::Flow::Password) << u"invalid_scope"_s << true;
}

void tst_oauth2::anUnregisteredErrorCodeStaysOutOfTheDescription()
{
    QFETCH(int, flow);
    QFETCH(QString, code);
    QFETCH(bool, named);
    LoopbackHTTPServer server;
    QVERIFY(server.listen());
    server.setHandler([&](const RecordedRequest &) {
        return CannedReply::json(QJsonDocument(QJsonObject{{u"error"_s, code}}).toJson(), 400);
    });
    const ZDOAuth2Configuration configuration = loopbackConfiguration(server);
    ZDOAuth2Authenticator authenticator(configuration, ZDOAuth2Authenticator::Flow(flow), nullptr);
    // The browser comes back with the service's error in the redirect.
    QTcpSocket browser;
    ZDDevice::setURLOpener([&](const QUrl &url) {
        QUrlQuery redirect;
        redirect.addQueryItem(u"state"_s, QUrlQuery(url).queryItemValue(u"state"_s));
        redirect.addQueryItem(u"error"_s, QString::fromLatin1(QUrl::toPercentEncoding(code)));
        browser.connectToHost(QHostAddress::LocalHost, authenticator.redirectPort());
        browser.write("GET /callback?" + redirect.query(QUrl::FullyEncoded).toLatin1() +
                      " HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n");
        return true;
    });
    authenticator.authenticateWithUsernamePassword(u"erin"_s, u"pw-secret-9"_s);
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedOut,
                              30000);
    const ZDError error = authenticator.lastError();
    QCOMPARE(error.userInfo().value(ZDOAuth2ErrorCodeKey).toString(), code);
    QCOMPARE(error.localizedDescription().contains(code), named);
    m_errorTexts << error.localizedDescription();
    m_secrets << u"pw-secret-9"_s;
}

void tst_oauth2::aRequestRefusedWith401IsRenewedAndRepeatedOnce()
{
    ChildService *server = passwordServer(); // access tokens live 2 seconds there
    auto store = std::make_shared<ZDMemoryCredentialStore>();
    ZDOAuth2Authenticator authenticator(passwordConfiguration(*server),
                                        ZDOAuth2Authenticator::Flow::Password, store);
    const QDateTime frozen = QDateTime::currentDateTimeUtc();
    authenticator.setClock([frozen] { return frozen; }); // never expires by our clock
    authenticator.setRefreshLeeway(0);
    authenticator.authenticateWithUsernamePassword(u"alice"_s, u"pw"_s);
    QTRY_COMPARE_WITH_TIMEOUT(authenticator.authenticatorState(), ZDAuthenticatorStateSignedIn,
                              30000);
    remember(*store);

    struct Outcome
    {
        int attempts = 0;
        QVariant object;
        std::optional<ZDError> error;
    };
    const auto me = [&] {
        Outcome outcome;
        bool done = false;
        ZDAuthorizedRequest request(
            &authenticator,
            [&](JSONHTTPRequestDelegate *delegate, std::shared_ptr<RequestSigner> signer) {
                return std::make_unique<JSONHTTPRequest>(server->url(u"/api/me"_s), delegate,
                                                         signer);
            },
            [&](const QVariant &object, const std::optional<ZDError> &error) {
                outcome.object = object;
                outcome.error = error;
                done = true;
            });
        request.start();
        [&] { QTRY_VERIFY_WITH_TIMEOUT(done, 30000); }();
        outcome.attempts = request.attempts();
        return outcome;
    };
    Outcome outcome = me();
    QVERIFY(!outcome.error);
    QCOMPARE(outcome.attempts, 1);

    // Wait until the service itself refuses the token.
    const QByteArray bearer = bearerOf(authenticator.accountSigner());
    const auto old = std::make_shared<ZDBearerSigner>(QString::fromLatin1(bearer.mid(7)));
    const auto refused = [&] {
        RecordingDelegate delegate;
        JSONHTTPRequest probe(server->url(u"/api/me"_s), &delegate, old);
        probe.start();
        return QTest::qWaitFor([&] { return delegate.endings() == 1; }, 30000) &&
               probe.response() && probe.response()->statusCode() == 401;
    };
    QTRY_VERIFY_WITH_TIMEOUT(refused(), 30000);

    outcome = me();
    QVERIFY2(!outcome.error,
             qPrintable(outcome.error ? outcome.error->localizedDescription() : QString()));
    QCOMPARE(outcome.attempts, 2);
    QCOMPARE(outcome.object.toMap().value(u"username"_s).toString(), u"alice"_s);
    QVERIFY(bearerOf(authenticator.accountSigner()) != bearer);
    remember(*store);
}

void tst_oauth2::credentialStoreWithoutKeyringKeepsValuesInMemory()
{
    ZDKeychainCredentialStore store(u"zdpublish-test-%1"_s.arg(QCoreApplication::applicationPid()));
    store.setKeyringEnabled(false);
    QVERIFY(!store.load(u"k"_s));
    QVERIFY(store.save(u"k"_s, "v1"));
    QVERIFY(store.save(u"k"_s, "v2"));
    QCOMPARE(store.load(u"k"_s).value_or(QByteArray()), QByteArray("v2"));
    store.remove(u"k"_s);
    QVERIFY(!store.load(u"k"_s));
}

int main(int argc, char **argv)
{
    // Everything the test run writes stays in a folder of its own, scanned at the end.
    static QTemporaryDir home;
    for (const char *name : {"HOME", "XDG_CONFIG_HOME", "XDG_DATA_HOME", "XDG_CACHE_HOME"})
        qputenv(name, home.path().toUtf8());
    QApplication app(argc, argv);
    tst_oauth2 test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_oauth2.moc"
