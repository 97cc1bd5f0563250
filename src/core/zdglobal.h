#pragma once

#include <QtCore/qglobal.h>

// Symbols of the library are hidden unless marked; everything a plug-in or a host
// uses is marked with ZD_EXPORT. The build writes ZD_EXPORT and
// ZD_VERSION_STRING (the library's version, "major.minor.patch") into this
// header, which is installed beside this one.
#include "zdpublish_export.h"
