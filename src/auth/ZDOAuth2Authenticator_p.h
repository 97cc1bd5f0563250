#pragma once

#include "auth/ZDOAuth2Authenticator.h"

#include <QByteArray>
#include <QDateTime>
#include <QImage>
#include <QObject>
#include <QPointer>
#include <QTimer>

#include <functional>
#include <memory>
#include <optional>

class QTcpServer;
class QTcpSocket;

// The outcome of one request to the token or device endpoint: the parsed JSON
// object, or the failure with whatever the service said about it.
struct ZDOAuth2Reply
{
    bool ok = false;
    QVariantMap object; // the answer's JSON object (also of an error answer)
    QString oauthError; // "error" of an error answer, empty otherwise
    std::optional<ZDHTTPResponse> response;
    ZDError transportError; // set when no OAuth error answer arrived
};

// One form POST to an OAuth endpoint, read as JSON whatever the status.
class ZDOAuth2Exchange : public JSONHTTPRequestDelegate
{
public:
    using Done = std::function<void(const ZDOAuth2Reply &)>;
    ZDOAuth2Exchange(const QUrl &url, const QVariantMap &params,
                     const QList<std::pair<QString, QString>> &headers, Done done);
    ~ZDOAuth2Exchange() override;
    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;

private:
    class Request;
    std::unique_ptr<Request> m_request;
    Done m_done;
    std::unique_ptr<QObject> m_context = std::make_unique<QObject>();
};

// The account's tokens, as stored.
struct ZDOAuth2Tokens
{
    QString account;
    QString accessToken;
    QString refreshToken;
    QDateTime expiry; // invalid: unknown

    QByteArray serialized() const;
    static std::optional<ZDOAuth2Tokens> fromSerialized(const QByteArray &bytes);
};

class ZDOAuth2AuthenticatorPrivate
{
public:
    explicit ZDOAuth2AuthenticatorPrivate(ZDOAuth2Authenticator *owner) : q(owner) {}

    QDateTime now() const { return clock ? clock() : QDateTime::currentDateTimeUtc(); }
    QVariantMap clientParams() const;
    QString scopeString() const { return configuration.scopes.join(QLatin1Char(' ')); }

    // Attempts.
    void stopAttempt();
    // Ends the attempt with `error`. `sentenceKey` names the string-table entry
    // the next sign-in dialog says about it; null: the one the error suggests.
    void fail(const ZDError &error, const char *sentenceKey = nullptr);
    void startBrowser();
    void acceptRedirect(QTcpSocket *socket);
    void exchangeCode(const QString &code);
    void startDevice();
    void pollDevice();
    void startPassword(const QString &username, const QString &password, const QString &factor);
    void finishSignIn(const ZDOAuth2Reply &reply);
    std::optional<ZDOAuth2Tokens> tokensFromReply(const ZDOAuth2Reply &reply,
                                                  const ZDOAuth2Tokens &previous) const;

    // Refresh.
    void refresh();
    void answerWaiting(const std::optional<ZDError> &error);
    void signOutAfterRefusal(const ZDError &error);

    ZDOAuth2Authenticator *q;
    ZDOAuth2Configuration configuration;
    ZDOAuth2Authenticator::Flow flow = ZDOAuth2Authenticator::Flow::Browser;
    std::shared_ptr<ZDCredentialStore> store;
    std::function<QDateTime()> clock;
    int leewaySeconds = 60;
    int browserTimeoutMs = 5 * 60 * 1000;
    QString factorHeader;
    std::function<bool(const ZDHTTPResponse &, const QVariantMap &)> factorRequired;

    std::optional<ZDOAuth2Tokens> tokens;
    ZDError lastError;
    const char *lastFailureKey = nullptr; // string-table key; null after a success

    // The running attempt.
    std::unique_ptr<QObject> attempt; // parent of the listener and the timers
    int attemptId = 0;
    QTcpServer *listener = nullptr;
    QString expectedState;
    QString codeVerifier;
    QString redirectUri;
    std::unique_ptr<ZDOAuth2Exchange> exchange;
    QPointer<ZDAlertView> dialog;
    QString deviceCode;
    int pollInterval = 5;
    QTimer *pollTimer = nullptr;
    QString username;
    QString password;

    // The running refresh and who waits for it.
    std::unique_ptr<ZDOAuth2Exchange> refreshExchange;
    QList<ZDCredentialSource::Completion> waiting;
    std::unique_ptr<QObject> context = std::make_unique<QObject>(); // answers run in its life
};

// A QR code of `text` as a black-on-white image with a quiet zone, `scale`
// pixels per module; null when the text does not fit in a QR code.
QImage zdQRCodeImage(const QString &text, int scale = 4);
