#pragma once

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
// part holding ZDAdditions::textualDescription() of the value. Keys are written
// as they are.
//
// `prefix` is placed before the first delimiter, in the same single allocation,
// so that a body can be continued without copying a large file part twice.
QByteArray zdMultipartParamData(const QVariantMap &params, const QString &boundary,
                                const QByteArray &prefix = QByteArray());

// The content-type header line of a file part named `name`.
QByteArray zdMultipartContentTypeLine(const QString &name);
