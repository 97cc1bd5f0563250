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
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <numeric>

using namespace Qt::StringLiterals;

namespace {

QByteArray patternBytes(qint64 size, quint32 seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator generator(seed);
    generator.fillRange(reinterpret_cast<quint32 *>(bytes.data()), size / 4);
    for (qint64 i = size / 4 * 4; i < size; ++i)
        bytes[i] = char(i);
    return bytes;
}

QString writeFile(const QTemporaryDir &dir, const QString &name, const QByteArray &bytes)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        return QString();
    return path;
}

QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// Measures waits instead of sleeping: every wait passes at once and is recorded.
class FakeClock : public ZDUploadClock
{
public:
    qint64 msecsNow() const override { return m_now; }
    std::shared_ptr<void> callAfter(qint64 msecs, std::function<void()> callback) override
    {
        waits.append(msecs);
        m_now += msecs;
        auto handle = std::make_shared<char>();
        std::weak_ptr<char> alive = handle;
        QTimer::singleShot(0, [alive, callback = std::move(callback)] {
            if (!alive.expired())
                callback();
        });
        return handle;
    }
    QList<qint64> waits;

private:
    qint64 m_now = 0;
};

class Recorder : public ZDResumableUploadDelegate
{
public:
    void uploadDidFinish(ZDResumableUpload *upload, const QVariant &answer) override
    {
        ++finishes;
        response = answer;
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
    void uploadHasSentBytes(ZDResumableUpload *upload, qint64 sent, qint64 total) override
    {
        progress.append({sent, total});
        if (onProgress)
            onProgress(upload, sent);
    }
    void uploadWillRetry(ZDResumableUpload *, const ZDError &reason, qint64 delay,
                         qint64 offset) override
    {
        retries.append({reason, delay, offset});
    }
    void uploadDidResume(ZDResumableUpload *, qint64 offset) override { resumes.append(offset); }

    int endings() const { return finishes + failures; }

    int finishes = 0;
    int failures = 0;
    QVariant response;
    ZDError error;
    QList<std::pair<qint64, qint64>> progress;
    struct Retry
    {
        ZDError reason;
        qint64 delay;
        qint64 offset;
    };
    QList<Retry> retries;
    QList<qint64> resumes;
    std::function<void(ZDResumableUpload *)> onEnd;
    std::function<void(ZDResumableUpload *, qint64)> onProgress;
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
        if (request.method == "POST") {
            total = request.header("X-Upload-Content-Length").toLongLong();
            CannedReply reply;
            reply.status = 201;
            reply.headers = {{"Location", "/session/1"}};
            return reply;
        }
        const QByteArray range = request.header("Content-Range");
        CannedReply reply;
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
        reply.reason = "Resume Incomplete";
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
    std::shared_ptr<FakeClock> clock = std::make_shared<FakeClock>();
    std::unique_ptr<ZDResumableUpload> upload;

    bool prepare(qint64 size, quint32 seed)
    {
        content = patternBytes(size, seed);
        const QString path = writeFile(dir, u"clip.mov"_s, content);
        if (path.isEmpty() || !loopback.listen())
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
    void renewsAsOftenAsTokensDieButNotForever();
    void anAnswerTooLargeToHoldEndsTheUpload();
    void abortHangsUpOnAnAnswerTooLargeToHold();
    void waitsForTheNetworkWithoutSpendingTheBudget();
    void renewsCredentialsOnceAfterA401AndContinuesFromTheServersOffset();
    void aCredentialSourceGoneWhileAskedFailsTheUpload();
    void retriesACredentialSourceThatCannotReachItsServiceButNotARefusal_data();
    void retriesACredentialSourceThatCannotReachItsServiceButNotARefusal();
    void refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole_data();
    void refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole();
    void resendsAChunkWhoseChecksumIsRefusedThenGivesUp_data();
    void resendsAChunkWhoseChecksumIsRefusedThenGivesUp();
    void destroyingTheUploadInsideACallbackEndsItQuietly();

private:
    QString m_peers;
};

void tst_ResumableUpload::init()
{
    QVERIFY2(!qEnvironmentVariable("ZD_SOURCE_DIR").isEmpty(), "ZD_SOURCE_DIR is not set");
}

void tst_ResumableUpload::storesTheFileByteForByteWithEachProtocol_data()
{
    QTest::addColumn<int>("protocol");
    QTest::newRow("tus (@tus/server)") << int(ZDUploadProtocol::Tus);
    QTest::newRow("308 (@uploadx/core)") << int(ZDUploadProtocol::ResumeIncomplete);
    QTest::newRow("multipart (busboy)") << int(ZDUploadProtocol::Multipart);
}

void tst_ResumableUpload::storesTheFileByteForByteWithEachProtocol()
{
    QFETCH(int, protocol);
    QTemporaryDir dir;
    // Not a multiple of the chunk size, so the last chunk is short.
    const QByteArray content = patternBytes(1300 * 1024 + 3, 7);
    const QString path = writeFile(dir, u"clip.mov"_s, content);
    const ZDUploadJournal journal(dir.filePath(u"journal"_s));
    Recorder recorder;

    ResumableServer server;
    LoopbackHTTPServer loopback;
    QUrl endpoint;
    if (protocol == int(ZDUploadProtocol::Multipart)) {
        QVERIFY(loopback.listen());
        loopback.setHandler([](const RecordedRequest &) { return CannedReply::json("{}"); });
        endpoint = loopback.url(u"/upload"_s);
    } else {
        const QString failure = server.start(
            protocol == int(ZDUploadProtocol::Tus) ? u"tus"_s : u"308"_s, dir.filePath(u"store"_s));
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        endpoint = server.url(u"/files"_s);
    }
    ZDResumableUpload upload(ZDUploadProtocol(protocol), endpoint, path, &recorder);
    upload.setMetadata({{u"filename"_s, u"clip.mov"_s}, {u"title"_s, u"Trip"_s}});
    upload.setChunkSize(256 * 1024);
    upload.setJournal(journal);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
    QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));

