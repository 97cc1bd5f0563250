#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QMetaType>
#include <QString>

// One file part of a multipart/form-data body. Put it into a parameter
// dictionary (QVariant::fromValue(upload)) of a request sent as multipart POST.
//
// `name` is written into the part's filename attribute and its extension chooses
// the part's content type; `data` is the file's contents, held in memory.
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

Q_DECLARE_METATYPE(ZDFileUpload)
