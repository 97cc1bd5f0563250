#include "DemoOAuth.h"

#include "DemoVideoService.h"

#include <QDateTime>
#include <QJsonObject>
#include <QMultiMap>
#include <QOAuth1Signature>
#include <QVariant>

#include <algorithm>

using namespace Qt::StringLiterals;
using DemoHttp::Parameters;

namespace DemoOAuth {

namespace {

// How far a request's oauth_timestamp may be from the service's clock.
constexpr qint64 kTimestampWindowSeconds = 300;

QString newToken(int length)
{
    return DemoHttp::randomString(
        length, u"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789");
}

} // namespace

std::optional<OAuthParameters> oauthParameters(const QByteArray &header)
{
    const QByteArray text = header.trimmed();
    if (text.size() < 6 || qstrnicmp(text.constData(), "OAuth ", 6) != 0)
        return std::nullopt;
    OAuthParameters result;
    qsizetype at = 6;
    const auto skipSpaces = [&] {
        while (at < text.size() && (text.at(at) == ' ' || text.at(at) == '\t'))
            ++at;
    };
    for (;;) {
        skipSpaces();
        if (at >= text.size())
            return result;
        const qsizetype equals = text.indexOf('=', at);
        if (equals < 0)
            return std::nullopt;
        const QByteArray name = text.mid(at, equals - at).trimmed();
        at = equals + 1;
        skipSpaces();
        if (at >= text.size() || text.at(at) != '"')
            return std::nullopt;
        const qsizetype close = text.indexOf('"', at + 1);
        if (close < 0)
            return std::nullopt;
        const QByteArray value = text.mid(at + 1, close - at - 1);
        at = close + 1;
        const QString decodedName = QString::fromUtf8(QByteArray::fromPercentEncoding(name));
        if (decodedName.startsWith(u"oauth_")) {
            if (result.contains(decodedName))
                return std::nullopt;
            result.insert(decodedName, QString::fromUtf8(QByteArray::fromPercentEncoding(value)));
        }
        skipSpaces();
        if (at < text.size()) {
            if (text.at(at) != ',')
                return std::nullopt;
            ++at;
        }
    }
}

QUrl signedUrl(const httplib::Request &req, int localPort)
{
    QString authority = QString::fromLatin1(DemoHttp::headerValue(req, "Host")).trimmed().toLower();
    if (authority.isEmpty())
        authority = u"127.0.0.1:"_s + QString::number(localPort);
    QUrl url(u"http://"_s + authority);
    if (url.port() == 80)
        url.setPort(-1);
    url.setPath(QString::fromStdString(req.path));
    return url;
}

bool signatureMatches(const QUrl &url, Parameters parameters, const QString &tokenSecret,
                      const QString &signature, const std::string &method)
{
    // QOAuth1Signature writes the values of a repeated name in its map's order,
    // and QMultiMap::insert() puts a value before those already there: inserted
    // from the highest down, they come out in the ascending order RFC 5849 asks
    // for. Names are ordered as QStrings, which for the plain ASCII names this
    // service reads is also the order of their encodings.
    std::sort(parameters.begin(), parameters.end(), [](const auto &a, const auto &b) {
        if (a.first != b.first)
            return a.first > b.first;
        return QUrl::toPercentEncoding(a.second) > QUrl::toPercentEncoding(b.second);
    });
    QMultiMap<QString, QVariant> map;
    for (const auto &[name, value] : parameters)
        map.insert(name, value);
    // The URL carries no query: QOAuth1Signature would add its items itself.
    QOAuth1Signature expected(url, QString::fromUtf16(DemoAccount::kConsumerSecret), tokenSecret,
                              QOAuth1Signature::HttpRequestMethod::Custom, map);
    expected.setCustomMethodString(QByteArray::fromStdString(method));
    // hmacSha1() is the raw digest, not its base64 text.
    const auto given = QByteArray::fromBase64Encoding(signature.toLatin1(),
                                                      QByteArray::AbortOnBase64DecodingErrors);
    return given && DemoHttp::equalInConstantTime(expected.hmacSha1(), *given);
}

QString Verifier::check(const OAuthParameters &oauth, bool withToken, Credentials &credentials)
{
    for (const char16_t *name : {u"oauth_consumer_key", u"oauth_signature_method",
                                 u"oauth_timestamp", u"oauth_nonce", u"oauth_signature"}) {
        if (oauth.value(QString::fromUtf16(name)).isEmpty())
            return u"missing_parameter"_s;
    }
    if (oauth.value(u"oauth_consumer_key"_s) != QString::fromUtf16(DemoAccount::kConsumerKey))
        return u"unknown_consumer"_s;
    if (oauth.value(u"oauth_signature_method"_s) != u"HMAC-SHA1")
        return u"unsupported_signature_method"_s;
    if (oauth.contains(u"oauth_version"_s) && oauth.value(u"oauth_version"_s) != u"1.0")
        return u"unsupported_version"_s;
    bool isNumber = false;
    const qint64 timestamp = oauth.value(u"oauth_timestamp"_s).toLongLong(&isNumber);
    if (!isNumber || qAbs(QDateTime::currentSecsSinceEpoch() - timestamp) > kTimestampWindowSeconds)
        return u"timestamp_refused"_s;

    const QString token = oauth.value(u"oauth_token"_s);
    if (!withToken)
        return token.isEmpty() ? QString() : u"unexpected_token"_s;
    if (token.isEmpty())
        return u"missing_token"_s;
    std::lock_guard lock(m_mutex);
    const auto found = m_tokens.constFind(token);
    if (found == m_tokens.cend())
        return u"invalid_token"_s;
    if (found->revoked)
        return u"token_revoked"_s;
    if (m_nonces.count({timestamp, oauth.value(u"oauth_nonce"_s)}))
        return u"nonce_replayed"_s;
    credentials = {token, found->secret, found->account};
    return {};
}

QString Verifier::acceptNonce(const OAuthParameters &oauth, const Credentials &credentials)
{
    const qint64 timestamp = oauth.value(u"oauth_timestamp"_s).toLongLong();
    const qint64 oldest = QDateTime::currentSecsSinceEpoch() - kTimestampWindowSeconds;
    std::lock_guard lock(m_mutex);
    if (!credentials.token.isEmpty() && m_tokens.value(credentials.token).revoked)
        return u"token_revoked"_s;
    while (!m_nonces.empty() && m_nonces.begin()->first < oldest)
        m_nonces.erase(m_nonces.begin());
    if (!m_nonces.insert({timestamp, oauth.value(u"oauth_nonce"_s)}).second)
        return u"nonce_replayed"_s;
    return {};
}

bool Verifier::verify(const httplib::Request &req, Parameters parameters,
                      const OAuthParameters &oauth, const QString &tokenSecret, int port)
{
    parameters += DemoHttp::queryParameters(req);
    for (auto it = oauth.cbegin(); it != oauth.cend(); ++it) {
        if (it.key() != u"oauth_signature")
            parameters.append({it.key(), it.value()});
    }
    return signatureMatches(signedUrl(req, port), std::move(parameters), tokenSecret,
                            oauth.value(u"oauth_signature"_s), req.method);
}

bool Verifier::setStore(const QString &path)
{
    std::lock_guard lock(m_mutex);
    const QJsonObject stored = m_file.open(path);
    for (auto it = stored.begin(); it != stored.end(); ++it) {
        const QJsonObject token = it.value().toObject();
        m_tokens.insert(it.key(),
                        {token.value(u"secret").toString(), token.value(u"account").toString(),
                         token.value(u"revoked").toBool()});
    }
    return saveLocked();
}

bool Verifier::saveLocked() const
{
    QJsonObject stored;
    for (auto it = m_tokens.cbegin(); it != m_tokens.cend(); ++it)
        stored.insert(it.key(), QJsonObject{{u"secret"_s, it->secret},
                                            {u"account"_s, it->account},
                                            {u"revoked"_s, it->revoked}});
    return m_file.save(stored);
}

std::pair<QString, QString> Verifier::issueToken(const QString &account)
{
    const QString token = newToken(32);
    const QString secret = newToken(40);
    std::lock_guard lock(m_mutex);
    m_tokens.insert(token, {secret, account, false});
    saveLocked();
    return {token, secret};
}

int Verifier::revokeAll()
{
    int revoked = 0;
    std::lock_guard lock(m_mutex);
    for (Token &token : m_tokens) {
        revoked += !token.revoked;
        token.revoked = true;
    }
    saveLocked();
    return revoked;
}

} // namespace DemoOAuth
