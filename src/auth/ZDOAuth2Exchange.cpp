#include "auth/ZDOAuth2Exchange_p.h"

#include "auth/ZDBearerSigner.h"
#include "core/ZDLogging_p.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QTimer>

namespace {

const char *stepName(ZDOAuth2Step step)
{
    switch (step) {
    case ZDOAuth2Step::BrowserCode:
        return "browser sign-in: code exchange";
    case ZDOAuth2Step::DeviceAuthorization:
        return "device sign-in: authorization";
    case ZDOAuth2Step::DevicePoll:
        return "device sign-in: poll";
    case ZDOAuth2Step::Password:
        return "password sign-in";
    case ZDOAuth2Step::SecondFactor:
        return "password sign-in: second factor";
    case ZDOAuth2Step::Refresh:
        return "refresh";
    }
    return "";
}

// What a refusal of the step is called in its error's sentence.
QString refusedWhat(ZDOAuth2Step step)
{
    switch (step) {
    case ZDOAuth2Step::DeviceAuthorization:
        return QStringLiteral("the device sign-in");
    case ZDOAuth2Step::SecondFactor:
        return QStringLiteral("the second factor");
    case ZDOAuth2Step::Refresh:
        return QStringLiteral("renewing the sign-in");
    default:
        return QStringLiteral("the sign-in");
    }
}

// The codes the OAuth registry defines for token, authorization and device
// answers (RFC 6749 sections 4.1.2.1 and 5.2, RFC 8628 section 3.5). Anything
// else a service sends may be an echo of what it was sent.
bool isRegisteredCode(const QString &code)
{
    static const QStringList kCodes{
        QStringLiteral("invalid_request"),        QStringLiteral("invalid_client"),
        QStringLiteral("invalid_grant"),          QStringLiteral("unauthorized_client"),
        QStringLiteral("unsupported_grant_type"), QStringLiteral("invalid_scope"),
        QStringLiteral("access_denied"),          QStringLiteral("unsupported_response_type"),
        QStringLiteral("server_error"),           QStringLiteral("temporarily_unavailable"),
        QStringLiteral("authorization_pending"),  QStringLiteral("slow_down"),
        QStringLiteral("expired_token")};
    return kCodes.contains(code);
}

} // namespace

ZDError zdOAuth2Refusal(const QString &what, const QString &serviceCode)
{
    // Nor does it use "error_description", which may echo the request as well.
    const QString sentence =
        isRegisteredCode(serviceCode)
            ? QStringLiteral("The service refused %1 (%2).").arg(what, serviceCode)
            : QStringLiteral("The service refused %1.").arg(what);
    return zdOAuth2Error(serviceCode == QLatin1String("access_denied") ? ZDOAuth2ErrorDenied
                                                                       : ZDOAuth2ErrorRefused,
                         sentence, serviceCode);
}

bool ZDOAuth2Reply::refusesGrant() const
{
    const int status = response ? response->statusCode() : 0;
    return (status == 400 || status == 401) && (oauthError == QLatin1String("invalid_grant") ||
                                                oauthError == QLatin1String("invalid_client") ||
                                                oauthError == QLatin1String("unauthorized_client"));
}

ZDError zdOAuth2Error(ZDOAuth2Error code, const QString &description, const QString &serviceCode)
{
    QVariantMap info{{ZDLocalizedDescriptionKey, description}};
    if (!serviceCode.isEmpty())
        info.insert(ZDOAuth2ErrorCodeKey, serviceCode);
    return ZDError(ZDOAuth2ErrorDomain, code, info);
}

ZDOAuth2Exchange::ZDOAuth2Exchange(ZDOAuth2Step step, const QUrl &url, const QVariantMap &params,
                                   const QList<std::pair<QString, QString>> &headers, Done done)
    : m_step(step),
      // Logged without its query: a service may put anything there.
      m_endpoint(url.adjusted(QUrl::RemoveQuery | QUrl::RemoveFragment | QUrl::RemoveUserInfo)),
      m_done(std::move(done))
{
    m_request = std::make_unique<JSONHTTPRequest>(url, this);
    m_request->setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    m_request->setPostParams(params);
    m_request->setHTTPHeaderValue(QStringLiteral("Accept"), QStringLiteral("application/json"));
    for (const auto &[name, value] : headers)
        m_request->setHTTPHeaderValue(name, value);
    if (!ZDBearerSigner::mayCarryToken(url)) {
        // Grants and secrets never travel over plain http to another host.
        QTimer::singleShot(0, m_context.get(), [this] {
            ZDOAuth2Reply reply;
            reply.error = zdOAuth2Error(
                ZDOAuth2ErrorBadAnswer,
                QStringLiteral("The service's sign-in address is not https; nothing was sent."));
            finish(std::move(reply));
        });
        return;
    }
    m_request->start();
}

ZDOAuth2Exchange::~ZDOAuth2Exchange() = default;

void ZDOAuth2Exchange::requestDidReceiveObject(JSONHTTPRequest *, const QVariant &object)
{
    ZDOAuth2Reply reply;
    reply.response = m_request->response();
    reply.object = object.toMap();
    if (object.typeId() != QMetaType::QVariantMap)
        reply.error = zdOAuth2Error(ZDOAuth2ErrorBadAnswer,
                                    QStringLiteral("The service's answer is not an object."));
    finish(std::move(reply));
}

void ZDOAuth2Exchange::requestDidFailWithError(JSONHTTPRequest *, const ZDError &error)
{
    ZDOAuth2Reply reply;
    reply.response = m_request->response();
    reply.error = error;
    reply.requestError = error;
    const auto &body = m_request->responseBody();
    if (error.domain() == JSONHTTPRequestErrorDomain &&
        error.code() == JSONHTTPRequestErrorBadStatus && body) {
        reply.object = QJsonDocument::fromJson(*body).object().toVariantMap();
        reply.oauthError = reply.object.value(QStringLiteral("error")).toString();
    }
    if (!reply.oauthError.isEmpty())
        reply.error = zdOAuth2Refusal(refusedWhat(m_step), reply.oauthError);
    finish(std::move(reply));
}

void ZDOAuth2Exchange::finish(ZDOAuth2Reply reply)
{
    if (!reply.ok()) {
        qCDebug(lcZDAuth).nospace()
            << stepName(m_step) << " failed at " << m_endpoint.toDisplayString() << ": status "
            << (reply.response ? reply.response->statusCode() : 0) << ", "
            << (reply.oauthError.isEmpty()           ? "no OAuth error"
                : isRegisteredCode(reply.oauthError) ? qPrintable(reply.oauthError)
                                                     : "an unregistered OAuth error")
            << ", " << reply.error.domain() << ' ' << reply.error.code();
    } else {
        qCDebug(lcZDAuth).nospace()
            << stepName(m_step) << " answered by " << m_endpoint.toDisplayString();
    }
    const Done done = m_done; // we may be destroyed inside
    done(reply);
}
