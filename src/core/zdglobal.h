#pragma once

#include <QtCore/qglobal.h>

// Symbols of the library are hidden unless marked; everything a plug-in or a host
// uses is marked with ZD_EXPORT.
#define ZD_EXPORT Q_DECL_EXPORT

#define ZD_VERSION_STRING "0.1.0"
