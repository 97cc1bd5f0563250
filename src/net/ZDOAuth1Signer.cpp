#include "net/ZDOAuth1Signer.h"

#include "net/ZDAdditions.h"

#include <QDateTime>
#include <QMessageAuthenticationCode>
#include <QRandomGenerator>
#include <QUrl>

#include <algorithm>

namespace {

QString escaped(const QString &text)
{
    return ZDAdditions::urlParameterEscapedString(text);
}

// Form decoding: "+" is a space, then percent-escapes.
QString formDecoded(QByteArray text)
{
    text.replace('+', ' ');
    return QString::fromUtf8(QByteArray::fromPercentEncoding(text));
}

void appendFormParameters(ZDOAuth1Signer::Parameters &parameters, const QByteArray &encoded)
{
    if (encoded.isEmpty())
        return;
    for (const QByteArray &pair : encoded.split('&')) {
        const qsizetype equals = pair.indexOf('=');
        if (equals < 0)
            parameters.append({formDecoded(pair), QString()});
        else
            parameters.append({formDecoded(pair.left(equals)), formDecoded(pair.mid(equals + 1))});
    }
}

bool isFormBody(const ZDURLRequest &request)
{
    if (!request.HTTPBody())
        return false;
    const QByteArray type = request.valueForHTTPHeaderField("Content-Type").trimmed().toLower();
    return type.isEmpty() || type.startsWith("application/x-www-form-urlencoded");
}

} // namespace

ZDOAuth1Signer::ZDOAuth1Signer(const QString &consumerKey, const QString &consumerSecret,
                               const QString &token, const QString &tokenSecret)
    : m_consumerKey(consumerKey), m_consumerSecret(consumerSecret), m_token(token),
      m_tokenSecret(tokenSecret)
{}

void ZDOAuth1Signer::setToken(const QString &token, const QString &tokenSecret)
{
    m_token = token;
    m_tokenSecret = tokenSecret;
}

void ZDOAuth1Signer::setNonceAndTimestampSource(std::function<std::pair<QString, qint64>()> source)
{
    m_nonceAndTimestamp = std::move(source);
}

QByteArray ZDOAuth1Signer::signatureBaseString(const QByteArray &method, const QByteArray &url,
                                               const Parameters &parameters)
{
    // The base string URI: scheme and host in lower case, no default port, no
    // query or fragment.
    const QUrl parsed = QUrl::fromEncoded(url);
    QUrl base;
    base.setScheme(parsed.scheme().toLower());
    base.setHost(parsed.host().toLower());
    const int defaultPort = parsed.scheme().compare(u"https", Qt::CaseInsensitive) == 0 ? 443 : 80;
    if (parsed.port() != -1 && parsed.port() != defaultPort)
        base.setPort(parsed.port());
    base.setPath(parsed.path(QUrl::FullyEncoded), QUrl::StrictMode);

    QList<std::pair<QString, QString>> normalized;
    normalized.reserve(parameters.size());
    for (const auto &[name, value] : parameters)
        normalized.append({escaped(name), escaped(value)});
    std::sort(normalized.begin(), normalized.end());
    QStringList pairs;
    for (const auto &[name, value] : normalized)
        pairs << name + u'=' + value;

    return method.toUpper() + '&' + escaped(QString::fromUtf8(base.toEncoded())).toLatin1() + '&' +
           escaped(pairs.join(u'&')).toLatin1();
}

QString ZDOAuth1Signer::hmacSha1Signature(const QByteArray &baseString,
                                          const QString &consumerSecret, const QString &tokenSecret)
{
    const QByteArray key = (escaped(consumerSecret) + u'&' + escaped(tokenSecret)).toLatin1();
    return QString::fromLatin1(
        QMessageAuthenticationCode::hash(baseString, key, QCryptographicHash::Sha1).toBase64());
}

ZDURLRequest ZDOAuth1Signer::signedRequestForRequest(const ZDURLRequest &request)
{
    std::pair<QString, qint64> nonceAndTime;
    if (m_nonceAndTimestamp) {
        nonceAndTime = m_nonceAndTimestamp();
    } else {
        nonceAndTime = {QString::number(QRandomGenerator::system()->generate64(), 36),
                        QDateTime::currentSecsSinceEpoch()};
    }
    Parameters oauth{{QStringLiteral("oauth_consumer_key"), m_consumerKey},
                     {QStringLiteral("oauth_nonce"), nonceAndTime.first},
                     {QStringLiteral("oauth_signature_method"), QStringLiteral("HMAC-SHA1")},
                     {QStringLiteral("oauth_timestamp"), QString::number(nonceAndTime.second)},
                     {QStringLiteral("oauth_version"), QStringLiteral("1.0")}};
    if (!m_token.isEmpty())
        oauth.append({QStringLiteral("oauth_token"), m_token});

    Parameters all = oauth;
    const QByteArray url = request.URLString();
    const qsizetype query = url.indexOf('?');
    if (query >= 0)
        appendFormParameters(all, url.mid(query + 1).split('#').front());
    if (isFormBody(request))
        appendFormParameters(all, *request.HTTPBody());

    const QString signature = hmacSha1Signature(signatureBaseString(request.HTTPMethod(), url, all),
                                                m_consumerSecret, m_tokenSecret);
    oauth.append({QStringLiteral("oauth_signature"), signature});

    QStringList fields;
    if (!m_realm.isEmpty())
        fields << QStringLiteral("realm=\"") + m_realm + u'"';
    for (const auto &[name, value] : oauth)
        fields << escaped(name) + u"=\"" + escaped(value) + u'"';
    ZDURLRequest signedRequest = request;
    signedRequest.setValueForHTTPHeaderField("OAuth " + fields.join(QStringLiteral(", ")).toUtf8(),
                                             "Authorization");
    return signedRequest;
}
