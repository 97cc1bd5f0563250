#pragma once

#include <QImage>
#include <QString>

// A QR code of `text` as a black-on-white image with a quiet zone, `scale`
// pixels per module; null when the text does not fit in a QR code.
QImage zdQRCodeImage(const QString &text, int scale = 4);
