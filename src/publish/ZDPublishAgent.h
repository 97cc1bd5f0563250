#pragma once

#include "core/zdglobal.h"
#include "host/PublishingAgentBase.h"
#include "publish/ZDPublishPost.h"
#include "publish/ZDPublishViewController.h"

#include <memory>

class ZDNavigationController;

// The object through which the host publishes a video to one service. It
// builds the service's form (publishViewControllerClass()) in a navigation
// controller on the first request, turns the form's publish and cancel into the
// host's operations, and relays an upload job's progress and outcome to the
// host.
//
// A service subclasses it: it names its form class and, when the host goes on
// to publish, makes its ZDPublishPost subclass with this agent as delegate,
// keeps it in m_publishPost, marks publishing in progress and starts it.
class ZD_EXPORT ZDPublishAgent : public PublishingAgentBase,
                                 public ZDPublishViewControllerDelegate,
                                 public ZDPublishPostDelegate
{
public:
    ZDPublishAgent();
    ~ZDPublishAgent() override;

    // Builds the form once: a second form for one agent stops the program.
    // The host's 64-bit size estimates reach the form's 32-bit sizes
    // saturated (ZDSaturatedSize): a 3 GiB estimate shows as "2.1 GB or more",
    // never as a wrapped, negative or smaller size.
    ZDNavigationController *navigationController() override;
    QString mediaTitle() override;
    bool allowsTellingFriend() override;
    bool allowsViewingOnHost() override;
    void resignPublishingSheetResponders() override;

    ZDPublishViewController *publishViewController() const { return m_publishViewController.get(); }
    ZDPublishPost *publishPost() const { return m_publishPost.get(); }

    void publishViewControllerPublished(ZDPublishViewController *controller) override;
    void publishViewControllerCancelled(ZDPublishViewController *controller) override;

    void publishPostHasWrittenBytesExpectsToWrite(ZDPublishPost *post, qint64 written,
                                                  qint64 expected) override;
    void publishPostSucceeded(ZDPublishPost *post) override;
    // Logs "Publish failed with error: <the error>" (a warning of the zd.publish
    // category, on unless the host turns it off) and passes the error on.
    void publishPostDidFailWithError(ZDPublishPost *post, const ZDError &error) override;

protected:
    // Declared so that they go in the order navigation controller, job, form.
    std::unique_ptr<ZDPublishViewController> m_publishViewController;
    std::unique_ptr<ZDPublishPost> m_publishPost;
    std::unique_ptr<ZDNavigationController> m_navigationController;
};
