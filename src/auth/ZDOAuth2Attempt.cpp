#include "auth/ZDOAuth2Attempt_p.h"

#include "auth/ZDOAuth2Authenticator_p.h"
#include "auth/ZDRedirectReceiver_p.h"
#include "core/ZDLogging_p.h"
#include "net/ZDAdditions.h"
#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDDevice.h"
#include "toolkit/ZDQRCode_p.h"

#include <QLineEdit>
#include <QRandomGenerator>
#include <QTimer>

namespace {

// RFC 7636 section 4.1: 32 random octets give the 43-character verifier, the
// shortest allowed and 256 bits of entropy. A state needs far less (RFC 6749
// section 10.12 asks only that it be unguessable): 16.
constexpr int kVerifierBytes = 32;
constexpr int kStateBytes = 16;
// RFC 8628 section 3.2: without an "interval" the client waits 5 seconds
// between polls; section 3.5: each slow_down adds 5 seconds for good.
constexpr int kDefaultPollSeconds = 5;
constexpr int kSlowDownSeconds = 5;
// RFC 8628 section 3.2 makes "expires_in" required; a service leaving it out
// gets ten minutes.
constexpr int kDefaultDeviceCodeSeconds = 600;
// RFC 8628 section 3.4.
const QString kDeviceGrant = QStringLiteral("urn:ietf:params:oauth:grant-type:device_code");

QString randomToken(int bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(data.data()), bytes / 4);
    return zdBase64Url(data);
}

} // namespace

// --- every flow -----------------------------------------------------------------------

ZDOAuth2Attempt::~ZDOAuth2Attempt() = default;

void ZDOAuth2Attempt::stop()
{
    m_exchange.reset();
    // We may be inside one of the timers' signals: they stop now, go with us later.
    for (QTimer *timer : findChildren<QTimer *>())
        timer->stop();
    if (ZDAlertView *open = std::exchange(m_dialog, nullptr)) {
        open->setDismissHandler({});
        if (open->isVisibleAlert())
            open->dismissWithClickedButtonIndex(open->cancelButtonIndex(), false);
        else
            open->deleteLater();
    }
}

void ZDOAuth2Attempt::send(ZDOAuth2Step step, const QUrl &url, const QVariantMap &params,
                           ZDOAuth2Exchange::Done done,
                           const QList<std::pair<QString, QString>> &headers)
{
    m_exchange = std::make_unique<ZDOAuth2Exchange>(step, url, params, headers, std::move(done));
}

QTimer *ZDOAuth2Attempt::makeTimer(std::function<void()> onTimeout)
{
    auto *timer = new QTimer(this);
    timer->setSingleShot(true);
    connect(timer, &QTimer::timeout, this, std::move(onTimeout));
    return timer;
}

void ZDOAuth2Attempt::showDialog(ZDAlertView *alert,
                                 std::function<void(ZDAlertView *, int)> onDismiss)
{
    m_dialog = alert;
    alert->setDismissHandler([this, alert, onDismiss = std::move(onDismiss)](int index) {
        m_dialog = nullptr;
        onDismiss(alert, index);
    });
    alert->show();
}

// --- browser --------------------------------------------------------------------------

void ZDOAuth2BrowserAttempt::start()
{
    const ZDOAuth2Configuration &configuration = d.configuration;
    m_receiver = new ZDRedirectReceiver(
        configuration.redirectPath, configuration.serviceName,
        [this](const QUrlQuery &query) { return acceptRedirect(query); }, this);
    if (QString problem; !m_receiver->listen(&problem)) {
        d.fail(zdOAuth2Error(
            ZDOAuth2ErrorListenerFailed,
            QStringLiteral("No loopback port to receive the sign-in on: %1").arg(problem)));
        return;
    }
    makeTimer([this] {
        qCDebug(lcZDAuth) << "browser sign-in: no redirect in time";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorTimedOut,
                             QStringLiteral("The browser did not come back in time.")));
    })->start(d.browserTimeoutMs);

    m_codeVerifier = randomToken(kVerifierBytes);
    m_state = randomToken(kStateBytes);
    // RFC 8252 sections 7.3 and 8.3: the loopback IP literal, not "localhost",
    // which a resolver may send elsewhere.
    m_redirectUri = QStringLiteral("http://127.0.0.1:%1%2")
                        .arg(m_receiver->port())
                        .arg(configuration.redirectPath);
    QUrl url = configuration.authorizationEndpoint;
    QUrlQuery query(url);
    const auto add = [&](const QString &key, const QString &value) {
        query.addQueryItem(key, QString::fromLatin1(QUrl::toPercentEncoding(value)));
    };
    add(QStringLiteral("response_type"), QStringLiteral("code"));
    add(QStringLiteral("client_id"), configuration.clientId);
    add(QStringLiteral("redirect_uri"), m_redirectUri);
    if (!configuration.scopes.isEmpty())
        add(QStringLiteral("scope"), d.scopeString());
    add(QStringLiteral("state"), m_state);
    add(QStringLiteral("code_challenge"),
        ZDOAuth2Authenticator::codeChallengeForVerifier(m_codeVerifier));
    add(QStringLiteral("code_challenge_method"), QStringLiteral("S256"));
    for (auto it = configuration.extraAuthorizationParameters.cbegin();
         it != configuration.extraAuthorizationParameters.cend(); ++it)
        add(it.key(), ZDAdditions::textualDescription(it.value()));
    url.setQuery(query.query(QUrl::FullyEncoded), QUrl::StrictMode);
    if (!ZDDevice::openURL(url)) {
        qCDebug(lcZDAuth) << "browser sign-in: no browser opened the sign-in page";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorBrowserUnavailable,
                             QStringLiteral("No browser could open the sign-in page.")));
    }
}

