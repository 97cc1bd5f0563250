#include "auth/ZDOAuth2Authenticator.h"

#include "auth/ZDBearerSigner.h"
#include "auth/ZDOAuth2Authenticator_p.h"
#include "net/ZDAdditions.h"
#include "resources/ZDLocalizedString.h"
#include "toolkit/ZDAlertView.h"
#include "toolkit/ZDDevice.h"

#include <QCryptographicHash>
#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLineEdit>
#include <QRandomGenerator>
#include <QTcpServer>
#include <QTcpSocket>
#include <QUrlQuery>

#include <qrencode.h>

const QString ZDOAuth2ErrorDomain = QStringLiteral("ZDOAuth2ErrorDomain");
const QString ZDOAuth2ErrorCodeKey = QStringLiteral("ZDOAuth2ErrorCode");

namespace {

// Calls `onButton` when the alert is dismissed with a button; lives as long as the alert.
struct DialogListener : ZDAlertViewDelegate
{
    std::function<void(ZDAlertView *, int)> onButton;
    void alertViewWillDismissWithButtonIndex(ZDAlertView *view, int index) override
    {
        const auto call = onButton;
        call(view, index);
    }
};

void listen(ZDAlertView *alert, std::function<void(ZDAlertView *, int)> onButton)
{
    auto listener = std::make_shared<DialogListener>();
    listener->onButton = std::move(onButton);
    alert->setDelegate(listener.get());
    QObject::connect(alert, &QObject::destroyed, [listener] {});
}

constexpr qsizetype kMaxRedirectRequest = 16 * 1024;
constexpr int kSlowDownSeconds = 5;
const QString kDeviceGrant = QStringLiteral("urn:ietf:params:oauth:grant-type:device_code");

QString base64Url(const QByteArray &bytes)
{
    return QString::fromLatin1(
        bytes.toBase64(QByteArray::Base64UrlEncoding | QByteArray::OmitTrailingEquals));
}

QString randomToken(int bytes)
{
    QByteArray data(bytes, Qt::Uninitialized);
    QRandomGenerator::system()->fillRange(reinterpret_cast<quint32 *>(data.data()), bytes / 4);
    return base64Url(data);
}

ZDError oauthError(ZDOAuth2Error code, const QString &description, const QString &serviceCode = {})
{
    QVariantMap info{{ZDLocalizedDescriptionKey, description}};
    if (!serviceCode.isEmpty())
        info.insert(ZDOAuth2ErrorCodeKey, serviceCode);
    return ZDError(ZDOAuth2ErrorDomain, code, info);
}

// The error an OAuth error answer stands for. The service's description is left
// out: a service may echo what it was sent.
ZDError errorForReply(const ZDOAuth2Reply &reply, const QString &what)
{
    if (reply.oauthError.isEmpty())
        return reply.transportError;
    const bool denied = reply.oauthError == QLatin1String("access_denied");
    return oauthError(denied ? ZDOAuth2ErrorDenied : ZDOAuth2ErrorRefused,
                      QStringLiteral("The service refused %1 (%2).").arg(what, reply.oauthError),
                      reply.oauthError);
}

QVariantMap jwtPayload(const QString &token)
{
    const QStringList parts = token.split(QLatin1Char('.'));
    if (parts.size() != 3)
        return {};
    const QByteArray json =
        QByteArray::fromBase64(parts[1].toLatin1(), QByteArray::Base64UrlEncoding);
    return QJsonDocument::fromJson(json).object().toVariantMap();
}

QString localized(const char *key)
{
    return ZDLocalizedString(QString::fromLatin1(key));
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

} // namespace

// --- the exchange ---------------------------------------------------------------

class ZDOAuth2Exchange::Request : public JSONHTTPRequest
{
public:
    using JSONHTTPRequest::JSONHTTPRequest;
    using JSONHTTPRequest::rawData;
};

ZDOAuth2Exchange::ZDOAuth2Exchange(const QUrl &url, const QVariantMap &params,
                                   const QList<std::pair<QString, QString>> &headers, Done onDone)
    : m_done(std::move(onDone))
{
    m_request = std::make_unique<Request>(url, this);
    m_request->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    m_request->setPostParams(params);
    m_request->setHTTPHeaderValue(QStringLiteral("Accept"), QStringLiteral("application/json"));
    for (const auto &[name, value] : headers)
        m_request->setHTTPHeaderValue(name, value);
    if (!ZDBearerSigner::mayCarryToken(url)) {
        // Grants and secrets never travel over plain http to another host.
        QTimer::singleShot(0, m_context.get(), [this] {
            ZDOAuth2Reply reply;
            reply.transportError = oauthError(
                ZDOAuth2ErrorBadAnswer,
                QStringLiteral("The service's sign-in address is not https; nothing was sent."));
            const Done done = m_done;
            done(reply);
        });
        return;
    }
    m_request->start();
}

ZDOAuth2Exchange::~ZDOAuth2Exchange() = default;

void ZDOAuth2Exchange::requestDidReceiveObject(JSONHTTPRequest *, const QVariant &object)
{
    ZDOAuth2Reply reply;
    reply.response = m_request->response();
    reply.object = object.toMap();
    reply.ok = object.typeId() == QMetaType::QVariantMap;
    if (!reply.ok)
        reply.transportError = oauthError(ZDOAuth2ErrorBadAnswer,
                                          QStringLiteral("The service's answer is not an object."));
    const Done done = m_done; // we may be destroyed inside
    done(reply);
}

void ZDOAuth2Exchange::requestDidFailWithError(JSONHTTPRequest *, const ZDError &error)
{
    ZDOAuth2Reply reply;
    reply.response = m_request->response();
    reply.transportError = error;
    if (error.domain() == JSONHTTPRequestErrorDomain &&
        error.code() == JSONHTTPRequestErrorBadStatus && m_request->rawData()) {
        reply.object = QJsonDocument::fromJson(*m_request->rawData()).object().toVariantMap();
        reply.oauthError = reply.object.value(QStringLiteral("error")).toString();
    }
    const Done done = m_done;
    done(reply);
}

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

// --- QR code ------------------------------------------------------------------------

QImage zdQRCodeImage(const QString &text, int scale)
{
    const QByteArray utf8 = text.toUtf8();
    QRcode *code = QRcode_encodeString(utf8.constData(), 0, QR_ECLEVEL_M, QR_MODE_8, 1);
    if (!code)
        return {};
    constexpr int kQuietZone = 4;
    const int modules = code->width + 2 * kQuietZone;
    QImage image(modules * scale, modules * scale, QImage::Format_Grayscale8);
    image.fill(255);
    for (int y = 0; y < code->width; ++y) {
        for (int x = 0; x < code->width; ++x) {
            if (!(code->data[y * code->width + x] & 1))
                continue;
            for (int dy = 0; dy < scale; ++dy) {
                uchar *line = image.scanLine((y + kQuietZone) * scale + dy);
                std::fill_n(line + (x + kQuietZone) * scale, scale, uchar(0));
            }
        }
    }
    QRcode_free(code);
    return image;
}

// --- private --------------------------------------------------------------------------

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
    ++attemptId;
    exchange.reset();
    if (dialog) {
        ZDAlertView *open = dialog;
        dialog = nullptr;
        open->setDelegate(nullptr);
        if (open->isVisibleAlert())
            open->dismissWithClickedButtonIndex(open->cancelButtonIndex(), false);
        else
            open->deleteLater();
    }
    if (listener)
        listener->close();
    listener = nullptr;
    pollTimer = nullptr;
    if (QObject *old = attempt.release()) {
        // We may be inside one of its timers' signals: stop them, delete later.
        for (QTimer *timer : old->findChildren<QTimer *>())
            timer->stop();
        old->deleteLater();
    }
    expectedState.clear();
    codeVerifier.clear();
    deviceCode.clear();
    password.clear();
}

