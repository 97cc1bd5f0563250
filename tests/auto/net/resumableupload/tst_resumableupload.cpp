#include "FaultProxy.h"
#include "LoopbackHTTPServer.h"
#include "ResumableServer.h"
#include "TestSupport.h"

#include "net/ZDCredentialSource.h"
#include "net/ZDResumableUpload.h"
#include "net/ZDUploadJournal.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QLocale>
#include <QRandomGenerator>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <numeric>

using namespace Qt::StringLiterals;

namespace {

using Header = std::pair<QByteArray, QByteArray>;

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The error as a failure message: the service's status and reason with it.
QByteArray describe(const ZDError &error)
{
    return (error.localizedDescription() +
            u" (status %1) "_s.arg(
                error.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode()) +
            QString::fromUtf8(error.userInfo().value(ZDResponseBodyKey).toByteArray()))
        .toUtf8();
}

class Recorder : public ZDResumableUploadDelegate
{
public:
    void uploadDidFinish(ZDResumableUpload *upload, const QVariant &) override
    {
        ++finishes;
        if (onEnd)
            onEnd(upload);
    }
    void uploadDidFailWithError(ZDResumableUpload *upload, const ZDError &failure) override
    {
        ++failures;
        error = failure;
        if (onEnd)
            onEnd(upload);
    }
    void uploadHasSentBytes(ZDResumableUpload *upload, qint64 sent, qint64) override
    {
        progress.append(sent);
        if (onProgress)
            onProgress(upload, sent);
    }
    void uploadWillRetry(ZDResumableUpload *, const ZDError &reason, qint64 delay,
                         qint64 offset) override
    {
        retries.append(reason);
        delays.append(delay);
        retriedAt.append(offset);
    }
    void uploadDidResume(ZDResumableUpload *, qint64 offset) override { resumes.append(offset); }

    int endings() const { return finishes + failures; }

    int finishes = 0;
    int failures = 0;
    ZDError error;
    QList<qint64> progress;
    QList<ZDError> retries; // their reasons
    QList<qint64> delays;
    QList<qint64> retriedAt; // the confirmed offsets
    QList<qint64> resumes;
    std::function<void(ZDResumableUpload *)> onEnd;
    std::function<void(ZDResumableUpload *, qint64)> onProgress;
};

// A file and an independent server (tus or 308) to upload it to, maybe through
// a fault proxy.
struct PeerRun
{
    QTemporaryDir dir;
    ResumableServer server;
    QByteArray content;
    QString path;
    std::unique_ptr<FaultProxy> proxy;

    QString start(ZDUploadProtocol protocol, qint64 size, quint32 seed, bool proxied = false)
    {
        content = randomBytes(size, seed);
        path = dir.filePath(u"clip.mov"_s);
        if (!writeFile(path, content))
            return u"cannot write the file"_s;
        const QString failure = server.start(
            protocol == ZDUploadProtocol::Tus ? u"tus"_s : u"308"_s, dir.filePath(u"store"_s));
        if (failure.isEmpty() && proxied) {
            proxy = std::make_unique<FaultProxy>(server.port());
            if (!proxy->listen())
                return u"the proxy cannot listen"_s;
        }
        return failure;
    }
    QUrl endpoint() const
    {
        return proxy ? QUrl(u"http://127.0.0.1:%1/files"_s.arg(proxy->port()))
                     : server.url(u"/files"_s);
    }
    // Whether the server stored exactly the file, once it says it stored it.
    bool storedTheFile(int uploads = 1)
    {
        if (!QTest::qWaitFor([&] { return server.stored().size() == uploads; }, 30000))
            return false;
        return readFile(server.stored().last()) == content;
    }
};

// Hands out signers that add "Authorization: Bearer token-N", N counting renewals.
class TestCredentials : public ZDCredentialSource
{
public:
    struct Bearer : RequestSigner
    {
        QByteArray token;
        ZDURLRequest signedRequestForRequest(const ZDURLRequest &request) override
        {
            ZDURLRequest copy = request;
            copy.setValueForHTTPHeaderField("Bearer " + token, "Authorization");
            return copy;
        }
    };
    void credentialsForRequest(Reason reason, Completion completion) override
    {
        reasons.append(reason);
        if (reason == Reason::Unauthorized)
            ++generation;
        auto signer = std::make_shared<Bearer>();
        signer->token = "token-" + QByteArray::number(generation);
        QTimer::singleShot(0, [signer, completion] { completion(signer, std::nullopt); });
    }
    QList<Reason> reasons;
    int generation = 1;
};

// A small "308" service of our own for the faults the independent servers cannot
// make: it stores the bytes it is given, and `fault` may answer instead.
struct Mini308
{
    QByteArray stored;
    qint64 total = 0;
    std::function<std::optional<CannedReply>(const RecordedRequest &)> fault;

    CannedReply handle(const RecordedRequest &request)
    {
        if (fault) {
            if (auto reply = fault(request))
                return *reply;
        }
        CannedReply reply;
        if (request.method == "POST") {
            total = request.header("X-Upload-Content-Length").toLongLong();
            reply.status = 201;
            reply.headers = {{"Location", "/session/1"}};
            return reply;
        }
        const QByteArray range = request.header("Content-Range");
        if (!range.startsWith("bytes */")) {
            const qint64 start = range.mid(6, range.indexOf('-') - 6).toLongLong();
            if (start > stored.size()) {
                reply.status = 400;
                return reply;
            }
            stored.truncate(start);
            stored += request.body;
        }
        if (stored.size() == total)
            return CannedReply::json(R"({"done":true})");
        reply.status = 308;
        if (!stored.isEmpty())
            reply.headers = {{"Range", "bytes=0-" + QByteArray::number(stored.size() - 1)}};
        return reply;
    }
};

// A network that comes and goes when the test says so.
class FakeReachability : public ZDNetworkReachability
{
public:
    bool isOffline() override { return offline; }
    std::shared_ptr<void> whenOnline(std::function<void()> callback) override
    {
        auto handle = std::make_shared<std::function<void()>>(std::move(callback));
        waiting = handle;
        return handle;
    }
    void comeBack()
    {
        offline = false;
        if (const auto callback = waiting.lock())
            (*callback)();
    }
    bool offline = false;
    std::weak_ptr<std::function<void()>> waiting;
};

// A file uploaded to a Mini308 service on a loopback server, timed by the fake
// clock; the test sets faults and policies before it starts the upload.
struct MiniUpload
{
    QTemporaryDir dir;
    QByteArray content;
    Mini308 service;
    LoopbackHTTPServer loopback;
    Recorder recorder;
    std::shared_ptr<FakeUploadClock> clock = std::make_shared<FakeUploadClock>();
    std::unique_ptr<ZDResumableUpload> upload;

