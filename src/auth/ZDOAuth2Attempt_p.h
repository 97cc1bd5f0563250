#pragma once

#include "auth/ZDOAuth2Exchange_p.h"
#include "auth/ZDRedirectReceiver_p.h"

#include <QObject>
#include <QPointer>

#include <functional>
#include <memory>

class QTimer;
class ZDAlertView;
class ZDOAuth2AuthenticatorPrivate;

// One try at signing in, owning everything of its flow: its exchange, timers,
// dialog and listener. It ends through the authenticator (finishSignIn() or
// fail()), which stops it; a stopped attempt calls nothing any more and is
// deleted later, since it may be inside one of its own callbacks.
class ZDOAuth2Attempt : public QObject
{
public:
    explicit ZDOAuth2Attempt(ZDOAuth2AuthenticatorPrivate &authenticator) : d(authenticator) {}
    ~ZDOAuth2Attempt() override;

    virtual void start() = 0;
    virtual void stop();

    ZDAlertView *dialog() const { return m_dialog; }
    virtual quint16 redirectPort() const { return 0; }

protected:
    void send(ZDOAuth2Step step, const QUrl &url, const QVariantMap &params,
              ZDOAuth2Exchange::Done done, const QList<std::pair<QString, QString>> &headers = {});
    // A single-shot timer of this attempt; stopped with it.
    QTimer *makeTimer(std::function<void()> onTimeout);
    // Shows `alert` (owned by itself) as this attempt's dialog; `onDismiss` runs
    // when the user dismisses it, never when the attempt closes it.
    void showDialog(ZDAlertView *alert, std::function<void(ZDAlertView *, int)> onDismiss);

    ZDOAuth2AuthenticatorPrivate &d;
    std::unique_ptr<ZDOAuth2Exchange> m_exchange;

private:
    QPointer<ZDAlertView> m_dialog;
};

// The authorization code grant with PKCE through the system browser.
class ZDOAuth2BrowserAttempt : public ZDOAuth2Attempt
{
public:
    using ZDOAuth2Attempt::ZDOAuth2Attempt;
    void start() override;
    void stop() override;
    quint16 redirectPort() const override;

private:
    ZDRedirectPage acceptRedirect(const QUrlQuery &query);
    void exchangeCode(const QString &code);

    ZDRedirectReceiver *m_receiver = nullptr;
    QString m_state;
    QString m_codeVerifier;
    QString m_redirectUri;
};

// The device authorization grant: a code shown to the user, the token endpoint polled.
class ZDOAuth2DeviceAttempt : public ZDOAuth2Attempt
{
public:
    using ZDOAuth2Attempt::ZDOAuth2Attempt;
    void start() override;

private:
    void authorized(const ZDOAuth2Reply &reply);
    void poll();

    QString m_deviceCode;
    int m_pollSeconds = 0;
    QTimer *m_pollTimer = nullptr;
};

// The resource owner password grant, with a second factor when the service asks.
class ZDOAuth2PasswordAttempt : public ZDOAuth2Attempt
{
public:
    ZDOAuth2PasswordAttempt(ZDOAuth2AuthenticatorPrivate &authenticator, const QString &username,
                            const QString &password);
    void start() override;

private:
    void sendGrant(const QString &factor);
    void answered(const ZDOAuth2Reply &reply, bool withFactor);
    void askForFactor();

    QString m_username;
    QString m_password;
};
