#include "DemoOAuth2.h"

#include "DemoHttp.h"
#include "DemoVideoService.h"

#include <QDateTime>
#include <QJsonObject>

using namespace Qt::StringLiterals;
using namespace DemoHttp;

namespace DemoOAuth2 {

namespace {

constexpr QStringView kTokenAlphabet =
    u"abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789";

void replyError(httplib::Response &res, int status, const QString &error)
{
    replyJson(res, status, QJsonObject{{u"error"_s, error}});
}

} // namespace

void Issuer::issue(httplib::Response &res, const QString &account)
{
    const QString access = randomString(40, kTokenAlphabet);
    const QString refresh = randomString(40, kTokenAlphabet);
    {
        const std::lock_guard lock(m_mutex);
        const int lifetime = m_tokensDieAfter > 0 ? m_tokensDieAfter : kAccessLifetime;
        m_accessTokens.insert(access, {account, QDateTime::currentSecsSinceEpoch() + lifetime});
        m_refreshTokens.insert(refresh, {account, 0});
    }
    res.set_header("Cache-Control", "no-store");
    replyJson(res, 200,
              QJsonObject{{u"access_token"_s, access},
                          {u"token_type"_s, u"Bearer"_s},
                          {u"expires_in"_s, kAccessLifetime},
                          {u"refresh_token"_s, refresh},
                          {u"username"_s, account}});
}

void Issuer::token(const httplib::Request &req, httplib::Response &res)
{
    if (!isFormBody(req))
        return replyError(res, 400, u"invalid_request"_s);
    QHash<QString, QString> form;
    const Parameters parameters = formParameters(QByteArray::fromStdString(req.body));
    for (auto it = parameters.crbegin(); it != parameters.crend(); ++it)
        form.insert(it->first, it->second); // the first of a repeated name wins
    const QString grant = form.value(u"grant_type"_s);
    if (grant == u"password") {
        const bool userMatches =
            equalInConstantTime(form.value(u"username"_s).toUtf8(),
                                QString::fromUtf16(DemoAccount::kUserName).toUtf8());
        const bool passwordMatches =
            equalInConstantTime(form.value(u"password"_s).toUtf8(),
                                QString::fromUtf16(DemoAccount::kPassword).toUtf8());
        if (!userMatches || !passwordMatches)
            return replyError(res, 400, u"invalid_grant"_s);
        return issue(res, QString::fromUtf16(DemoAccount::kDisplayName));
    }
    if (grant == u"refresh_token") {
        std::optional<Grant> used;
        {
            const std::lock_guard lock(m_mutex);
            if (const auto it = m_refreshTokens.constFind(form.value(u"refresh_token"_s));
                it != m_refreshTokens.cend()) {
                used = *it;
                m_refreshTokens.erase(it); // rotated: a refresh token works once
            }
        }
        if (!used)
            return replyError(res, 400, u"invalid_grant"_s);
        return issue(res, used->account);
    }
    replyError(res, 400, u"unsupported_grant_type"_s);
}

std::optional<QString> Issuer::accountForAuthorization(const QByteArray &header)
{
    if (!header.startsWith("Bearer "))
        return std::nullopt;
    const QString token = QString::fromLatin1(header.mid(7).trimmed());
    const std::lock_guard lock(m_mutex);
    const auto it = m_accessTokens.constFind(token);
    if (it == m_accessTokens.cend() || it->expiresAt < QDateTime::currentSecsSinceEpoch())
        return std::nullopt;
    return it->account;
}

int Issuer::revokeAll()
{
    const std::lock_guard lock(m_mutex);
    const int count = int(m_accessTokens.size());
    m_accessTokens.clear();
    m_refreshTokens.clear();
    return count;
}

} // namespace DemoOAuth2
