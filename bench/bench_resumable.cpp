// Resumable uploads against @tus/server, through the fault-injecting proxy:
// - bytes on the wire and throughput with a cut every tenth of the file, against
//   the same upload without cuts, and tus-js-client as the peer on the same
//   server with the same cuts;
// - the median time from a cut to body bytes flowing again;
// - the peak memory of a large upload (a sparse file, sent straight to the
//   server in a child process).
// Arguments: the size in MiB of the cut upload (default 1024) and of the
// memory run (default 4096). ZD_BENCH_CHUNK=<MiB> fixes the engine's chunk size;
// ZD_BENCH_VERBOSE=1 prints every cut, retry and resumption.

#include "BenchSupport.h"
#include "FaultProxy.h"
#include "ResumableServer.h"

#include "net/ZDResumableUpload.h"
#include "net/ZDURLRequest.h"

#include <QCoreApplication>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QStorageInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <numeric>

using namespace Qt::StringLiterals;

namespace {

constexpr qint64 kMiB = 1024 * 1024;
constexpr qint64 kRetryDelayMsecs = 200;

class Waiter : public ZDResumableUploadDelegate
{
public:
    void uploadDidFinish(ZDResumableUpload *, const QVariant &) override { done = ok = true; }
    void uploadDidFailWithError(ZDResumableUpload *, const ZDError &error) override
    {
        std::fprintf(stderr, "upload failed: %s\n", qPrintable(error.localizedDescription()));
        done = true;
    }
    void uploadWillRetry(ZDResumableUpload *, const ZDError &reason, qint64 delayMsecs,
                         qint64 offset) override
    {
        if (qEnvironmentVariableIsSet("ZD_BENCH_VERBOSE"))
            std::fprintf(
                stderr, "retry at %lld in %lld ms: %s %d\n", offset, delayMsecs,
                qPrintable(reason.localizedDescription()),
                reason.userInfo().value(ZDHTTPResponseKey).value<ZDHTTPResponse>().statusCode());
    }
    void uploadDidResume(ZDResumableUpload *, qint64 offset) override
    {
        if (qEnvironmentVariableIsSet("ZD_BENCH_VERBOSE"))
            std::fprintf(stderr, "resumed at %lld\n", offset);
    }
    bool done = false;
    bool ok = false;
};

bool writeRandomFile(const QString &path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    const QByteArray block = bench::randomBytes(4 * kMiB, 11);
    for (qint64 left = size; left > 0; left -= block.size())
        file.write(block.constData(), std::min<qint64>(left, block.size()));
    return file.error() == QFile::NoError;
}

bool uploadWithEngine(const QUrl &endpoint, const QString &path)
{
    Waiter waiter;
    ZDResumableUpload upload(ZDUploadProtocol::Tus, endpoint, path, &waiter);
    ZDRetryPolicy policy;
    policy.initialDelayMsecs = kRetryDelayMsecs;
    policy.jitter = 0;
    upload.setRetryPolicy(policy);
    upload.setChecksumsEnabled(false); // the peer sends none either
    if (qEnvironmentVariableIsSet("ZD_BENCH_CHUNK"))
        upload.setChunkSize(qEnvironmentVariableIntValue("ZD_BENCH_CHUNK") * kMiB);
    upload.start();
    while (!waiter.done)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    return waiter.ok;
}

bool uploadWithPeer(const QUrl &endpoint, const QString &path, qint64 chunk)
{
    QProcess node;
    node.setWorkingDirectory(qEnvironmentVariable("ZD_SOURCE_DIR") + u"/tests/peers"_s);
    node.start(u"node"_s, {u"tus_upload.mjs"_s, endpoint.toString(), path, QString::number(chunk),
                           QString::number(kRetryDelayMsecs)});
    if (!node.waitForStarted())
        return false;
    while (node.state() != QProcess::NotRunning)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 100);
    const QByteArray out = node.readAllStandardOutput();
    if (!out.startsWith("done"))
        std::fprintf(stderr, "tus-js-client: %s%s\n", out.constData(),
                     node.readAllStandardError().constData());
    return out.startsWith("done");
}

struct Run
{
    double seconds = 0;
    double wireRatio = 0;
    QList<double> resumeMsecs;
};