void ZDOAuth2AuthenticatorPrivate::fail(const ZDError &error, const char *sentenceKey)
{
    stopAttempt();
    lastError = error;
    lastFailureKey = sentenceKey ? sentenceKey : failureSentenceKey(error, flow);
    q->m_authenticatorState = ZDAuthenticatorStateSignedOut;
    q->_notifyStateChange();
    q->_notifyFailure();
}

void ZDOAuth2AuthenticatorPrivate::startBrowser()
{
    listener = new QTcpServer(attempt.get());
    listener->setMaxPendingConnections(4);
    if (!listener->listen(QHostAddress::LocalHost, 0)) {
        fail(oauthError(ZDOAuth2ErrorListenerFailed,
                        QStringLiteral("No loopback port to receive the sign-in on: %1")
                            .arg(listener->errorString())));
        return;
    }
    QObject::connect(listener, &QTcpServer::newConnection, attempt.get(), [this] {
        while (listener && listener->hasPendingConnections())
            acceptRedirect(listener->nextPendingConnection());
    });
    auto *timeout = new QTimer(attempt.get());
    timeout->setSingleShot(true);
    QObject::connect(timeout, &QTimer::timeout, attempt.get(), [this] {
        fail(oauthError(ZDOAuth2ErrorTimedOut,
                        QStringLiteral("The browser did not come back in time.")));
    });
    timeout->start(browserTimeoutMs);

    codeVerifier = randomToken(32);
    expectedState = randomToken(16);
    redirectUri = QStringLiteral("http://127.0.0.1:%1%2")
                      .arg(listener->serverPort())
                      .arg(configuration.redirectPath);
    QUrl url = configuration.authorizationEndpoint;
    QUrlQuery query(url);
    const auto add = [&](const QString &key, const QString &value) {
        query.addQueryItem(key, QString::fromLatin1(QUrl::toPercentEncoding(value)));
    };
    add(QStringLiteral("response_type"), QStringLiteral("code"));
    add(QStringLiteral("client_id"), configuration.clientId);
    add(QStringLiteral("redirect_uri"), redirectUri);
    if (!configuration.scopes.isEmpty())
        add(QStringLiteral("scope"), scopeString());
    add(QStringLiteral("state"), expectedState);
    add(QStringLiteral("code_challenge"),
        ZDOAuth2Authenticator::codeChallengeForVerifier(codeVerifier));
    add(QStringLiteral("code_challenge_method"), QStringLiteral("S256"));
    for (auto it = configuration.extraAuthorizationParameters.cbegin();
         it != configuration.extraAuthorizationParameters.cend(); ++it)
        add(it.key(), ZDAdditions::textualDescription(it.value()));
    url.setQuery(query.query(QUrl::FullyEncoded), QUrl::StrictMode);
    if (!ZDDevice::openURL(url))
        fail(oauthError(ZDOAuth2ErrorBrowserUnavailable,
                        QStringLiteral("No browser could open the sign-in page.")));
}

