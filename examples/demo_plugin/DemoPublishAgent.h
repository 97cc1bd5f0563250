#pragma once

#include "DemoPublishPost.h"

#include <publish/ZDPublishAgent.h>

// The agent through which a host publishes to Demo Video.
//
// The host opens the form with navigationController(). Once the user has
// published and the host has the file to send (after confirmPublishing(), when
// its export in the chosen quality is ready), it calls uploadVideoAtPath(); the
// agent makes the upload job, marks publishing in progress and starts it.
// Progress and the outcome then reach the host through the base's operations
// and its host delegate; publishedVideo() tells where the video went.
class DemoPublishAgent : public ZDPublishAgent
{
public:
    ZDPublishViewControllerClass publishViewControllerClass() override;

    void uploadVideoAtPath(const QString &path);

    // Uploads to Demo Video that a crash, a kill or a lost network left
    // unfinished, oldest first, from the journal the upload options name.
    QList<ZDUploadJournalEntry> interruptedUploads() const;
    // Resumes one of them like uploadVideoAtPath(): the same job, progress and
    // outcome, with the details the upload began with (the form is not asked).
    // A file that changed since ends the job at once with a failure that says
    // so; its entry is dropped and the old session is never continued.
    void resumeInterruptedUpload(const ZDUploadJournalEntry &entry);
    // Stops a running upload; the host hears of it as a failure for which
    // isCancellation() holds.
    void cancelUpload();

    // A cancellation is what the user asked for, not a failure: it reaches the
    // host like one but is not logged as "Publish failed".
    void publishPostDidFailWithError(ZDPublishPost *post, const ZDError &error) override;

    void setUploadOptions(const DemoUploadOptions &options) { m_uploadOptions = options; }
    const DemoUploadOptions &uploadOptions() const { return m_uploadOptions; }

    // The service's answer once the upload succeeded.
    std::optional<DemoPublishedVideo> publishedVideo() const;
    DemoPublishPost *demoPublishPost() const;

private:
    DemoUploadOptions m_uploadOptions;
};
