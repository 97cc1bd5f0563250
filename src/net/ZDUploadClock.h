#pragma once

#include "core/zdglobal.h"

#include <functional>
#include <memory>

// Time for the retry policy and the chunk sizing. Tests inject a fake clock so
// that the waits are measured, not slept.
class ZD_EXPORT ZDUploadClock
{
public:
    virtual ~ZDUploadClock();
    // A monotonic time in milliseconds.
    virtual qint64 msecsNow() const = 0;
    // Calls `callback` once, from the event loop, `msecs` from now. Dropping the
    // returned handle before then cancels the call.
    virtual std::shared_ptr<void> callAfter(qint64 msecs, std::function<void()> callback) = 0;
    // QElapsedTimer and QTimer on the calling thread's event loop.
    static std::shared_ptr<ZDUploadClock> systemClock();
};
