#include "auth/ZDOAuth2Authenticator.h"

#include "auth/ZDBearerSigner.h"
#include "auth/ZDOAuth2Attempt_p.h"
#include "auth/ZDOAuth2Authenticator_p.h"
#include "auth/ZDOAuth2Exchange_p.h"
#include "core/ZDLogging_p.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDAlertView.h"

#include <QCryptographicHash>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

const QString ZDOAuth2ErrorDomain = QStringLiteral("ZDOAuth2ErrorDomain");
const QString ZDOAuth2ErrorCodeKey = QStringLiteral("ZDOAuth2ErrorCode");

QString zdBase64Url(const QByteArray &bytes)
{
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString zdLocalized(const char *key)
{
    return ZDLocalizedString(QString::fromLatin1(key));
}

namespace {

QVariantMap jwtPayload(const QString &token)
{
    const QStringList parts = token.split(QLatin1Char('.'));
    if (parts.size() != 3)
        return {};
    const QByteArray json =
        QByteArray::fromBase64(parts[1].toLatin1(), QByteArray::Base64UrlEncoding);
    return QJsonDocument::fromJson(json).object().toVariantMap();
}

// What the user is told about a failed attempt, by the error that ended it.
const char *failureSentenceKey(const ZDError &error, ZDOAuth2Authenticator::Flow flow)
{
    if (error.domain() != ZDOAuth2ErrorDomain)
        return "OAUTH2_FAILED_UNREACHABLE"; // the transport's error, no OAuth answer
    switch (error.code()) {
    case ZDOAuth2ErrorRefused:
    case ZDOAuth2ErrorDenied:
        return flow == ZDOAuth2Authenticator::Flow::Password ? "OAUTH2_FAILED_PASSWORD"
                                                             : "OAUTH2_FAILED_REFUSED";
    case ZDOAuth2ErrorTimedOut:
        return "OAUTH2_FAILED_TIMED_OUT";
    case ZDOAuth2ErrorCancelled:
        return "OAUTH2_FAILED_CANCELLED";
    default:
        return "OAUTH2_FAILED_OTHER";
    }
}

const char *flowName(ZDOAuth2Authenticator::Flow flow)
{
    switch (flow) {
    case ZDOAuth2Authenticator::Flow::Browser:
        return "browser";
    case ZDOAuth2Authenticator::Flow::Device:
        return "device";
    case ZDOAuth2Authenticator::Flow::Password:
        return "password";
    }
    return "";
}

} // namespace

// --- stored tokens ----------------------------------------------------------------

QByteArray ZDOAuth2Tokens::serialized() const
{
    QJsonObject object{{QStringLiteral("account"), account},
                       {QStringLiteral("access_token"), accessToken},
                       {QStringLiteral("refresh_token"), refreshToken}};
    if (expiry.isValid())
        object.insert(QStringLiteral("expires_at"), expiry.toMSecsSinceEpoch());
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::optional<ZDOAuth2Tokens> ZDOAuth2Tokens::fromSerialized(const QByteArray &bytes)
{
    const QJsonObject object = QJsonDocument::fromJson(bytes).object();
    ZDOAuth2Tokens tokens;
    tokens.account = object.value(QStringLiteral("account")).toString();
    tokens.accessToken = object.value(QStringLiteral("access_token")).toString();
    tokens.refreshToken = object.value(QStringLiteral("refresh_token")).toString();
    if (object.contains(QStringLiteral("expires_at")))
        tokens.expiry = QDateTime::fromMSecsSinceEpoch(
            qint64(object.value(QStringLiteral("expires_at")).toDouble()), Qt::UTC);
    if (tokens.accessToken.isEmpty())
        return std::nullopt;
    return tokens;
}

// --- private --------------------------------------------------------------------------

ZDOAuth2AuthenticatorPrivate::ZDOAuth2AuthenticatorPrivate(ZDOAuth2Authenticator *owner) : q(owner)
{}

ZDOAuth2AuthenticatorPrivate::~ZDOAuth2AuthenticatorPrivate() = default;

QVariantMap ZDOAuth2AuthenticatorPrivate::clientParams() const
{
    QVariantMap params = configuration.extraTokenParameters;
    params.insert(QStringLiteral("client_id"), configuration.clientId);
    if (!configuration.clientSecret.isEmpty())
        params.insert(QStringLiteral("client_secret"), configuration.clientSecret);
    return params;
}

void ZDOAuth2AuthenticatorPrivate::stopAttempt()
{
    if (ZDOAuth2Attempt *old = attempt.release()) {
        old->stop();
        old->deleteLater(); // we may be inside one of its callbacks
    }
}

void ZDOAuth2AuthenticatorPrivate::fail(const ZDError &error, const char *sentenceKey)
{
    qCDebug(lcZDAuth).nospace() << flowName(flow) << " sign-in failed: " << error.domain() << ' '
                                << error.code();
    stopAttempt();
    lastError = error;
    lastFailureKey = sentenceKey ? sentenceKey : failureSentenceKey(error, flow);
    q->_setAuthenticatorStateAccount(ZDAuthenticatorStateSignedOut);
    q->_notifyFailure();
}

std::optional<ZDOAuth2Tokens>
ZDOAuth2AuthenticatorPrivate::tokensFromReply(const ZDOAuth2Reply &reply,
                                              const ZDOAuth2Tokens &previous) const
{
    // RFC 6749 section 5.1: only a bearer token (RFC 6750) is of use to us.
    const QString type = reply.object.value(QStringLiteral("token_type")).toString();
    ZDOAuth2Tokens result = previous;
    result.accessToken = reply.object.value(QStringLiteral("access_token")).toString();
    if (result.accessToken.isEmpty() || type.compare(QLatin1String("bearer"), Qt::CaseInsensitive))
        return std::nullopt;
    // RFC 6749 section 6: a renewal may rotate the refresh token or keep it.
    const QString refreshToken = reply.object.value(QStringLiteral("refresh_token")).toString();
    if (!refreshToken.isEmpty())
        result.refreshToken = refreshToken;
    bool hasLifetime = false;
    const qint64 lifetime =
        reply.object.value(QStringLiteral("expires_in")).toLongLong(&hasLifetime);
    result.expiry = hasLifetime ? now().addSecs(lifetime) : QDateTime();
    return result;
}

void ZDOAuth2AuthenticatorPrivate::finishSignIn(const ZDOAuth2Reply &reply)
{
    if (!reply.ok()) {
        fail(reply.error);
        return;
    }
    auto signedIn = tokensFromReply(reply, {});
    if (!signedIn) {
        fail(zdOAuth2Error(ZDOAuth2ErrorBadAnswer,
                           QStringLiteral("The sign-in answer holds no bearer token.")));
        return;
    }
    signedIn->account = q->accountNameForTokenResponse(reply.object);
    if (store && !store->save(configuration.storeKey, signedIn->serialized())) {
        fail(zdOAuth2Error(ZDOAuth2ErrorStoreFailed,
                           QStringLiteral("The sign-in could not be stored.")));
        return;
    }
    qCDebug(lcZDAuth) << flowName(flow) << "sign-in succeeded";
    stopAttempt();
    tokens = signedIn;
    lastError = ZDError();
    lastFailureKey = nullptr;
    q->_setAuthenticatorStateAccount(ZDAuthenticatorStateSignedIn, signedIn->account);
}

void ZDOAuth2AuthenticatorPrivate::refresh()
{
    if (refreshExchange)
        return;
    if (!tokens || tokens->refreshToken.isEmpty()) {
        qCDebug(lcZDAuth) << "refresh: no refresh token, signing out";
        signOutAfterRefusal(
            zdOAuth2Error(ZDOAuth2ErrorRefused,
                          QStringLiteral("The access token expired and cannot be renewed.")));
        return;
    }
    QVariantMap params = clientParams();
    params.insert(QStringLiteral("grant_type"), QStringLiteral("refresh_token"));
    params.insert(QStringLiteral("refresh_token"), tokens->refreshToken);
    refreshExchange = std::make_unique<ZDOAuth2Exchange>(
        ZDOAuth2Step::Refresh, configuration.tokenEndpoint, params,
        QList<std::pair<QString, QString>>{}, [this](const ZDOAuth2Reply &reply) {
            const auto done = std::move(refreshExchange); // released when we return
            if (reply.refusesGrant()) {
                qCDebug(lcZDAuth) << "refresh: refused, the sign-in and its tokens are dropped";
                signOutAfterRefusal(reply.error);
                return;
            }
            if (!reply.ok()) {
                // An outage (5xx, 429, the network) passes; signing out would
                // not bring the service back and would throw the tokens away.
                qCDebug(lcZDAuth) << "refresh: failed, the sign-in and its tokens are kept";
                answerWaiting(reply.requestError.isNull() ? reply.error : reply.requestError);
                return;
            }
            const auto renewed = tokens ? tokensFromReply(reply, *tokens) : std::nullopt;
            if (!renewed) {
                qCDebug(lcZDAuth) << "refresh: no bearer token in the answer, tokens kept";
                answerWaiting(
                    zdOAuth2Error(ZDOAuth2ErrorBadAnswer,
                                  QStringLiteral("The renewal answer holds no bearer token.")));
                return;
            }
            // Saved before anything uses it: the old refresh token is dead now.
            if (store && !store->save(configuration.storeKey, renewed->serialized())) {
                qCDebug(lcZDAuth) << "refresh: the renewed tokens could not be stored, signing out";
                signOutAfterRefusal(
                    zdOAuth2Error(ZDOAuth2ErrorStoreFailed,
                                  QStringLiteral("The renewed sign-in could not be stored.")));
                return;
            }
            qCDebug(lcZDAuth) << "refresh: renewed, refresh token"
                              << (renewed->refreshToken == tokens->refreshToken ? "kept"
                                                                                : "rotated");
            tokens = renewed;
            answerWaiting(std::nullopt);
        });
}

void ZDOAuth2AuthenticatorPrivate::answerWaiting(const std::optional<ZDError> &error)
{
    const QList<ZDCredentialSource::Completion> answered = std::exchange(waiting, {});
    const std::shared_ptr<RequestSigner> signer = error ? nullptr : q->accountSigner();
    for (const auto &completion : answered)
        completion(error ? nullptr : signer, error);
}

void ZDOAuth2AuthenticatorPrivate::signOutAfterRefusal(const ZDError &error)
{
    tokens.reset();
    if (store)
        store->remove(configuration.storeKey);
    lastError = error;
    lastFailureKey = "OAUTH2_FAILED_EXPIRED";
    q->_setAuthenticatorStateAccount(ZDAuthenticatorStateSignedOut, QString());
    q->_notifyFailure();
    answerWaiting(error);
}

// --- public -----------------------------------------------------------------------------

ZDOAuth2Authenticator::ZDOAuth2Authenticator(const ZDOAuth2Configuration &configuration, Flow flow,
                                             std::shared_ptr<ZDCredentialStore> store)
    : d(std::make_unique<ZDOAuth2AuthenticatorPrivate>(this))
{
    d->configuration = configuration;
    d->flow = flow;
    d->store = store ? std::move(store) : std::make_shared<ZDMemoryCredentialStore>();
}

ZDOAuth2Authenticator::~ZDOAuth2Authenticator()
{
    d->refreshExchange.reset();
    d->stopAttempt();
}

const ZDOAuth2Configuration &ZDOAuth2Authenticator::configuration() const
{
    return d->configuration;
}

ZDOAuth2Authenticator::Flow ZDOAuth2Authenticator::flow() const
{
    return d->flow;
}

void ZDOAuth2Authenticator::setFlow(Flow flow)
{
    d->flow = flow;
}

void ZDOAuth2Authenticator::setClock(std::function<QDateTime()> clock)
{
    d->clock = std::move(clock);
}

void ZDOAuth2Authenticator::setRefreshLeeway(int seconds)
{
    d->leewaySeconds = seconds;
}

int ZDOAuth2Authenticator::refreshLeeway() const
{
    return d->leewaySeconds;
}

void ZDOAuth2Authenticator::setBrowserTimeout(int milliseconds)
{
    d->browserTimeoutMs = milliseconds;
}

int ZDOAuth2Authenticator::browserTimeout() const
{
    return d->browserTimeoutMs;
}

void ZDOAuth2Authenticator::setSecondFactor(
    const QString &header,
    std::function<bool(const ZDHTTPResponse &, const QVariantMap &)> isRequired)
{
    d->factorHeader = header;
    d->factorRequired = std::move(isRequired);
}

ZDError ZDOAuth2Authenticator::lastError() const
{
    return d->lastError;
}

QString ZDOAuth2Authenticator::lastFailureSentence() const
{
    return d->lastFailureKey ? zdLocalized(d->lastFailureKey) : QString();
}

std::shared_ptr<RequestSigner> ZDOAuth2Authenticator::accountSigner() const
{
    if (m_authenticatorState != ZDAuthenticatorStateSignedIn || !d->tokens)
        return nullptr;
    return std::make_shared<ZDBearerSigner>(d->tokens->accessToken);
}

quint16 ZDOAuth2Authenticator::redirectPort() const
{
    return d->attempt ? d->attempt->redirectPort() : 0;
}

ZDAlertView *ZDOAuth2Authenticator::pendingDialog() const
{
    return d->attempt ? d->attempt->dialog() : nullptr;
}

QString ZDOAuth2Authenticator::codeChallengeForVerifier(const QString &verifier)
{
    // RFC 7636 section 4.2.
    return zdBase64Url(QCryptographicHash::hash(verifier.toLatin1(), QCryptographicHash::Sha256));
}

void ZDOAuth2Authenticator::authenticateWithUsernamePassword(const QString &username,
                                                             const QString &password)
{
    d->stopAttempt();
    switch (d->flow) {
    case Flow::Browser:
        d->attempt = std::make_unique<ZDOAuth2BrowserAttempt>(*d);
        break;
    case Flow::Device:
        d->attempt = std::make_unique<ZDOAuth2DeviceAttempt>(*d);
        break;
    case Flow::Password:
        d->attempt = std::make_unique<ZDOAuth2PasswordAttempt>(*d, username, password);
        break;
    }
    ZDOAuth2Attempt *attempt = d->attempt.get();
    d->lastError = ZDError();
    d->lastFailureKey = nullptr;
    qCDebug(lcZDAuth) << flowName(d->flow) << "sign-in starts";
    _setAuthenticatorStateAccount(StateSigningIn);
    if (m_authenticatorState != StateSigningIn || d->attempt.get() != attempt)
        return; // an observer started or stopped something else
    attempt->start();
}

void ZDOAuth2Authenticator::loadCredentials()
{
    if (m_authenticatorState != ZDAuthenticatorStateSignedIn && d->store) {
        if (const auto bytes = d->store->load(d->configuration.storeKey)) {
            if (const auto stored = ZDOAuth2Tokens::fromSerialized(*bytes)) {
                d->tokens = stored;
                _setAuthenticatorStateAccount(ZDAuthenticatorStateSignedIn, stored->account);
                return;
            }
        }
    }
    _notifyStateChange();
}

ZDAlertView *
ZDOAuth2Authenticator::authenticationDialogWithTargetAction(QObject *target,
                                                            std::function<void()> action)
{
    const bool fields = d->flow == Flow::Password;
    QString message = d->flow == Flow::Browser  ? zdLocalized("OAUTH2_BROWSER_SIGN_IN_MESSAGE")
                      : d->flow == Flow::Device ? zdLocalized("OAUTH2_DEVICE_SIGN_IN_MESSAGE")
                                                : zdLocalized("OAUTH2_PASSWORD_SIGN_IN_MESSAGE");
    // A dialog shown again after a failure says first why the last try failed;
    // the message is what screen readers announce with the dialog.
    if (const QString failure = lastFailureSentence(); !failure.isEmpty())
        message = failure + u'\n' + message;
    const QString button = d->flow == Flow::Browser  ? zdLocalized("OAUTH2_CONTINUE_IN_BROWSER")
                           : d->flow == Flow::Device ? zdLocalized("OAUTH2_CONTINUE")
                                                     : zdLocalized("OAUTH2_SIGN_IN");
    auto *dialog =
        new ZDAlertView(zdLocalized("OAUTH2_SIGN_IN_TITLE").arg(d->configuration.serviceName),
                        message, nullptr, zdLocalized("CANCEL"), {button});
    if (fields)
        dialog->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    dialog->setReturnKeyAction(target, std::move(action));
    return dialog;
}

void ZDOAuth2Authenticator::invalidateAuthentication()
{
    d->stopAttempt();
    d->refreshExchange.reset();
    d->tokens.reset();
    d->lastFailureKey = nullptr; // signing out is no failure
    if (d->store)
        d->store->remove(d->configuration.storeKey);
    const ZDError signedOut =
        zdOAuth2Error(ZDOAuth2ErrorNotSignedIn, QStringLiteral("The account was signed out."));
    ZDAuthenticator::invalidateAuthentication();
    d->answerWaiting(signedOut);
}

void ZDOAuth2Authenticator::requestDidReceiveObject(JSONHTTPRequest *, const QVariant &)
{
    // Every exchange of this authenticator has its own delegate; m_authenticationRequest
    // is never used.
}

void ZDOAuth2Authenticator::credentialsForRequest(Reason reason, Completion completion)
{
    // Answered from the event loop, never from inside this call.
    QTimer::singleShot(0, d->context.get(), [this, reason, completion = std::move(completion)] {
        if (m_authenticatorState != ZDAuthenticatorStateSignedIn || !d->tokens) {
            completion(nullptr, zdOAuth2Error(ZDOAuth2ErrorNotSignedIn,
                                              QStringLiteral("No account is signed in.")));
            return;
        }
        const bool expiresSoon =
            d->tokens->expiry.isValid() && d->now().secsTo(d->tokens->expiry) <= d->leewaySeconds;
        if (reason == Reason::BeforeRequest && !expiresSoon && !d->refreshExchange) {
            completion(accountSigner(), std::nullopt);
            return;
        }
        d->waiting.append(completion);
        d->refresh();
    });
}

QString ZDOAuth2Authenticator::accountNameForTokenResponse(const QVariantMap &response) const
{
    static const char *const kNames[] = {"username", "preferred_username", "name"};
    const QVariantMap claims = jwtPayload(response.value(QStringLiteral("id_token")).toString());
    for (const QVariantMap &source : {response, claims}) {
        for (const char *name : kNames) {
            const QString value = source.value(QString::fromLatin1(name)).toString();
            if (!value.isEmpty())
                return value;
        }
    }
    return d->configuration.serviceName;
}
