#pragma once

// Reads a request body of several pieces (ZDBodySegments) in turn, as the
// transport asks for the next bytes: memory pieces in place, file pieces
// straight from disk, opening a piece's file only when the reading reaches it.
// No piece is ever joined with another or copied whole.

#include "net/ZDURLRequest.h"

#include <QFile>

#include <memory>

class ZDBodyReader
{
public:
    // The pieces are shared, not copied (a QList of implicitly shared bytes).
    explicit ZDBodyReader(const ZDBodySegments &segments);
    ~ZDBodyReader();
    ZDBodyReader(const ZDBodyReader &) = delete;
    ZDBodyReader &operator=(const ZDBodyReader &) = delete;

    // Fills `buffer` (not owned) with the next bytes, at most `room`: fewer only
    // at the body's end (0 once it is all read). -1 when a file piece could not
    // be opened or gave fewer bytes than its size (gone or shrunk since the body
    // was built); unreadableFilePath() names it.
    qint64 read(char *buffer, qint64 room);

    // Reads again from byte `offset` of the body (a redirect repeats the body).
    // False for an offset beyond the body's end.
    bool rewind(qint64 offset);

    QString unreadableFilePath() const { return m_unreadable; }

private:
    const ZDBodySegments m_segments;
    qsizetype m_segment = 0; // the piece being read
    qint64 m_offset = 0;     // within that piece
    std::unique_ptr<QFile> m_file;
    QString m_unreadable;
};
