#include "net/ZDURLRequest.h"

const QString ZDCurlErrorDomain = QStringLiteral("CurlErrorDomain");
const QString ZDURLErrorDomain = QStringLiteral("ZDURLErrorDomain");
const QString ZDURLErrorURLKey = QStringLiteral("failingURL");

ZDURLRequest::ZDURLRequest(const QUrl &url) : m_url(url.toEncoded()) {}

QUrl ZDURLRequest::URL() const
{
    return QUrl::fromEncoded(m_url);
}

void ZDURLRequest::setURL(const QUrl &url)
{
    m_url = url.toEncoded();
}

std::optional<QByteArray> ZDURLRequest::HTTPBody() const
{
    if (!m_body)
        return std::nullopt;
    if (m_body->isEmpty())
        return QByteArray("");
    if (m_body->size() == 1)
        return m_body->front();
    return m_body->join();
}

void ZDURLRequest::setHTTPBody(const std::optional<QByteArray> &body)
{
    if (body)
        m_body = QByteArrayList{*body};
    else
        m_body.reset();
}

qint64 ZDURLRequest::HTTPBodyLength() const
{
    qint64 length = 0;
    for (const QByteArray &segment : m_body.value_or(QByteArrayList()))
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