    bool prepare(qint64 size, quint32 seed)
    {
        content = randomBytes(size, seed);
        const QString path = dir.filePath(u"clip.mov"_s);
        if (!writeFile(path, content) || !loopback.listen())
            return false;
        loopback.setHandler(
            [this](const RecordedRequest &request) { return service.handle(request); });
        upload = std::make_unique<ZDResumableUpload>(ZDUploadProtocol::ResumeIncomplete,
                                                     loopback.url(u"/upload"_s), path, &recorder);
        upload->setChunkSize(256 * 1024);
        upload->setClock(clock);
        return true;
    }
};

ZDRetryPolicy quickPolicy()
{
    ZDRetryPolicy policy;
    policy.initialDelayMsecs = 300;
    policy.jitter = 0;
    policy.maximumDelayMsecs = 1000;
    return policy;
}

} // namespace

class tst_ResumableUpload : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void init();
    void storesTheFileByteForByteWithEachProtocol_data();
    void storesTheFileByteForByteWithEachProtocol();
    void resumesFromTheServersOffsetAfterCutsAtRandomOffsets_data();
    void resumesFromTheServersOffsetAfterCutsAtRandomOffsets();
    void killedUploaderIsResumedFromTheJournalByANewProcess();
    void shrinksChunksUntilTheyFitBetweenCuts();
    void aChangedFileIsNeverResumedOntoItsOldSession_data();
    void aChangedFileIsNeverResumedOntoItsOldSession();
    void retriesOnlyWhatIsRetryableAndHonoursRetryAfter_data();
    void retriesOnlyWhatIsRetryableAndHonoursRetryAfter();
    void asksAgainAtOnceAfterACutThenWaitsByPolicy();
    void aServerThatNeverLetsGoMeetsTheBudget_data();
    void aServerThatNeverLetsGoMeetsTheBudget();
    void renewsCredentialsAfterA401ButNotForever_data();
    void renewsCredentialsAfterA401ButNotForever();
    void anAnswerTooLargeToHoldEndsTheUpload();
    void abortHangsUpOnAnAnswerTooLargeToHold();
    void waitsForTheNetworkWithoutSpendingTheBudget();
    void aCredentialSourceGoneWhileAskedFailsTheUpload();
    void retriesACredentialSourceThatCannotReachItsServiceButNotARefusal_data();
    void retriesACredentialSourceThatCannotReachItsServiceButNotARefusal();
    void refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole_data();
    void refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole();
    void resendsAChunkWhoseChecksumIsRefusedThenGivesUp_data();
    void resendsAChunkWhoseChecksumIsRefusedThenGivesUp();
    void destroyingTheUploadInsideACallbackEndsItQuietly();
};

void tst_ResumableUpload::init()
{
    QVERIFY2(!qEnvironmentVariable("ZD_SOURCE_DIR").isEmpty(), "ZD_SOURCE_DIR is not set");
}

void tst_ResumableUpload::storesTheFileByteForByteWithEachProtocol_data()
{
    QTest::addColumn<ZDUploadProtocol>("protocol");
    QTest::newRow("tus (@tus/server)") << ZDUploadProtocol::Tus;
    QTest::newRow("308 (@uploadx/core)") << ZDUploadProtocol::ResumeIncomplete;
    QTest::newRow("multipart (busboy)") << ZDUploadProtocol::Multipart;
}

void tst_ResumableUpload::storesTheFileByteForByteWithEachProtocol()
{
    QFETCH(ZDUploadProtocol, protocol);
    const bool multipart = protocol == ZDUploadProtocol::Multipart;
    PeerRun run;
    LoopbackHTTPServer loopback;
    // Not a multiple of the chunk size, so the last chunk is short.
    QString failure = run.start(protocol, 1300 * 1024 + 3, 7);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    QVERIFY(loopback.listen());
    loopback.setHandler([](const RecordedRequest &) { return CannedReply::json("{}"); });
    const ZDUploadJournal journal(run.dir.filePath(u"journal"_s));
    Recorder recorder;
    ZDResumableUpload upload(protocol, multipart ? loopback.url(u"/upload"_s) : run.endpoint(),
                             run.path, &recorder);
    upload.setMetadata({{u"filename"_s, u"clip.mov"_s}, {u"title"_s, u"Trip"_s}});
    upload.setChunkSize(256 * 1024);
    upload.setJournal(journal);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
    QVERIFY2(recorder.finishes == 1, describe(recorder.error));
    if (multipart) {
        QCOMPARE(loopback.requests().size(), 1);
        const RecordedRequest &sent = loopback.requests().front();
        QProcess parser;
        parser.start(u"node"_s,
                     {qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tests/peers/parse_multipart.js"_s,
                      QString::fromLatin1(sent.header("Content-Type"))});
        QVERIFY2(parser.waitForStarted(), "node cannot be started: run tools/install-deps");
        parser.write(sent.body);
        parser.closeWriteChannel();
        QVERIFY(parser.waitForFinished(60000));
        QStringList names;
        for (const QVariant &part :
             QJsonDocument::fromJson(parser.readAllStandardOutput()).toVariant().toList()) {
            names.append(part.toMap().value(u"name"_s).toString());
            if (names.last() == u"file"_s)
                QVERIFY(QByteArray::fromHex(part.toMap().value(u"data"_s).toByteArray()) ==
                        run.content);
        }
        QCOMPARE(names.size(), 3);
        QVERIFY(names.contains(u"file"_s));
    } else {
        QVERIFY(run.storedTheFile());
    }
    // A finished upload leaves nothing to resume, and ends once.
    QVERIFY(journal.entries().isEmpty());
    QTest::qWait(100);
    QCOMPARE(recorder.endings(), 1);
    QCOMPARE(recorder.progress.last(), run.content.size());
}

