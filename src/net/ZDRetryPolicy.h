#pragma once

#include "core/zdglobal.h"

// Which failures are retried, and how long the engine waits.
//
// Retried: connection failures, stalls and time-outs, 5xx, 408, 423 and 429
// answers, and refusals the plug-in marks retryable (setRetryableRefusal()).
// Never retried: any other 4xx. The wait before retry n (from 1) is
// initialDelay * multiplier^(n-1), capped at maximumDelay, then spread by
// +-jitter; a Retry-After of the answer (seconds or an HTTP date) always wins
// when it is longer. The count starts again whenever bytes are confirmed. The
// upload fails when the next wait would take the time spent waiting since the
// last confirmed bytes past `budgetMsecs`.
//
// Two exceptions. A tus connection that broke after it carried body bytes is
// most often a passing cut (tus servers serialise an upload's requests, so the
// answer to the offset query comes once the lost request is settled), and a
// Retry-After of 0 or a 409 asks for no wait: the engine asks the server where
// it stands at once, but only once until bytes are confirmed again; a failure
// after that waits as above, so a server that answers the same way forever
// meets the budget. A 308 service may still be settling a lost request when
// asked, so a cut there waits as above from the first retry, and its offset is
// asked again after initialDelay until two answers agree. (A dialect of its
// own says which of the two its servers do: ZDUploadDialect::settlesLostRequests().)
// While the system reports no network (ZDNetworkReachability) the engine waits
// for it to come back without spending the budget.
struct ZD_EXPORT ZDRetryPolicy
{
    qint64 initialDelayMsecs = 1000;
    qint64 maximumDelayMsecs = 60 * 1000;
    double multiplier = 2.0;
    double jitter = 0.2; // a fraction of the wait, both ways
    qint64 budgetMsecs = 15 * 60 * 1000;

    // The wait before retry `attempt` (1 for the first), `unitRandom` in [0, 1).
    qint64 delayForAttempt(int attempt, double unitRandom) const;
};
