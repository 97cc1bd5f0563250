#pragma once

#include "core/zdglobal.h"

#include <functional>
#include <memory>

// Whether the system has a network, for the retry policy: while it has none the
// engine waits for it instead of spending retries. Tests inject their own.
class ZD_EXPORT ZDNetworkReachability
{
public:
    virtual ~ZDNetworkReachability();
    // True only when the system is sure that no network is reachable.
    virtual bool isOffline() = 0;
    // Calls `callback` once, from the event loop, when a network is reachable
    // again. Dropping the returned handle before then cancels the call.
    virtual std::shared_ptr<void> whenOnline(std::function<void()> callback) = 0;
    // QNetworkInformation's reachability where a backend loads (NetworkManager,
    // GLib's network monitor); without one the network is never reported gone.
    // The backend is loaded when this is called (an upload's start), so that
    // the first failure does not wait for it.
    static std::shared_ptr<ZDNetworkReachability> systemReachability();
};