// Answers the browser with a small page and closes the connection. Touches
// nothing of the authenticator, which may be gone by then.
static void answerBrowser(QTcpSocket *socket, int status, const QString &title, const QString &text)
{
    const QByteArray body = "<!DOCTYPE html><html><head><meta charset=\"utf-8\"><title>" +
                            title.toHtmlEscaped().toUtf8() + "</title></head><body><p>" +
                            text.toHtmlEscaped().toUtf8() + "</p></body></html>";
    const QByteArray reason = status == 200 ? "OK" : status == 404 ? "Not Found" : "Bad Request";
    socket->write("HTTP/1.1 " + QByteArray::number(status) + ' ' + reason +
                  "\r\nContent-Type: text/html; charset=utf-8\r\nContent-Length: " +
                  QByteArray::number(body.size()) +
                  "\r\nCache-Control: no-store\r\nConnection: close\r\n\r\n" + body);
    socket->disconnectFromHost();
}

void ZDOAuth2AuthenticatorPrivate::acceptRedirect(QTcpSocket *socket)
{
    // The socket outlives the attempt only as long as it needs to send its answer.
    socket->setParent(nullptr);
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    QObject::connect(
        socket, &QTcpSocket::readyRead, socket,
        [this, socket, id = attemptId, owner = QPointer<QObject>(context.get())] {
            if (socket->property("answered").toBool())
                return;
            if (socket->bytesAvailable() > kMaxRedirectRequest) {
                socket->setProperty("answered", true);
                socket->abort();
                return;
            }
            const QByteArray head = socket->peek(kMaxRedirectRequest);
            if (!head.contains("\r\n\r\n"))
                return;
            socket->setProperty("answered", true);
            const QList<QByteArray> requestLine = head.left(head.indexOf("\r\n")).split(' ');
            if (!owner || id != attemptId || !listener) { // the attempt is over
                answerBrowser(socket, 400, QString(), localized("OAUTH2_BROWSER_EXPIRED"));
                return;
            }
            const QUrl target(QString::fromLatin1(requestLine.value(1)));
            if (requestLine.value(0) != "GET" || target.path() != configuration.redirectPath) {
                answerBrowser(socket, 404, configuration.serviceName, QString());
                return;
            }
            const QUrlQuery query(target);
            const auto value = [&](const char *key) {
                return query.queryItemValue(QString::fromLatin1(key), QUrl::FullyDecoded);
            };
            if (value("state") != expectedState || !query.hasQueryItem(QStringLiteral("state"))) {
                answerBrowser(socket, 400, configuration.serviceName,
                              localized("OAUTH2_BROWSER_FAILED"));
                fail(oauthError(ZDOAuth2ErrorStateMismatch,
                                QStringLiteral("The sign-in redirect was not the one asked for.")));
                return;
            }
            if (!value("error").isEmpty()) {
                answerBrowser(socket, 200, configuration.serviceName,
                              localized("OAUTH2_BROWSER_FAILED"));
                const QString code = value("error");
                fail(oauthError(code == QLatin1String("access_denied") ? ZDOAuth2ErrorDenied
                                                                       : ZDOAuth2ErrorRefused,
                                QStringLiteral("The sign-in was refused (%1).").arg(code), code));
                return;
            }
            const QString code = value("code");
            if (code.isEmpty()) {
                answerBrowser(socket, 400, configuration.serviceName,
                              localized("OAUTH2_BROWSER_FAILED"));
                fail(oauthError(ZDOAuth2ErrorBadAnswer,
                                QStringLiteral("The sign-in redirect carries no code.")));
                return;
            }
            answerBrowser(socket, 200, configuration.serviceName, localized("OAUTH2_BROWSER_DONE"));
            listener->close(); // one redirect only
            exchangeCode(code);
        });
}

