#pragma once

#include "net/ZDCredentialSource.h"
#include "net/ZDResumableUpload.h"

#include <QRandomGenerator>

#include <memory>

// The state of a ZDResumableUpload. It lives behind a shared pointer so that a
// delegate may destroy the upload from inside a callback: every callback into
// the delegate is the last thing a step does, and steps that go on afterwards
// hold their own reference.
class ZDResumableUploadPrivate : public JSONHTTPRequestDelegate,
                                 public std::enable_shared_from_this<ZDResumableUploadPrivate>
{
public:
    enum class Step { Idle, Credentials, Create, QueryOffset, SendChunk, SendWhole, Waiting, Done };

    ZDResumableUpload *q = nullptr;
    ZDWeakRef<ZDResumableUploadDelegate> delegate;
    std::shared_ptr<ZDUploadDialect> dialect; // null: a Custom entry resumed without its dialect
    QUrl endpoint;
    QString filePath;
    QVariantMap metadata;
    QString fileFieldName = QStringLiteral("file");
    QList<std::pair<QString, QString>> headers;
    std::shared_ptr<RequestSigner> signer;
    ZDWeakRef<ZDCredentialSource> credentialSource;
    bool hasCredentialSource = false;
    qint64 fixedChunkSize = 0;
    qint64 granularity = 256 * 1024;
    qint64 chunkSize = 1024 * 1024;
    qint64 chunkCeiling = 0; // how far the measured rate may grow chunks (0: the maximum)
    bool checksums = true;
    QString serverDigestKey;
    ZDDigestAlgorithm serverDigestAlgorithm = ZDDigestAlgorithm::MD5;
    std::function<bool(const ZDHTTPResponse &, const QByteArray &)> retryableRefusal;
    ZDRetryPolicy policy;
    std::shared_ptr<ZDUploadClock> clock;
    std::shared_ptr<ZDNetworkReachability> reachability;
    QRandomGenerator random{QRandomGenerator::global()->generate()};
    std::optional<ZDUploadJournal> journal;
    std::shared_ptr<void> journalClaim; // held from start() until the upload ends
    bool allowsCellularAccess = false;

    // Progress of the session.
    ZDUploadJournalEntry entry; // id, session, offsets, the file's identity
    bool resuming = false;      // made from a journal entry
    qint64 total = 0;
    qint64 bytesSent = 0;
    qint64 chunkStart = 0; // the first byte of the chunk in flight
    qint64 chunkLength = 0;
    qint64 chunkStartedAt = 0;
    qint64 lastWritten = 0; // what the request in flight has sent

    // Retry state.
    int attempt = 0;            // failures since bytes were last confirmed
    bool retriedAtOnce = false; // the one immediate retry since then is spent
    qint64 waitedMsecs = 0;     // time spent waiting since then
    int checksumRefusals = 0;
    int sessionLosses = 0;
    bool refreshedAfter401 = false; // and no answer accepted the renewed credentials yet
    bool renewalOwed = false;       // a renewal after a 401 could not reach its service
    int renewalsSinceProgress = 0;
    int chunksWithoutProgress = 0;
    bool interrupted = false;   // a failure happened: the next offset is a resumption
    bool chunkCut = false;      // the chunk in flight was lost on the way
    qint64 settlingOffset = -1; // the last answer while the offset is not yet trusted
    int settleAsks = 0;

    Step step = Step::Idle;
    std::unique_ptr<JSONHTTPRequest> request;
    std::shared_ptr<void> timer;
    std::shared_ptr<void> networkWait;
    std::shared_ptr<int> credentialsTicket; // answers to an older ask find theirs gone

    void start();
    void stop();
    bool resumable() const { return dialect && dialect->isResumable(); }
    void saveJournal();
    void dropJournal();

    // Steps.
    void withCredentials(ZDCredentialSource::Reason reason, std::function<void()> next);
    // Where the upload goes on after a wait or a renewal: the whole file again,
    // a new session, or the server's offset.
    void proceed();
    void createSession();
    void queryOffset();
    void sendChunk();
    void sendWhole();
    void terminate();

    // Outcomes of a request.
    void createAnswered(const ZDHTTPResponse &response, const QByteArray &body);
    void offsetAnswered(const ZDHTTPResponse &response, const QByteArray &body);
    void chunkAnswered(const ZDHTTPResponse &response, const QByteArray &body);
    void requestFailed(const ZDError &error, const std::optional<ZDHTTPResponse> &response,
                       const QByteArray &body);
    void finish(const QByteArray &body);
    // Waits by the policy, or `retryAfterMsecs` when longer (-1: none; 0: at
    // once, granted once until bytes are confirmed again), then asks the server.
    void retryAfter(const ZDError &reason, qint64 retryAfterMsecs);
    // Waits `msecs` (spending the budget), then goes on with proceed().
    void proceedAfter(qint64 msecs);
    void madeProgress(); // bytes were confirmed: the retry policy starts over
    void fail(const ZDError &error);
    void failWith(ZDResumableUploadError code, const QString &description,
                  const ZDError &underlying = ZDError());

    ZDUploadDialectContext context() const;
    // Every request of the upload is made here, so that each one carries the
    // same limits, headers and credentials.
    std::unique_ptr<JSONHTTPRequest> makeRequest(const ZDUploadWireRequest &wire,
                                                 JSONHTTPRequestDelegate *to);
    void send(const ZDUploadWireRequest &wire, Step sending);
    void adaptChunkSize(qint64 bytes, qint64 msecs);
    // After a resumption on a server that may still be settling a lost request:
    // whether `offset` needs asking again before it is trusted (and asks).
    bool awaitsSettledOffset(qint64 offset);
    // A chunk lost whole makes the next ones smaller.
    void shrinkAfterCut(qint64 offset);
    bool fileStillSame(); // fails the upload when not
    void reportProgress(qint64 sent);

    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override;
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override;
    void requestHasWrittenBytesExpectsToWrite(JSONHTTPRequest *request, qint64 written,
                                              qint64 expected) override;
};
