#pragma once

// Reply and body-reading helpers shared by the service's endpoints.

#include <QByteArray>
#include <QJsonObject>
#include <QList>
#include <QString>
#include <QStringView>

#include <httplib.h>

#include <optional>
#include <utility>

namespace DemoHttp {

// Name and value pairs in the order they arrived; a name may repeat.
using Parameters = QList<std::pair<QString, QString>>;

inline constexpr char kOctetStream[] = "application/octet-stream";

// `length` characters drawn from `alphabet` by the system's random generator.
QString randomString(int length, QStringView alphabet);
bool equalInConstantTime(const QByteArray &a, const QByteArray &b);

QByteArray headerValue(const httplib::Request &req, const char *name);

void replyJson(httplib::Response &res, int status, const QJsonObject &object);
void replyJsonError(httplib::Response &res, int status, const QString &message);
void replyText(httplib::Response &res, int status, const QByteArray &text);
// The client goes on sending a body the handler left unread; the connection
// cannot carry another request.
void closeAfterReply(httplib::Response &res);

// Form decoding: "+" is a space, then percent-escapes.
Parameters formParameters(const QByteArray &encoded);
Parameters queryParameters(const httplib::Request &req);
bool isFormBody(const httplib::Request &req);

// Whether the body has a length or chunks: a POST with neither has no body, and
// reading one would wait for the client to close the connection.
bool hasFramedBody(const httplib::Request &req);
// Reads the body as plain bytes, whatever its Content-Type. True once all of it
// arrived; false when the connection ended first or `receiver` stopped it.
bool readRawBody(const httplib::Request &req, const httplib::ContentReader &reader,
                 const httplib::ContentReceiver &receiver);
// A small body, read whole; nothing when it is larger than 64 KiB or cut short.
std::optional<QByteArray> readSmallBody(const httplib::Request &req,
                                        const httplib::ContentReader &reader);

} // namespace DemoHttp
