#pragma once

// Where the service keeps the sign-ins it gave out, so that a restart on the
// same data folder does not sign anybody out.

#include <QJsonObject>
#include <QString>

// One JSON object in one file, replaced whole on every save. Not thread-safe:
// each store calls it under its own lock.
class TokenFile
{
public:
    // Keeps the object in the file at `path` from now on. Answers what the
    // file holds: an empty object when there is no file yet, or when it cannot
    // be read or is not a JSON object (the sign-ins in it are then lost, which
    // signs their holders out and grants nothing).
    QJsonObject open(const QString &path);
    bool isOpen() const { return !m_path.isEmpty(); }

    // Replaces the file with `object` through a temporary file renamed over it,
    // so a crash leaves the old sign-ins or the new ones, never half a file.
    // Only the service's user may read or write it: it holds live credentials.
    // False, with a line on stderr, when the file could not be written; true
    // when no file was opened (sign-ins then live in memory only).
    bool save(const QJsonObject &object) const;

private:
    QString m_path;
};
