#pragma once

#include "auth/ZDOAuth2Authenticator.h"
#include "net/JSONHTTPRequest.h"

#include <QObject>

#include <functional>
#include <memory>
#include <optional>

// Which request of which flow an exchange is; names it in the log lines and in
// the sentence of a refusal.
enum class ZDOAuth2Step {
    BrowserCode,
    DeviceAuthorization,
    DevicePoll,
    Password,
    SecondFactor,
    Refresh
};

// The outcome of one request to the token or device endpoint, read once: the
// JSON object, or the failure with whatever the service said about it.
struct ZDOAuth2Reply
{
    QVariantMap object; // the answer's JSON object (also of an error answer)
    QString oauthError; // "error" of an error answer, empty otherwise
    std::optional<ZDHTTPResponse> response;
    ZDError error; // null for a JSON object with a success status
    // What the request layer reported (the transport's failure or the bad
    // status), also when the service named an OAuth error; null when it
    // reported none.
    ZDError requestError;

    bool ok() const { return error.isNull(); }
    // The service refused the grant itself (RFC 6749 section 5.2): the grant,
    // or the client, will not be accepted again.
    bool refusesGrant() const;
};

// An error of ZDOAuth2ErrorDomain; `serviceCode` goes under ZDOAuth2ErrorCodeKey.
ZDError zdOAuth2Error(ZDOAuth2Error code, const QString &description,
                      const QString &serviceCode = {});

// The error of a refusal the service named `serviceCode`, for `what` was
// refused ("the sign-in"): ZDOAuth2ErrorDenied for access_denied, else
// ZDOAuth2ErrorRefused. The code goes under ZDOAuth2ErrorCodeKey; the sentence
// names it only when it is a registered OAuth code, since a service may echo
// in "error" what it was sent, a password included.
ZDError zdOAuth2Refusal(const QString &what, const QString &serviceCode);

// One form POST to an OAuth endpoint, read as JSON whatever the status. `done`
// is called once, from the event loop; the exchange may be destroyed inside it.
// Destroying it earlier cancels the request and nothing is called.
class ZDOAuth2Exchange : public JSONHTTPRequestDelegate
{
public:
    using Done = std::function<void(const ZDOAuth2Reply &)>;
    ZDOAuth2Exchange(ZDOAuth2Step step, const QUrl &url, const QVariantMap &params,
                     const QList<std::pair<QString, QString>> &headers, Done done);
    ~ZDOAuth2Exchange() override;
    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;

private:
    void finish(ZDOAuth2Reply reply);

    ZDOAuth2Step m_step;
    QUrl m_endpoint;
    std::unique_ptr<JSONHTTPRequest> m_request;
    Done m_done;
    std::unique_ptr<QObject> m_context = std::make_unique<QObject>();
};
