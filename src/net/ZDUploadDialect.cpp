#include "net/ZDUploadDialect.h"

#include "core/ZDAssert.h"
#include "net/ZDDigest.h"
#include "net/ZDFileUpload.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

using namespace Qt::StringLiterals;

namespace {

QString base64Sha1(const QString &path, qint64 offset, qint64 length)
{
    const auto digest = ZDCreateDigestBytesWithFile(path, ZDDigestAlgorithm::SHA1, offset, length);
    return QString::fromLatin1(digest ? digest->toBase64() : QByteArray());
}

bool isSuccess(const ZDHTTPResponse &response)
{
    return response.statusCode() == 200 || response.statusCode() == 201;
}

ZDUploadSession sessionAtLocation(const ZDHTTPResponse &response)
{
    const QByteArray location = response.valueForHTTPHeaderField("Location");
    if (location.isEmpty() || !isSuccess(response))
        return {};
    return {QUrl::fromEncoded(location), QDateTime()};
}

class TusDialect final : public ZDUploadDialect
{
public:
    ZDUploadProtocol protocol() const override { return ZDUploadProtocol::Tus; }
    bool isResumable() const override { return true; }
    bool hasChecksums() const override { return true; }
    bool hasTermination() const override { return true; }
    bool settlesLostRequests() const override { return true; }

    ZDUploadWireRequest creationRequest(const ZDUploadDialectContext &context) const override
    {
        ZDUploadWireRequest request = make("POST", context.endpoint);
        request.headers.append({u"Upload-Length"_s, QString::number(context.totalBytes)});
        if (!context.metadata.isEmpty())
            request.headers.append({u"Upload-Metadata"_s, metadata(context.metadata)});
        request.body = QByteArray("");
        return request;
    }
    ZDUploadSession sessionFromAnswer(const ZDUploadDialectContext &,
                                      const ZDHTTPResponse &response,
                                      const QByteArray &) const override
    {
        ZDUploadSession session = sessionAtLocation(response);
        const QByteArray expires = response.valueForHTTPHeaderField("Upload-Expires");
        if (!expires.isEmpty())
            session.expires = QDateTime::fromString(QString::fromLatin1(expires), Qt::RFC2822Date);
        return session;
    }
    ZDUploadWireRequest offsetRequest(const ZDUploadDialectContext &context) const override
    {
        return make("HEAD", context.sessionURL);
    }
    ZDUploadOffsetAnswer offsetFromAnswer(const ZDUploadDialectContext &context,
                                          const ZDHTTPResponse &response,
                                          const QByteArray &) const override
    {
        return offsetOf(context, response);
    }
    ZDUploadWireRequest chunkRequest(const ZDUploadDialectContext &context, qint64 offset,
                                     qint64 length) const override
    {
        ZDUploadWireRequest request = make("PATCH", context.sessionURL);
        request.headers.append({u"Content-Type"_s, u"application/offset+octet-stream"_s});
        request.headers.append({u"Upload-Offset"_s, QString::number(offset)});
        if (context.checksums)
            request.headers.append(
                {u"Upload-Checksum"_s, u"sha1 "_s + base64Sha1(context.filePath, offset, length)});
        request.fileRange = {offset, length};
        return request;
    }
    ZDUploadOffsetAnswer chunkOffsetFromAnswer(const ZDUploadDialectContext &context, qint64,
                                               qint64, const ZDHTTPResponse &response,
                                               const QByteArray &) const override
    {
        return offsetOf(context, response);
    }
    bool isChecksumRefusal(const ZDUploadDialectContext &, const ZDHTTPResponse &response,
                           const QByteArray &) const override
    {
        return response.statusCode() == 460;
    }
    ZDUploadWireRequest terminationRequest(const ZDUploadDialectContext &context) const override
    {
        return make("DELETE", context.sessionURL);
    }

private:
    static ZDUploadWireRequest make(const QByteArray &verb, const QUrl &url)
    {
        ZDUploadWireRequest request;
        request.verb = verb;
        request.url = url;
        request.headers = {{u"Tus-Resumable"_s, u"1.0.0"_s}};
        return request;
    }
    static QString metadata(const QVariantMap &metadata)
    {
        QByteArrayList pairs;
        for (auto it = metadata.cbegin(); it != metadata.cend(); ++it)
            pairs.append(it.key().toUtf8() + ' ' + it.value().toString().toUtf8().toBase64());
        return QString::fromLatin1(pairs.join(','));
    }
    static ZDUploadOffsetAnswer offsetOf(const ZDUploadDialectContext &context,
                                         const ZDHTTPResponse &response)
    {
        bool ok = false;
        const qint64 offset =
            response.valueForHTTPHeaderField("Upload-Offset").trimmed().toLongLong(&ok);
        if (!ok)
            return {};
        return {offset, offset == context.totalBytes};
    }
};

class ResumeIncompleteDialect final : public ZDUploadDialect
{
public:
    ZDUploadProtocol protocol() const override { return ZDUploadProtocol::ResumeIncomplete; }
    bool isResumable() const override { return true; }
    bool hasChecksums() const override { return true; }
    bool hasTermination() const override { return true; }