void tst_ResumableUpload::resumesFromTheServersOffsetAfterCutsAtRandomOffsets_data()
{
    QTest::addColumn<ZDUploadProtocol>("protocol");
    QTest::newRow("tus") << ZDUploadProtocol::Tus;
    QTest::newRow("308") << ZDUploadProtocol::ResumeIncomplete;
}

void tst_ResumableUpload::resumesFromTheServersOffsetAfterCutsAtRandomOffsets()
{
    QFETCH(ZDUploadProtocol, protocol);
    constexpr int kRuns = 12; // per protocol
    constexpr qint64 kChunk = 128 * 1024;
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    QRandomGenerator random(seed);
    for (int run = 0; run < kRuns; ++run) {
        PeerRun peer;
        const qint64 size = 300 * 1024 + random.bounded(300 * 1024);
        const QString failure = peer.start(protocol, size, seed + run, true);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        // One to three cuts: odd runs cut inside chunks, even runs close to the
        // chunk boundaries (the request heads shift them by a few hundred bytes).
        QList<qint64> cuts;
        for (int i = 1 + int(random.bounded(3)); i > 0; --i) {
            const qint64 at =
                run % 2 ? random.bounded(size)
                        : (1 + random.bounded(size / kChunk)) * kChunk + random.bounded(600) - 300;
            cuts.append(std::clamp<qint64>(at, 1, size));
        }
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        peer.proxy->cutAt(cuts);

        Recorder recorder;
        ZDResumableUpload upload(protocol, peer.endpoint(), peer.path, &recorder);
        upload.setChunkGranularity(64 * 1024);
        upload.setChunkSize(kChunk);
        // Real, short waits: both servers finish a cut request's bookkeeping
        // some time after the cut.
        upload.setRetryPolicy(quickPolicy());
        upload.start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
        const QByteArray where = "run " + QByteArray::number(run) + ", first cut at " +
                                 QByteArray::number(cuts.front()) + ": ";
        QVERIFY2(recorder.finishes == 1, QByteArray(where + describe(recorder.error)));
        QVERIFY2(peer.storedTheFile(), QByteArray(where + "the stored bytes differ"));
        // Resumed, not restarted: at most one chunk resent per cut.
        QVERIFY2(upload.bytesSent() <= size + peer.proxy->cuts() * kChunk,
                 QByteArray(where + QByteArray::number(upload.bytesSent()) + " bytes sent"));
        QVERIFY(recorder.resumes.size() <= recorder.retries.size());
    }
}

void tst_ResumableUpload::killedUploaderIsResumedFromTheJournalByANewProcess()
{
    constexpr qint64 kChunk = 1024 * 1024;
    if (qEnvironmentVariableIsSet("ZD_UPLOAD_CHILD")) {
        // The child: uploads through the throttled proxy until it is killed.
        Recorder recorder;
        ZDResumableUpload upload(
            ZDUploadProtocol(qEnvironmentVariableIntValue("ZD_UPLOAD_PROTOCOL")),
            QUrl(qEnvironmentVariable("ZD_UPLOAD_ENDPOINT")),
            qEnvironmentVariable("ZD_UPLOAD_FILE"), &recorder);
        upload.setChunkGranularity(64 * 1024);
        upload.setChunkSize(kChunk);
        upload.setJournal(ZDUploadJournal(qEnvironmentVariable("ZD_UPLOAD_JOURNAL")));
        upload.start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 600000);
        return;
    }
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    QRandomGenerator random(seed);
    // The 308 server is still settling the dead chunk when the new upload asks
    // where it stands, so it gets the most runs: the race must be lost often.
    for (const auto &[protocol, runs] :
         {std::pair(ZDUploadProtocol::Tus, 1), std::pair(ZDUploadProtocol::ResumeIncomplete, 5)}) {
        for (int run = 0; run < runs; ++run) {
            PeerRun peer;
            const QString failure = peer.start(protocol, 2 * kChunk + 512 * 1024, seed + run, true);
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
            FaultProxy &proxy = *peer.proxy;
            proxy.setThrottle(1024 * 1024);
            const QString journalDir = peer.dir.filePath(u"journal"_s);
            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            for (const auto &[name, value] : {std::pair(u"CHILD"_s, u"1"_s),
                                              {u"PROTOCOL"_s, QString::number(int(protocol))},
                                              {u"ENDPOINT"_s, peer.endpoint().toString()},
                                              {u"FILE"_s, peer.path},
                                              {u"JOURNAL"_s, journalDir}})
                env.insert(u"ZD_UPLOAD_"_s + name, value);
            child.setProcessEnvironment(env);
            child.start(QCoreApplication::applicationFilePath(),
                        {u"killedUploaderIsResumedFromTheJournalByANewProcess"_s});
            QVERIFY(child.waitForStarted());
            // Well inside the first or second chunk.
            const qint64 killAt =
                random.bounded(2) * kChunk + 128 * 1024 + random.bounded(256 * 1024);
            QTRY_VERIFY_WITH_TIMEOUT(proxy.uploadedBytes() >= killAt, 60000);
            const ZDUploadJournal journal(journalDir);
            // While the child runs, its entry is not an interrupted upload, and
            // a second upload of it is refused without touching it.
            const QStringList files = QDir(journalDir).entryList({u"*.json"_s});
            QCOMPARE(files.size(), 1);
            QVERIFY(journal.entries().isEmpty());
            if (run == 0) {
                Recorder second;
                ZDResumableUpload meddler(*journal.entry(files.front().chopped(5)), &second);
                meddler.setJournal(journal);
                meddler.start();
                QTRY_COMPARE_WITH_TIMEOUT(second.endings(), 1, 30000);
                QCOMPARE(second.error.code(), ZDResumableUploadErrorAlreadyRunning);
                QVERIFY(second.progress.isEmpty());
                QVERIFY(journal.entry(files.front().chopped(5)).has_value());
            }
            ::kill(pid_t(child.processId()), SIGKILL);
            QVERIFY(child.waitForFinished(30000));
            QCOMPARE(child.exitStatus(), QProcess::CrashExit);

            const QList<ZDUploadJournalEntry> entries = journal.entries();
            QCOMPARE(entries.size(), 1);
            // The journal never claims more than went through the proxy.
            QVERIFY(entries.front().offset <= proxy.uploadedBytes());
            // Resumed at once, as an application restarted by its user would, on
            // a path of its own while the dead chunk still trickles in.
            ZDUploadJournalEntry entry = entries.front();
            entry.endpoint.setPort(peer.server.port());
            entry.sessionURL.setPort(peer.server.port());
            Recorder recorder;
            ZDResumableUpload resumed(entry, &recorder);
            resumed.setJournal(journal);
            resumed.setRetryPolicy(quickPolicy());
            // Bytes of the dead chunk arriving after the resumption would
            // land under the new ones (or roll them back).
            qint64 trickledAfterResuming = 0;
            proxy.setOnForward(
                [&](qint64) { trickledAfterResuming += !recorder.resumes.isEmpty(); });
            resumed.start();
            QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
            QVERIFY2(recorder.finishes == 1, describe(recorder.error));
            QCOMPARE(recorder.resumes.size(), 1);
            QVERIFY(recorder.resumes.front() >= entries.front().offset);
            if (protocol == ZDUploadProtocol::ResumeIncomplete) // tus servers lock the upload
                QCOMPARE(trickledAfterResuming, 0);
            QVERIFY(resumed.bytesSent() <= peer.content.size() - recorder.resumes.front());
            QVERIFY2(peer.storedTheFile(),
                     qPrintable(u"run %1 resumed at %2"_s.arg(run).arg(recorder.resumes.front())));
            QVERIFY(journal.entries().isEmpty());
        }
    }
}

