#include "net/ZDNetworkInformation_p.h"

#include <QCoreApplication>
#include <QNetworkInformation>

QNetworkInformation *zdNetworkInformation()
{
    using Info = QNetworkInformation;
    if (!QCoreApplication::instance())
        return nullptr;
    if (Info *loaded = Info::instance())
        return loaded;
    // Only one backend loads per process; prefer one that knows the link's
    // medium as well as its reachability.
    if (!Info::loadBackendByFeatures(Info::Feature::Reachability | Info::Feature::TransportMedium))
        Info::loadBackendByFeatures(Info::Feature::Reachability);
    return Info::instance();
}
