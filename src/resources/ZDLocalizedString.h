#pragma once

#include "core/zdglobal.h"

#include <QLocale>
#include <QString>

// Looks `key` up in the library's "Localizable" string table: first in the
// table of the given locale's language (the system locale by default), then in
// the English table. A key that neither table holds yields the empty string.
// Texts that take values hold Qt's numbered placeholders ("Signed in as %1").
ZD_EXPORT QString ZDLocalizedString(const QString &key, const QLocale &locale = QLocale());
