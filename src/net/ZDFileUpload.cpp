#include "net/ZDFileUpload.h"

#include <QFile>
#include <QFileInfo>

#include <new>

ZDFileUpload::ZDFileUpload(const QString &path) : m_name(QFileInfo(path).fileName())
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return;
    QByteArray contents;
    try {
        contents = file.readAll();
    } catch (const std::bad_alloc &) {
        return; // larger than the memory we can have: unreadable, like any other failure
    }
    if (file.error() != QFileDevice::NoError)
        return;
    // readAll() of an empty file is a null array; an empty file is still readable.
    m_data = contents.isNull() ? QByteArray("") : std::move(contents);
}

ZDStreamedFileUpload::ZDStreamedFileUpload(const QString &path)
    : m_name(QFileInfo(path).fileName()), m_path(path)
{}
