#include "net/ZDBodyReader_p.h"

#include <algorithm>
#include <cstring>

ZDBodyReader::ZDBodyReader(const ZDBodySegments &segments) : m_segments(segments) {}

ZDBodyReader::~ZDBodyReader() = default;

qint64 ZDBodyReader::read(char *buffer, qint64 room)
{
    qint64 written = 0;
    while (written < room && m_segment < m_segments.size()) {
        const ZDBodySegment &segment = m_segments[m_segment];
        const qint64 want = std::min(room - written, segment.size() - m_offset);
        if (!segment.isFile()) {
            std::memcpy(buffer + written, segment.bytes().constData() + m_offset, size_t(want));
        } else {
            if (!m_file) {
                m_file = std::make_unique<QFile>(segment.filePath());
                if (!m_file->open(QIODevice::ReadOnly) ||
                    !m_file->seek(segment.fileOffset() + m_offset)) {
                    m_unreadable = segment.filePath();
                    return -1;
                }
            }
            if (m_file->read(buffer + written, want) != want) {
                m_unreadable = segment.filePath();
                return -1;
            }
        }
        written += want;
        m_offset += want;
        if (m_offset == segment.size()) {
            ++m_segment;
            m_offset = 0;
            m_file.reset();
        }
    }
    return written;
}

bool ZDBodyReader::rewind(qint64 offset)
{
    if (offset < 0)
        return false;
    m_file.reset();
    m_segment = 0;
    while (m_segment < m_segments.size() && offset >= m_segments[m_segment].size()) {
        offset -= m_segments[m_segment].size();
        ++m_segment;
    }
    m_offset = offset;
    return !(offset > 0 && m_segment == m_segments.size());
}