    if (protocol == int(ZDUploadProtocol::Multipart)) {
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
        const QVariantList parts =
            QJsonDocument::fromJson(parser.readAllStandardOutput()).toVariant().toList();
        QByteArray filePart;
        QStringList names;
        for (const QVariant &part : parts) {
            names.append(part.toMap().value(u"name"_s).toString());
            if (names.last() == u"file"_s)
                filePart = QByteArray::fromHex(part.toMap().value(u"data"_s).toByteArray());
        }
        QCOMPARE(names.size(), 3);
        QVERIFY(filePart == content);
    } else {
        QTRY_COMPARE_WITH_TIMEOUT(server.stored().size(), 1, 30000);
        QVERIFY(readFile(server.stored().front()) == content);
    }
    // A finished upload leaves nothing to resume, and ends once.
    QVERIFY(journal.entries().isEmpty());
    QTest::qWait(100);
    QCOMPARE(recorder.endings(), 1);
    QCOMPARE(recorder.progress.last().first, content.size());
}

void tst_ResumableUpload::resumesFromTheServersOffsetAfterCutsAtRandomOffsets_data()
{
    QTest::addColumn<int>("protocol");
    QTest::newRow("tus") << int(ZDUploadProtocol::Tus);
    QTest::newRow("308") << int(ZDUploadProtocol::ResumeIncomplete);
}

