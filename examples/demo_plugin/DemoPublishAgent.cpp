#include "DemoPublishAgent.h"

#include "DemoPublishViewController.h"
#include "DemoVideo.h"

using namespace Qt::StringLiterals;

ZDPublishViewControllerClass DemoPublishAgent::publishViewControllerClass()
{
    return [] {
        auto form = ZDPublishViewController::create<DemoPublishViewController>();
        form->setShowHDSection(true);
        form->setEnableHDSection(true);
        return std::unique_ptr<ZDPublishViewController>(std::move(form));
    };
}

void DemoPublishAgent::uploadVideoAtPath(const QString &path)
{
    auto *form = static_cast<DemoPublishViewController *>(publishViewController());
    DemoVideoDetails details{path, QString(), QString(), {}, QString(), QString()};
    if (form) {
        details.title = form->videoTitle().trimmed();
        details.description = form->videoDescription();
        for (const QString &tag : form->videoTags()) {
            if (!tag.trimmed().isEmpty())
                details.tags << tag.trimmed();
        }
        if (const std::optional<ZDCategory> category = form->videoCategory())
            details.category = category->value().toString();
        details.access = form->videoAccess();
    }
    m_publishPost = std::make_unique<DemoPublishPost>(this, details, m_uploadOptions);
    setPublishingInProgress(true);
    m_publishPost->startUpload();
}

QList<ZDUploadJournalEntry> DemoPublishAgent::interruptedUploads() const
{
    QList<ZDUploadJournalEntry> ours;
    // The journal may be shared with other plug-ins of the application: only
    // sessions of Demo Video's upload endpoint are this plug-in's to resume.
    const QString uploads = DemoVideo::endpoint(u"api/uploads"_s).path();
    for (const ZDUploadJournalEntry &entry : demoUploadJournal(m_uploadOptions).entries()) {
        if (entry.protocol == ZDUploadProtocol::ResumeIncomplete &&
            entry.endpoint.path() == uploads && !entry.sessionURL.isEmpty())
            ours.append(entry);
    }
    return ours;
}

void DemoPublishAgent::resumeInterruptedUpload(const ZDUploadJournalEntry &entry)
{
    m_publishPost = std::make_unique<DemoPublishPost>(this, entry, m_uploadOptions);
    setPublishingInProgress(true);
    m_publishPost->startUpload();
}

void DemoPublishAgent::cancelUpload()
{
    if (DemoPublishPost *post = demoPublishPost())
        post->cancel();
}

void DemoPublishAgent::publishPostDidFailWithError(ZDPublishPost *post, const ZDError &error)
{
    if (!isCancellation(error)) {
        ZDPublishAgent::publishPostDidFailWithError(post, error);
        return;
    }
    setPublishingInProgress(false);
    if (PublishingAgentHostDelegate *host = hostDelegate())
        host->agentDidFinishPublishingError(this, error);
}

DemoPublishPost *DemoPublishAgent::demoPublishPost() const
{
    return static_cast<DemoPublishPost *>(m_publishPost.get());
}

std::optional<DemoPublishedVideo> DemoPublishAgent::publishedVideo() const
{
    const DemoPublishPost *post = demoPublishPost();
    return post ? post->publishedVideo() : std::nullopt;
}
