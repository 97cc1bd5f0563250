#include "net/ZDNetworkReachability.h"

#include "net/ZDNetworkInformation_p.h"

#include <QNetworkInformation>
#include <QObject>

namespace {

class SystemReachability final : public ZDNetworkReachability
{
public:
    // Loading the backend (a plug-in, then the system bus) takes milliseconds:
    // paid here, when an upload starts, instead of at its first cut.
    SystemReachability() { zdNetworkInformation(); }
    bool isOffline() override
    {
        QNetworkInformation *info = zdNetworkInformation();
        return info && info->reachability() == QNetworkInformation::Reachability::Disconnected;
    }
    std::shared_ptr<void> whenOnline(std::function<void()> callback) override
    {
        QNetworkInformation *info = zdNetworkInformation();
        if (!info)
            return nullptr;
        // Deleted later: the callback may drop the handle while the signal is emitted.
        std::shared_ptr<QObject> watcher(new QObject, [](QObject *o) { o->deleteLater(); });
        auto once = std::make_shared<std::function<void()>>(std::move(callback));
        QObject::connect(info, &QNetworkInformation::reachabilityChanged, watcher.get(),
                         [once](QNetworkInformation::Reachability now) {
                             if (now == QNetworkInformation::Reachability::Disconnected || !*once)
                                 return;
                             std::exchange(*once, nullptr)();
                         });
        return watcher;
    }
};

} // namespace

ZDNetworkReachability::~ZDNetworkReachability() = default;

std::shared_ptr<ZDNetworkReachability> ZDNetworkReachability::systemReachability()
{
    return std::make_shared<SystemReachability>();
}