void tst_ResumableUpload::resumesFromTheServersOffsetAfterCutsAtRandomOffsets()
{
    QFETCH(int, protocol);
    constexpr int kRuns = 12; // per protocol
    constexpr qint64 kChunk = 128 * 1024;
    QTemporaryDir dir;
    ResumableServer server;
    const QString failure = server.start(
        protocol == int(ZDUploadProtocol::Tus) ? u"tus"_s : u"308"_s, dir.filePath(u"store"_s));
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    QRandomGenerator random(seed);

    for (int run = 0; run < kRuns; ++run) {
        const qint64 size = 300 * 1024 + random.bounded(300 * 1024);
        const QByteArray content = patternBytes(size, seed + run);
        const QString path = writeFile(dir, u"clip-%1"_s.arg(run), content);
        FaultProxy proxy(server.port());
        QVERIFY(proxy.listen());
        // One to three cuts: odd runs cut inside chunks, even runs close to the
        // chunk boundaries (the request heads shift them by a few hundred bytes).
        QList<qint64> cuts;
        const int count = 1 + int(random.bounded(3));
        for (int i = 0; i < count; ++i) {
            const qint64 at =
                run % 2 ? random.bounded(size)
                        : (1 + random.bounded(size / kChunk)) * kChunk + random.bounded(600) - 300;
            cuts.append(std::clamp<qint64>(at, 1, size));
        }
        std::sort(cuts.begin(), cuts.end());
        cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
        proxy.cutAt(cuts);

        Recorder recorder;
        ZDResumableUpload upload(ZDUploadProtocol(protocol),
                                 QUrl(u"http://127.0.0.1:%1/files"_s.arg(proxy.port())), path,
                                 &recorder);
        upload.setChunkGranularity(64 * 1024);
        upload.setChunkSize(kChunk);
        // Real, short waits: both servers finish a cut request's bookkeeping
        // some time after the cut (the tus server answers 409 until then, the
        // 308 server truncates what came after the lost chunk's start), so the
        // retries after the first at-once one for tus, and every one for 308,
        // must really wait.
        upload.setRetryPolicy(quickPolicy());
        upload.start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
        const ZDError &error = recorder.error;
        QVERIFY2(recorder.finishes == 1,
                 qPrintable(u"run %1, cut at %2: %3 (status %4) %5"_s.arg(run)
                                .arg(cuts.front())
                                .arg(error.localizedDescription())
                                .arg(error.userInfo()
                                         .value(ZDHTTPResponseKey)
                                         .value<ZDHTTPResponse>()
                                         .statusCode())
                                .arg(QString::fromUtf8(
                                    error.userInfo().value(ZDResponseBodyKey).toByteArray()))));
        QTRY_COMPARE_WITH_TIMEOUT(server.stored().size(), run + 1, 30000);
        const QByteArray stored = readFile(server.stored().last());
        qsizetype differs = 0;
        while (differs < std::min(stored.size(), content.size()) &&
               stored[differs] == content[differs])
            ++differs;
        QVERIFY2(
            stored == content,
            qPrintable(u"run %1: stored %2 of %3 bytes, first difference at %4, cuts %5 %6 %7 %8"_s
                           .arg(run)
                           .arg(stored.size())
                           .arg(content.size())
                           .arg(differs)
                           .arg(cuts.front())
                           .arg(QString::fromLatin1(stored.left(8).toHex()),
                                QString::fromLatin1(content.left(8).toHex()),
                                server.stored().join(u" "_s))));
        // Resumed, not restarted: at most one chunk resent per cut.
        QVERIFY2(upload.bytesSent() <= size + proxy.cuts() * kChunk,
                 qPrintable(u"sent %1 of %2 with %3 cuts"_s.arg(upload.bytesSent())
                                .arg(size)
                                .arg(proxy.cuts())));
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
    QTemporaryDir dir;
    const quint32 seed = QRandomGenerator::global()->generate();
    qInfo("seed %u", seed);
    QRandomGenerator random(seed);
    // The 308 server is still settling the dead chunk when the new upload asks
    // where it stands, so it gets the most runs: the race must be lost often.
    for (const auto &[protocol, runs] :
         {std::pair(ZDUploadProtocol::Tus, 1), std::pair(ZDUploadProtocol::ResumeIncomplete, 5)}) {
        for (int run = 0; run < runs; ++run) {
            const QString tag = u"%1-%2"_s.arg(int(protocol)).arg(run);
            ResumableServer server;
            const QString failure =
                server.start(protocol == ZDUploadProtocol::Tus ? u"tus"_s : u"308"_s,
                             dir.filePath(u"store"_s + tag));
            QVERIFY2(failure.isEmpty(), qPrintable(failure));
            FaultProxy proxy(server.port());
            QVERIFY(proxy.listen());
            proxy.setThrottle(1024 * 1024);
            const qint64 size = 2 * kChunk + 512 * 1024;
            const QByteArray content = patternBytes(size, seed + run);
            const QString path = writeFile(dir, u"clip-"_s + tag, content);
            const QString journalDir = dir.filePath(u"journal-"_s + tag);

            QProcess child;
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            env.insert(u"ZD_UPLOAD_CHILD"_s, u"1"_s);
            env.insert(u"ZD_UPLOAD_PROTOCOL"_s, QString::number(int(protocol)));
            env.insert(u"ZD_UPLOAD_ENDPOINT"_s, u"http://127.0.0.1:%1/files"_s.arg(proxy.port()));
            env.insert(u"ZD_UPLOAD_FILE"_s, path);
            env.insert(u"ZD_UPLOAD_JOURNAL"_s, journalDir);
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
            entry.endpoint.setPort(server.port());
            entry.sessionURL.setPort(server.port());
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
            QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));
            QCOMPARE(recorder.resumes.size(), 1);
            QVERIFY(recorder.resumes.front() >= entries.front().offset);
            if (protocol == ZDUploadProtocol::ResumeIncomplete) // tus servers lock the upload
                QCOMPARE(trickledAfterResuming, 0);
            QVERIFY(resumed.bytesSent() <= size - recorder.resumes.front());
            QTRY_COMPARE_WITH_TIMEOUT(server.stored().size(), 1, 30000);
            QVERIFY2(readFile(server.stored().front()) == content,
                     qPrintable(u"run %1 resumed at %2"_s.arg(tag).arg(recorder.resumes.front())));
            QVERIFY(journal.entries().isEmpty());
        }
    }
}

