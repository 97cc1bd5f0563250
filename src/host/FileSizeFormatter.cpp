#include "host/FileSizeFormatter.h"

#include <QLocale>

QString FileSizeFormatter(float size, int style)
{
    const QLocale locale;
    const qint64 bytes = size > 0 ? qint64(size) : 0;
    if (style == 0)
        return QStringLiteral("%1 bytes").arg(locale.toString(bytes));
    return locale.formattedDataSize(bytes, 1, QLocale::DataSizeSIFormat);
}
