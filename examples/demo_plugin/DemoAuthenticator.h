#pragma once

#include <auth/ZDAuthenticator.h>
#include <auth/ZDCredentialStore.h>
#include <auth/ZDOAuth2Authenticator.h>
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
    // The same sign-in through the library's OAuth 2.0 authenticator (the
    // service's password grant, bearer tokens renewed as they expire).
    static ZDOAuth2Authenticator *sharedOAuth2Authenticator();
    // The one the form and the uploads use: this one unless the host chose
    // OAuth 2.0 with setUsesOAuth2() before the form appears.
    static ZDAuthenticator *activeAuthenticator();
    static void setUsesOAuth2(bool uses);
    static bool usesOAuth2();
    // Where the plug-in keeps its sign-ins: the system keyring.
    static std::shared_ptr<ZDKeychainCredentialStore> credentialStore();

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
    void save() const;

    QString m_token;
    QString m_tokenSecret;
    QString m_lastFailure;
};