    ZDUploadWireRequest creationRequest(const ZDUploadDialectContext &context) const override
    {
        ZDUploadWireRequest request{"POST", context.endpoint};
        request.headers = {
            {u"Content-Type"_s, u"application/json; charset=utf-8"_s},
            {u"X-Upload-Content-Length"_s, QString::number(context.totalBytes)},
            {u"X-Upload-Content-Type"_s,
             context.metadata.value(u"mimeType"_s, u"application/octet-stream"_s).toString()},
        };
        QVariantMap body = context.metadata;
        body.insert(u"size"_s, context.totalBytes);
        // Services of this kind name the upload by the file's name unless told.
        if (!body.contains(u"name"_s))
            body.insert(u"name"_s, QFileInfo(context.filePath).fileName());
        request.body =
            QJsonDocument(QJsonObject::fromVariantMap(body)).toJson(QJsonDocument::Compact);
        return request;
    }
    ZDUploadSession sessionFromAnswer(const ZDUploadDialectContext &,
                                      const ZDHTTPResponse &response,
                                      const QByteArray &) const override
    {
        return sessionAtLocation(response);
    }
    ZDUploadWireRequest offsetRequest(const ZDUploadDialectContext &context) const override
    {
        ZDUploadWireRequest request{"PUT", context.sessionURL};
        request.headers = {{u"Content-Range"_s, u"bytes */%1"_s.arg(context.totalBytes)}};
        request.body = QByteArray("");
        return request;
    }
    ZDUploadOffsetAnswer offsetFromAnswer(const ZDUploadDialectContext &context,
                                          const ZDHTTPResponse &response,
                                          const QByteArray &) const override
    {
        if (isSuccess(response))
            return {context.totalBytes, true};
        if (response.statusCode() == 308)
            return {offsetFromRange(response.valueForHTTPHeaderField("Range")), false};
        return {};
    }
    ZDUploadWireRequest chunkRequest(const ZDUploadDialectContext &context, qint64 offset,
                                     qint64 length) const override
    {
        ZDUploadWireRequest request{"PUT", context.sessionURL};
        request.headers = {
            {u"Content-Type"_s, u"application/octet-stream"_s},
            {u"Content-Range"_s,
             u"bytes %1-%2/%3"_s.arg(offset).arg(offset + length - 1).arg(context.totalBytes)},
        };
        if (context.checksums)
            request.headers.append(
                {u"Digest"_s, u"sha="_s + base64Sha1(context.filePath, offset, length)});
        request.fileRange = {offset, length};
        return request;
    }
    ZDUploadOffsetAnswer chunkOffsetFromAnswer(const ZDUploadDialectContext &, qint64 offset,
                                               qint64 length, const ZDHTTPResponse &response,
                                               const QByteArray &) const override
    {
        if (response.statusCode() == 308)
            return {offsetFromRange(response.valueForHTTPHeaderField("Range")), false};
        if (isSuccess(response))
            return {offset + length, true};
        return {};
    }
    bool isChecksumRefusal(const ZDUploadDialectContext &context, const ZDHTTPResponse &response,
                           const QByteArray &body) const override
    {
        return response.statusCode() == 460 ||
               (response.statusCode() == 400 && context.checksums && body.contains("hecksum"));
    }
    ZDUploadWireRequest terminationRequest(const ZDUploadDialectContext &context) const override
    {
        return {"DELETE", context.sessionURL};
    }

private:
    // "bytes=0-n": the offset n + 1, 0 without a header, or -1 for anything
    // else (another start, several ranges).
    static qint64 offsetFromRange(const QByteArray &range)
    {
        if (range.isEmpty())
            return 0;
        const QByteArray value = range.trimmed();
        if (!value.startsWith("bytes=0-") || value.contains(','))
            return -1;
        bool ok = false;
        const qint64 last = value.mid(8).toLongLong(&ok);
        // "bytes=0--1" is how some servers say that nothing is stored yet.
        return ok && last >= -1 ? last + 1 : -1;
    }
};

class MultipartDialect final : public ZDUploadDialect
{
public:
    ZDUploadProtocol protocol() const override { return ZDUploadProtocol::Multipart; }
    bool isResumable() const override { return false; }