// One upload through a proxy that cuts every `cutEvery` bytes (0: never).
Run throughProxy(ResumableServer &server, qint64 size, qint64 cutEvery,
                 const std::function<bool(const QUrl &)> &upload)
{
    FaultProxy proxy(server.port());
    proxy.listen();
    Run run;
    QElapsedTimer clock;
    qint64 cutAt = -1;
    qint64 cutTime = 0;
    if (cutEvery > 0) {
        proxy.cutAfter(cutEvery, true);
        proxy.setOnCut([&](qint64 at) {
            if (qEnvironmentVariableIsSet("ZD_BENCH_VERBOSE"))
                std::fprintf(stderr, "cut at %lld wire bytes\n", at);
            cutAt = at;
            cutTime = clock.nsecsElapsed();
        });
        // Body bytes flowing again: past the next request's head.
        proxy.setOnForward([&](qint64 total) {
            if (cutAt >= 0 && total > cutAt + 64 * 1024) {
                run.resumeMsecs.append(double(clock.nsecsElapsed() - cutTime) / 1e6);
                cutAt = -1;
            }
        });
    }
    clock.start();
    if (!upload(QUrl(u"http://127.0.0.1:%1/files"_s.arg(proxy.port()))))
        return Run();
    run.seconds = double(clock.nsecsElapsed()) / 1e9;
    run.wireRatio = double(proxy.uploadedBytes()) / double(size);
    return run;
}

