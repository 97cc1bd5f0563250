#include <net/JSONHTTPRequest.h>
#include <net/ZDAdditions.h>
#include <net/ZDDigest.h>

#include <cstdio>

int main()
{
    const QString digest = ZDCreateMD5WithData(QByteArray("abc"));
    const QString escaped = ZDAdditions::urlParameterEscapedString(QStringLiteral("a b"));
    std::printf("%s %s %s\n", qPrintable(digest), qPrintable(escaped),
                qPrintable(JSONHTTPRequestErrorDomain));
    return escaped == QStringLiteral("a%20b") ? 0 : 1;
}