void tst_ResumableUpload::shrinksChunksUntilTheyFitBetweenCuts()
{
    // The 308 server keeps nothing of a chunk whose checksum it could not
    // check; the chunks begin at 1 MiB, larger than the stretch between cuts.
    QTemporaryDir dir;
    ResumableServer server;
    const QString failure = server.start(u"308"_s, dir.filePath(u"store"_s));
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    const QByteArray content = patternBytes(3 * 1024 * 1024 + 5, 11);
    const QString path = writeFile(dir, u"clip.mov"_s, content);
    FaultProxy proxy(server.port());
    QVERIFY(proxy.listen());
    proxy.cutAfter(700 * 1024, true);
    Recorder recorder;
    ZDResumableUpload upload(ZDUploadProtocol::ResumeIncomplete,
                             QUrl(u"http://127.0.0.1:%1/files"_s.arg(proxy.port())), path,
                             &recorder);
    upload.setChunkGranularity(64 * 1024);
    ZDRetryPolicy policy = quickPolicy();
    policy.initialDelayMsecs = 100;
    policy.budgetMsecs = 5000;
    upload.setRetryPolicy(policy);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
    QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));
    QTRY_COMPARE_WITH_TIMEOUT(server.stored().size(), 1, 30000);
    QVERIFY(readFile(server.stored().front()) == content);
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
    QTemporaryDir dir;
    ResumableServer server;
    const QString failure = server.start(u"tus"_s, dir.filePath(u"store"_s));
    QVERIFY2(failure.isEmpty(), qPrintable(failure));
    const QByteArray content = patternBytes(700 * 1024, 3);
    const QString path = writeFile(dir, u"clip.mov"_s, content);
    const ZDUploadJournal journal(dir.filePath(u"journal"_s));

    { // The first run stops after its first confirmed chunk, as a crash would.
        Recorder recorder;
        ZDResumableUpload upload(ZDUploadProtocol::Tus, server.url(u"/files"_s), path, &recorder);
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

    QFile file(path);
    if (change == u"append"_s) {
        QVERIFY(file.open(QIODevice::Append));
        file.write("x");
    } else if (change == u"rewrite"_s) {
        QVERIFY(file.open(QIODevice::ReadWrite));
        file.write("changed");
        file.setFileTime(entry.file.modified, QFileDevice::FileModificationTime);
    } else if (change == u"touch"_s) {
        QVERIFY(file.open(QIODevice::ReadWrite));
        file.setFileTime(entry.file.modified.addSecs(5), QFileDevice::FileModificationTime);
    }
    file.close();

    Recorder recorder;
    ZDResumableUpload resumed(entry, &recorder);
    resumed.setJournal(journal);
    resumed.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QVERIFY(journal.entries().isEmpty());
    if (change.isEmpty()) {
        QCOMPARE(recorder.finishes, 1);
        QCOMPARE(recorder.resumes, QList<qint64>{256 * 1024});
        QTRY_COMPARE_WITH_TIMEOUT(server.stored().size(), 1, 30000);
        QVERIFY(readFile(server.stored().front()) == content);
    } else {
        QCOMPARE(recorder.error.domain(), ZDResumableUploadErrorDomain);
        QCOMPARE(recorder.error.code(), ZDResumableUploadErrorFileChanged);
        QVERIFY(recorder.progress.isEmpty()); // nothing was sent onto the old session
        // and the session is ended on the server, not left to expire.
        const QString stored =
            dir.filePath(u"store/"_s + entry.sessionURL.path().section(u'/', -1));
        QTRY_VERIFY_WITH_TIMEOUT(!QFile::exists(stored), 30000);
    }
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
    Mini308 &service = run.service;
    int puts = 0;
    service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
        // The second chunk is refused once.
        if (request.method == "PUT" && !request.body.isEmpty() && ++puts == 2) {
            CannedReply reply = CannedReply::json(R"({"error":"slow down"})", status);
            if (!retryAfter.isNull())
                reply.headers.append(std::pair<QByteArray, QByteArray>("Retry-After", retryAfter));
            return reply;
        }
        return std::nullopt;
    };
    const Recorder &recorder = run.recorder;
    const FakeClock *clock = run.clock.get();
    run.upload->start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    if (!finishes) {
        QCOMPARE(recorder.failures, 1);
        QVERIFY(clock->waits.isEmpty());
        QCOMPARE(recorder.error.domain(), JSONHTTPRequestErrorDomain);
        // The refusal's body travels with the error.
        QCOMPARE(recorder.error.userInfo().value(ZDResponseBodyKey).toByteArray(),
                 QByteArray(R"({"error":"slow down"})"));
        return;
    }
    QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));
    QCOMPARE(recorder.retries.size(), 1);
    const qint64 waited = recorder.retries.front().delay;
    QVERIFY2(waited >= minimumWait && waited <= maximumWait, qPrintable(QString::number(waited)));
    QCOMPARE(recorder.retries.front().offset, 256 * 1024);
    QVERIFY(service.stored == run.content);
    // Resumed where the server stood: the first chunk went once.
    QCOMPARE(run.upload->bytesSent(), run.content.size() + 256 * 1024);
}

