#pragma once

#include <auth/ZDAuthenticator.h>
#include <net/ZDOAuth1Signer.h>

#include <memory>

// Signs in to Demo Video: exchanges the user's name and password for an OAuth
// token (one signed form POST answered with a form string), keeps the token in
// the credential store and signs the plug-in's uploads with it.
//
// A host calls loadCredentials() once when it loads the plug-in: the keyring is
// read then, and the form's own call as it appears answers from memory.
class DemoAuthenticator : public ZDAuthenticator
{
public:
    // While the exchange is in flight; counts as signed out.
    static constexpr ZDAuthenticatorState StateSigningIn = 1;

    static DemoAuthenticator *sharedAuthenticator();

    void authenticateWithUsernamePassword(const QString &username,
                                          const QString &password) override;
    void loadCredentials() override;
    ZDAlertView *authenticationDialogWithTargetAction(QObject *target,
                                                      std::function<void()> action) override;
    void invalidateAuthentication() override;

    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    // Notes why the sign-in failed before the form hears of it, so that the
    // next dialog tells an unreachable service from a refused password.
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;

    // Why the last sign-in failed; empty after a success or before any.
    QString lastFailure() const { return m_lastFailure; }

    // A signer for requests made on the signed-in account's behalf; null when
    // signed out.
    std::shared_ptr<ZDOAuth1Signer> accountSigner() const;

private:
    void signIn(const QString &account, const QString &token, const QString &tokenSecret);

    QString m_token;
    QString m_tokenSecret;
    QString m_lastFailure;
};
