#pragma once

#include <net/JSONHTTPRequest.h>
#include <net/ZDResumableUpload.h>
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
    // Resumable: in chunks to api/uploads, resumed from the service's offset
    // after any failure of the network (the default). The others send one
    // multipart POST to api/videos, which a failure restarts from the start:
    // Automatic holds small files in memory and streams large ones, InMemory
    // and Streamed always do the one or the other.
    enum class Mode { Resumable, Automatic, InMemory, Streamed };
    Mode mode = Mode::Resumable;
    // Automatic mode streams files from this size on.
    qint64 streamThreshold = 64 * 1024 * 1024;
    // An in-memory upload holds the file twice (the file and the body); a file
    // whose two copies would not fit is refused before anything is sent. Unset:
    // the memory the system reports available.
    std::optional<qint64> memoryLimit;
    // Where resumable uploads are journaled, so that an upload cut short by a
    // crash, a kill or a reboot can be resumed by the next run. Empty: the
    // journal's default, "uploads" under the application's data location.
    QString journalDirectory;
};

// The journal resumable uploads are kept in under `options`.
ZDUploadJournal demoUploadJournal(const DemoUploadOptions &options);

// Whether `error` ends a job that the user or the host cancelled (in either
// mode's domain).
bool isCancellation(const ZDError &error);

// What the service answered for a published video.
struct DemoPublishedVideo
{
    QString id;
    QUrl url;
    QString md5;
    qint64 bytes = 0;
};

// Demo Video's upload job.
//
// Resumable mode goes through ZDResumableUpload with a "308 Resume Incomplete"
// session, journaled (DemoUploadOptions::journalDirectory) until it ends: every request is signed
// (or carries the OAuth 2.0 token, renewed by the authenticator when it expires) and the service's
// MD5 of the whole video is checked against the file's. The job only starts the upload and handles
// its two endings: the library's uploadRelay() tells the delegate of progress, retries and
// resumptions. Its errors are in ZDPublishErrorDomain (ZDPublishPost.h).
//
// The multipart modes send one signed multipart POST to api/videos. The text
// fields are signed (as query parameters); the video travels unsigned. Their
// errors reach the delegate in DemoVideo::ErrorDomain with a description for
// the user and the library's error underneath.
class DemoPublishPost : public ZDPublishPost, public JSONHTTPRequestDelegate
{
public:
    DemoPublishPost(ZDPublishPostDelegate *delegate, DemoVideoDetails details,
                    DemoUploadOptions options = {});
    // Resumes an interrupted upload from the journal, on its session and with
    // the details it began with. The file must be the one it began with: a
    // file that changed since fails with kind FileChangedOrUnreadable, the
    // entry is dropped and nothing is sent.
    DemoPublishPost(ZDPublishPostDelegate *delegate, const ZDUploadJournalEntry &interrupted,
                    DemoUploadOptions options = {});
    ~DemoPublishPost() override;

    void startUpload() override;
    // Stops the upload; the delegate hears a failure of kind
    // ZDPublishErrorKind::Cancelled (resumable) or DemoVideo::ErrorCancelled.
    // A resumable upload's session is ended on the service too (DELETE), so
    // nothing of it is kept there.
    void cancel();

    std::optional<DemoPublishedVideo> publishedVideo() const { return m_published; }
    // What an interrupted upload was publishing, from the metadata its journal
    // entry kept (the service's text fields).
    static DemoVideoDetails detailsOfInterruptedUpload(const ZDUploadJournalEntry &entry);

    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;
    void requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *request, qint64 written,
                                              qint64 expected) override;

protected:
    void _uploadDidFinish(const QVariant &response) override;
    // Describes the failure in the plug-in's words first (the kind stays the
    // library's).
    void _uploadDidFail(const ZDError &error) override;

private:
    // What the form says, as the service's text fields.
    QVariantMap textFields() const;
    void sendResumable(const std::shared_ptr<RequestSigner> &signer);
    void sendUpload(const std::shared_ptr<RequestSigner> &signer);
    // Reports after the current event, never from inside startUpload() or
    // cancel(): the delegate may destroy this job when it hears of the failure.
    void failLater(const ZDError &error);
    void fail(const ZDError &error);
    std::optional<QVariant> videoPart(ZDError &error);

    DemoVideoDetails m_details;
    DemoUploadOptions m_options;
    std::optional<ZDUploadJournalEntry> m_interrupted;
    qint64 m_videoBytes = 0;
    std::unique_ptr<JSONHTTPRequest> m_request;
    std::unique_ptr<ZDResumableUpload> m_upload;
    std::optional<DemoPublishedVideo> m_published;
    QObject m_context; // scope of the deferred reports
};