void tst_ResumableUpload::shrinksChunksUntilTheyFitBetweenCuts()
{
    // The 308 server keeps nothing of a chunk whose checksum it could not
    // check; the chunks begin at 1 MiB, larger than the stretch between cuts.
    PeerRun peer;
    const QString failure =
        peer.start(ZDUploadProtocol::ResumeIncomplete, 3 * 1024 * 1024 + 5, 11, true);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    peer.proxy->cutAfter(700 * 1024, true);
    Recorder recorder;
    ZDResumableUpload upload(ZDUploadProtocol::ResumeIncomplete, peer.endpoint(), peer.path,
                             &recorder);
    upload.setChunkGranularity(64 * 1024);
    ZDRetryPolicy policy = quickPolicy();
    policy.initialDelayMsecs = 100;
    policy.budgetMsecs = 5000;
    upload.setRetryPolicy(policy);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
    QVERIFY2(recorder.finishes == 1, describe(recorder.error));
    QVERIFY(peer.storedTheFile());
}

void tst_ResumableUpload::aChangedFileIsNeverResumedOntoItsOldSession_data()
{
    QTest::addColumn<QString>("change");
    QTest::newRow("unchanged") << u""_s;
    QTest::newRow("grown") << u"append"_s;
    QTest::newRow("same size, new start") << u"rewrite"_s;
    QTest::newRow("touched") << u"touch"_s;
}

void tst_ResumableUpload::aChangedFileIsNeverResumedOntoItsOldSession()
{
    QFETCH(QString, change);
    PeerRun peer;
    const QString failure = peer.start(ZDUploadProtocol::Tus, 700 * 1024, 3);
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    const ZDUploadJournal journal(peer.dir.filePath(u"journal"_s));
    { // The first run stops after its first confirmed chunk, as a crash would.
        Recorder recorder;
        ZDResumableUpload upload(ZDUploadProtocol::Tus, peer.endpoint(), peer.path, &recorder);
        upload.setChunkSize(256 * 1024);
        upload.setJournal(journal);
        bool listedWhileRunning = true;
        recorder.onProgress = [&](ZDResumableUpload *running, qint64) {
            if (running->confirmedOffset() > 0) {
                listedWhileRunning = !journal.entries().isEmpty();
                running->cancel(); // and its entry is an interrupted upload again
            }
        };
        upload.start();
        QTRY_VERIFY_WITH_TIMEOUT(upload.confirmedOffset() > 0, 30000);
        QCOMPARE(recorder.endings(), 0);
        QVERIFY(!listedWhileRunning);
    }
    QCOMPARE(journal.entries().size(), 1);
    const ZDUploadJournalEntry entry = journal.entries().front();
    QCOMPARE(entry.offset, 256 * 1024);

    QFile file(peer.path);
    QVERIFY(file.open(change == u"append"_s ? QIODevice::Append : QIODevice::ReadWrite));
    if (change == u"append"_s)
        file.write("x");
    if (change == u"rewrite"_s) {
        file.write("changed");
        file.setFileTime(entry.file.modified, QFileDevice::FileModificationTime);
    }
    if (change == u"touch"_s)
        file.setFileTime(entry.file.modified.addSecs(5), QFileDevice::FileModificationTime);
    file.close();

    Recorder recorder;
    ZDResumableUpload resumed(entry, &recorder);
    resumed.setJournal(journal);
    resumed.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QVERIFY(journal.entries().isEmpty());
    if (change.isEmpty()) {
        QCOMPARE(recorder.resumes, QList<qint64>{256 * 1024});
        QVERIFY(peer.storedTheFile());
        return;
    }
    QCOMPARE(recorder.error.domain(), ZDResumableUploadErrorDomain);
    QCOMPARE(recorder.error.code(), ZDResumableUploadErrorFileChanged);
    QVERIFY(recorder.progress.isEmpty()); // nothing was sent onto the old session
    // and the session is ended on the server, not left to expire.
    const QString stored =
        peer.dir.filePath(u"store/"_s + entry.sessionURL.path().section(u'/', -1));
    QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(stored), 30000);
}