void ZDOAuth2AuthenticatorPrivate::exchangeCode(const QString &code)
{
    QVariantMap params = clientParams();
    params.insert(QStringLiteral("grant_type"), QStringLiteral("authorization_code"));
    params.insert(QStringLiteral("code"), code);
    params.insert(QStringLiteral("redirect_uri"), redirectUri);
    params.insert(QStringLiteral("code_verifier"), codeVerifier);
    exchange = std::make_unique<ZDOAuth2Exchange>(
        configuration.tokenEndpoint, params, QList<std::pair<QString, QString>>{},
        [this](const ZDOAuth2Reply &reply) { finishSignIn(reply); });
}

void ZDOAuth2AuthenticatorPrivate::startDevice()
{
    QVariantMap params = clientParams();
    if (!configuration.scopes.isEmpty())
        params.insert(QStringLiteral("scope"), scopeString());
    exchange = std::make_unique<ZDOAuth2Exchange>(
        configuration.deviceAuthorizationEndpoint, params, QList<std::pair<QString, QString>>{},
        [this](const ZDOAuth2Reply &reply) {
            if (!reply.ok) {
                fail(errorForReply(reply, QStringLiteral("the device sign-in")));
                return;
            }
            deviceCode = reply.object.value(QStringLiteral("device_code")).toString();
            const QString userCode = reply.object.value(QStringLiteral("user_code")).toString();
            const QString address =
                reply.object.value(QStringLiteral("verification_uri")).toString();
            QString complete =
                reply.object.value(QStringLiteral("verification_uri_complete")).toString();
            if (deviceCode.isEmpty() || userCode.isEmpty() || address.isEmpty()) {
                fail(oauthError(ZDOAuth2ErrorBadAnswer,
                                QStringLiteral("The device sign-in answer is incomplete.")));
                return;
            }
            if (complete.isEmpty())
                complete = address;
            pollInterval = qMax(1, reply.object.value(QStringLiteral("interval"), 5).toInt());
            const int lifetime = reply.object.value(QStringLiteral("expires_in"), 600).toInt();
            auto *expiry = new QTimer(attempt.get());
            expiry->setSingleShot(true);
            QObject::connect(expiry, &QTimer::timeout, attempt.get(), [this] {
                fail(oauthError(ZDOAuth2ErrorTimedOut, QStringLiteral("The device code expired."),
                                QStringLiteral("expired_token")));
            });
            expiry->start(qMax(1, lifetime) * 1000);

            auto *alert = new ZDAlertView(configuration.serviceName,
                                          localized("OAUTH2_DEVICE_MESSAGE").arg(address, userCode),
                                          nullptr, localized("CANCEL"));
            alert->setObjectName(QStringLiteral("deviceCodeDialog"));
            alert->setImage(zdQRCodeImage(complete), localized("OAUTH2_DEVICE_QR_DESCRIPTION"));
            dialog = alert;
            listen(alert, [this](ZDAlertView *, int) {
                dialog = nullptr;
                fail(oauthError(ZDOAuth2ErrorCancelled,
                                QStringLiteral("The device sign-in was cancelled.")));
            });
            alert->show();

            pollTimer = new QTimer(attempt.get());
            pollTimer->setSingleShot(true);
            pollTimer->setTimerType(Qt::PreciseTimer); // the interval is a minimum
            QObject::connect(pollTimer, &QTimer::timeout, attempt.get(), [this] { pollDevice(); });
            pollTimer->start(pollInterval * 1000);
        });
}

