#pragma once

#include <QLoggingCategory>

// The library's logging categories, one per layer, named after it. A layer
// logs only through its own (qCWarning(lcZDNet) << ...), never through
// qWarning() and friends, so a host can turn the library's diagnostics on and
// off by category:
//
//   QT_LOGGING_RULES="zd.*.debug=true"                  everything
//   QLoggingCategory::setFilterRules(u"zd.*=false"_s);  nothing
//
// Informational messages, warnings and critical messages are on by default;
// debug messages are off.
Q_DECLARE_LOGGING_CATEGORY(lcZDCore)
Q_DECLARE_LOGGING_CATEGORY(lcZDResources)
Q_DECLARE_LOGGING_CATEGORY(lcZDNet)
Q_DECLARE_LOGGING_CATEGORY(lcZDToolkit)
Q_DECLARE_LOGGING_CATEGORY(lcZDAuth)
Q_DECLARE_LOGGING_CATEGORY(lcZDHost)
Q_DECLARE_LOGGING_CATEGORY(lcZDPublish)
