#include "auth/ZDAuthenticator.h"

#include "core/ZDAssert.h"
#include "core/ZDNotificationCenter.h"

const QString ZDAuthenticatorStateChangeNotification =
    QStringLiteral("ZDAuthenticatorStateChangeNotification");
const QString ZDAuthenticatorFailureNotification =
    QStringLiteral("ZDAuthenticatorFailureNotification");

ZDAuthenticator::ZDAuthenticator() = default;
ZDAuthenticator::~ZDAuthenticator() = default;

ZDAuthenticator *ZDAuthenticator::sharedAuthenticator()
{
    ZD_ABSTRACT("ZDAuthenticator::sharedAuthenticator");
}

void ZDAuthenticator::authenticateWithUsernamePassword(const QString &, const QString &)
{
    ZD_ABSTRACT("ZDAuthenticator::authenticateWithUsernamePassword");
}

void ZDAuthenticator::requestDidReceiveObject(JSONHTTPRequest *, const QVariant &)
{
    ZD_ABSTRACT("ZDAuthenticator::requestDidReceiveObject");
}

void ZDAuthenticator::loadCredentials()
{
    _notifyStateChange();
}

ZDAlertView *ZDAuthenticator::authenticationDialogWithTargetAction(QObject *, std::function<void()>)
{
    return nullptr;
}

void ZDAuthenticator::invalidateAuthentication()
{
    _setAuthenticatorStateAccount(ZDAuthenticatorStateSignedOut, QString());
}

void ZDAuthenticator::requestDidFailWithError(JSONHTTPRequest *, const ZDError &)
{
    // The request calling us is the one released here; the request layer lets a
    // delegate destroy a request inside its callback.
    m_authenticationRequest.reset();
    _setAuthenticatorStateAccount(ZDAuthenticatorStateSignedOut);
    _notifyFailure();
}

void ZDAuthenticator::_setAuthenticatorStateAccount(ZDAuthenticatorState state,
                                                    const std::optional<QString> &account)
{
    m_authenticatorState = state;
    if (account)
        m_account = *account;
    _notifyStateChange();
}

void ZDAuthenticator::_notifyStateChange()
{
    ZDNotificationCenter::defaultCenter().postNotification(
        ZDAuthenticatorStateChangeNotification, this,
        {{QStringLiteral("state"), qint64(m_authenticatorState)}});
}

void ZDAuthenticator::_notifyFailure()
{
    ZDNotificationCenter::defaultCenter().postNotification(ZDAuthenticatorFailureNotification,
                                                           this);
}
