#include "toolkit/ZDKeyboard.h"

const QString ZDKeyboardDidShowNotification = QStringLiteral("ZDKeyboardDidShowNotification");
const QString ZDKeyboardDidHideNotification = QStringLiteral("ZDKeyboardDidHideNotification");
