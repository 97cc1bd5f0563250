#pragma once

#include "core/zdglobal.h"

#include <QString>

// Posted on ZDNotificationCenter::defaultCenter() when the on-screen keyboard
// has come up and when it has gone away.
ZD_EXPORT extern const QString ZDKeyboardDidShowNotification;
ZD_EXPORT extern const QString ZDKeyboardDidHideNotification;

// The height of the on-screen keyboard in portrait on a phone, in points.
constexpr double ZDKeyboardDefaultHeight = 216.0;