void tst_ResumableUpload::retriesOnlyWhatIsRetryableAndHonoursRetryAfter_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<QByteArray>("retryAfter");
    QTest::addColumn<qint64>("minimumWait");
    QTest::addColumn<qint64>("maximumWait");
    QTest::addColumn<bool>("finishes");
    QTest::newRow("429, Retry-After 7 s") << 429 << QByteArray("7") << 7000LL << 7000LL << true;
    QTest::newRow("503, Retry-After 30 s") << 503 << QByteArray("30") << 30000LL << 30000LL << true;
    QTest::newRow("503, no Retry-After: backoff") << 503 << QByteArray() << 800LL << 1200LL << true;
    QTest::newRow("429, Retry-After shorter than backoff")
        << 429 << QByteArray("0") << 0LL << 0LL << true;
    // The three forms of an HTTP date, five minutes ahead (checked within a
    // few seconds of it, whatever the run takes).
    const QDateTime later = QDateTime::currentDateTimeUtc().addSecs(300);
    const QLocale c = QLocale::c();
    const QString asctimeDay = QString::number(later.date().day()).rightJustified(2, u' ');
    const QList<std::pair<const char *, QString>> dates = {
        {"IMF-fixdate", c.toString(later, u"ddd, dd MMM yyyy HH:mm:ss 'GMT'")},
        {"RFC 850", c.toString(later, u"dddd, dd-MMM-yy HH:mm:ss 'GMT'")},
        {"asctime", c.toString(later, u"ddd MMM '%1' HH:mm:ss yyyy").arg(asctimeDay)},
    };
    for (const auto &[form, date] : dates)
        QTest::addRow("503, Retry-After as %s", form)
            << 503 << date.toLatin1() << 240000LL << 300000LL << true;
    QTest::newRow("400 is not retried") << 400 << QByteArray("7") << -1LL << -1LL << false;
    QTest::newRow("403 is not retried") << 403 << QByteArray() << -1LL << -1LL << false;
}

void tst_ResumableUpload::retriesOnlyWhatIsRetryableAndHonoursRetryAfter()
{
    QFETCH(int, status);
    QFETCH(QByteArray, retryAfter);
    QFETCH(qint64, minimumWait);
    QFETCH(qint64, maximumWait);
    QFETCH(bool, finishes);
    MiniUpload run;
    QVERIFY(run.prepare(600 * 1024, 5));
    int puts = 0;
    run.service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
        // The second chunk is refused once.
        if (request.method != "PUT" || request.body.isEmpty() || ++puts != 2)
            return std::nullopt;
        CannedReply reply = CannedReply::json(R"({"error":"slow down"})", status);
        if (!retryAfter.isNull())
            reply.headers.append(Header("Retry-After", retryAfter));
        return reply;
    };
    const Recorder &recorder = run.recorder;
    run.upload->start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    if (!finishes) {
        QVERIFY(run.clock->waits.isEmpty());
        QCOMPARE(recorder.error.domain(), JSONHTTPRequestErrorDomain);
        // The refusal's body travels with the error.
        QCOMPARE(recorder.error.userInfo().value(ZDResponseBodyKey).toByteArray(),
                 QByteArray(R"({"error":"slow down"})"));
        return;
    }
    QVERIFY2(recorder.finishes == 1, describe(recorder.error));
    QCOMPARE(recorder.retriedAt, QList<qint64>{256 * 1024});
    const qint64 waited = recorder.delays.front();
    QVERIFY2(waited >= minimumWait && waited <= maximumWait, qPrintable(QString::number(waited)));
    QVERIFY(run.service.stored == run.content);
    // Resumed where the server stood: the first chunk went once.
    QCOMPARE(run.upload->bytesSent(), run.content.size() + 256 * 1024);
}

void tst_ResumableUpload::asksAgainAtOnceAfterACutThenWaitsByPolicy()
{
    { // tus: the real server, cut once in the second chunk, is asked at once.
        PeerRun peer;
        const QString failure = peer.start(ZDUploadProtocol::Tus, 1024 * 1024, 6, true);
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        peer.proxy->cutAt({400 * 1024});
        Recorder recorder;
        auto clock = std::make_shared<FakeUploadClock>();
        ZDResumableUpload upload(ZDUploadProtocol::Tus, peer.endpoint(), peer.path, &recorder);
        upload.setChunkSize(256 * 1024);
        upload.setClock(clock);
        upload.start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
        QVERIFY2(recorder.finishes == 1, describe(recorder.error));
        QVERIFY(peer.storedTheFile());
        QCOMPARE(peer.proxy->cuts(), 1);
        QCOMPARE(clock->waits, QList<qint64>{0});
    }
    { // 308: the policy's waits from the first cut on, which the server keeps
      // nothing of; after the chunk goes through, the count starts again.
        MiniUpload run;
        QVERIFY(run.prepare(1024 * 1024, 6));
        Mini308 &service = run.service;
        int cuts = 0;
        service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
            const bool chunk = request.method == "PUT" && !request.body.isEmpty();
            const qint64 start = service.stored.size();
            if (!chunk || !((start == 256 * 1024 && cuts < 3) || (start == 512 * 1024 && cuts < 4)))
                return std::nullopt;
            ++cuts;
            CannedReply reply;
            reply.ending = CannedReply::Ending::ResetAtOnce;
            return reply;
        };
        run.upload->setRetryPolicy(quickPolicy());
        run.upload->start();
        QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 30000);
        QVERIFY2(run.recorder.finishes == 1, describe(run.recorder.error));
        QVERIFY(service.stored == run.content);
        QCOMPARE(run.recorder.delays, (QList<qint64>{300, 600, 1000, 300}));
    }
}

void tst_ResumableUpload::aServerThatNeverLetsGoMeetsTheBudget_data()
{
    QTest::addColumn<int>("status"); // 0: the connection breaks after the body
    QTest::addColumn<QByteArray>("retryAfter");
    QTest::newRow("cut after every chunk's body") << 0 << QByteArray();
    QTest::newRow("429 with Retry-After: 0 every time") << 429 << QByteArray("0");
    QTest::newRow("409 every time") << 409 << QByteArray();
    QTest::newRow("308 that keeps nothing every time") << 308 << QByteArray();
}