void tst_ResumableUpload::asksAgainAtOnceAfterACutThenWaitsByPolicy()
{
    { // tus: the real server, cut once in the second chunk.
        QTemporaryDir dir;
        ResumableServer server;
        const QString failure = server.start(u"tus"_s, dir.filePath(u"store"_s));
        QVERIFY2(failure.isEmpty(), qPrintable(failure));
        const QByteArray content = patternBytes(1024 * 1024, 6);
        const QString path = writeFile(dir, u"clip.mov"_s, content);
        FaultProxy proxy(server.port());
        QVERIFY(proxy.listen());
        proxy.cutAt({400 * 1024});
        Recorder recorder;
        auto clock = std::make_shared<FakeClock>();
        ZDResumableUpload upload(ZDUploadProtocol::Tus,
                                 QUrl(u"http://127.0.0.1:%1/files"_s.arg(proxy.port())), path,
                                 &recorder);
        upload.setChunkSize(256 * 1024);
        upload.setClock(clock);
        upload.setRetryPolicy(quickPolicy());
        upload.start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
        QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));
        QTRY_COMPARE_WITH_TIMEOUT(server.stored().size(), 1, 30000);
        QVERIFY(readFile(server.stored().front()) == content);
        QCOMPARE(proxy.cuts(), 1);
        QCOMPARE(clock->waits, QList<qint64>{0}); // asked about at once
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
            if (chunk && ((start == 256 * 1024 && cuts < 3) || (start == 512 * 1024 && cuts < 4))) {
                ++cuts;
                CannedReply reply;
                reply.ending = CannedReply::Ending::ResetAtOnce;
                return reply;
            }
            return std::nullopt;
        };
        run.upload->setRetryPolicy(quickPolicy());
        run.upload->start();
        QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 30000);
        QVERIFY2(run.recorder.finishes == 1, qPrintable(run.recorder.error.localizedDescription()));
        QVERIFY(service.stored == run.content);
        QList<qint64> delays;
        for (const Recorder::Retry &retry : run.recorder.retries)
            delays.append(retry.delay);
        QCOMPARE(delays, (QList<qint64>{300, 600, 1000, 300}));
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
            reply.headers.append(std::pair<QByteArray, QByteArray>("Retry-After", retryAfter));
        return reply;
    };
    ZDRetryPolicy policy = quickPolicy();
    policy.budgetMsecs = 5000;
    run.upload->setRetryPolicy(policy);
    run.upload->start();
    const Recorder &recorder = run.recorder;
    const QList<qint64> &waits = run.clock->waits;
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 60000);
    QCOMPARE(recorder.failures, 1);
    if (status == 308) {
        QCOMPARE(recorder.error.code(), ZDResumableUploadErrorProtocolViolation);
        return;
    }
    QVERIFY(recorder.error.userInfo().value(ZDRetriesExhaustedKey).toBool());
    QCOMPARE(waits.count(0), status == 0 ? 0 : 1); // a 308 cut is never retried at once
    QVERIFY(std::accumulate(waits.cbegin(), waits.cend(), 0LL) <= 5000);
}

