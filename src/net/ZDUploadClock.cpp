#include "net/ZDUploadClock.h"

#include <QElapsedTimer>
#include <QTimer>

#include <limits>

namespace {

class SystemClock final : public ZDUploadClock
{
public:
    SystemClock() { m_elapsed.start(); }
    qint64 msecsNow() const override { return m_elapsed.elapsed(); }
    std::shared_ptr<void> callAfter(qint64 msecs, std::function<void()> callback) override
    {
        // Deleted later: the callback may drop the handle while the timer emits.
        std::shared_ptr<QTimer> timer(new QTimer, [](QTimer *t) { t->deleteLater(); });
        timer->setSingleShot(true);
        QObject::connect(timer.get(), &QTimer::timeout, timer.get(), std::move(callback));
        timer->start(int(std::min<qint64>(msecs, std::numeric_limits<int>::max())));
        return timer;
    }

private:
    QElapsedTimer m_elapsed;
};

} // namespace

ZDUploadClock::~ZDUploadClock() = default;

std::shared_ptr<ZDUploadClock> ZDUploadClock::systemClock()
{
    return std::make_shared<SystemClock>();
}