void tst_ResumableUpload::aServerThatNeverLetsGoMeetsTheBudget()
{
    QFETCH(int, status);
    QFETCH(QByteArray, retryAfter);
    MiniUpload run;
    QVERIFY(run.prepare(512 * 1024, 4));
    run.service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
        if (request.method != "PUT" || request.body.isEmpty())
            return std::nullopt;
        CannedReply reply = CannedReply::json(R"({"error":"not now"})", status);
        if (status == 0)
            reply.ending = CannedReply::Ending::ResetAtOnce;
        if (status == 308) // "taken", but the range stays where it was
            reply.headers = {{"Range", "bytes=0-" + QByteArray::number(256 * 1024 - 1)}};
        if (!retryAfter.isNull())
            reply.headers.append(Header("Retry-After", retryAfter));
        return reply;
    };
    ZDRetryPolicy policy = quickPolicy();
    policy.budgetMsecs = 5000;
    run.upload->setRetryPolicy(policy);
    run.upload->start();
    const QList<qint64> &waits = run.clock->waits;
    QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 60000);
    QCOMPARE(run.recorder.failures, 1);
    if (status == 308) {
        QCOMPARE(run.recorder.error.code(), ZDResumableUploadErrorProtocolViolation);
        return;
    }
    QVERIFY(run.recorder.error.userInfo().value(ZDRetriesExhaustedKey).toBool());
    QCOMPARE(waits.count(0), status == 0 ? 0 : 1); // a 308 cut is never retried at once
    QVERIFY(std::accumulate(waits.cbegin(), waits.cend(), 0LL) <= 5000);
}

void tst_ResumableUpload::renewsCredentialsAfterA401ButNotForever_data()
{
    // Which answers are a 401: a token that dies after three answers, token-1
    // once a chunk is in, or token-2 as well; or every chunk.
    QTest::addColumn<QString>("expiry");
    QTest::addColumn<bool>("finishes");
    QTest::addColumn<int>("renewals");
    QTest::newRow("token-1 expires once") << u"token-1"_s << true << 1;
    QTest::newRow("the renewed token is refused too") << u"token-2"_s << false << 1;
    QTest::newRow("every token dies after three answers") << u"three"_s << true << 3;
    QTest::newRow("no chunk is ever taken") << u"chunks"_s << false << 3;
}

void tst_ResumableUpload::renewsCredentialsAfterA401ButNotForever()
{
    QFETCH(QString, expiry);
    QFETCH(bool, finishes);
    QFETCH(int, renewals);
    MiniUpload run;
    QVERIFY(run.prepare(1024 * 1024, 10));
    TestCredentials credentials;
    QHash<QByteArray, int> uses;
    bool busyOnce = true;
    run.service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
        const QByteArray token = request.header("Authorization");
        const bool chunk = request.method == "PUT" && !request.body.isEmpty();
        const bool expired = expiry.startsWith(u"token"_s)
                                 ? (token == "Bearer token-1" && !run.service.stored.isEmpty()) ||
                                       (expiry == u"token-2"_s && token == "Bearer token-2")
                                 : ++uses[token] > 3 || (chunk && expiry == u"chunks"_s);
        if (expired)
            return CannedReply::json(R"({"error":"expired"})", 401);
        // A chunk sent with token-2 meets a 503, so token-2 dies before it carried one.
        if (expiry == u"three"_s && chunk && token == "Bearer token-2" &&
            std::exchange(busyOnce, false))
            return CannedReply::json(R"({"error":"busy"})", 503);
        return std::nullopt;
    };
    run.upload->setCredentialSource(&credentials);
    run.upload->start();
    QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 30000);
    QCOMPARE(credentials.reasons.count(ZDCredentialSource::Reason::Unauthorized), renewals);
    QCOMPARE(run.recorder.finishes, finishes ? 1 : 0);
    if (!finishes) {
        QCOMPARE(run.recorder.error.userInfo()
                     .value(ZDHTTPResponseKey)
                     .value<ZDHTTPResponse>()
                     .statusCode(),
                 401);
        return;
    }
    QVERIFY(run.service.stored == run.content);
    if (expiry == u"token-1"_s) // the offset is asked again after the 401
        QCOMPARE(run.recorder.resumes, QList<qint64>{256 * 1024});
}

void tst_ResumableUpload::anAnswerTooLargeToHoldEndsTheUpload()
{
    MiniUpload run;
    QVERIFY(run.prepare(300 * 1024, 12));
    run.service.fault = [](const RecordedRequest &request) -> std::optional<CannedReply> {
        if (request.method != "PUT")
            return std::nullopt;
        CannedReply reply;
        reply.status = 308;
        reply.body = QByteArray(5 * 1024 * 1024, 'x');
        return reply;
    };
    run.upload->start();
    QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 30000);
    QCOMPARE(run.recorder.error.domain(), ZDURLErrorDomain);
    QCOMPARE(run.recorder.error.code(), ZDURLErrorResponseTooLarge);
    QVERIFY(run.clock->waits.isEmpty());
}