    ZDUploadWireRequest singleRequest(const ZDUploadDialectContext &context) const override
    {
        QVariantMap fields = context.metadata;
        fields.insert(context.fileFieldName,
                      QVariant::fromValue(ZDStreamedFileUpload(context.filePath)));
        ZDUploadWireRequest request{"POST", context.endpoint};
        request.formFields = fields;
        return request;
    }
};

} // namespace

ZDUploadDialect::~ZDUploadDialect() = default;

std::shared_ptr<ZDUploadDialect> ZDUploadDialect::forProtocol(ZDUploadProtocol protocol)
{
    switch (protocol) {
    case ZDUploadProtocol::Tus:
        return std::make_shared<TusDialect>();
    case ZDUploadProtocol::ResumeIncomplete:
        return std::make_shared<ResumeIncompleteDialect>();
    case ZDUploadProtocol::Multipart:
        return std::make_shared<MultipartDialect>();
    case ZDUploadProtocol::Custom:
        break;
    }
    return nullptr;
}

ZDUploadProtocol ZDUploadDialect::protocol() const
{
    return ZDUploadProtocol::Custom;
}
bool ZDUploadDialect::hasChecksums() const
{
    return false;
}
bool ZDUploadDialect::hasTermination() const
{
    return false;
}
bool ZDUploadDialect::settlesLostRequests() const
{
    return false;
}
bool ZDUploadDialect::isChecksumRefusal(const ZDUploadDialectContext &, const ZDHTTPResponse &,
                                        const QByteArray &) const
{
    return false;
}

ZDUploadWireRequest ZDUploadDialect::creationRequest(const ZDUploadDialectContext &) const
{
    ZD_ABSTRACT("ZDUploadDialect::creationRequest");
}
ZDUploadSession ZDUploadDialect::sessionFromAnswer(const ZDUploadDialectContext &,
                                                   const ZDHTTPResponse &, const QByteArray &) const
{
    ZD_ABSTRACT("ZDUploadDialect::sessionFromAnswer");
}
ZDUploadWireRequest ZDUploadDialect::offsetRequest(const ZDUploadDialectContext &) const
{
    ZD_ABSTRACT("ZDUploadDialect::offsetRequest");
}
ZDUploadOffsetAnswer ZDUploadDialect::offsetFromAnswer(const ZDUploadDialectContext &,
                                                       const ZDHTTPResponse &,
                                                       const QByteArray &) const
{
    ZD_ABSTRACT("ZDUploadDialect::offsetFromAnswer");
}
ZDUploadWireRequest ZDUploadDialect::chunkRequest(const ZDUploadDialectContext &, qint64,
                                                  qint64) const
{
    ZD_ABSTRACT("ZDUploadDialect::chunkRequest");
}
ZDUploadOffsetAnswer ZDUploadDialect::chunkOffsetFromAnswer(const ZDUploadDialectContext &, qint64,
                                                            qint64, const ZDHTTPResponse &,
                                                            const QByteArray &) const
{
    ZD_ABSTRACT("ZDUploadDialect::chunkOffsetFromAnswer");
}
ZDUploadWireRequest ZDUploadDialect::terminationRequest(const ZDUploadDialectContext &) const
{
    ZD_ABSTRACT("ZDUploadDialect::terminationRequest");
}
ZDUploadWireRequest ZDUploadDialect::singleRequest(const ZDUploadDialectContext &) const
{
    ZD_ABSTRACT("ZDUploadDialect::singleRequest");
}
