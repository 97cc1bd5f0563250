#pragma once

#include "core/ZDError.h"
#include "core/zdglobal.h"
#include "net/JSONHTTPRequest.h"
#include "net/ZDCredentialSource.h"

#include <QVariant>

#include <functional>
#include <memory>
#include <optional>

// One request made on an account's behalf: it asks a credential source for a
// signer, sends the request, and when the service answers 401 asks for renewed
// credentials and sends it once more. A second 401 is the caller's failure.
//
// The caller builds the request for a given signer and delegate (the builder may
// run twice; each request it returns is owned here), so any verb, body or
// response type works.
//
// Callback contract: after start(), the completion runs exactly once, from the
// event loop, with the parsed object or the error (the request's own, or the
// source's when it could not hand out credentials), unless the object is
// cancelled or destroyed first; then it never runs. The completion may destroy
// this object. The source is not owned; one that is destroyed while asked is an
// error (ZDOAuth2ErrorNotSignedIn).
class ZD_EXPORT ZDAuthorizedRequest : public JSONHTTPRequestDelegate
{
public:
    using Builder = std::function<std::unique_ptr<JSONHTTPRequest>(
        JSONHTTPRequestDelegate *delegate, std::shared_ptr<RequestSigner> signer)>;
    using Completion =
        std::function<void(const QVariant &object, const std::optional<ZDError> &error)>;

    ZDAuthorizedRequest(ZDCredentialSource *source, Builder build, Completion completion);
    ~ZDAuthorizedRequest() override;

    void start();
    void cancel();
    // How many times the request was sent (1, or 2 after a 401).
    int attempts() const { return m_attempts; }

    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;

private:
    void ask(ZDCredentialSource::Reason reason);
    void finish(const QVariant &object, const std::optional<ZDError> &error);

    ZDWeakRef<ZDCredentialSource> m_source;
    Builder m_build;
    Completion m_completion;
    std::unique_ptr<JSONHTTPRequest> m_request;
    std::shared_ptr<int> m_generation = std::make_shared<int>(0); // stale answers are dropped
    int m_attempts = 0;
};
