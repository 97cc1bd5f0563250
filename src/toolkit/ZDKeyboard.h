#pragma once

#include "core/zdglobal.h"

#include <QSizeF>
#include <QString>

// Posted on ZDNotificationCenter::defaultCenter() when the on-screen keyboard
// has come up and when it has gone away.
ZD_EXPORT extern const QString ZDKeyboardDidShowNotification;
ZD_EXPORT extern const QString ZDKeyboardDidHideNotification;

struct ZD_EXPORT ZDKeyboard
{
    // The on-screen keyboard's size in portrait across a view `width` points wide.
    static QSizeF defaultSize(int width) { return QSizeF(width, 216.0); }
};
