#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QMetaType>
#include <QString>

// One file part of a multipart/form-data body. Put it into a parameter
// dictionary (QVariant::fromValue(upload)) of a request sent as multipart POST.
//
// `name` is written into the part's filename attribute and its extension chooses
// the part's content type; `data` is the file's contents, held in memory. In the
// attribute each backslash of the name is doubled and each double quote preceded
// by a backslash; CR and LF become %0D and %0A, as browsers write them, so that a
// name can never end its header line early.
class ZD_EXPORT ZDFileUpload
{
public:
    ZDFileUpload() = default;
    // Reads the whole file at `path` into data() and takes the path's last
    // component as name(). When the file cannot be read, data() is null
    // (isNull()) and nothing else is reported; an empty file gives empty,
    // non-null data.
    explicit ZDFileUpload(const QString &path);

    QString name() const { return m_name; }
    void setName(const QString &name) { m_name = name; }

    QByteArray data() const { return m_data; }
    void setData(const QByteArray &data) { m_data = data; }

    friend bool operator==(const ZDFileUpload &, const ZDFileUpload &) = default;

private:
    QString m_name;
    QByteArray m_data;
};

// A file part read from disk while the body is sent, for videos too large to
// hold in memory: memory stays flat whatever the file's size. The body it makes
// is byte for byte the one a ZDFileUpload of the same file makes. The file's
// size is taken when the body is built; a file that then goes away or shrinks
// fails the request (ZDURLErrorBodyFileUnreadable), and one that cannot be read
// when the body is built contributes an empty content, as with ZDFileUpload.
class ZD_EXPORT ZDStreamedFileUpload
{
public:
    ZDStreamedFileUpload() = default;
    // Takes the path's last component as name().
    explicit ZDStreamedFileUpload(const QString &path);

    QString name() const { return m_name; }
    void setName(const QString &name) { m_name = name; }
    QString path() const { return m_path; }

    friend bool operator==(const ZDStreamedFileUpload &, const ZDStreamedFileUpload &) = default;

private:
    QString m_name;
    QString m_path;
};

Q_DECLARE_METATYPE(ZDFileUpload)
Q_DECLARE_METATYPE(ZDStreamedFileUpload)