void tst_ResumableUpload::abortHangsUpOnAnAnswerTooLargeToHold()
{
    // The DELETE of abort() is answered with an endless body, fed as fast as the
    // engine reads it: the engine must hang up at its answer cap, not read on.
    static constexpr qint64 kOffered = 256 * 1024 * 1024;
    static constexpr qint64 kPiece = 1024 * 1024;
    QTcpServer server;
    QVERIFY(server.listen(QHostAddress::LocalHost));
    QByteArray verb;
    qint64 fed = 0;
    bool hungUp = false;
    connect(&server, &QTcpServer::newConnection, this, [&] {
        QTcpSocket *socket = server.nextPendingConnection();
        const auto feed = [&, socket] {
            while (fed < kOffered && socket->bytesToWrite() < 2 * kPiece) {
                socket->write(QByteArray(kPiece, 'x'));
                fed += kPiece;
            }
        };
        connect(socket, &QTcpSocket::bytesWritten, socket, feed);
        connect(socket, &QTcpSocket::disconnected, socket, [&] { hungUp = true; });
        connect(socket, &QTcpSocket::readyRead, socket, [socket, feed, &verb] {
            if (!verb.isEmpty() || !socket->peek(1 << 16).contains("\r\n\r\n"))
                return;
            verb = socket->readAll().split(' ').value(0);
            socket->write("HTTP/1.1 200 OK\r\nContent-Length: " + QByteArray::number(kOffered) +
                          "\r\n\r\n");
            feed();
        });
    });

    QTemporaryDir dir;
    ZDUploadJournalEntry entry;
    entry.id = u"oversized-delete"_s;
    entry.protocol = ZDUploadProtocol::Tus;
    entry.endpoint = QUrl(u"http://127.0.0.1:%1/files"_s.arg(server.serverPort()));
    entry.sessionURL = QUrl(u"http://127.0.0.1:%1/files/1"_s.arg(server.serverPort()));
    QVERIFY(writeFile(dir.filePath(u"clip.mov"_s), "clip"));
    entry.file =
        ZDUploadFileIdentity::ofFile(dir.filePath(u"clip.mov"_s)).value_or(ZDUploadFileIdentity());
    Recorder recorder;
    ZDResumableUpload(entry, &recorder).abort();
    QTRY_VERIFY_WITH_TIMEOUT(hungUp, 60000);
    QCOMPARE(verb, QByteArray("DELETE"));
    QVERIFY2(fed < 64 * kPiece, qPrintable(u"%1 bytes fed before the hang-up"_s.arg(fed)));
    QCOMPARE(recorder.endings(), 0);
}

void tst_ResumableUpload::waitsForTheNetworkWithoutSpendingTheBudget()
{
    MiniUpload run;
    QVERIFY(run.prepare(300 * 1024, 8));
    auto reachability = std::make_shared<FakeReachability>();
    reachability->offline = true;
    run.service.fault = [&](const RecordedRequest &) -> std::optional<CannedReply> {
        if (!reachability->offline)
            return std::nullopt;
        CannedReply reply;
        reply.ending = CannedReply::Ending::ResetAtOnce;
        return reply;
    };
    ZDRetryPolicy policy = quickPolicy();
    policy.budgetMsecs = 100; // shorter than any wait: only the network's return may resume
    run.upload->setRetryPolicy(policy);
    run.upload->setNetworkReachability(reachability);
    run.upload->start();
    const Recorder &recorder = run.recorder;
    QTRY_COMPARE_WITH_TIMEOUT(recorder.delays, QList<qint64>{-1}, 30000);
    // Nothing is tried while the network is gone, however long that is.
    const qsizetype asked = run.loopback.requests().size();
    QTest::qWait(300);
    QCOMPARE(run.loopback.requests().size(), asked);
    QCOMPARE(recorder.endings(), 0);
    QVERIFY(run.clock->waits.isEmpty());
    reachability->comeBack();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QVERIFY2(recorder.finishes == 1, describe(recorder.error));
    QVERIFY(run.service.stored == run.content);
    QCOMPARE(recorder.retries.size(), 1);
}

void tst_ResumableUpload::aCredentialSourceGoneWhileAskedFailsTheUpload()
{
    // Keeps every ask unanswered, as a source busy renewing does.
    struct Holding : ZDCredentialSource
    {
        void credentialsForRequest(Reason, Completion completion) override
        {
            held.append(std::move(completion));
        }
        QList<Completion> held;
    };
    MiniUpload run;
    QVERIFY(run.prepare(300 * 1024, 14));
    auto source = std::make_unique<Holding>();
    run.upload->setCredentialSource(source.get());
    run.upload->start();
    QTRY_COMPARE(source->held.size(), 1);
    source.reset();
    QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 10000);
    QCOMPARE(run.recorder.error.domain(), ZDResumableUploadErrorDomain);
    QCOMPARE(run.recorder.error.code(), ZDResumableUploadErrorCredentialsUnavailable);
    QVERIFY(run.loopback.requests().isEmpty());
}

void tst_ResumableUpload::retriesACredentialSourceThatCannotReachItsServiceButNotARefusal_data()
{
    QTest::addColumn<ZDError>("failure");
    QTest::addColumn<bool>("retried");
    QTest::newRow("connection failed") << ZDError(ZDCurlErrorDomain, 7) << true;
    const ZDHTTPResponse unavailable(QUrl(u"https://accounts.example/token"_s), 503, {});
    QTest::newRow("service answered 503")
        << ZDError(JSONHTTPRequestErrorDomain, JSONHTTPRequestErrorBadStatus,
                   {{ZDHTTPResponseKey, QVariant::fromValue(unavailable)}})
        << true;
    QTest::newRow("renewal refused") << ZDError(u"AccountErrorDomain"_s, 1) << false;
}

void tst_ResumableUpload::retriesACredentialSourceThatCannotReachItsServiceButNotARefusal()
{
    QFETCH(ZDError, failure);
    QFETCH(bool, retried);
    // Fails its first ask with `failure`, then hands out signers.
    struct FailingOnce : TestCredentials
    {
        void credentialsForRequest(Reason reason, Completion completion) override
        {
            if (std::exchange(first, false))
                QTimer::singleShot(0,
                                   [completion, error = failure] { completion(nullptr, error); });
            else
                TestCredentials::credentialsForRequest(reason, std::move(completion));
        }
        bool first = true;
        ZDError failure;
    } source;
    source.failure = failure;
    MiniUpload run;
    QVERIFY(run.prepare(300 * 1024, 15));
    run.upload->setCredentialSource(&source);
    run.upload->setRetryPolicy(quickPolicy());
    run.upload->start();
    QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 30000);
    if (!retried) {
        QCOMPARE(run.recorder.error.code(), ZDResumableUploadErrorCredentialsUnavailable);
        QVERIFY(run.clock->waits.isEmpty());
        return;
    }
    QVERIFY2(run.recorder.finishes == 1, describe(run.recorder.error));
    QCOMPARE(run.recorder.retries.size(), 1);
    QCOMPARE(run.recorder.retries.front().domain(), failure.domain());
    QCOMPARE(run.recorder.delays, QList<qint64>{300});
    QVERIFY(run.service.stored == run.content);
}