void tst_ResumableUpload::renewsAsOftenAsTokensDieButNotForever()
{
    // Every token dies after three answers. In the first round the first chunk
    // sent with token-2 meets a 503, so token-2 dies before it carried a chunk;
    // in the second round the service takes no chunk at all.
    for (const bool acceptsChunks : {true, false}) {
        MiniUpload run;
        QVERIFY(run.prepare(1024 * 1024, 10));
        TestCredentials credentials;
        QHash<QByteArray, int> uses;
        bool busyOnce = acceptsChunks;
        run.service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
            const QByteArray token = request.header("Authorization");
            const bool chunk = request.method == "PUT" && !request.body.isEmpty();
            if (++uses[token] > 3 || (chunk && !acceptsChunks))
                return CannedReply::json(R"({"error":"expired"})", 401);
            if (chunk && token == "Bearer token-2" && std::exchange(busyOnce, false))
                return CannedReply::json(R"({"error":"busy"})", 503);
            return std::nullopt;
        };
        run.upload->setCredentialSource(&credentials);
        run.upload->start();
        QTRY_COMPARE_WITH_TIMEOUT(run.recorder.endings(), 1, 30000);
        const qsizetype renewals =
            credentials.reasons.count(ZDCredentialSource::Reason::Unauthorized);
        if (acceptsChunks) {
            QVERIFY2(run.recorder.finishes == 1,
                     qPrintable(run.recorder.error.localizedDescription()));
            QVERIFY(run.service.stored == run.content);
            QCOMPARE(renewals, 3);
        } else {
            QCOMPARE(run.recorder.failures, 1);
            QCOMPARE(renewals, 3);
        }
    }
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
    entry.file = ZDUploadFileIdentity::ofFile(writeFile(dir, u"clip.mov"_s, "clip"))
                     .value_or(ZDUploadFileIdentity());
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
    QTRY_COMPARE_WITH_TIMEOUT(recorder.retries.size(), 1, 30000);
    QCOMPARE(recorder.retries.front().delay, -1);
    // Nothing is tried while the network is gone, however long that is.
    const qsizetype asked = run.loopback.requests().size();
    QTest::qWait(300);
    QCOMPARE(run.loopback.requests().size(), asked);
    QCOMPARE(recorder.endings(), 0);
    QVERIFY(run.clock->waits.isEmpty());
    reachability->comeBack();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));
    QVERIFY(run.service.stored == run.content);
    QCOMPARE(recorder.retries.size(), 1);
}

