#pragma once

#include "core/zdglobal.h"

#include <QString>

// The host's short size text for a byte count: style 0 spells bytes out
// ("1,234,567 bytes"), style 1 (what forms use) rounds to one decimal in the
// largest fitting unit ("1.2 MB").
ZD_EXPORT QString FileSizeFormatter(float size, int style);
