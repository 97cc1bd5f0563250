#include "net/ZDMultipart_p.h"

#include "net/ZDAdditions.h"
#include "net/ZDFileUpload.h"

#include <QFileInfo>

#include <utility>

namespace {

struct Part
{
    QByteArray header;
    ZDBodySegment content;
};

// A line break inside a header would end the line early and let the text after
// it stand as a header of its own; browsers percent-encode it in form data, and
// so do we.
QString withoutLineBreaks(QString text)
{
    text.replace(u'\r', QStringLiteral("%0D"));
    text.replace(u'\n', QStringLiteral("%0A"));
    return text;
}

// File names keep their quotes, escaped with a backslash (the backslash itself
// doubled first), as receivers of this library's bodies expect.
QString escapedFileName(QString name)
{
    name.replace(u'\\', QStringLiteral("\\\\"));
    name.replace(u'"', QStringLiteral("\\\""));
    return withoutLineBreaks(name);
}

Part makePart(const QString &key, const QVariant &value)
{
    const QByteArray disposition = "Content-Disposition: form-data; name=\"" + key.toUtf8() + '"';
    const auto fileHeader = [&](const QString &name) -> QByteArray {
        return disposition + "; filename=\"" + escapedFileName(name).toUtf8() + "\"\r\n" +
               zdMultipartContentTypeLine(name);
    };
    if (value.metaType() == QMetaType::fromType<ZDFileUpload>()) {
        const ZDFileUpload upload = value.value<ZDFileUpload>();
        return {fileHeader(upload.name()), upload.data()};
    }
    if (value.metaType() == QMetaType::fromType<ZDStreamedFileUpload>()) {
        const ZDStreamedFileUpload upload = value.value<ZDStreamedFileUpload>();
        const QFileInfo file(upload.path());
        // Unreadable now: an empty content, as an unreadable ZDFileUpload gives.
        const bool readable = file.isFile() && file.isReadable();
        return {fileHeader(upload.name()), readable
                                               ? ZDBodySegment::file(upload.path(), file.size())
                                               : ZDBodySegment(QByteArray())};
    }
    if (value.typeId() == QMetaType::QByteArray) {
        return {disposition + "\r\nContent-Type: application/octet-stream\r\n",
                value.toByteArray()};
    }
    return {disposition + "\r\n", ZDAdditions::textualDescription(value).toUtf8()};
}

} // namespace

bool zdMultipartKeyIsSafe(const QString &key)
{
    return !key.contains(u'"') && !key.contains(u'\r') && !key.contains(u'\n');
}

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

ZDBodySegments zdMultipartSegments(const QVariantMap &params, const QString &boundary)
{
    // Contents below this size are copied into the text around them; larger ones
    // are sent from their own buffers or files.
    constexpr qsizetype kSharedContentSize = 64 * 1024;
    const QByteArray delimiter = "--" + boundary.toUtf8() + "\r\n";
    ZDBodySegments segments;
    QByteArray text;
    for (auto it = params.cbegin(); it != params.cend(); ++it) {
        const Part part = makePart(it.key(), it.value());
        text += delimiter;
        text += part.header;
        text += "\r\n";
        if (!part.content.isFile() && part.content.size() < kSharedContentSize) {
            text += part.content.bytes();
        } else {
            segments.append(std::exchange(text, QByteArray()));
            segments.append(part.content);
        }
        text += "\r\n";
    }
    text += delimiter;
    segments.append(text);
    return segments;
}

QByteArray zdJoinSegments(const ZDBodySegments &segments)
{
    qint64 size = 0;
    for (const ZDBodySegment &segment : segments)
        size += segment.size();
    QByteArray joined;
    joined.reserve(size);
    for (const ZDBodySegment &segment : segments)
        joined += segment.isFile() ? segment.readAll() : segment.bytes();
    return joined;
}

QByteArray zdMultipartParamData(const QVariantMap &params, const QString &boundary)
{
    return zdJoinSegments(zdMultipartSegments(params, boundary));
}
