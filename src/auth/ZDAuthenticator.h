#pragma once

#include "core/zdglobal.h"
#include "net/JSONHTTPRequest.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

class QObject;
class ZDAlertView; // the toolkit's alert view

// Posted by an authenticator after every change of its state; the user info
// holds exactly one entry, "state", the new state as a number. Observers read
// the account name from the authenticator itself.
ZD_EXPORT extern const QString ZDAuthenticatorStateChangeNotification;
// Posted by an authenticator after a sign-in request failed, right after the
// state change to signed out; no user info.
ZD_EXPORT extern const QString ZDAuthenticatorFailureNotification;

// An authenticator's state. 0 is signed out and 2 signed in; any other value is
// a subclass's own (for instance a sign-in in flight) and counts as signed out.
using ZDAuthenticatorState = qintptr;
constexpr ZDAuthenticatorState ZDAuthenticatorStateSignedOut = 0;
constexpr ZDAuthenticatorState ZDAuthenticatorStateSignedIn = 2;

// The base of a video service's account authenticator: whether the user is
// signed in, under which account name, and the announcements of every change
// and every failed sign-in through ZDNotificationCenter::defaultCenter(), with
// the authenticator as sender. It is the delegate of the one request a sign-in
// exchange uses.
//
// A service subclasses it and
// - provides its single shared instance (a static sharedAuthenticator() of its
//   own, which lives for the whole process),
// - starts the sign-in exchange in authenticateWithUsernamePassword(), usually
//   a JSONHTTPRequest with this object as delegate kept in
//   m_authenticationRequest,
// - reads the sign-in answer in requestDidReceiveObject(): on success it sets
//   m_account and m_authenticatorState = 2, releases m_authenticationRequest
//   and calls _notifyStateChange() (_setAuthenticatorStateAccount() does the
//   first and the last in one step),
// - may read stored credentials in loadCredentials() and supply the sign-in
//   dialog in authenticationDialogWithTargetAction().
// After each change of the state a subclass makes, it calls
// _notifyStateChange() so that the form follows.
//
// Notification contract: the base posts a state change after
// invalidateAuthentication() and loadCredentials(); after a failed sign-in
// request it posts the state change first and the failure second, so that an
// observer of both sees the signed-out state before the failure. Notifications
// are delivered synchronously on the calling thread (the main thread).
class ZD_EXPORT ZDAuthenticator : public JSONHTTPRequestDelegate
{
public:
    ZDAuthenticator();
    ~ZDAuthenticator() override;

    // The service's single instance. The base has none: calling it on the base
    // stops the program. A subclass declares its own static sharedAuthenticator().
    static ZDAuthenticator *sharedAuthenticator();

    // Starts the service's sign-in exchange. Abstract: the base stops the program.
    virtual void authenticateWithUsernamePassword(const QString &username, const QString &password);

    // Reads stored credentials and announces the state. The base announces the
    // unchanged state and does nothing else.
    virtual void loadCredentials();

    // The sign-in dialog: an alert view with a user-name field (0) and a password
    // field (1) whose return key runs `action` (while `target` lives). The
    // caller shows it and does not own it: an alert view deletes itself once
    // dismissed. The base has no dialog and returns null.
    virtual ZDAlertView *authenticationDialogWithTargetAction(QObject *target,
                                                              std::function<void()> action);

    // Signs out: state 0, no account, a state-change announcement. Stored
    // credentials, if a subclass keeps any, are the override's business.
    virtual void invalidateAuthentication();

    ZDAuthenticatorState authenticatorState() const { return m_authenticatorState; }
    // The signed-in account's display name; null when signed out.
    QString account() const { return m_account; }

    // Reads the sign-in answer. Abstract: the base stops the program.
    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    // A failed sign-in: releases the request, state 0 (the account stays as it
    // was), then announces the state change and the failure. The error itself
    // is not passed on.
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;

protected:
    void _notifyStateChange();
    void _notifyFailure();
    // Sets the state, and the account unless it is nullopt, then announces the
    // change: the one step a subclass needs for a transition, so that no change
    // goes unannounced.
    void _setAuthenticatorStateAccount(ZDAuthenticatorState state,
                                       const std::optional<QString> &account = std::nullopt);

    // Subclasses may still write them directly, announcing the change themselves.
    ZDAuthenticatorState m_authenticatorState = ZDAuthenticatorStateSignedOut;
    QString m_account;
    std::unique_ptr<JSONHTTPRequest> m_authenticationRequest;
};
