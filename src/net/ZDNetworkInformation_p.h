#pragma once

class QNetworkInformation;

// The system's network information, loaded in one place for everything the
// library reads of it: whether a network is reachable (the upload engine) and
// whether the link is cellular or metered (the transport). The backend
// (NetworkManager, GLib's network monitor) is loaded on the first call, with
// both features where it has them; loading takes milliseconds, so callers make
// the first call where a wait does not matter. Null without a
// QCoreApplication or where no backend loads (then nothing is reported).
QNetworkInformation *zdNetworkInformation();
