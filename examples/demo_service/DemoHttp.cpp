#include "DemoHttp.h"

#include <QJsonDocument>
#include <QRandomGenerator>

#include <string>
#include <vector>

using namespace Qt::StringLiterals;

namespace DemoHttp {

namespace {

// Small bodies (the token exchange, the revoke call) are read whole; larger
// ones are refused.
constexpr qsizetype kMaxSmallBody = 64 * 1024;

QString formDecoded(QByteArray text)
{
    text.replace('+', ' ');
    return QString::fromUtf8(QByteArray::fromPercentEncoding(text));
}

} // namespace

QString randomString(int length, QStringView alphabet)
{
    QString result(length, Qt::Uninitialized);
    for (QChar &c : result)
        c = alphabet.at(QRandomGenerator::system()->bounded(int(alphabet.size())));
    return result;
}

bool equalInConstantTime(const QByteArray &a, const QByteArray &b)
{
    if (a.size() != b.size())
        return false;
    unsigned char difference = 0;
    for (qsizetype i = 0; i < a.size(); ++i)
        difference |= static_cast<unsigned char>(a.at(i) ^ b.at(i));
    return difference == 0;
}

QByteArray headerValue(const httplib::Request &req, const char *name)
{
    return QByteArray::fromStdString(req.get_header_value(name));
}

void replyJson(httplib::Response &res, int status, const QJsonObject &object)
{
    const QByteArray body = QJsonDocument(object).toJson(QJsonDocument::Compact);
    res.status = status;
    res.set_content(body.constData(), size_t(body.size()), "application/json");
}

void replyJsonError(httplib::Response &res, int status, const QString &message)
{
    replyJson(res, status, QJsonObject{{u"error"_s, message}});
}

void replyText(httplib::Response &res, int status, const QByteArray &text)
{
    res.status = status;
    res.set_content(text.constData(), size_t(text.size()), "text/plain");
}

void closeAfterReply(httplib::Response &res)
{
    res.set_header("Connection", "close");
}

Parameters formParameters(const QByteArray &encoded)
{
    Parameters parameters;
    if (encoded.isEmpty())
        return parameters;
    for (const QByteArray &pair : encoded.split('&')) {
        const qsizetype equals = pair.indexOf('=');
        if (equals < 0)
            parameters.append({formDecoded(pair), QString()});
        else
            parameters.append({formDecoded(pair.left(equals)), formDecoded(pair.mid(equals + 1))});
    }
    return parameters;
}

Parameters queryParameters(const httplib::Request &req)
{
    const QByteArray target = QByteArray::fromStdString(req.target);
    const qsizetype query = target.indexOf('?');
    return query < 0 ? Parameters() : formParameters(target.mid(query + 1).split('#').front());
}

bool isFormBody(const httplib::Request &req)
{
    return headerValue(req, "Content-Type")
        .trimmed()
        .toLower()
        .startsWith("application/x-www-form-urlencoded");
}

bool hasFramedBody(const httplib::Request &req)
{
    if (req.get_header_value("Transfer-Encoding").find("chunked") != std::string::npos)
        return true;
    return req.has_header("Content-Length") && req.get_header_value<uint64_t>("Content-Length") > 0;
}

// cpp-httplib picks its reader from the request's Content-Type and would hand a
// multipart body to its multipart reader, which a plain receiver cannot take;
// the endpoints that read small bodies whole read them raw instead. The type is
// restored before returning.
bool readRawBody(const httplib::Request &req, const httplib::ContentReader &reader,
                 const httplib::ContentReceiver &receiver)
{
    if (!hasFramedBody(req))
        return true;
    // The handler's request is the server's own mutable object, passed as const.
    auto &headers = const_cast<httplib::Headers &>(req.headers);
    std::vector<std::string> types;
    for (auto [it, end] = headers.equal_range("Content-Type"); it != end; ++it)
        types.push_back(it->second);
    headers.erase("Content-Type");
    headers.emplace("Content-Type", kOctetStream);
    const bool complete = reader(receiver);
    headers.erase("Content-Type");
    for (const std::string &type : types)
        headers.emplace("Content-Type", type);
    return complete;
}

std::optional<QByteArray> readSmallBody(const httplib::Request &req,
                                        const httplib::ContentReader &reader)
{
    QByteArray body;
    const bool complete = readRawBody(req, reader, [&](const char *data, size_t size) {
        if (body.size() + qsizetype(size) > kMaxSmallBody)
            return false;
        body.append(data, qsizetype(size));
        return true;
    });
    return complete ? std::optional(body) : std::nullopt;
}

} // namespace DemoHttp