void tst_ResumableUpload::refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole_data()
{
    QTest::addColumn<ZDUploadProtocol>("protocol");
    QTest::addColumn<QByteArray>("claim");
    QTest::newRow("308: beyond the chunk")
        << ZDUploadProtocol::ResumeIncomplete << QByteArray("bytes=0-300000");
    QTest::newRow("308: a range not from 0")
        << ZDUploadProtocol::ResumeIncomplete << QByteArray("bytes=100-262143");
    QTest::newRow("308: two ranges")
        << ZDUploadProtocol::ResumeIncomplete << QByteArray("bytes=0-99,200-262143");
    QTest::newRow("tus: beyond the chunk") << ZDUploadProtocol::Tus << QByteArray("300000");
}

void tst_ResumableUpload::refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole()
{
    QFETCH(ZDUploadProtocol, protocol);
    QFETCH(QByteArray, claim);
    MiniUpload run;
    QVERIFY(run.prepare(700 * 1024, 1));
    run.service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
        CannedReply reply;
        if (request.method == "POST") {
            reply.status = 201;
            reply.headers = {{"Location", "/session/1"}, {"Tus-Resumable", "1.0.0"}};
        } else if (protocol == ZDUploadProtocol::Tus) {
            reply.status = 204;
            reply.headers = {{"Upload-Offset", claim}, {"Tus-Resumable", "1.0.0"}};
        } else {
            reply.status = 308;
            reply.headers = {{"Range", claim}};
        }
        return reply;
    };
    Recorder recorder;
    ZDResumableUpload upload(protocol, run.loopback.url(u"/upload"_s),
                             run.dir.filePath(u"clip.mov"_s), &recorder);
    upload.setChunkSize(256 * 1024);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QCOMPARE(recorder.error.domain(), ZDResumableUploadErrorDomain);
    QCOMPARE(recorder.error.code(), ZDResumableUploadErrorProtocolViolation);
    QCOMPARE(run.loopback.requests().size(), 2); // nothing more was sent
}

void tst_ResumableUpload::resendsAChunkWhoseChecksumIsRefusedThenGivesUp_data()
{
    QTest::addColumn<int>("refusals");
    QTest::addColumn<bool>("finishes");
    QTest::newRow("refused once, resent") << 1 << true;
    QTest::newRow("refused every time") << 100 << false;
}

void tst_ResumableUpload::resendsAChunkWhoseChecksumIsRefusedThenGivesUp()
{
    QFETCH(int, refusals);
    QFETCH(bool, finishes);
    // A tus service that checks Upload-Checksum itself (the independent server
    // does not) and refuses the first `refusals` chunks with 460.
    MiniUpload run;
    QVERIFY(run.prepare(300 * 1024, 4));
    QByteArray &stored = run.service.stored;
    int refused = 0;
    bool checksumsRight = true;
    run.service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
        CannedReply reply;
        reply.status = 204;
        reply.headers = {{"Tus-Resumable", "1.0.0"}};
        if (request.method == "POST") {
            reply.status = 201;
            reply.headers.append(Header("Location", "/files/1"));
            return reply;
        }
        if (request.method == "PATCH") {
            const QByteArray sha1 =
                QCryptographicHash::hash(request.body, QCryptographicHash::Sha1).toBase64();
            checksumsRight = checksumsRight && request.header("Upload-Checksum") == "sha1 " + sha1;
            if (refused < refusals) {
                ++refused;
                reply.status = 460;
                return reply;
            }
            stored += request.body;
        }
        reply.headers.append(Header("Upload-Offset", QByteArray::number(stored.size())));
        return reply;
    };
    Recorder recorder;
    ZDResumableUpload upload(ZDUploadProtocol::Tus, run.loopback.url(u"/files"_s),
                             run.dir.filePath(u"clip.mov"_s), &recorder);
    upload.setChunkSize(256 * 1024);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QVERIFY(checksumsRight);
    if (finishes) {
        QCOMPARE(recorder.finishes, 1);
        QVERIFY(stored == run.content);
    } else {
        QCOMPARE(recorder.error.domain(), ZDResumableUploadErrorDomain);
        QCOMPARE(recorder.error.code(), ZDResumableUploadErrorChecksumMismatch);
        QCOMPARE(refused, 3);
    }
}

void tst_ResumableUpload::destroyingTheUploadInsideACallbackEndsItQuietly()
{
    MiniUpload run;
    QVERIFY(run.prepare(700 * 1024, 2));
    for (const bool onEnd : {false, true}) {
        Recorder recorder;
        auto *upload = new ZDResumableUpload(ZDUploadProtocol::ResumeIncomplete,
                                             run.loopback.url(u"/upload"_s),
                                             run.dir.filePath(u"clip.mov"_s), &recorder);
        upload->setChunkSize(256 * 1024);
        int calls = 0;
        if (onEnd) {
            recorder.onEnd = [&](ZDResumableUpload *running) {
                ++calls;
                delete running;
            };
        } else {
            recorder.onProgress = [&](ZDResumableUpload *running, qint64 sent) {
                if (sent >= 256 * 1024 && calls++ == 0)
                    delete running;
            };
        }
        upload->start();
        QTRY_COMPARE_WITH_TIMEOUT(calls, 1, 30000);
        const qsizetype progressSeen = recorder.progress.size();
        QTest::qWait(200);
        QCOMPARE(calls, 1);
        QCOMPARE(recorder.progress.size(), progressSeen);
        QCOMPARE(recorder.endings(), onEnd ? 1 : 0);
        run.service.stored.clear();
    }
}

QTEST_GUILESS_MAIN(tst_ResumableUpload)
#include "tst_resumableupload.moc"