void tst_ResumableUpload::renewsCredentialsOnceAfterA401AndContinuesFromTheServersOffset()
{
    QTemporaryDir dir;
    const QByteArray content = patternBytes(700 * 1024, 9);
    const QString path = writeFile(dir, u"clip.mov"_s, content);
    for (const bool secondRefusal : {false, true}) {
        Mini308 service;
        // token-1 expires once the first chunk is in; token-2 is refused too in
        // the second round.
        service.fault = [&](const RecordedRequest &request) -> std::optional<CannedReply> {
            const QByteArray token = request.header("Authorization");
            if ((token == "Bearer token-1" && !service.stored.isEmpty()) ||
                (secondRefusal && token == "Bearer token-2")) {
                CannedReply reply = CannedReply::json(R"({"error":"expired"})", 401);
                return reply;
            }
            return std::nullopt;
        };
        LoopbackHTTPServer loopback;
        QVERIFY(loopback.listen());
        loopback.setHandler(
            [&](const RecordedRequest &request) { return service.handle(request); });
        TestCredentials credentials;
        Recorder recorder;
        ZDResumableUpload upload(ZDUploadProtocol::ResumeIncomplete, loopback.url(u"/upload"_s),
                                 path, &recorder);
        upload.setChunkSize(256 * 1024);
        upload.setCredentialSource(&credentials);
        upload.start();
        QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
        QCOMPARE(credentials.reasons.count(ZDCredentialSource::Reason::Unauthorized), 1);
        if (secondRefusal) {
            QCOMPARE(recorder.failures, 1);
            QCOMPARE(recorder.error.userInfo()
                         .value(ZDHTTPResponseKey)
                         .value<ZDHTTPResponse>()
                         .statusCode(),
                     401);
            continue;
        }
        QVERIFY2(recorder.finishes == 1, qPrintable(recorder.error.localizedDescription()));
        QVERIFY(service.stored == content);
        // Asked before every request, and the offset asked again after the 401.
        QVERIFY(credentials.reasons.count(ZDCredentialSource::Reason::BeforeRequest) >= 4);
        QCOMPARE(recorder.resumes, QList<qint64>{256 * 1024});
    }
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
    QVERIFY2(run.recorder.finishes == 1, qPrintable(run.recorder.error.localizedDescription()));
    QCOMPARE(run.recorder.retries.size(), 1);
    QCOMPARE(run.recorder.retries.front().reason.domain(), failure.domain());
    QCOMPARE(run.clock->waits, QList<qint64>{300});
    QVERIFY(run.service.stored == run.content);
}

void tst_ResumableUpload::refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole_data()
{
    QTest::addColumn<int>("protocol");
    QTest::addColumn<QByteArray>("claim");
    QTest::newRow("308: beyond the chunk")
        << int(ZDUploadProtocol::ResumeIncomplete) << QByteArray("bytes=0-300000");
    QTest::newRow("308: a range not from 0")
        << int(ZDUploadProtocol::ResumeIncomplete) << QByteArray("bytes=100-262143");
    QTest::newRow("308: two ranges")
        << int(ZDUploadProtocol::ResumeIncomplete) << QByteArray("bytes=0-99,200-262143");
    QTest::newRow("tus: beyond the chunk") << int(ZDUploadProtocol::Tus) << QByteArray("300000");
}

