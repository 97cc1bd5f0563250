#pragma once

#include "core/zdglobal.h"
#include "net/ZDURLRequest.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <memory>
#include <optional>
#include <utility>

// The built-in dialects, as the journal records them.
enum class ZDUploadProtocol {
    // tus 1.0: creation (POST with Upload-Length and Upload-Metadata), offset
    // (HEAD), chunks (PATCH with Upload-Offset and, with checksums on,
    // Upload-Checksum "sha1 <base64>"), termination (DELETE, abort()) and
    // expiration (Upload-Expires is kept in the journal).
    Tus = 0,
    // "308 Resume Incomplete": a session URI from a first POST (the metadata as a
    // JSON body, X-Upload-Content-Length and X-Upload-Content-Type), then PUT
    // with "Content-Range: bytes a-b/total" answered by 308 and "Range:
    // bytes=0-n" until a 200 or 201 ends it; the offset is asked with a PUT of
    // "Content-Range: bytes */total". With checksums on, every chunk carries
    // "Digest: sha=<base64 SHA-1>".
    ResumeIncomplete = 1,
    // One multipart/form-data POST of the metadata and the file (read while it is
    // sent). A failure can only be retried from the start.
    Multipart = 2,
    // A plug-in's own ZDUploadDialect. Its journal entries are resumed only with
    // the constructor that is given the dialect again.
    Custom = 3,
};

// What a dialect knows of the upload it speaks for.
struct ZD_EXPORT ZDUploadDialectContext
{
    QUrl endpoint;
    QUrl sessionURL; // empty until the service opened the session
    QString filePath;
    qint64 totalBytes = 0;
    QVariantMap metadata;  // as the plug-in set it
    QString fileFieldName; // the form field of the file (single requests)
    bool checksums = true; // the plug-in wants per-chunk checksums
};

// A request as a dialect describes it. The dialect never sends anything: the
// upload builds the request from this, adds the plug-in's headers, its own
// limits and the credentials, and sends it. At most one kind of body is set.
struct ZD_EXPORT ZDUploadWireRequest
{
    struct FileRange
    {
        qint64 offset = 0;
        qint64 length = 0;
    };

    ZDUploadWireRequest() = default;
    ZDUploadWireRequest(const QByteArray &method, const QUrl &target) : verb(method), url(target) {}

    QByteArray verb; // "POST", "HEAD", "PATCH", ...
    QUrl url;
    QList<std::pair<QString, QString>> headers;
    // These bytes as the body (an empty array sends an empty body).
    std::optional<QByteArray> body;
    // These bytes of the file, read while they are sent.
    std::optional<FileRange> fileRange;
    // A multipart/form-data body of these fields; a ZDStreamedFileUpload value
    // streams its file.
    std::optional<QVariantMap> formFields;
};

// The session a creation's answer opened.
struct ZD_EXPORT ZDUploadSession
{
    QUrl url;          // empty when the answer opened none
    QDateTime expires; // when the service forgets it, where the service says
};

// Where an answer leaves the upload.
struct ZD_EXPORT ZDUploadOffsetAnswer
{
    qint64 offset = -1;    // the bytes the server holds; -1 when the answer says nothing usable
    bool complete = false; // the service has the whole file and ended the upload
};

// The wire shape of a service's uploads: which requests make, query, feed and
// end a session, and what their answers mean. The upload runs the state machine
// (create, ask, send, confirm, retry) and checks everything the server claims
// (an offset beyond the bytes sent, a session on plain http for an https
// endpoint); a dialect only translates.
//
// A resumable dialect implements creationRequest(), sessionFromAnswer(),
// offsetRequest(), offsetFromAnswer(), chunkRequest() and chunkOffsetFromAnswer();
// one that is not implements singleRequest(). The operations a dialect does not
// have stop the program (ZD_ABSTRACT) when called; the upload calls only what
// the capabilities below announce. Every operation is const and may be called
// from several uploads at once.
//
// Resuming a journal entry of a dialect of one's own: the entry says Custom, and
// the plug-in passes its dialect again with the entry (ZDResumableUpload's
// constructor that takes both). The dialect must be able to go on from the
// entry alone: the session URL, the metadata and the file are in it.
class ZD_EXPORT ZDUploadDialect
{
public:
    virtual ~ZDUploadDialect();

    // The built-in dialect for `protocol` (null for Custom).
    static std::shared_ptr<ZDUploadDialect> forProtocol(ZDUploadProtocol protocol);

    // What the journal records; Custom unless a built-in dialect.
    virtual ZDUploadProtocol protocol() const;
    // Chunked, with a session that can be asked for its offset. When false the
    // file goes in one singleRequest() and a failure starts it over.
    virtual bool isResumable() const = 0;
    // Chunks carry a checksum the service checks (see isChecksumRefusal()).
    virtual bool hasChecksums() const;
    // A session can be ended on the server (terminationRequest()).
    virtual bool hasTermination() const;
    // The server finishes with a request that lost its connection before it
    // answers the next offset query, so asking again at once is safe after a
    // cut. False makes the first retry after a cut wait by the policy, and the
    // offset is trusted after any interruption only once two answers a wait
    // apart agree.
    virtual bool settlesLostRequests() const;

    virtual ZDUploadWireRequest creationRequest(const ZDUploadDialectContext &context) const;
    // The readers of answers get the status, the headers and the body (at most
    // the upload's answer cap of 4 MiB).
    //
    // The session the creation's answer names, as named: the upload resolves a
    // relative URL against the endpoint.
    virtual ZDUploadSession sessionFromAnswer(const ZDUploadDialectContext &context,
                                              const ZDHTTPResponse &response,
                                              const QByteArray &body) const;
    virtual ZDUploadWireRequest offsetRequest(const ZDUploadDialectContext &context) const;
    virtual ZDUploadOffsetAnswer offsetFromAnswer(const ZDUploadDialectContext &context,
                                                  const ZDHTTPResponse &response,
                                                  const QByteArray &body) const;
    // The bytes [offset, offset + length) of the file.
    virtual ZDUploadWireRequest chunkRequest(const ZDUploadDialectContext &context, qint64 offset,
                                             qint64 length) const;
    virtual ZDUploadOffsetAnswer chunkOffsetFromAnswer(const ZDUploadDialectContext &context,
                                                       qint64 offset, qint64 length,
                                                       const ZDHTTPResponse &response,
                                                       const QByteArray &body) const;
    // Whether a refused chunk was refused for its checksum (it is sent again).
    virtual bool isChecksumRefusal(const ZDUploadDialectContext &context,
                                   const ZDHTTPResponse &response, const QByteArray &body) const;
    virtual ZDUploadWireRequest terminationRequest(const ZDUploadDialectContext &context) const;

    virtual ZDUploadWireRequest singleRequest(const ZDUploadDialectContext &context) const;
};
