#include "toolkit/ZDQRCode_p.h"

#include <qrencode.h>

#include <algorithm>
#include <memory>

QImage zdQRCodeImage(const QString &text, int scale)
{
    const QByteArray utf8 = text.toUtf8();
    // Level M survives a phone camera's glare and a slightly dirty screen.
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString(utf8.constData(), 0, QR_ECLEVEL_M, QR_MODE_8, 1), &QRcode_free);
    if (!code)
        return {};
    constexpr int kQuietZone = 4; // modules; readers need it to find the code
    const int modules = code->width + 2 * kQuietZone;
    QImage image(modules * scale, modules * scale, QImage::Format_Grayscale8);
    image.fill(255);
    for (int y = 0; y < code->width; ++y) {
        for (int x = 0; x < code->width; ++x) {
            if (!(code->data[y * code->width + x] & 1))
                continue;
            for (int dy = 0; dy < scale; ++dy) {
                uchar *line = image.scanLine((y + kQuietZone) * scale + dy);
                std::fill_n(line + (x + kQuietZone) * scale, scale, uchar(0));
            }
        }
    }
    return image;
}
