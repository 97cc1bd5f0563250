#include "core/ZDLogging_p.h"

Q_LOGGING_CATEGORY(lcZDCore, "zd.core", QtInfoMsg)
Q_LOGGING_CATEGORY(lcZDResources, "zd.resources", QtInfoMsg)
Q_LOGGING_CATEGORY(lcZDNet, "zd.net", QtInfoMsg)
Q_LOGGING_CATEGORY(lcZDToolkit, "zd.toolkit", QtInfoMsg)
Q_LOGGING_CATEGORY(lcZDAuth, "zd.auth", QtInfoMsg)
Q_LOGGING_CATEGORY(lcZDHost, "zd.host", QtInfoMsg)
Q_LOGGING_CATEGORY(lcZDPublish, "zd.publish", QtInfoMsg)
