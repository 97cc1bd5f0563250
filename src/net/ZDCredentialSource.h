#pragma once

#include "core/ZDError.h"
#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"
#include "net/JSONHTTPRequest.h"

#include <functional>
#include <memory>
#include <optional>

// Hands out a signer that carries the account's current credentials, renewing
// them when they are about to expire or a service refused them. Long-running
// work (a resumable upload, a request repeated after a 401) asks it before each
// request instead of holding one signer for its whole life.
//
// Callback contract: every call to credentialsForRequest() is answered exactly
// once, on the calling thread, from its event loop (never from inside the call):
// with a signer, or with an error when no usable credentials can be had. When
// the service could not be reached (the error is the transport's, or a 5xx
// status) the source stays signed in and a later ask may succeed, so a caller
// that retries treats it as a network failure; any other error means the
// service refused to renew the credentials, the source has signed out and the
// user must sign in again. The source may be destroyed before it answers;
// holders keep it in a ZDWeakRef and treat a source that has gone as an error
// of their own.
class ZD_EXPORT ZDCredentialSource : public virtual ZDWeakTarget
{
public:
    enum class Reason {
        BeforeRequest, // renew only if the credentials expire soon
        Unauthorized,  // the service answered 401 to the last credentials: renew now
    };
    using Completion =
        std::function<void(std::shared_ptr<RequestSigner> signer, std::optional<ZDError> error)>;

    ~ZDCredentialSource() override;
    virtual void credentialsForRequest(Reason reason, Completion completion) = 0;
};
