#include "host/PublishingAgentBase.h"

PublishingAgentBase::~PublishingAgentBase() = default;

qint64 PublishingAgentBase::estimatedHDUploadBytes()
{
    return 0;
}

qint64 PublishingAgentBase::estimatedSDUploadBytes()
{
    return 0;
}

void PublishingAgentBase::setChosenOption(int) {}
void PublishingAgentBase::confirmPublishing() {}
void PublishingAgentBase::abandonPublishing() {}
void PublishingAgentBase::setPublishingInProgress(bool) {}
void PublishingAgentBase::reportBytesWrittenOfTotal(qint64, qint64) {}

ZDPublishViewControllerClass PublishingAgentBase::publishViewControllerClass()
{
    return {};
}

ZDNavigationController *PublishingAgentBase::navigationController()
{
    return nullptr;
}

QString PublishingAgentBase::mediaTitle()
{
    return QString();
}

bool PublishingAgentBase::allowsTellingFriend()
{
    return false;
}

bool PublishingAgentBase::allowsViewingOnHost()
{
    return false;
}

void PublishingAgentBase::resignPublishingSheetResponders() {}