void ZDOAuth2BrowserAttempt::stop()
{
    if (m_receiver)
        m_receiver->close();
    m_state.clear();
    m_codeVerifier.clear();
    ZDOAuth2Attempt::stop();
}

quint16 ZDOAuth2BrowserAttempt::redirectPort() const
{
    return m_receiver ? m_receiver->port() : 0;
}

ZDRedirectPage ZDOAuth2BrowserAttempt::acceptRedirect(const QUrlQuery &query)
{
    const auto value = [&](const char *key) {
        return query.queryItemValue(QString::fromLatin1(key), QUrl::FullyDecoded);
    };
    const ZDRedirectPage failed{400, zdLocalized("OAUTH2_BROWSER_FAILED")};
    // RFC 6749 section 10.12: a redirect without our state may be forged.
    if (value("state") != m_state || !query.hasQueryItem(QStringLiteral("state"))) {
        qCDebug(lcZDAuth) << "browser sign-in: the redirect's state is not ours";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorStateMismatch,
                             QStringLiteral("The sign-in redirect was not the one asked for.")));
        return failed;
    }
    // RFC 6749 section 4.1.2.1: the service refused in the redirect.
    if (const QString code = value("error"); !code.isEmpty()) {
        qCDebug(lcZDAuth) << "browser sign-in: the redirect carries an error";
        d.fail(zdOAuth2Refusal(QStringLiteral("the sign-in"), code));
        return {200, failed.text};
    }
    const QString code = value("code");
    if (code.isEmpty()) {
        qCDebug(lcZDAuth) << "browser sign-in: the redirect carries no code";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorBadAnswer,
                             QStringLiteral("The sign-in redirect carries no code.")));
        return failed;
    }
    exchangeCode(code);
    return {200, zdLocalized("OAUTH2_BROWSER_DONE")};
}

void ZDOAuth2BrowserAttempt::exchangeCode(const QString &code)
{
    QVariantMap params = d.clientParams();
    params.insert(QStringLiteral("grant_type"), QStringLiteral("authorization_code"));
    params.insert(QStringLiteral("code"), code);
    params.insert(QStringLiteral("redirect_uri"), m_redirectUri);
    params.insert(QStringLiteral("code_verifier"), m_codeVerifier);
    send(ZDOAuth2Step::BrowserCode, d.configuration.tokenEndpoint, params,
         [this](const ZDOAuth2Reply &reply) { d.finishSignIn(reply); });
}

// --- device ---------------------------------------------------------------------------

void ZDOAuth2DeviceAttempt::start()
{
    QVariantMap params = d.clientParams();
    if (!d.configuration.scopes.isEmpty())
        params.insert(QStringLiteral("scope"), d.scopeString());
    send(ZDOAuth2Step::DeviceAuthorization, d.configuration.deviceAuthorizationEndpoint, params,
         [this](const ZDOAuth2Reply &reply) { authorized(reply); });
}

void ZDOAuth2DeviceAttempt::authorized(const ZDOAuth2Reply &reply)
{
    if (!reply.ok()) {
        d.fail(reply.error);
        return;
    }
    m_deviceCode = reply.object.value(QStringLiteral("device_code")).toString();
    const QString userCode = reply.object.value(QStringLiteral("user_code")).toString();
    const QString address = reply.object.value(QStringLiteral("verification_uri")).toString();
    QString complete = reply.object.value(QStringLiteral("verification_uri_complete")).toString();
    if (m_deviceCode.isEmpty() || userCode.isEmpty() || address.isEmpty()) {
        qCDebug(lcZDAuth) << "device sign-in: the authorization answer is incomplete";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorBadAnswer,
                             QStringLiteral("The device sign-in answer is incomplete.")));
        return;
    }
    if (complete.isEmpty())
        complete = address;
    m_pollSeconds =
        qMax(1, reply.object.value(QStringLiteral("interval"), kDefaultPollSeconds).toInt());
    const int lifetime =
        reply.object.value(QStringLiteral("expires_in"), kDefaultDeviceCodeSeconds).toInt();
    makeTimer([this] {
        qCDebug(lcZDAuth) << "device sign-in: the device code expired";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorTimedOut, QStringLiteral("The device code expired."),
                             QStringLiteral("expired_token")));
    })->start(qMax(1, lifetime) * 1000);

    auto *alert = new ZDAlertView(d.configuration.serviceName,
                                  zdLocalized("OAUTH2_DEVICE_MESSAGE").arg(address, userCode),
                                  nullptr, zdLocalized("CANCEL"));
    alert->setObjectName(QStringLiteral("deviceCodeDialog"));
    alert->setImage(zdQRCodeImage(complete), zdLocalized("OAUTH2_DEVICE_QR_DESCRIPTION"));
    showDialog(alert, [this](ZDAlertView *, int) {
        d.fail(zdOAuth2Error(ZDOAuth2ErrorCancelled,
                             QStringLiteral("The device sign-in was cancelled.")));
    });

    m_pollTimer = makeTimer([this] { poll(); });
    m_pollTimer->setTimerType(Qt::PreciseTimer); // the interval is a minimum
    m_pollTimer->start(m_pollSeconds * 1000);
}

