#include "net/ZDUploadJournal.h"

#include "net/ZDResumableUpload.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QLockFile>
#include <QSaveFile>
#include <QStandardPaths>

#include <algorithm>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kHeadBytes = 64 * 1024;

bool isSafeId(const QString &id)
{
    return !id.isEmpty() && std::all_of(id.cbegin(), id.cend(),
                                        [](QChar c) { return c.isLetterOrNumber() || c == u'-'; });
}

QJsonObject toJson(const ZDUploadJournalEntry &entry)
{
    return QJsonObject{
        {u"id"_s, entry.id},
        {u"protocol"_s, int(entry.protocol)},
        {u"endpoint"_s, QString::fromUtf8(entry.endpoint.toEncoded())},
        {u"session"_s, QString::fromUtf8(entry.sessionURL.toEncoded())},
        {u"offset"_s, QString::number(entry.offset)},
        {u"sentUpTo"_s, QString::number(entry.sentUpTo)},
        {u"path"_s, entry.file.path},
        {u"size"_s, QString::number(entry.file.size)},
        {u"modified"_s, entry.file.modified.toUTC().toString(Qt::ISODateWithMs)},
        {u"head"_s, QString::fromLatin1(entry.file.headDigest.toHex())},
        {u"metadata"_s, QJsonObject::fromVariantMap(entry.metadata)},
        {u"expires"_s, entry.expires.toUTC().toString(Qt::ISODateWithMs)},
        {u"updated"_s, entry.updated.toUTC().toString(Qt::ISODateWithMs)},
    };
}

std::optional<ZDUploadJournalEntry> fromJson(const QJsonObject &object)
{
    ZDUploadJournalEntry entry;
    entry.id = object.value(u"id"_s).toString();
    const int protocol = object.value(u"protocol"_s).toInt(-1);
    if (!isSafeId(entry.id) || protocol < 0 || protocol > int(ZDUploadProtocol::Custom))
        return std::nullopt;
    entry.protocol = ZDUploadProtocol(protocol);
    entry.endpoint = QUrl::fromEncoded(object.value(u"endpoint"_s).toString().toUtf8());
    entry.sessionURL = QUrl::fromEncoded(object.value(u"session"_s).toString().toUtf8());
    entry.offset = object.value(u"offset"_s).toString().toLongLong();
    entry.sentUpTo = object.value(u"sentUpTo"_s).toString().toLongLong();
    entry.file.path = object.value(u"path"_s).toString();
    entry.file.size = object.value(u"size"_s).toString().toLongLong();
    entry.file.modified =
        QDateTime::fromString(object.value(u"modified"_s).toString(), Qt::ISODateWithMs);
    entry.file.headDigest = QByteArray::fromHex(object.value(u"head"_s).toString().toLatin1());
    entry.metadata = object.value(u"metadata"_s).toObject().toVariantMap();
    entry.expires = QDateTime::fromString(object.value(u"expires"_s).toString(), Qt::ISODateWithMs);
    entry.updated = QDateTime::fromString(object.value(u"updated"_s).toString(), Qt::ISODateWithMs);
    if (entry.file.path.isEmpty() || entry.offset < 0 || entry.sentUpTo < entry.offset)
        return std::nullopt;
    return entry;
}

} // namespace

std::optional<ZDUploadFileIdentity> ZDUploadFileIdentity::ofFile(const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return std::nullopt;
    const QFileInfo info(file);
    ZDUploadFileIdentity identity;
    identity.path = info.absoluteFilePath();
    identity.size = info.size();
    identity.modified = info.lastModified().toUTC();
    // Kept to the millisecond, as the journal writes it.
    identity.modified.setMSecsSinceEpoch(identity.modified.toMSecsSinceEpoch());
    const QByteArray head = file.read(kHeadBytes);
    if (head.size() != std::min(kHeadBytes, identity.size))
        return std::nullopt;
    identity.headDigest = QCryptographicHash::hash(head, QCryptographicHash::Sha256);
    return identity;
}

ZDUploadJournal::ZDUploadJournal(const QString &directory)
    : m_directory(directory.isEmpty()
                      ? QStandardPaths::writableLocation(QStandardPaths::AppDataLocation) +
                            u"/uploads"_s
                      : directory)
{}

QList<ZDUploadJournalEntry> ZDUploadJournal::entries() const
{
    QList<ZDUploadJournalEntry> list;
    const QDir dir(m_directory);
    for (const QString &name : dir.entryList({u"*.json"_s}, QDir::Files)) {
        if (auto found = entry(name.chopped(5)); found && !isClaimed(found->id))
            list.append(*found);
    }
    std::sort(list.begin(), list.end(),
              [](const auto &a, const auto &b) { return a.updated < b.updated; });
    return list;
}

std::optional<ZDUploadJournalEntry> ZDUploadJournal::entry(const QString &id) const
{
    if (!isSafeId(id))
        return std::nullopt;
    QFile file(m_directory + u'/' + id + u".json"_s);
    // An entry is a few hundred bytes; anything far larger is not ours.
    if (!file.open(QIODevice::ReadOnly) || file.size() > 1024 * 1024)
        return std::nullopt;
    const QJsonDocument document = QJsonDocument::fromJson(file.readAll());
    auto found = fromJson(document.object());
    if (found && found->id != id)
        return std::nullopt;
    return found;
}

bool ZDUploadJournal::save(const ZDUploadJournalEntry &entry) const
{
    if (!isSafeId(entry.id) || !QDir().mkpath(m_directory))
        return false;
    QSaveFile file(m_directory + u'/' + entry.id + u".json"_s);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    ZDUploadJournalEntry stamped = entry;
    stamped.updated = QDateTime::currentDateTimeUtc();
    file.write(QJsonDocument(toJson(stamped)).toJson(QJsonDocument::Compact));
    return file.commit();
}

namespace {

// Only a process that is gone leaves a stale claim: the age of a claim says
// nothing, as an upload may run for days.
std::unique_ptr<QLockFile> claimFile(const QString &directory, const QString &id)
{
    auto lock = std::make_unique<QLockFile>(directory + u'/' + id + u".lock"_s);
    lock->setStaleLockTime(0);
    return lock;
}

} // namespace

std::shared_ptr<void> ZDUploadJournal::claim(const QString &id) const
{
    if (!isSafeId(id) || !QDir().mkpath(m_directory))
        return nullptr;
    std::unique_ptr<QLockFile> lock = claimFile(m_directory, id);
    // A moment's patience: another process may be looking at the claim.
    if (!lock->tryLock(200))
        return nullptr;
    return std::shared_ptr<QLockFile>(std::move(lock));
}

bool ZDUploadJournal::isClaimed(const QString &id) const
{
    if (!isSafeId(id))
        return false;
    const std::unique_ptr<QLockFile> lock = claimFile(m_directory, id);
    if (lock->tryLock(0)) {
        lock->unlock();
        return false;
    }
    return lock->error() == QLockFile::LockFailedError;
}

void ZDUploadJournal::remove(const QString &id) const
{
    if (isSafeId(id))
        QFile::remove(m_directory + u'/' + id + u".json"_s);
}
