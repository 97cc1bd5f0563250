#pragma once

#include "auth/ZDOAuth2Authenticator.h"

#include <QByteArray>
#include <QDateTime>
#include <QObject>

#include <functional>
#include <memory>
#include <optional>

class ZDOAuth2Attempt;
class ZDOAuth2Exchange;
struct ZDOAuth2Reply;

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
    explicit ZDOAuth2AuthenticatorPrivate(ZDOAuth2Authenticator *owner);
    ~ZDOAuth2AuthenticatorPrivate();

    QDateTime now() const { return clock ? clock() : QDateTime::currentDateTimeUtc(); }
    QVariantMap clientParams() const;
    QString scopeString() const { return configuration.scopes.join(QLatin1Char(' ')); }

    // Attempts.
    void stopAttempt();
    // Ends the attempt with `error`. `sentenceKey` names the string-table entry
    // the next sign-in dialog says about it; null: the one the error suggests.
    void fail(const ZDError &error, const char *sentenceKey = nullptr);
    // Ends the attempt with the token answer `reply`.
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

    std::unique_ptr<ZDOAuth2Attempt> attempt; // the running sign-in, if any

    // The running refresh and who waits for it.
    std::unique_ptr<ZDOAuth2Exchange> refreshExchange;
    QList<ZDCredentialSource::Completion> waiting;
    std::unique_ptr<QObject> context = std::make_unique<QObject>(); // answers run in its life
};

// Bytes in the URL-safe base64 without padding that OAuth uses (RFC 7636 appendix A).
QString zdBase64Url(const QByteArray &bytes);
// The string-table entry `key`.
QString zdLocalized(const char *key);
