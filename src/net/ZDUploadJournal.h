#pragma once

#include "core/zdglobal.h"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QString>
#include <QUrl>
#include <QVariantMap>

#include <memory>
#include <optional>

enum class ZDUploadProtocol;

// What makes a file the same file: its path, size, modification time and a
// SHA-256 of its first 64 KiB. An upload is resumed only onto the file it began
// with.
struct ZD_EXPORT ZDUploadFileIdentity
{
    QString path;
    qint64 size = -1;
    QDateTime modified;
    QByteArray headDigest;

    // The identity the file has now; std::nullopt when it cannot be read.
    static std::optional<ZDUploadFileIdentity> ofFile(const QString &path);
    friend bool operator==(const ZDUploadFileIdentity &, const ZDUploadFileIdentity &) = default;
};

// One interrupted upload as the journal keeps it.
struct ZD_EXPORT ZDUploadJournalEntry
{
    QString id;
    ZDUploadProtocol protocol{};
    QUrl endpoint;
    QUrl sessionURL;           // empty until the service opened the session
    qint64 offset = 0;         // what the server confirmed last
    qint64 sentUpTo = 0;       // the end of the furthest chunk ever sent
    ZDUploadFileIdentity file; // the file when the upload began
    QVariantMap metadata;      // as given to the upload
    QDateTime expires;         // when the service forgets the session, if it said
    QDateTime updated;         // when the entry was last written
};

// Interrupted uploads, one small JSON file each, under a directory: by default
// "uploads" in the application's data location (QStandardPaths::AppDataLocation).
// Every write goes through QSaveFile, so a crash leaves the previous entry or the
// new one, never half of one. A host lists the entries at start to offer
// resuming them (ZDResumableUpload's constructor that takes an entry).
//
// A running upload claims its entry (a QLockFile "<id>.lock" beside it), so
// that a second process on the same journal neither lists it as interrupted nor
// resumes it at the same time. The claim of a process that died (a crash,
// kill -9) is stale and hides nothing: the next look finds the entry again.
class ZD_EXPORT ZDUploadJournal
{
public:
    // An empty `directory` means the default above.
    explicit ZDUploadJournal(const QString &directory = QString());

    QString directory() const { return m_directory; }
    // Every readable entry that no running upload claims, oldest first;
    // unreadable files are skipped.
    QList<ZDUploadJournalEntry> entries() const;
    // Claims the entry `id` for the caller until the returned handle is
    // dropped; nullptr when a running upload (in this process or another)
    // holds it, or the directory cannot be written.
    std::shared_ptr<void> claim(const QString &id) const;
    bool isClaimed(const QString &id) const;
    std::optional<ZDUploadJournalEntry> entry(const QString &id) const;
    // Writes the entry atomically; false when it cannot be written.
    bool save(const ZDUploadJournalEntry &entry) const;
    void remove(const QString &id) const;

private:
    QString m_directory;
};
