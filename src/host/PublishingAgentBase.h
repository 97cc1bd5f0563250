#pragma once

#include "core/ZDError.h"
#include "core/ZDWeakTarget.h"
#include "core/zdglobal.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>

class PublishingAgentBase;
class ZDNavigationController;
class ZDPublishViewController;

// The host sheet's side: told once publishing has ended.
class ZD_EXPORT PublishingAgentHostDelegate : public virtual ZDWeakTarget
{
public:
    // `error` is empty on success.
    virtual void agentDidFinishPublishingError(PublishingAgentBase *agent,
                                               const std::optional<ZDError> &error) = 0;
};

// Makes the form a service publishes with.
using ZDPublishViewControllerClass = std::function<std::unique_ptr<ZDPublishViewController>()>;

// The publishing-agent base the host photo application supplies: what the host
// offers an agent (its estimates and its publishing operations) and what it
// asks of one. This stand-in records nothing itself; a host subclasses it (or
// the service's agent) to act on the operations.
class ZD_EXPORT PublishingAgentBase
{
public:
    virtual ~PublishingAgentBase();

    // --- what the host supplies ----------------------------------------------------------
    virtual qint64 estimatedHDUploadBytes();
    virtual qint64 estimatedSDUploadBytes();
    // The quality the user chose: 0 standard, 1 high definition.
    virtual void setChosenOption(int option);
    // The user confirmed the sheet; the host goes on to publish.
    virtual void confirmPublishing();
    // The user cancelled the sheet; the host closes it.
    virtual void abandonPublishing();
    virtual void setPublishingInProgress(bool inProgress);
    virtual void reportBytesWrittenOfTotal(qint64 written, qint64 total);

    // The host sheet; not owned.
    PublishingAgentHostDelegate *hostDelegate() const { return m_hostDelegate.get(); }
    void setHostDelegate(PublishingAgentHostDelegate *delegate) { m_hostDelegate = delegate; }

    // --- what the host asks of an agent ---------------------------------------------------
    virtual ZDPublishViewControllerClass publishViewControllerClass();
    virtual ZDNavigationController *navigationController();
    virtual QString mediaTitle();
    virtual bool allowsTellingFriend();
    virtual bool allowsViewingOnHost();
    virtual void resignPublishingSheetResponders();

private:
    ZDWeakRef<PublishingAgentHostDelegate> m_hostDelegate;
};