void ZDOAuth2AuthenticatorPrivate::pollDevice()
{
    QVariantMap params = clientParams();
    params.insert(QStringLiteral("grant_type"), kDeviceGrant);
    params.insert(QStringLiteral("device_code"), deviceCode);
    exchange = std::make_unique<ZDOAuth2Exchange>(
        configuration.tokenEndpoint, params, QList<std::pair<QString, QString>>{},
        [this](const ZDOAuth2Reply &reply) {
            if (reply.oauthError == QLatin1String("authorization_pending") ||
                reply.oauthError == QLatin1String("slow_down")) {
                if (reply.oauthError == QLatin1String("slow_down"))
                    pollInterval += kSlowDownSeconds;
                exchange.reset();
                pollTimer->start(pollInterval * 1000);
                return;
            }
            finishSignIn(reply);
        });
}

void ZDOAuth2AuthenticatorPrivate::startPassword(const QString &user, const QString &secret,
                                                 const QString &factor)
{
    username = user;
    password = secret;
    QVariantMap params = clientParams();
    params.insert(QStringLiteral("grant_type"), QStringLiteral("password"));
    params.insert(QStringLiteral("username"), user);
    params.insert(QStringLiteral("password"), secret);
    if (!configuration.scopes.isEmpty())
        params.insert(QStringLiteral("scope"), scopeString());
    QList<std::pair<QString, QString>> headers;
    if (!factor.isEmpty() && !factorHeader.isEmpty())
        headers.append({factorHeader, factor});
    exchange = std::make_unique<ZDOAuth2Exchange>(
        configuration.tokenEndpoint, params, headers, [this, factor](const ZDOAuth2Reply &reply) {
            if (!factor.isEmpty() && !reply.ok && !reply.oauthError.isEmpty()) {
                // The password passed before the factor was asked for: a
                // refusal now is the code's.
                fail(errorForReply(reply, QStringLiteral("the second factor")),
                     "OAUTH2_FAILED_SECOND_FACTOR");
                return;
            }
            if (reply.ok || !factorRequired || !reply.response ||
                !factorRequired(*reply.response, reply.object)) {
                finishSignIn(reply);
                return;
            }
            if (!factor.isEmpty()) {
                fail(oauthError(ZDOAuth2ErrorRefused,
                                QStringLiteral("The service refused the second factor.")),
                     "OAUTH2_FAILED_SECOND_FACTOR");
                return;
            }
            exchange.reset();
            auto *alert = new ZDAlertView(configuration.serviceName,
                                          localized("OAUTH2_SECOND_FACTOR_MESSAGE"), nullptr,
                                          localized("CANCEL"), {localized("OAUTH2_SIGN_IN")});
            alert->setObjectName(QStringLiteral("secondFactorDialog"));
            alert->setAlertViewStyle(ZDAlertView::Style::PlainTextInput);
            dialog = alert;
            listen(alert, [this](ZDAlertView *view, int index) {
                dialog = nullptr;
                const QString code =
                    view->textFieldAtIndex(0) ? view->textFieldAtIndex(0)->text() : QString();
                if (index == view->cancelButtonIndex() || code.isEmpty()) {
                    fail(oauthError(ZDOAuth2ErrorCancelled,
                                    QStringLiteral("The second factor was not given.")),
                         "OAUTH2_FAILED_NO_SECOND_FACTOR");
                    return;
                }
                startPassword(username, password, code);
            });
            alert->setReturnKeyAction(alert, [alert] {
                alert->dismissWithClickedButtonIndex(alert->firstOtherButtonIndex(), true);
            });
            alert->show();
        });
}

