#include "publish/ZDPublishAgent.h"

#include "core/ZDAssert.h"
#include "core/ZDLogging_p.h"
#include "toolkit/ZDNavigationController.h"

#include <QDebug>

ZDPublishAgent::ZDPublishAgent() = default;

ZDPublishAgent::~ZDPublishAgent()
{
    m_navigationController.reset();
    m_publishPost.reset();
    m_publishViewController.reset();
}

ZDNavigationController *ZDPublishAgent::navigationController()
{
    if (m_navigationController)
        return m_navigationController.get();
    ZD_ASSERT_TEXT(!m_publishViewController, "!_publishViewController",
                   "ZDPublishAgent::navigationController");
    const ZDPublishViewControllerClass makeForm = publishViewControllerClass();
    ZD_ASSERT(makeForm, "ZDPublishAgent::navigationController (publishViewControllerClass)");
    m_publishViewController = makeForm();
    m_publishViewController->setHDSize(ZDSaturatedSize(estimatedHDUploadBytes()));
    m_publishViewController->setSDSize(ZDSaturatedSize(estimatedSDUploadBytes()));
    m_publishViewController->setDelegate(this);
    m_navigationController =
        std::make_unique<ZDNavigationController>(m_publishViewController.get());
    return m_navigationController.get();
}

QString ZDPublishAgent::mediaTitle()
{
    return m_publishViewController ? m_publishViewController->videoTitle() : QString();
}

bool ZDPublishAgent::allowsTellingFriend()
{
    return false;
}

bool ZDPublishAgent::allowsViewingOnHost()
{
    return false;
}

void ZDPublishAgent::resignPublishingSheetResponders()
{
    if (m_publishViewController)
        m_publishViewController->resignResponder();
}

void ZDPublishAgent::publishViewControllerPublished(ZDPublishViewController *controller)
{
    setChosenOption(controller->selectedOption());
    confirmPublishing();
}

void ZDPublishAgent::publishViewControllerCancelled(ZDPublishViewController *)
{
    abandonPublishing();
}

void ZDPublishAgent::publishPostHasWrittenBytesExpectsToWrite(ZDPublishPost *, qint64 written,
                                                              qint64 expected)
{
    reportBytesWrittenOfTotal(written, expected);
}

void ZDPublishAgent::publishPostSucceeded(ZDPublishPost *)
{
    setPublishingInProgress(false);
    if (PublishingAgentHostDelegate *host = hostDelegate())
        host->agentDidFinishPublishingError(this, std::nullopt);
}

void ZDPublishAgent::publishPostDidFailWithError(ZDPublishPost *, const ZDError &error)
{
    QString description;
    QDebug(&description).noquote().nospace() << error;
    qCWarning(lcZDPublish).noquote()
        << QStringLiteral("Publish failed with error: %1").arg(description);
    setPublishingInProgress(false);
    if (PublishingAgentHostDelegate *host = hostDelegate())
        host->agentDidFinishPublishingError(this, error);
}
