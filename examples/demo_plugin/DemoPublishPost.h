#pragma once

#include <net/JSONHTTPRequest.h>
#include <publish/ZDPublishPost.h>

#include <QObject>
#include <QStringList>

#include <memory>
#include <optional>

// What is published: the file and what the user typed in the form.
struct DemoVideoDetails
{
    QString path;
    QString title;
    QString description;
    QStringList tags;
    QString category; // the service's category value; empty for none
    QString access;   // "public", "unlisted" or "private"
};

// How the video file travels.
struct DemoUploadOptions
{
    enum class Mode { Automatic, InMemory, Streamed };
    Mode mode = Mode::Automatic;
    // Automatic mode streams files from this size on.
    qint64 streamThreshold = 64 * 1024 * 1024;
    // An in-memory upload holds the file twice (the file and the body); a file
    // whose two copies would not fit is refused before anything is sent. Unset:
    // the memory the system reports available.
    std::optional<qint64> memoryLimit;
};

// What the service answered for a published video.
struct DemoPublishedVideo
{
    QString id;
    QUrl url;
    QString md5;
    qint64 bytes = 0;
};

// Demo Video's upload job: one signed multipart POST to api/videos. The text
// fields are signed (as query parameters); the video travels unsigned. Errors
// reach the delegate in DemoVideo::ErrorDomain with a description for the user
// and the library's error underneath.
class DemoPublishPost : public ZDPublishPost, public JSONHTTPRequestDelegate
{
public:
    DemoPublishPost(ZDPublishPostDelegate *delegate, DemoVideoDetails details,
                    DemoUploadOptions options = {});
    ~DemoPublishPost() override;

    void startUpload() override;
    // Stops the upload; the delegate hears a DemoVideo::ErrorCancelled failure.
    void cancel();

    std::optional<DemoPublishedVideo> publishedVideo() const { return m_published; }

    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;
    void requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *request, qint64 written,
                                              qint64 expected) override;

private:
    void sendUpload(const std::shared_ptr<RequestSigner> &signer);
    // Reports after the current event, never from inside startUpload() or
    // cancel(): the delegate may destroy this job when it hears of the failure.
    void failLater(const ZDError &error);
    void fail(const ZDError &error);
    std::optional<QVariant> videoPart(ZDError &error);

    DemoVideoDetails m_details;
    DemoUploadOptions m_options;
    qint64 m_videoBytes = 0;
    std::unique_ptr<JSONHTTPRequest> m_request;
    std::optional<DemoPublishedVideo> m_published;
    QObject m_context; // scope of the deferred reports
};
