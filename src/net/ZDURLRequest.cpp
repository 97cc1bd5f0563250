#include "net/ZDURLRequest.h"

#include <QFile>

const QString ZDCurlErrorDomain = QStringLiteral("CurlErrorDomain");
const QString ZDURLErrorDomain = QStringLiteral("ZDURLErrorDomain");
const QString ZDURLErrorURLKey = QStringLiteral("failingURL");
const QString ZDCurlCodeKey = QStringLiteral("curlCode");
const QString ZDCurlMessageKey = QStringLiteral("curlMessage");

ZDURLRequest::ZDURLRequest(const QUrl &url) : m_url(url.toEncoded()) {}

QUrl ZDURLRequest::URL() const
{
    return QUrl::fromEncoded(m_url);
}

void ZDURLRequest::setURL(const QUrl &url)
{
    m_url = url.toEncoded();
}

ZDBodySegment ZDBodySegment::file(const QString &path, qint64 size)
{
    ZDBodySegment segment;
    segment.m_path = path.isNull() ? QStringLiteral("") : path;
    segment.m_size = qMax<qint64>(size, 0);
    return segment;
}

ZDBodySegment ZDBodySegment::file(const QString &path, qint64 offset, qint64 size)
{
    ZDBodySegment segment = file(path, size);
    segment.m_offset = qMax<qint64>(offset, 0);
    return segment;
}

QByteArray ZDBodySegment::readAll() const
{
    if (!isFile())
        return m_bytes;
    QFile file(m_path);
    if (!file.open(QIODevice::ReadOnly) || !file.seek(m_offset))
        return QByteArray();
    return file.read(m_size);
}

std::optional<QByteArray> ZDURLRequest::HTTPBody() const
{
    if (!m_body)
        return std::nullopt;
    if (m_body->isEmpty())
        return QByteArray("");
    if (m_body->size() == 1 && !m_body->front().isFile())
        return m_body->front().bytes();
    QByteArray joined;
    joined.reserve(HTTPBodyLength());
    for (const ZDBodySegment &segment : *m_body)
        joined += segment.readAll();
    return joined;
}

void ZDURLRequest::setHTTPBody(const std::optional<QByteArray> &body)
{
    if (body)
        m_body = ZDBodySegments{ZDBodySegment(*body)};
    else
        m_body.reset();
}

qint64 ZDURLRequest::HTTPBodyLength() const
{
    qint64 length = 0;
    for (const ZDBodySegment &segment : m_body.value_or(ZDBodySegments()))
        length += segment.size();
    return length;
}

qsizetype ZDURLRequest::headerIndex(const QByteArray &name) const
{
    for (qsizetype i = 0; i < m_headers.size(); ++i) {
        if (m_headers[i].first.compare(name, Qt::CaseInsensitive) == 0)
            return i;
    }
    return -1;
}

QByteArray ZDURLRequest::valueForHTTPHeaderField(const QByteArray &name) const
{
    const qsizetype index = headerIndex(name);
    return index < 0 ? QByteArray() : m_headers[index].second;
}

bool ZDURLRequest::hasHTTPHeaderField(const QByteArray &name) const
{
    return headerIndex(name) >= 0;
}

void ZDURLRequest::setValueForHTTPHeaderField(const QByteArray &value, const QByteArray &name)
{
    const qsizetype index = headerIndex(name);
    if (value.isNull()) {
        if (index >= 0)
            m_headers.removeAt(index);
    } else if (index >= 0) {
        m_headers[index].second = value;
    } else {
        m_headers.append({name, value});
    }
}

void ZDURLRequest::addValueForHTTPHeaderField(const QByteArray &value, const QByteArray &name)
{
    const qsizetype index = headerIndex(name);
    if (index < 0)
        m_headers.append({name, value});
    else
        m_headers[index].second += ',' + value;
}

ZDHTTPResponse::ZDHTTPResponse(const QUrl &url, int statusCode, const ZDHTTPHeaderList &headers)
    : m_url(url), m_statusCode(statusCode), m_headers(headers)
{}

QByteArray ZDHTTPResponse::valueForHTTPHeaderField(const QByteArray &name) const
{
    QByteArray joined;
    for (const auto &[field, value] : m_headers) {
        if (field.compare(name, Qt::CaseInsensitive) != 0)
            continue;
        if (!joined.isNull())
            joined += ", ";
        joined += value;
    }
    return joined;
}
