#include "net/ZDMultipart_p.h"

#include "net/ZDAdditions.h"
#include "net/ZDFileUpload.h"

#include <vector>

namespace {

struct Part
{
    QByteArray header;
    QByteArray content;
};

QString escapedFileName(QString name)
{
    name.replace(u'\\', QStringLiteral("\\\\"));
    name.replace(u'"', QStringLiteral("\\\""));
    return name;
}

Part makePart(const QString &key, const QVariant &value)
{
    const QByteArray disposition = "Content-Disposition: form-data; name=\"" + key.toUtf8() + '"';
    if (value.metaType() == QMetaType::fromType<ZDFileUpload>()) {
        const ZDFileUpload upload = value.value<ZDFileUpload>();
        return {disposition + "; filename=\"" + escapedFileName(upload.name()).toUtf8() + "\"\r\n" +
                    zdMultipartContentTypeLine(upload.name()),
                upload.data()};
    }
    if (value.typeId() == QMetaType::QByteArray) {
        return {disposition + "\r\nContent-Type: application/octet-stream\r\n",
                value.toByteArray()};
    }
    return {disposition + "\r\n", ZDAdditions::textualDescription(value).toUtf8()};
}

} // namespace

QByteArray zdMultipartContentTypeLine(const QString &name)
{
    const QString lastComponent = name.sliced(name.lastIndexOf(u'/') + 1);
    const qsizetype dot = lastComponent.lastIndexOf(u'.');
    const QString extension = dot < 0 ? QString() : lastComponent.sliced(dot + 1).toLower();
    if (extension == u"mov")
        return QByteArrayLiteral("Content-Type: video/quicktime\r\n");
    if (extension == u"jpg" || extension == u"jpeg")
        return QByteArrayLiteral("Content-Type: image/jpeg\r\n");
    if (extension == u"png")
        return QByteArrayLiteral("Content-Type: image/png\r\n");
    return QByteArrayLiteral("Content-Type: application/octet-stream\r\n");
}

QByteArray zdMultipartParamData(const QVariantMap &params, const QString &boundary,
                                const QByteArray &prefix)
{
    const QByteArray delimiter = "--" + boundary.toUtf8() + "\r\n";
    std::vector<Part> parts;
    parts.reserve(size_t(params.size()));
    qsizetype total = prefix.size() + delimiter.size();
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        parts.push_back(makePart(it.key(), it.value()));
        total +=
            delimiter.size() + parts.back().header.size() + 2 + parts.back().content.size() + 2;
    }
    // One exact allocation: a large file part is copied once and never moved.
    QByteArray body;
    body.reserve(total);
    body += prefix;
    for (const Part &part : parts) {
        body += delimiter;
        body += part.header;
        body += "\r\n";
        body += part.content;
        body += "\r\n";
    }
    body += delimiter;
    return body;
}
