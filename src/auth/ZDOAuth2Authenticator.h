#pragma once

#include "auth/ZDAuthenticator.h"
#include "auth/ZDCredentialStore.h"
#include "core/ZDError.h"
#include "core/zdglobal.h"
#include "net/ZDCredentialSource.h"

#include <QDateTime>
#include <QStringList>
#include <QUrl>
#include <QVariantMap>

#include <functional>
#include <memory>

class ZDOAuth2AuthenticatorPrivate;

// The error domain of ZDOAuth2Authenticator's own failures. Descriptions never
// hold a token, a code or a secret; an error the service named keeps its name
// (for instance "access_denied") under ZDOAuth2ErrorCodeKey, and the description
// names it only when it is one of the registered OAuth error codes.
ZD_EXPORT extern const QString ZDOAuth2ErrorDomain;
ZD_EXPORT extern const QString ZDOAuth2ErrorCodeKey;
enum ZDOAuth2Error : qint32 {
    ZDOAuth2ErrorBrowserUnavailable = 1, // nothing could open the sign-in page
    ZDOAuth2ErrorListenerFailed = 2,     // no loopback port to listen on
    ZDOAuth2ErrorStateMismatch = 3,      // the redirect's state was not ours
    ZDOAuth2ErrorDenied = 4,             // the user or the service refused
    ZDOAuth2ErrorTimedOut = 5,           // the browser or the device never came back
    ZDOAuth2ErrorBadAnswer = 6,          // the service's answer made no sense
    ZDOAuth2ErrorRefused = 7,            // the service refused a grant (invalid_grant...)
    ZDOAuth2ErrorNotSignedIn = 8,        // credentials asked for while signed out
    ZDOAuth2ErrorCancelled = 9,          // the user cancelled a dialog of the sign-in
    ZDOAuth2ErrorStoreFailed = 10,       // the credential store could not keep the tokens
};

// What a service tells the authenticator about itself.
struct ZD_EXPORT ZDOAuth2Configuration
{
    QUrl authorizationEndpoint;       // browser sign-in
    QUrl tokenEndpoint;               // every flow
    QUrl deviceAuthorizationEndpoint; // device sign-in
    QString clientId;
    // Only for services that insist on one; a native app cannot keep it secret.
    // It is sent in the token requests' bodies (client_secret_post).
    QString clientSecret;
    QStringList scopes;
    // Added to the browser's authorization address (for instance "prompt").
    QVariantMap extraAuthorizationParameters;
    // Added to every token request's body.
    QVariantMap extraTokenParameters;
    // The path of the loopback redirect, http://127.0.0.1:<port><path>.
    QString redirectPath = QStringLiteral("/callback");
    // Shown in the dialogs, and the account name when the service names none.
    QString serviceName;
    // The credential store's key for this service's tokens.
    QString storeKey = QStringLiteral("oauth2");
};

// A ready OAuth 2.0 account authenticator for native applications. A plug-in
// configures it with its service's endpoints and chooses one way to sign in:
//
// - Browser: the authorization code grant with PKCE (S256) through the system
//   browser (ZDDevice::openURL()) and a loopback redirect. The listener binds
//   127.0.0.1 only, on a free port, answers exactly one redirect to the
//   redirect path with a small page and closes; a redirect whose state differs
//   from the one sent ends the attempt. A browser that has not come back after
//   browserTimeout() ends it too.
// - Device: the device authorization grant. The user code and the address are
//   shown in a dialog of the authenticator's own, with a QR code of the complete
//   address; the token endpoint is polled at the interval the service gives, 5
//   seconds slower after each slow_down; expired_token, access_denied and any
//   other error end the attempt, and so does the dialog's cancel button.
// - Password: the resource owner password grant, with an optional second factor
//   (setSecondFactor()): when the service says the factor is missing, a dialog
//   asks for it and the grant is sent again with it in a header.
//
// The sign-in dialog (authenticationDialogWithTargetAction()) fits the form's
// flow: for the browser and device ways it has a cancel and a continue button
// and no text fields; continuing calls authenticateWithUsernamePassword() with
// empty texts, which starts the attempt. For the password way it has the two
// fields. While an attempt runs the state is StateSigningIn. Success is state 2
// and a state change; every failure is state 0, a state change and then the
// failure notification, as the base defines, with the reason in lastError().
//
// Tokens: saved in the credential store as one value (account, access token,
// refresh token, expiry) before they are used. credentialsForRequest() hands out
// a ZDBearerSigner, refreshing first when the access token expires within
// refreshLeeway() or the service answered 401; concurrent askers share one
// refresh. A rotated refresh token is saved before the new access token is
// handed out. A refresh whose grant the service refuses (400 or 401 with
// invalid_grant, invalid_client or unauthorized_client) signs out: the stored
// tokens are removed, state 0, a state change, the failure notification, and
// every waiting asker gets an error. A refresh that fails for another reason
// (the network, a 5xx or 429 answer, whatever "error" it names) answers the
// askers with the request's own error (JSONHTTPRequestErrorDomain or the
// transport's) and keeps the sign-in and the tokens, so that a passing outage
// does not sign the user out.
//
// Nothing here writes a token, a code, a verifier or a secret to a log line or
// into an error; only the credential store sees them.
//
// Lifetime: usually the plug-in's shared instance, living for the process. It
// may be destroyed while an attempt or a refresh runs: the attempt stops, its
// dialogs close, and waiting askers are not answered (as ZDCredentialSource
// allows). Main thread only.
class ZD_EXPORT ZDOAuth2Authenticator : public ZDAuthenticator, public ZDCredentialSource
{
public:
    enum class Flow { Browser, Device, Password };
    static constexpr ZDAuthenticatorState StateSigningIn = 1;

