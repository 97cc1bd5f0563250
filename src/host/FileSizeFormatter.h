#pragma once

#include "core/zdglobal.h"

#include <QString>

// The host's short size text for a byte count, in the default locale's
// numbers. Style 0 spells bytes out ("1,234,567 bytes"); style 1 (what forms
// use) rounds to one decimal in the largest fitting unit.
//
// Units are decimal SI, as desktop file managers show file sizes: 1 kB is
// 1000 bytes, 1 MB is 1000 kB, 1 GB is 1000 MB ("1.2 MB" for 1,200,000 bytes,
// "12.6 MB" for 12 MiB). Below 1000 bytes the count is given as it is
// ("999 bytes"). A negative size shows as 0 bytes.
ZD_EXPORT QString FileSizeFormatter(float size, int style);