std::optional<ZDOAuth2Tokens>
ZDOAuth2AuthenticatorPrivate::tokensFromReply(const ZDOAuth2Reply &reply,
                                              const ZDOAuth2Tokens &previous) const
{
    const QString type = reply.object.value(QStringLiteral("token_type")).toString();
    ZDOAuth2Tokens result = previous;
    result.accessToken = reply.object.value(QStringLiteral("access_token")).toString();
    if (result.accessToken.isEmpty() || type.compare(QLatin1String("bearer"), Qt::CaseInsensitive))
        return std::nullopt;
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
    if (!reply.ok) {
        fail(errorForReply(reply, QStringLiteral("the sign-in")));
        return;
    }
    auto signedIn = tokensFromReply(reply, {});
    if (!signedIn) {
        fail(oauthError(ZDOAuth2ErrorBadAnswer,
                        QStringLiteral("The sign-in answer holds no bearer token.")));
        return;
    }
    signedIn->account = q->accountNameForTokenResponse(reply.object);
    if (store && !store->save(configuration.storeKey, signedIn->serialized())) {
        fail(oauthError(ZDOAuth2ErrorStoreFailed,
                        QStringLiteral("The sign-in could not be stored.")));
        return;
    }
    stopAttempt();
    tokens = signedIn;
    lastError = ZDError();
    lastFailureKey = nullptr;
    q->m_account = signedIn->account;
    q->m_authenticatorState = ZDAuthenticatorStateSignedIn;
    q->_notifyStateChange();
}

