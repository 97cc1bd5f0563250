#include "publish/ZDPublishPost.h"

ZDPublishPost::ZDPublishPost(ZDPublishPostDelegate *delegate) : m_delegate(delegate) {}

ZDPublishPost::~ZDPublishPost() = default;

void ZDPublishPost::startUpload() {}
