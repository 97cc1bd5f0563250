#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QList>
#include <QMetaType>
#include <QUrl>

#include <optional>
#include <utility>

using ZDHTTPHeaderList = QList<std::pair<QByteArray, QByteArray>>;

// Errors of the transport. Failures that libcurl reports keep its CURLcode as
// their code in ZDCurlErrorDomain, with the library's own description (curl's
// code is also under ZDCurlCodeKey and its own message, when it gave one, under
// ZDCurlMessageKey). Refusals of the library's transport layer itself use
// ZDURLErrorDomain with the codes below. Both carry a readable description under
// ZDLocalizedDescriptionKey and the request's URL under ZDURLErrorURLKey.
ZD_EXPORT extern const QString ZDCurlErrorDomain;
ZD_EXPORT extern const QString ZDURLErrorDomain;
ZD_EXPORT extern const QString ZDURLErrorURLKey;
ZD_EXPORT extern const QString ZDCurlCodeKey;    // qint64
ZD_EXPORT extern const QString ZDCurlMessageKey; // QString

enum ZDURLError : qint32 {
    // The request does not allow cellular access and the system reports a
    // cellular (or metered) link.
    ZDURLErrorCellularAccessDenied = 1,
    // A header field name or value holds a line break or a zero byte, which
    // would let it inject further header lines.
    ZDURLErrorInvalidHeaderField = 2,
    // The transport could not be set up (out of memory or handles), or curl
    // refused a setting of the thread's transfer driver; every request of that
    // thread then fails so, with curl's code and message under ZDCurlCodeKey
    // and ZDCurlMessageKey, and a zd.net warning says it once.
    ZDURLErrorTransportUnavailable = 3,
    // A file that the body is read from could not be read to its end (it went
    // away or shrank after the body was built).
    ZDURLErrorBodyFileUnreadable = 4,
    // A request that started on https was redirected to plain http. Nothing is
    // sent to the http address; the redirect's target is under ZDURLErrorURLKey.
    ZDURLErrorInsecureRedirect = 5,
    // The response is larger than the request allows (its Content-Length, its
    // decoded body or its header block). The bytes received so far are dropped.
    ZDURLErrorResponseTooLarge = 6,
    // The response arrived more slowly than the request's minimum rate.
    ZDURLErrorStalled = 7,
    // The request took longer than its maximum duration.
    ZDURLErrorTimedOut = 8,
    // A multipart body's key holds a double quote, CR or LF, which would end
    // the part's name or header line early. Nothing is sent.
    ZDURLErrorInvalidMultipartKey = 9,
    // The URL is malformed or too long for the transport. Nothing is sent.
    ZDURLErrorBadURL = 10,
};

// One piece of a request body: bytes in memory, or the first `size` bytes of a
// file, read from disk as the transport sends them.
class ZD_EXPORT ZDBodySegment
{
public:
    ZDBodySegment(const QByteArray &bytes) : m_bytes(bytes), m_size(bytes.size()) {}
    static ZDBodySegment file(const QString &path, qint64 size);
    // `size` bytes of the file starting at byte `offset`: one chunk of a file
    // sent in several requests, read as it is sent.
    static ZDBodySegment file(const QString &path, qint64 offset, qint64 size);

    bool isFile() const { return !m_path.isNull(); }
    const QByteArray &bytes() const { return m_bytes; }
    QString filePath() const { return m_path; }
    qint64 size() const { return m_size; }
    // Where a file segment starts in its file (0 unless given).
    qint64 fileOffset() const { return m_offset; }
    // The segment's bytes, read from its file for a file segment (fewer when the
    // file cannot give them all).
    QByteArray readAll() const;

private:
    ZDBodySegment() = default;
    QByteArray m_bytes;
    QString m_path;
    qint64 m_size = 0;
    qint64 m_offset = 0;
};

using ZDBodySegments = QList<ZDBodySegment>;

// A URL request as the transport sends it: the URL (kept as its encoded text, so
// that what is built is what goes on the wire), the verb, the header fields, an
// optional body and the cellular-access flag. A value type; copies share the
// body's bytes.
class ZD_EXPORT ZDURLRequest
{
public:
    ZDURLRequest() = default;
    explicit ZDURLRequest(const QUrl &url);

    QUrl URL() const;
    void setURL(const QUrl &url);
    // The URL exactly as it will be sent, fully percent-encoded.
    QByteArray URLString() const { return m_url; }
    void setURLString(const QByteArray &url) { m_url = url; }

    QByteArray HTTPMethod() const { return m_method; }
    void setHTTPMethod(const QByteArray &method) { m_method = method; }

    // Header names compare case-insensitively; a field keeps the position and the
    // spelling of its first setting.
    QByteArray valueForHTTPHeaderField(const QByteArray &name) const;
    bool hasHTTPHeaderField(const QByteArray &name) const;
    // Replaces the field's value (removes the field when `value` is null).
    void setValueForHTTPHeaderField(const QByteArray &value, const QByteArray &name);
    // Adds `value` to the field: a field set twice carries both values joined by ",".
    void addValueForHTTPHeaderField(const QByteArray &value, const QByteArray &name);
    ZDHTTPHeaderList allHTTPHeaderFields() const { return m_headers; }

    // No body and an empty body differ: the request layer appends to a body only
    // when there is one.
    //
    // A body is held as pieces sent back to back, so that a large file part is
    // sent from the caller's own buffer, or straight from its file, and never
    // copied into one body buffer. HTTPBody() joins the pieces (a body of one
    // piece in memory is shared, not copied; file pieces are read).
    std::optional<QByteArray> HTTPBody() const;
    void setHTTPBody(const std::optional<QByteArray> &body);
    const std::optional<ZDBodySegments> &HTTPBodySegments() const { return m_body; }
    void setHTTPBodySegments(std::optional<ZDBodySegments> segments)
    {
        m_body = std::move(segments);
    }
    qint64 HTTPBodyLength() const;

    // True for a new request. When false, the transport refuses to send the
    // request while the system reports a cellular link (see JSONHTTPRequest).
    bool allowsCellularAccess() const { return m_allowsCellularAccess; }
    void setAllowsCellularAccess(bool allow) { m_allowsCellularAccess = allow; }

private:
    qsizetype headerIndex(const QByteArray &name) const;

    QByteArray m_url;
    QByteArray m_method = QByteArrayLiteral("GET");
    ZDHTTPHeaderList m_headers;
    std::optional<ZDBodySegments> m_body;
    bool m_allowsCellularAccess = true;
};

// The head of an HTTP response: status code, header fields and the URL it
// answered (the last one after redirects).
class ZD_EXPORT ZDHTTPResponse
{
public:
    ZDHTTPResponse() = default;
    ZDHTTPResponse(const QUrl &url, int statusCode, const ZDHTTPHeaderList &headers);

    QUrl URL() const { return m_url; }
    int statusCode() const { return m_statusCode; }
    ZDHTTPHeaderList allHeaderFields() const { return m_headers; }
    // The value of the named field (case-insensitive); repeated fields are joined
    // by ", ".
    QByteArray valueForHTTPHeaderField(const QByteArray &name) const;

private:
    QUrl m_url;
    int m_statusCode = 0;
    ZDHTTPHeaderList m_headers;
};

Q_DECLARE_METATYPE(ZDURLRequest)
Q_DECLARE_METATYPE(ZDHTTPResponse)
