#include "DemoOAuth2.h"

#include "DemoHttp.h"
#include "DemoVideoService.h"

#include <QCryptographicHash>
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

// What the service keeps of a token: enough to recognise it, not to use it.
QByteArray digestOf(QStringView token)
{
    return QCryptographicHash::hash(token.toUtf8(), QCryptographicHash::Sha256).toHex();
}

qint64 now()
{
    return QDateTime::currentSecsSinceEpoch();
}

// The store's form of one kind of token: {"<digest>": {"account", "expires"}}.
template <typename Grant> QJsonObject toJson(const QHash<QByteArray, Grant> &grants)
{
    QJsonObject object;
    for (auto it = grants.cbegin(); it != grants.cend(); ++it)
        object.insert(QString::fromLatin1(it.key()),
                      QJsonObject{{u"account"_s, it->account}, {u"expires"_s, it->expiresAt}});
    return object;
}

template <typename Grant> void takeUp(const QJsonObject &object, QHash<QByteArray, Grant> &grants)
{
    const qint64 current = now();
    for (auto it = object.begin(); it != object.end(); ++it) {
        const QJsonObject grant = it.value().toObject();
        const QString account = grant.value(u"account").toString();
        const qint64 expiresAt = grant.value(u"expires").toInteger();
        if (!account.isEmpty() && expiresAt >= current)
            grants.insert(it.key().toLatin1(), {account, expiresAt});
    }
}

template <typename Grant> void dropExpired(QHash<QByteArray, Grant> &grants)
{
    const qint64 current = now();
    grants.removeIf([current](const auto &it) { return it.value().expiresAt < current; });
}

} // namespace

bool Issuer::setStore(const QString &path)
{
    const std::lock_guard lock(m_mutex);
    const QJsonObject stored = m_file.open(path);
    takeUp(stored.value(u"access").toObject(), m_accessTokens);
    takeUp(stored.value(u"refresh").toObject(), m_refreshTokens);
    return saveLocked();
}

bool Issuer::saveLocked()
{
    dropExpired(m_accessTokens);
    dropExpired(m_refreshTokens);
    return m_file.save(QJsonObject{{u"access"_s, toJson(m_accessTokens)},
                                   {u"refresh"_s, toJson(m_refreshTokens)}});
}

std::optional<Issuer::Issued> Issuer::issueLocked(const QString &account)
{
    const Issued issued{randomString(40, kTokenAlphabet), randomString(40, kTokenAlphabet)};
    const QByteArray access = digestOf(issued.access);
    const QByteArray refresh = digestOf(issued.refresh);
    const int lifetime = m_tokensDieAfter > 0 ? m_tokensDieAfter : kAccessLifetime;
    m_accessTokens.insert(access, {account, now() + lifetime});
    m_refreshTokens.insert(refresh, {account, now() + kRefreshLifetime});
    if (saveLocked())
        return issued;
    m_accessTokens.remove(access);
    m_refreshTokens.remove(refresh);
    return std::nullopt;
}

void Issuer::reply(httplib::Response &res, const Issued &issued, const QString &account)
{
    res.set_header("Cache-Control", "no-store");
    replyJson(res, 200,
              QJsonObject{{u"access_token"_s, issued.access},
                          {u"token_type"_s, u"Bearer"_s},
                          {u"expires_in"_s, kAccessLifetime},
                          {u"refresh_token"_s, issued.refresh},
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
        const QString account = QString::fromUtf16(DemoAccount::kDisplayName);
        std::optional<Issued> issued;
        {
            const std::lock_guard lock(m_mutex);
            issued = issueLocked(account);
        }
        if (!issued)
            return replyError(res, 500, u"server_error"_s);
        return reply(res, *issued, account);
    }
    if (grant == u"refresh_token") {
        const QByteArray key = digestOf(form.value(u"refresh_token"_s));
        std::optional<Grant> used;
        std::optional<Issued> issued;
        {
            const std::lock_guard lock(m_mutex);
            if (const auto it = m_refreshTokens.constFind(key);
                it != m_refreshTokens.cend() && it->expiresAt >= now()) {
                // Rotated: the used token dies in the write that keeps its
                // successors, so no restart brings it back, and lives on when
                // that write fails.
                used = *it;
                m_refreshTokens.erase(it);
                issued = issueLocked(used->account);
                if (!issued)
                    m_refreshTokens.insert(key, *used);
            }
        }
        if (!used)
            return replyError(res, 400, u"invalid_grant"_s);
        if (!issued)
            return replyError(res, 500, u"server_error"_s);
        return reply(res, *issued, used->account);
    }
    replyError(res, 400, u"unsupported_grant_type"_s);
}

std::optional<QString> Issuer::accountForAuthorization(const QByteArray &header)
{
    if (!header.startsWith("Bearer "))
        return std::nullopt;
    const QByteArray key = digestOf(QString::fromLatin1(header.mid(7).trimmed()));
    const std::lock_guard lock(m_mutex);
    const auto it = m_accessTokens.constFind(key);
    if (it == m_accessTokens.cend() || it->expiresAt < now())
        return std::nullopt;
    return it->account;
}

int Issuer::revokeAll()
{
    const std::lock_guard lock(m_mutex);
    dropExpired(m_accessTokens);
    const int count = int(m_accessTokens.size());
    m_accessTokens.clear();
    m_refreshTokens.clear();
    saveLocked();
    return count;
}

} // namespace DemoOAuth2