double median(QList<double> values)
{
    if (values.isEmpty())
        return 0;
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

// The child of the memory run: one upload straight to the server.
int memoryChild(const QString &endpoint, const QString &path)
{
    return uploadWithEngine(QUrl(endpoint), path) ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    if (argc == 4 && QByteArray(argv[1]) == "--memory-child")
        return memoryChild(QString::fromLocal8Bit(argv[2]), QString::fromLocal8Bit(argv[3]));
    if (qEnvironmentVariableIsEmpty("ZD_SOURCE_DIR"))
        qputenv("ZD_SOURCE_DIR", ZD_SOURCE_DIR);
    const qint64 size = (argc > 1 ? QByteArray(argv[1]).toLongLong() : 1024) * kMiB;
    const qint64 memorySize = (argc > 2 ? QByteArray(argv[2]).toLongLong() : 4096) * kMiB;
    const qint64 cutEvery = size / 10;

    // In memory where the system has room: the figures are about the network,
    // and the disk's write-back of a few GiB of stored copies would swamp them.
    const bool inMemory = QStorageInfo(u"/dev/shm"_s).bytesAvailable() > 4 * size + 256 * kMiB;
    QTemporaryDir dir(inMemory ? u"/dev/shm/bench_resumable-XXXXXX"_s : QString());
    ResumableServer server;
    const QString failure = server.start(u"tus"_s, dir.filePath(u"store"_s));
    if (!failure.isEmpty()) {
        std::fprintf(stderr, "bench_resumable: %s\n", qPrintable(failure));
        return 1;
    }
    const QString path = dir.filePath(u"video.bin"_s);
    if (!writeRandomFile(path, size))
        return 1;
    const auto engine = [&](const QUrl &endpoint) { return uploadWithEngine(endpoint, path); };
    // The peer with the chunk size the engine settles on for long uploads.
    const auto peer = [&](const QUrl &endpoint) {
        return uploadWithPeer(endpoint, path, 64 * kMiB);
    };

    // Runs come in rounds, after a warm-up of both clients (the first upload of
    // a process pays for the server's start and the file's first read): each
    // round uploads without and with cuts, ours then the peer's. Throughputs
    // are the fastest of the rounds. A ratio of with to without cuts is taken
    // within each round, from runs seconds apart, and the median over the
    // rounds is reported: the fastest of each kind came from different
    // moments, and on a shared machine the clean upload alone swings by a
    // fifth between them. The server's stored copies are removed after every
    // run.
    const QString store = dir.filePath(u"store"_s);
    const auto measure = [&](qint64 every, const std::function<bool(const QUrl &)> &upload) {
        Run run = throughProxy(server, size, every, upload);
        QDir(store).removeRecursively();
        QDir().mkpath(store);
        return run;
    };
    const auto faster = [](const Run &a, const Run &b) {
        if (a.seconds <= 0 || b.seconds <= 0)
            return Run();
        return a.seconds <= b.seconds ? a : b;
    };
    const QString warmUp = dir.filePath(u"warm-up.bin"_s);
    if (!writeRandomFile(warmUp, 16 * kMiB) || !uploadWithEngine(server.url(u"/files"_s), warmUp) ||
        !uploadWithPeer(server.url(u"/files"_s), warmUp, 64 * kMiB))
        return 1;
    constexpr int kRounds = 5;
    QList<Run> runs[4];
    for (int round = 0; round < kRounds; ++round) {
        runs[0].append(measure(0, engine));
        runs[1].append(measure(cutEvery, engine));
        runs[2].append(measure(0, peer));
        runs[3].append(measure(cutEvery, peer));
    }
    const auto fastest = [&](const QList<Run> &of) {
        return std::accumulate(of.begin() + 1, of.end(), of.first(), faster);
    };
    const Run clean = fastest(runs[0]);
    const Run cut = fastest(runs[1]);
    const Run peerClean = fastest(runs[2]);
    const Run peerCut = fastest(runs[3]);
    if (clean.seconds <= 0 || cut.seconds <= 0 || peerClean.seconds <= 0 || peerCut.seconds <= 0)
        return 1;
    // Within each round; and every cut of every round for the time to flow.
    const auto ratios = [&](const QList<Run> &without, const QList<Run> &with) {
        QList<double> of;
        for (int round = 0; round < kRounds; ++round)
            of.append(without[round].seconds / with[round].seconds);
        return median(of);
    };
    const auto resumes = [](const QList<Run> &of) {
        QList<double> all;
        for (const Run &run : of)
            all += run.resumeMsecs;
        return median(all);
    };
    std::printf("# %lld MiB through the proxy, a cut every %lld MiB; the peer is tus-js-client\n",
                size / kMiB, cutEvery / kMiB);
    bench::report("resumable_wire_bytes_per_file_byte_with_cuts", cut.wireRatio, "x");
    bench::report("resumable_wire_bytes_per_file_byte_with_cuts_peer", peerCut.wireRatio, "x");
    bench::report("resumable_wire_ratio_vs_peer_lower_is_better", cut.wireRatio / peerCut.wireRatio,
                  "x");
    const double throughput = double(size) / kMiB / cut.seconds;
    const double peerThroughput = double(size) / kMiB / peerCut.seconds;
    bench::report("resumable_throughput_with_cuts", throughput, "MiB/s");
    bench::report("resumable_throughput_without_cuts", double(size) / kMiB / clean.seconds,
                  "MiB/s");
    bench::report("resumable_throughput_with_cuts_vs_without_higher_is_better",
                  ratios(runs[0], runs[1]), "x");
    bench::report("resumable_throughput_with_cuts_peer", peerThroughput, "MiB/s");
    bench::report("resumable_throughput_with_cuts_vs_without_peer", ratios(runs[2], runs[3]), "x");
    bench::report("resumable_throughput_vs_peer_higher_is_better", throughput / peerThroughput,
                  "x");
    bench::report("resumable_cut_to_flowing_median", resumes(runs[1]), "ms");
    bench::report("resumable_cut_to_flowing_median_peer", resumes(runs[3]), "ms");

    // Peak memory: a sparse file (never stored whole), straight to the server.
    const QString sparse = dir.filePath(u"sparse.bin"_s);
    {
        QFile file(sparse);
        if (!file.open(QIODevice::WriteOnly) || !file.resize(memorySize))
            return 1;
    }
    const QString command = QCoreApplication::applicationFilePath() + u" --memory-child "_s +
                            server.url(u"/files"_s).toString() + u" "_s + sparse;
    const bench::ChildResult memory = bench::runCommand(command.toStdString());
    QFile::remove(sparse);
    QFile::remove(path);
    if (!memory.ok)
        return 1;
    std::printf("# peak resident memory of a %lld MiB upload (limit 32 MiB)\n", memorySize / kMiB);
    bench::report("resumable_peak_memory", memory.peakMiB, "MiB");
    return 0;
}