void ZDOAuth2DeviceAttempt::poll()
{
    QVariantMap params = d.clientParams();
    params.insert(QStringLiteral("grant_type"), kDeviceGrant);
    params.insert(QStringLiteral("device_code"), m_deviceCode);
    send(ZDOAuth2Step::DevicePoll, d.configuration.tokenEndpoint, params,
         [this](const ZDOAuth2Reply &reply) {
             // RFC 8628 section 3.5: the user has not finished yet; keep asking.
             const bool slowDown = reply.oauthError == QLatin1String("slow_down");
             if (slowDown || reply.oauthError == QLatin1String("authorization_pending")) {
                 if (slowDown)
                     m_pollSeconds += kSlowDownSeconds;
                 m_exchange.reset();
                 m_pollTimer->start(m_pollSeconds * 1000);
                 return;
             }
             d.finishSignIn(reply);
         });
}

// --- password -------------------------------------------------------------------------

ZDOAuth2PasswordAttempt::ZDOAuth2PasswordAttempt(ZDOAuth2AuthenticatorPrivate &authenticator,
                                                 const QString &username, const QString &password)
    : ZDOAuth2Attempt(authenticator), m_username(username), m_password(password)
{}

void ZDOAuth2PasswordAttempt::start()
{
    sendGrant(QString());
}

void ZDOAuth2PasswordAttempt::sendGrant(const QString &factor)
{
    QVariantMap params = d.clientParams();
    params.insert(QStringLiteral("grant_type"), QStringLiteral("password"));
    params.insert(QStringLiteral("username"), m_username);
    params.insert(QStringLiteral("password"), m_password);
    if (!d.configuration.scopes.isEmpty())
        params.insert(QStringLiteral("scope"), d.scopeString());
    QList<std::pair<QString, QString>> headers;
    if (!factor.isEmpty() && !d.factorHeader.isEmpty())
        headers.append({d.factorHeader, factor});
    const bool withFactor = !factor.isEmpty();
    send(
        withFactor ? ZDOAuth2Step::SecondFactor : ZDOAuth2Step::Password,
        d.configuration.tokenEndpoint, params,
        [this, withFactor](const ZDOAuth2Reply &reply) { answered(reply, withFactor); }, headers);
}

void ZDOAuth2PasswordAttempt::answered(const ZDOAuth2Reply &reply, bool withFactor)
{
    if (withFactor && !reply.oauthError.isEmpty()) {
        // The password passed before the factor was asked for: a refusal now
        // is the code's.
        d.fail(reply.error, "OAUTH2_FAILED_SECOND_FACTOR");
        return;
    }
    if (reply.ok() || !d.factorRequired || !reply.response ||
        !d.factorRequired(*reply.response, reply.object)) {
        d.finishSignIn(reply);
        return;
    }
    if (withFactor) {
        qCDebug(lcZDAuth) << "password sign-in: the second factor was not accepted";
        d.fail(zdOAuth2Error(ZDOAuth2ErrorRefused,
                             QStringLiteral("The service refused the second factor.")),
               "OAUTH2_FAILED_SECOND_FACTOR");
        return;
    }
    m_exchange.reset();
    askForFactor();
}

void ZDOAuth2PasswordAttempt::askForFactor()
{
    qCDebug(lcZDAuth) << "password sign-in: the service asks for a second factor";
    auto *alert =
        new ZDAlertView(d.configuration.serviceName, zdLocalized("OAUTH2_SECOND_FACTOR_MESSAGE"),
                        nullptr, zdLocalized("CANCEL"), {zdLocalized("OAUTH2_SIGN_IN")});
    alert->setObjectName(QStringLiteral("secondFactorDialog"));
    alert->setAlertViewStyle(ZDAlertView::Style::PlainTextInput);
    alert->setReturnKeyAction(alert, [alert] {
        alert->dismissWithClickedButtonIndex(alert->firstOtherButtonIndex(), true);
    });
    showDialog(alert, [this](ZDAlertView *view, int index) {
        const QString code =
            view->textFieldAtIndex(0) ? view->textFieldAtIndex(0)->text() : QString();
        if (index == view->cancelButtonIndex() || code.isEmpty()) {
            d.fail(zdOAuth2Error(ZDOAuth2ErrorCancelled,
                                 QStringLiteral("The second factor was not given.")),
                   "OAUTH2_FAILED_NO_SECOND_FACTOR");
            return;
        }
        sendGrant(code);
    });
}
