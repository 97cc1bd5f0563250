#pragma once

// The toolkit's look: the colours, fonts and metrics of a grouped mobile form.

#include <QColor>
#include <QFont>
#include <QGuiApplication>
#include <QPalette>
#include <QString>

namespace zdstyle {

// The application palette is a dark one (a dark system colour scheme, or a host
// that set dark colours): the groups turn dark and their text light. A light
// palette keeps the classic colours.
inline bool isDark()
{
    const QPalette palette = QGuiApplication::palette();
    return palette.color(QPalette::Window).lightness() <
           palette.color(QPalette::WindowText).lightness();
}

inline QColor groupedBackground()
{
    return isDark() ? QGuiApplication::palette().color(QPalette::Window).darker(130)
                    : QColor(0xd8, 0xdc, 0xe3);
}
inline QColor cellBackground()
{
    return isDark() ? QGuiApplication::palette().color(QPalette::Base) : QColor(Qt::white);
}
// Text on a row: the palette's text in the dark, black in the classic look.
inline QColor cellText()
{
    return isDark() ? QGuiApplication::palette().color(QPalette::Text) : QColor(Qt::black);
}
inline QColor cellBorder()
{
    return isDark() ? QColor(0x5a, 0x5e, 0x66) : QColor(0xab, 0xb0, 0xb8);
}
inline QColor separator()
{
    return isDark() ? QColor(0x44, 0x47, 0x4e) : QColor(0xe0, 0xe0, 0xe0);
}
inline QColor selectionTop()
{
    return QColor(0x05, 0x8c, 0xf5);
}
inline QColor selectionBottom()
{
    return QColor(0x01, 0x5e, 0xe6);
}
// The slate blue of a chosen row's text and checkmark and of a value cell's
// detail text.
inline QColor tableBlue()
{
    return isDark() ? QColor(0x8a, 0xb4, 0xf8) : QColor(0x38, 0x54, 0x87);
}
inline QColor footerText()
{
    return isDark() ? QColor(0xb0, 0xb6, 0xc2) : QColor(0x4c, 0x56, 0x6c);
}
inline QColor barTint()
{
    return isDark() ? QColor(0x2f, 0x3a, 0x4a) : QColor(0x6d, 0x84, 0xa2);
}

inline QFont font(int pointSize, QFont::Weight weight = QFont::Normal)
{
    QFont f(QStringLiteral("DejaVu Sans"));
    f.setPixelSize(pointSize);
    f.setWeight(weight);
    return f;
}

inline QPalette navigationBarPalette()
{
    QPalette palette;
    palette.setColor(QPalette::Window, barTint());
    palette.setColor(QPalette::WindowText, Qt::white);
    return palette;
}

inline QString barButtonStyleSheet()
{
    return QStringLiteral(
        "QPushButton { color: white; background: rgba(255,255,255,40); border: 1px solid "
        "rgba(0,0,0,60); border-radius: 5px; padding: 5px 9px; }"
        "QPushButton:pressed { background: rgba(0,0,0,50); }"
        "QPushButton:disabled { color: rgba(255,255,255,110); }");
}

// Metrics of the grouped table, in points.
constexpr int kGroupMarginPhone = 10;
constexpr int kGroupMarginTablet = 45;
constexpr int kGroupRadius = 8;
constexpr int kDefaultSectionGap = 10;
constexpr int kCellPadding = 10;

} // namespace zdstyle
