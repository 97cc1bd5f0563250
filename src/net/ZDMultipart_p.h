#pragma once

#include "net/ZDURLRequest.h"
#include <QByteArray>

#include <QString>
#include <QVariantMap>

// The multipart/form-data encoding of `params`: for each entry, in the map's
// order, the delimiter line "--<boundary>\r\n", the part's header lines, an
// empty line, the content and "\r\n"; then the delimiter line once more. That
// closing line is an ordinary delimiter, not "--<boundary>--": receivers of this
// library's bodies rely on that layout.
//
// A ZDFileUpload value becomes a file part whose content type follows its name's
// extension; a QByteArray an application/octet-stream part; anything else a text
// part holding ZDAdditions::textualDescription() of the value.
//
// Keys are written as they are; JSONHTTPRequest refuses to send a multipart
// body whose keys hold a double quote, CR or LF (zdMultipartKeyIsSafe()). File
// names have each backslash doubled and each double quote preceded by a
// backslash, and CR and LF become %0D and %0A, as browsers encode them, so that
// no name can end its header line early.
//
// The body in one buffer, allocated once at its exact size.
QByteArray zdMultipartParamData(const QVariantMap &params, const QString &boundary);

// The same bytes as pieces to send back to back: large contents (file parts,
// byte buffers) are pieces of their own that share the caller's buffers, a
// ZDStreamedFileUpload is a piece read from its file, and the text between them
// is joined into small pieces.
ZDBodySegments zdMultipartSegments(const QVariantMap &params, const QString &boundary);

// The pieces joined into one buffer, allocated once at its exact size.
QByteArray zdJoinSegments(const ZDBodySegments &segments);

// Whether `key` can stand inside the quoted name attribute: no double quote
// (which would end it early and let the rest read as further attributes, such
// as a forged filename), no CR or LF (which would end the header line).
bool zdMultipartKeyIsSafe(const QString &key);

// The content-type header line of a file part named `name`.
QByteArray zdMultipartContentTypeLine(const QString &name);
