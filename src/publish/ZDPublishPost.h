#pragma once

#include "core/ZDError.h"
#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

class ZDPublishPost;

// Hears an upload job's progress and outcome.
class ZD_EXPORT ZDPublishPostDelegate : public virtual ZDWeakTarget
{
public:
    virtual void publishPostDidFailWithError(ZDPublishPost *post, const ZDError &error) = 0;
    virtual void publishPostSucceeded(ZDPublishPost *post) = 0;
    virtual void publishPostHasWrittenBytesExpectsToWrite(ZDPublishPost *post, qint64 written,
                                                          qint64 expected) = 0;
};

// The base of a service's upload job. A service subclass starts its upload in
// startUpload(), usually with JSONHTTPRequest and with
// allowsCellularAccessForUploads() applied to its requests, and reports through
// delegate(): progress any number of times, then exactly one of success and
// failure. The delegate is not owned; once it is gone the job reports nowhere.
class ZD_EXPORT ZDPublishPost
{
public:
    explicit ZDPublishPost(ZDPublishPostDelegate *delegate);
    virtual ~ZDPublishPost();

    ZDPublishPostDelegate *delegate() const { return m_delegate.get(); }

    bool allowsCellularAccessForUploads() const { return m_allowsCellularAccessForUploads; }
    void setAllowsCellularAccessForUploads(bool allow) { m_allowsCellularAccessForUploads = allow; }

    // Does nothing in the base.
    virtual void startUpload();

private:
    ZDWeakRef<ZDPublishPostDelegate> m_delegate;
    bool m_allowsCellularAccessForUploads = false;
};
