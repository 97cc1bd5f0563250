#include "auth/ZDAuthorizedRequest.h"

#include "auth/ZDOAuth2Authenticator.h"

#include <QTimer>

ZDAuthorizedRequest::ZDAuthorizedRequest(ZDCredentialSource *source, Builder build,
                                         Completion completion)
    : m_source(source), m_build(std::move(build)), m_completion(std::move(completion))
{}

ZDAuthorizedRequest::~ZDAuthorizedRequest()
{
    ++*m_generation;
}

void ZDAuthorizedRequest::start()
{
    cancel();
    m_attempts = 0;
    ask(ZDCredentialSource::Reason::BeforeRequest);
}

void ZDAuthorizedRequest::cancel()
{
    ++*m_generation;
    m_request.reset();
}

void ZDAuthorizedRequest::ask(ZDCredentialSource::Reason reason)
{
    const int generation = *m_generation;
    const std::weak_ptr<int> alive = m_generation;
    ZDCredentialSource *source = m_source.get();
    if (!source) {
        // Answered from the event loop, like every other outcome.
        QTimer::singleShot(0, [this, alive, generation] {
            if (const auto current = alive.lock(); current && *current == generation)
                finish({}, ZDError(ZDOAuth2ErrorDomain, ZDOAuth2ErrorNotSignedIn,
                                   {{ZDLocalizedDescriptionKey,
                                     QStringLiteral("The account's credentials are gone.")}}));
        });
        return;
    }
    source->credentialsForRequest(
        reason, [this, alive, generation](std::shared_ptr<RequestSigner> signer,
                                          std::optional<ZDError> error) {
            const auto current = alive.lock();
            if (!current || *current != generation)
                return;
            if (error || !signer) {
                finish({}, error ? *error : ZDError(ZDOAuth2ErrorDomain, ZDOAuth2ErrorNotSignedIn));
                return;
            }
            ++m_attempts;
            m_request = m_build(this, std::move(signer));
            m_request->start();
        });
}

void ZDAuthorizedRequest::requestDidReceiveObject(JSONHTTPRequest *, const QVariant &object)
{
    finish(object, std::nullopt);
}

void ZDAuthorizedRequest::requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error)
{
    const auto response = request->response();
    const bool unauthorized = error.domain() == JSONHTTPRequestErrorDomain &&
                              error.code() == JSONHTTPRequestErrorBadStatus && response &&
                              response->statusCode() == 401;
    if (unauthorized && m_attempts == 1) {
        ask(ZDCredentialSource::Reason::Unauthorized);
        return;
    }
    finish({}, error);
}

void ZDAuthorizedRequest::finish(const QVariant &object, const std::optional<ZDError> &error)
{
    ++*m_generation;
    const Completion completion = m_completion; // may destroy us
    completion(object, error);
}