    // Shares ownership of `store`; a null store keeps tokens in memory.
    ZDOAuth2Authenticator(const ZDOAuth2Configuration &configuration, Flow flow,
                          std::shared_ptr<ZDCredentialStore> store);
    ~ZDOAuth2Authenticator() override;

    const ZDOAuth2Configuration &configuration() const;
    Flow flow() const;
    void setFlow(Flow flow);

    // The time the expiry is measured against; the system clock by default.
    void setClock(std::function<QDateTime()> clock);
    // How long before its expiry an access token is renewed: 60 s by default.
    void setRefreshLeeway(int seconds);
    int refreshLeeway() const;
    // How long the browser way waits for the redirect: 5 minutes by default.
    void setBrowserTimeout(int milliseconds);
    int browserTimeout() const;

    // The second factor of the password way. `isRequired` looks at a refused
    // grant's answer (status, headers, parsed body) and says whether it asks for
    // the factor; the code the user then types is sent in the header `header`.
    void
    setSecondFactor(const QString &header,
                    std::function<bool(const ZDHTTPResponse &, const QVariantMap &)> isRequired);

    // The reason of the last failure (null after a success).
    ZDError lastError() const;
    // The last failure in a sentence for the user, in the library's language
    // ("The service did not accept this user name and password."); empty after
    // a success, a sign-out, or once a new attempt starts. A sign-in dialog made
    // while it is set (the form shows one again after a failure) starts its
    // message with it, so that the dialog, and a screen reader announcing it,
    // says why the last try failed. A refused second factor, a second factor
    // not given and a sign-in the service ended on renewal each have their own.
    QString lastFailureSentence() const;
    // A signer with the current access token, without a freshness check; null
    // when signed out. Work that outlives one token asks credentialsForRequest().
    std::shared_ptr<RequestSigner> accountSigner() const;
    // The loopback port while the browser way waits for the redirect, else 0.
    quint16 redirectPort() const;
    // The dialog the authenticator itself shows (device code, second factor);
    // null when none.
    ZDAlertView *pendingDialog() const;

    // The S256 code challenge of a PKCE code verifier (RFC 7636).
    static QString codeChallengeForVerifier(const QString &verifier);

    // ZDAuthenticator
    void authenticateWithUsernamePassword(const QString &username,
                                          const QString &password) override;
    void loadCredentials() override;
    ZDAlertView *authenticationDialogWithTargetAction(QObject *target,
                                                      std::function<void()> action) override;
    void invalidateAuthentication() override;
    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;

    // ZDCredentialSource
    void credentialsForRequest(Reason reason, Completion completion) override;

protected:
    // The account's display name from a successful token answer: its
    // "username", "preferred_username" or "name", then the same claims of an
    // unverified ID token (only shown, never trusted), then the service name.
    virtual QString accountNameForTokenResponse(const QVariantMap &response) const;

private:
    friend class ZDOAuth2AuthenticatorPrivate;
    std::unique_ptr<ZDOAuth2AuthenticatorPrivate> d;
};
