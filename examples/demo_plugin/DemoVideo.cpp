#include "DemoVideo.h"

#include <net/ZDDigest.h>

#include <QVariant>

#include <cstdlib>

using namespace Qt::StringLiterals;

namespace DemoVideo {

namespace {

QUrl &base()
{
    static QUrl url(u"http://127.0.0.1:8765/"_s);
    return url;
}

// The secret, scrambled with the key helper and this seed.
constexpr unsigned kSecretSeed = 20261122;
constexpr auto kScrambledSecret = "b6135121471f467970397433947c59445bc48a024c0325";

} // namespace

const QString ErrorDomain = u"DemoVideoErrorDomain"_s;

QUrl baseURL()
{
    return base();
}

void setBaseURL(const QUrl &url)
{
    QUrl copy = url;
    if (!copy.path().endsWith(u'/'))
        copy.setPath(copy.path() + u'/');
    base() = copy;
}

QUrl endpoint(const QString &path)
{
    return base().resolved(QUrl(path));
}

QString consumerKey()
{
    return u"zd-demo-consumer"_s;
}

QString consumerSecret()
{
    static const QString secret = [] {
        // The key helper reads the process-wide generator: seed it right before.
        srandom(kSecretSeed);
        return GetScrambledKey(QString::fromLatin1(kScrambledSecret)).value_or(QString());
    }();
    return secret;
}

ZDError error(Error code, const QString &description, const ZDError &underlying)
{
    QVariantMap info{{ZDLocalizedDescriptionKey, description}};
    if (!underlying.isNull())
        info.insert(u"underlyingError"_s, QVariant::fromValue(underlying));
    return ZDError(ErrorDomain, code, info);
}

} // namespace DemoVideo