void tst_ResumableUpload::refusesAnOffsetBeyondTheBytesSentOrARangeWithAHole()
{
    QFETCH(int, protocol);
    QFETCH(QByteArray, claim);
    QTemporaryDir dir;
    const QString path = writeFile(dir, u"clip.mov"_s, patternBytes(700 * 1024, 1));
    LoopbackHTTPServer loopback;
    QVERIFY(loopback.listen());
    loopback.setHandler([&](const RecordedRequest &request) {
        CannedReply reply;
        if (request.method == "POST") {
            reply.status = 201;
            reply.headers = {{"Location", "/session/1"}, {"Tus-Resumable", "1.0.0"}};
        } else if (protocol == int(ZDUploadProtocol::Tus)) {
            reply.status = 204;
            reply.headers = {{"Upload-Offset", claim}, {"Tus-Resumable", "1.0.0"}};
        } else {
            reply.status = 308;
            reply.headers = {{"Range", claim}};
        }
        return reply;
    });
    Recorder recorder;
    ZDResumableUpload upload(ZDUploadProtocol(protocol), loopback.url(u"/upload"_s), path,
                             &recorder);
    upload.setChunkSize(256 * 1024);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QCOMPARE(recorder.error.domain(), ZDResumableUploadErrorDomain);
    QCOMPARE(recorder.error.code(), ZDResumableUploadErrorProtocolViolation);
    QTest::qWait(50);
    QCOMPARE(recorder.endings(), 1);
    QCOMPARE(loopback.requests().size(), 2); // nothing more was sent
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
    QTemporaryDir dir;
    const QByteArray content = patternBytes(300 * 1024, 4);
    const QString path = writeFile(dir, u"clip.mov"_s, content);
    // A tus service that checks Upload-Checksum itself (the independent server
    // does not) and refuses the first `refusals` chunks with 460.
    QByteArray stored;
    int refused = 0;
    bool checksumsRight = true;
    LoopbackHTTPServer loopback;
    QVERIFY(loopback.listen());
    loopback.setHandler([&](const RecordedRequest &request) {
        CannedReply reply;
        reply.headers = {{"Tus-Resumable", "1.0.0"}};
        if (request.method == "POST") {
            reply.status = 201;
            reply.headers.append(std::pair<QByteArray, QByteArray>("Location", "/files/1"));
        } else if (request.method == "HEAD") {
            reply.status = 200;
            reply.headers.append(std::pair<QByteArray, QByteArray>(
                "Upload-Offset", QByteArray::number(stored.size())));
        } else {
            const QByteArray expected =
                "sha1 " +
                QCryptographicHash::hash(request.body, QCryptographicHash::Sha1).toBase64();
            checksumsRight = checksumsRight && request.header("Upload-Checksum") == expected;
            if (refused < refusals) {
                ++refused;
                reply.status = 460;
                reply.reason = "Checksum Mismatch";
                return reply;
            }
            stored += request.body;
            reply.status = 204;
            reply.headers.append(std::pair<QByteArray, QByteArray>(
                "Upload-Offset", QByteArray::number(stored.size())));
        }
        return reply;
    });
    Recorder recorder;
    ZDResumableUpload upload(ZDUploadProtocol::Tus, loopback.url(u"/files"_s), path, &recorder);
    upload.setChunkSize(256 * 1024);
    upload.start();
    QTRY_COMPARE_WITH_TIMEOUT(recorder.endings(), 1, 30000);
    QVERIFY(checksumsRight);
    if (finishes) {
        QCOMPARE(recorder.finishes, 1);
        QVERIFY(stored == content);
    } else {
        QCOMPARE(recorder.error.domain(), ZDResumableUploadErrorDomain);
        QCOMPARE(recorder.error.code(), ZDResumableUploadErrorChecksumMismatch);
        QCOMPARE(refused, 3);
    }
}

void tst_ResumableUpload::destroyingTheUploadInsideACallbackEndsItQuietly()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, u"clip.mov"_s, patternBytes(700 * 1024, 2));
    Mini308 service;
    LoopbackHTTPServer loopback;
    QVERIFY(loopback.listen());
    loopback.setHandler([&](const RecordedRequest &request) { return service.handle(request); });
    for (const bool onEnd : {false, true}) {
        Recorder recorder;
        auto *upload = new ZDResumableUpload(ZDUploadProtocol::ResumeIncomplete,
                                             loopback.url(u"/upload"_s), path, &recorder);
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
        service.stored.clear();
    }
}

QTEST_GUILESS_MAIN(tst_ResumableUpload)
#include "tst_resumableupload.moc"
