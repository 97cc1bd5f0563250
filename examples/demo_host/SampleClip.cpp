#include "SampleClip.h"

#include <QBuffer>
#include <QFile>
#include <QImage>
#include <QPainter>
#include <QtEndian>

using namespace Qt::StringLiterals;

namespace {

constexpr int kWidth = 320;
constexpr int kHeight = 240;
constexpr int kFramesPerSecond = 15;
constexpr int kFrames = 3 * kFramesPerSecond;

// Little-endian chunk writing into one buffer.
class Riff
{
public:
    void fourcc(const char *code) { m_data.append(code, 4); }
    void u32(quint32 value)
    {
        char bytes[4];
        qToLittleEndian(value, bytes);
        m_data.append(bytes, 4);
    }
    void u16(quint16 value)
    {
        char bytes[2];
        qToLittleEndian(value, bytes);
        m_data.append(bytes, 2);
    }
    // Starts a chunk (or a list, with `type`); returns where its size goes.
    qsizetype begin(const char *code, const char *type = nullptr)
    {
        fourcc(code);
        const qsizetype at = m_data.size();
        u32(0);
        if (type)
            fourcc(type);
        return at;
    }
    void end(qsizetype sizeAt)
    {
        const quint32 size = quint32(m_data.size() - sizeAt - 4);
        qToLittleEndian(size, m_data.data() + sizeAt);
        if (size % 2)
            m_data.append('\0');
    }
    qsizetype size() const { return m_data.size(); }
    QByteArray &data() { return m_data; }

private:
    QByteArray m_data;
};

QByteArray frame(int index)
{
    QImage image(kWidth, kHeight, QImage::Format_RGB32);
    const qreal t = qreal(index) / kFrames;
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    QLinearGradient sky(0, 0, 0, kHeight);
    sky.setColorAt(0, QColor::fromHsvF(0.55 + 0.1 * t, 0.6, 0.95));
    sky.setColorAt(1, QColor::fromHsvF(0.08, 0.7, 0.9));
    painter.fillRect(image.rect(), sky);
    // A sun going down over the sea.
    painter.setBrush(QColor(255, 214, 90));
    painter.setPen(Qt::NoPen);
    painter.drawEllipse(QPointF(kWidth * (0.2 + 0.6 * t), 60 + 80 * t), 26, 26);
    painter.fillRect(QRectF(0, kHeight * 0.68, kWidth, kHeight), QColor(20, 70, 130));
    painter.setPen(Qt::white);
    QFont font = painter.font();
    font.setPixelSize(16);
    font.setBold(true);
    painter.setFont(font);
    painter.drawText(QRectF(0, kHeight - 40, kWidth, 30), Qt::AlignCenter,
                     u"Sample clip \u2014 frame %1 of %2"_s.arg(index + 1).arg(kFrames));
    painter.end();
    QByteArray jpeg;
    QBuffer buffer(&jpeg);
    buffer.open(QIODevice::WriteOnly);
    image.save(&buffer, "JPEG", 80);
    return jpeg;
}

} // namespace

bool writeSampleClip(const QString &path, QString *error)
{
    QList<QByteArray> frames;
    quint32 largest = 0;
    for (int i = 0; i < kFrames; ++i) {
        frames << frame(i);
        largest = std::max(largest, quint32(frames.last().size()));
    }

    Riff avi;
    const qsizetype riff = avi.begin("RIFF", "AVI ");
    const qsizetype hdrl = avi.begin("LIST", "hdrl");
    const qsizetype avih = avi.begin("avih");
    avi.u32(1000000 / kFramesPerSecond); // microseconds per frame
    avi.u32(largest * kFramesPerSecond); // max bytes per second
    avi.u32(0);                          // padding granularity
    avi.u32(0x10);                       // has an index
    avi.u32(kFrames);
    avi.u32(0); // initial frames
    avi.u32(1); // streams
    avi.u32(largest);
    avi.u32(kWidth);
    avi.u32(kHeight);
    for (int i = 0; i < 4; ++i)
        avi.u32(0);
    avi.end(avih);
    const qsizetype strl = avi.begin("LIST", "strl");
    const qsizetype strh = avi.begin("strh");
    avi.fourcc("vids");
    avi.fourcc("MJPG");
    avi.u32(0); // flags
    avi.u16(0); // priority
    avi.u16(0); // language
    avi.u32(0); // initial frames
    avi.u32(1); // scale
    avi.u32(kFramesPerSecond);
    avi.u32(0); // start
    avi.u32(kFrames);
    avi.u32(largest);
    avi.u32(0xffffffff); // quality: default
    avi.u32(0);          // sample size: varies
    avi.u16(0);
    avi.u16(0);
    avi.u16(kWidth);
    avi.u16(kHeight);
    avi.end(strh);
    const qsizetype strf = avi.begin("strf");
    avi.u32(40);
    avi.u32(kWidth);
    avi.u32(kHeight);
    avi.u16(1);  // planes
    avi.u16(24); // bits per pixel
    avi.fourcc("MJPG");
    avi.u32(kWidth * kHeight * 3);
    for (int i = 0; i < 4; ++i)
        avi.u32(0);
    avi.end(strf);
    avi.end(strl);
    avi.end(hdrl);

    const qsizetype movi = avi.begin("LIST", "movi");
    const qsizetype moviType = movi + 4; // index offsets count from the list's type
    QList<std::pair<quint32, quint32>> index;
    for (const QByteArray &jpeg : frames) {
        index.append({quint32(avi.size() - moviType), quint32(jpeg.size())});
        const qsizetype chunk = avi.begin("00dc");
        avi.data().append(jpeg);
        avi.end(chunk);
    }
    avi.end(movi);
    const qsizetype idx1 = avi.begin("idx1");
    for (const auto &[offset, length] : index) {
        avi.fourcc("00dc");
        avi.u32(0x10); // key frame
        avi.u32(offset);
        avi.u32(length);
    }
    avi.end(idx1);
    avi.end(riff);

    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(avi.data()) != avi.size()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    return true;
}