void ZDOAuth2AuthenticatorPrivate::refresh()
{
    if (refreshExchange)
        return;
    if (!tokens || tokens->refreshToken.isEmpty()) {
        signOutAfterRefusal(
            oauthError(ZDOAuth2ErrorRefused,
                       QStringLiteral("The access token expired and cannot be renewed.")));
        return;
    }
    QVariantMap params = clientParams();
    params.insert(QStringLiteral("grant_type"), QStringLiteral("refresh_token"));
    params.insert(QStringLiteral("refresh_token"), tokens->refreshToken);
    refreshExchange = std::make_unique<ZDOAuth2Exchange>(
        configuration.tokenEndpoint, params, QList<std::pair<QString, QString>>{},
        [this](const ZDOAuth2Reply &reply) {
            const auto done = std::move(refreshExchange); // released when we return
            if (!reply.ok) {
                const ZDError error = errorForReply(reply, QStringLiteral("renewing the sign-in"));
                if (!reply.oauthError.isEmpty())
                    signOutAfterRefusal(error);
                else
                    answerWaiting(error);
                return;
            }
            const auto renewed = tokens ? tokensFromReply(reply, *tokens) : std::nullopt;
            if (!renewed) {
                answerWaiting(
                    oauthError(ZDOAuth2ErrorBadAnswer,
                               QStringLiteral("The renewal answer holds no bearer token.")));
                return;
            }
            // Saved before anything uses it: the old refresh token is dead now.
            if (store && !store->save(configuration.storeKey, renewed->serialized())) {
                signOutAfterRefusal(
                    oauthError(ZDOAuth2ErrorStoreFailed,
                               QStringLiteral("The renewed sign-in could not be stored.")));
                return;
            }
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
    q->m_account.clear();
    q->m_authenticatorState = ZDAuthenticatorStateSignedOut;
    q->_notifyStateChange();
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
    return d->lastFailureKey ? localized(d->lastFailureKey) : QString();
}

std::shared_ptr<RequestSigner> ZDOAuth2Authenticator::accountSigner() const
{
    if (m_authenticatorState != ZDAuthenticatorStateSignedIn || !d->tokens)
        return nullptr;
    return std::make_shared<ZDBearerSigner>(d->tokens->accessToken);
}

quint16 ZDOAuth2Authenticator::redirectPort() const
{
    return d->listener && d->listener->isListening() ? d->listener->serverPort() : 0;
}

ZDAlertView *ZDOAuth2Authenticator::pendingDialog() const
{
    return d->dialog;
}

QString ZDOAuth2Authenticator::codeChallengeForVerifier(const QString &verifier)
{
    return base64Url(QCryptographicHash::hash(verifier.toLatin1(), QCryptographicHash::Sha256));
}

void ZDOAuth2Authenticator::authenticateWithUsernamePassword(const QString &username,
                                                             const QString &password)
{
    d->stopAttempt();
    d->attempt = std::make_unique<QObject>();
    d->lastError = ZDError();
    d->lastFailureKey = nullptr;
    m_authenticatorState = StateSigningIn;
    _notifyStateChange();
    if (m_authenticatorState != StateSigningIn || !d->attempt)
        return; // an observer started or stopped something else
    switch (d->flow) {
    case Flow::Browser:
        d->startBrowser();
        break;
    case Flow::Device:
        d->startDevice();
        break;
    case Flow::Password:
        d->startPassword(username, password, QString());
        break;
    }
}

void ZDOAuth2Authenticator::loadCredentials()
{
    if (m_authenticatorState != ZDAuthenticatorStateSignedIn && d->store) {
        if (const auto bytes = d->store->load(d->configuration.storeKey)) {
            if (const auto stored = ZDOAuth2Tokens::fromSerialized(*bytes)) {
                d->tokens = stored;
                m_account = stored->account;
                m_authenticatorState = ZDAuthenticatorStateSignedIn;
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
    QString message = d->flow == Flow::Browser  ? localized("OAUTH2_BROWSER_SIGN_IN_MESSAGE")
                      : d->flow == Flow::Device ? localized("OAUTH2_DEVICE_SIGN_IN_MESSAGE")
                                                : localized("OAUTH2_PASSWORD_SIGN_IN_MESSAGE");
    // A dialog shown again after a failure says first why the last try failed;
    // the message is what screen readers announce with the dialog.
    if (const QString failure = lastFailureSentence(); !failure.isEmpty())
        message = failure + u'\n' + message;
    const QString button = d->flow == Flow::Browser  ? localized("OAUTH2_CONTINUE_IN_BROWSER")
                           : d->flow == Flow::Device ? localized("OAUTH2_CONTINUE")
                                                     : localized("OAUTH2_SIGN_IN");
    auto *dialog =
        new ZDAlertView(localized("OAUTH2_SIGN_IN_TITLE").arg(d->configuration.serviceName),
                        message, nullptr, localized("CANCEL"), {button});
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
        oauthError(ZDOAuth2ErrorNotSignedIn, QStringLiteral("The account was signed out."));
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
            completion(nullptr, oauthError(ZDOAuth2ErrorNotSignedIn,
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
