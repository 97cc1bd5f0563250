#include "DemoAuthenticator.h"

#include "DemoVideo.h"

#include <toolkit/ZDAlertView.h>

#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

DemoAuthenticator *DemoAuthenticator::sharedAuthenticator()
{
    static DemoAuthenticator authenticator;
    return &authenticator;
}

namespace {
const QString kStoreKey = u"account"_s;
bool g_usesOAuth2 = false;
} // namespace

ZDOAuth2Authenticator *DemoAuthenticator::sharedOAuth2Authenticator()
{
    static ZDOAuth2Authenticator authenticator(
        [] {
            ZDOAuth2Configuration configuration;
            configuration.tokenEndpoint = DemoVideo::endpoint(u"oauth2/token"_s);
            configuration.clientId = DemoVideo::consumerKey();
            configuration.serviceName = u"Demo Video"_s;
            configuration.storeKey = u"oauth2"_s;
            return configuration;
        }(),
        ZDOAuth2Authenticator::Flow::Password, credentialStore());
    return &authenticator;
}

ZDAuthenticator *DemoAuthenticator::activeAuthenticator()
{
    if (g_usesOAuth2)
        return sharedOAuth2Authenticator();
    return sharedAuthenticator();
}

void DemoAuthenticator::setUsesOAuth2(bool uses)
{
    g_usesOAuth2 = uses;
}

bool DemoAuthenticator::usesOAuth2()
{
    return g_usesOAuth2;
}

std::shared_ptr<ZDKeychainCredentialStore> DemoAuthenticator::credentialStore()
{
    static const auto store =
        std::make_shared<ZDKeychainCredentialStore>(u"zdpublish-demo-video"_s);
    return store;
}

void DemoAuthenticator::save() const
{
    const QJsonObject stored{
        {u"account"_s, m_account}, {u"token"_s, m_token}, {u"tokenSecret"_s, m_tokenSecret}};
    credentialStore()->save(kStoreKey, QJsonDocument(stored).toJson(QJsonDocument::Compact));
}

void DemoAuthenticator::authenticateWithUsernamePassword(const QString &username,
                                                         const QString &password)
{
    auto signer =
        std::make_shared<ZDOAuth1Signer>(DemoVideo::consumerKey(), DemoVideo::consumerSecret());
    m_authenticationRequest = std::make_unique<JSONHTTPRequest>(
        DemoVideo::endpoint(u"oauth/access_token"_s), this, signer);
    m_authenticationRequest->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    m_authenticationRequest->setResponseType(JSONHTTPResponseTypeFormString);
    m_authenticationRequest->setPostParams(QVariantMap{{u"x_auth_username"_s, username},
                                                       {u"x_auth_password"_s, password},
                                                       {u"x_auth_mode"_s, u"client_auth"_s}});
    _setAuthenticatorStateAccount(StateSigningIn);
    m_authenticationRequest->start();
}

void DemoAuthenticator::requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object)
{
    const QVariantMap answer = object.toMap();
    const QString token = answer.value(u"oauth_token"_s).toString();
    const QString secret = answer.value(u"oauth_token_secret"_s).toString();
    const QString account = answer.value(u"screen_name"_s).toString();
    if (token.isEmpty() || secret.isEmpty()) {
        requestDidFailWithError(request, DemoVideo::error(DemoVideo::ErrorBadAnswer,
                                                          u"The sign-in answer holds no token."_s));
        return;
    }
    m_authenticationRequest.reset();
    m_lastFailure.clear();
    signIn(account.isEmpty() ? u"Demo Video"_s : account, token, secret);
    save();
}

void DemoAuthenticator::loadCredentials()
{
    const QJsonObject stored =
        QJsonDocument::fromJson(credentialStore()->load(kStoreKey).value_or(QByteArray())).object();
    const QString token = stored.value(u"token").toString();
    const QString secret = stored.value(u"tokenSecret").toString();
    if (!token.isEmpty() && !secret.isEmpty())
        signIn(stored.value(u"account").toString(), token, secret);
    else
        ZDAuthenticator::loadCredentials();
}

void DemoAuthenticator::signIn(const QString &account, const QString &token,
                               const QString &tokenSecret)
{
    m_token = token;
    m_tokenSecret = tokenSecret;
    _setAuthenticatorStateAccount(ZDAuthenticatorStateSignedIn, account);
}

void DemoAuthenticator::requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error)
{
    const bool refused =
        error.domain() == JSONHTTPRequestErrorDomain &&
        error.code() == JSONHTTPRequestErrorBadStatus &&
        error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode() == 401;
    if (refused)
        m_lastFailure = u"Demo Video did not accept that user name and password."_s;
    else if (error.domain() == ZDCurlErrorDomain || error.domain() == ZDURLErrorDomain)
        m_lastFailure =
            u"Demo Video could not be reached at %1 (%2). Is the demo service running?"_s.arg(
                DemoVideo::baseURL().toString(), error.localizedDescription());
    else
        m_lastFailure =
            u"Demo Video could not sign you in (%1)."_s.arg(error.localizedDescription());
    ZDAuthenticator::requestDidFailWithError(request, error);
}

ZDAlertView *DemoAuthenticator::authenticationDialogWithTargetAction(QObject *target,
                                                                     std::function<void()> action)
{
    // The demo service has one account; a person trying the demo needs it.
    const QString ask = u"Enter your Demo Video user name and password (this demo: demo and "
                        u"demo-password)."_s;
    auto *dialog = new ZDAlertView(u"Sign in to Demo Video"_s,
                                   m_lastFailure.isEmpty() ? ask : m_lastFailure + u' ' + ask,
                                   nullptr, u"Cancel"_s, {u"Sign In"_s});
    dialog->setAlertViewStyle(ZDAlertView::Style::LoginAndPasswordInput);
    dialog->setReturnKeyAction(target, std::move(action));
    return dialog;
}

void DemoAuthenticator::invalidateAuthentication()
{
    m_token.clear();
    m_tokenSecret.clear();
    credentialStore()->remove(kStoreKey);
    ZDAuthenticator::invalidateAuthentication();
}

std::shared_ptr<ZDOAuth1Signer> DemoAuthenticator::accountSigner() const
{
    if (m_authenticatorState != ZDAuthenticatorStateSignedIn || m_token.isEmpty())
        return nullptr;
    return std::make_shared<ZDOAuth1Signer>(DemoVideo::consumerKey(), DemoVideo::consumerSecret(),
                                            m_token, m_tokenSecret);
}
