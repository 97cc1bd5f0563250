// Publishing a large video end to end: the demo host (scripted user, example
// plug-in, library) uploads it to the demo service, once read into memory and
// once streamed from disk; the curl tool uploading the same file to the same
// service (signed with the same OAuth token) is the peer.
//
//   bench_publish [MiB]    (default 1024)

#include "BenchSupport.h"
#include "ChildService.h"

#include <net/JSONHTTPRequest.h>
#include <net/ZDOAuth1Signer.h>

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <string>

using namespace Qt::StringLiterals;

namespace {

const QString kConsumerKey = u"zd-demo-consumer"_s;
const QString kConsumerSecret = u"zd-demo-consumer-secret"_s;

std::string quoted(const QString &text)
{
    QString escaped = text;
    escaped.replace(u'\'', u"'\\''"_s);
    return "'" + escaped.toStdString() + "'";
}

bool writeRandomFile(const QString &path, qint64 size)
{
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return false;
    QByteArray block(8 << 20, Qt::Uninitialized);
    QRandomGenerator rng(7);
    for (qint64 left = size; left > 0; left -= block.size()) {
        rng.fillRange(reinterpret_cast<quint32 *>(block.data()), size_t(block.size() / 4));
        if (file.write(block.constData(), std::min<qint64>(left, block.size())) <= 0)
            return false;
    }
    return true;
}

// A token for the demo account, fetched with the library's signer.
std::optional<std::pair<QString, QString>> signIn(const QString &service)
{
    struct Waiter : JSONHTTPRequestDelegate
    {
        void requestDidReceiveObject(JSONHTTPRequest *, const QVariant &object) override
        {
            answer = object.toMap();
            done = true;
        }
        void requestDidFailWithError(JSONHTTPRequest *, const ZDError &) override { done = true; }
        QVariantMap answer;
        bool done = false;
    } waiter;
    JSONHTTPRequest request(QUrl(service + u"oauth/access_token"_s), &waiter,
                            std::make_shared<ZDOAuth1Signer>(kConsumerKey, kConsumerSecret));
    request.setHTTPMethod(JSONHTTPRequestMethodFormPOST);
    request.setResponseType(JSONHTTPResponseTypeFormString);
    request.setPostParams(QVariantMap{{u"x_auth_username"_s, u"demo"_s},
                                      {u"x_auth_password"_s, u"demo-password"_s},
                                      {u"x_auth_mode"_s, u"client_auth"_s}});
    request.start();
    if (!QTest::qWaitFor([&] { return waiter.done; }, 30000) || waiter.answer.isEmpty())
        return std::nullopt;
    return std::pair(waiter.answer.value(u"oauth_token"_s).toString(),
                     waiter.answer.value(u"oauth_token_secret"_s).toString());
}

struct Run
{
    bench::ChildResult process; // wall time and peak memory of the whole program
    double uploadSeconds = 0;   // the upload itself
};

Run publishWithHost(const QString &service, const QString &video, const QString &mode,
                    const QString &work)
{
    const QString out = work + u"/host-output.txt"_s;
    const std::string command = "QT_QPA_PLATFORM=offscreen " +
                                quoted(QString::fromUtf8(ZD_DEMO_HOST)) + " " + quoted(video) +
                                " --scripted --no-keyring --no-wrong-password --service " +
                                quoted(service) + " --upload-mode " + mode.toStdString() + " >" +
                                quoted(out) + " 2>/dev/null";
    Run run;
    run.process = bench::runCommand(command);
    QFile output(out);
    if (!run.process.ok || !output.open(QIODevice::ReadOnly))
        return {};
    const QRegularExpressionMatch match =
        QRegularExpression(u"Uploaded \\d+ bytes in ([0-9.]+) s"_s)
            .match(QString::fromUtf8(output.readAll()));
    if (!match.hasMatch())
        return {};
    run.uploadSeconds = match.captured(1).toDouble();
    return run;
}

Run publishWithCurl(const QString &service, const QString &video,
                    const std::pair<QString, QString> &token, const QString &work)
{
    // The text fields are signed as query parameters, as the plug-in does.
    const QString size = QString::number(QFileInfo(video).size());
    const QVariantMap fields{
        {u"title"_s, u"Bench"_s}, {u"access"_s, u"unlisted"_s}, {u"size"_s, size}};
    ZDURLRequest unsignedRequest(QUrl(
        service + u"api/videos?"_s + JSONHTTPRequest::encodedStringForParameterDictionary(fields)));
    unsignedRequest.setHTTPMethod("POST");
    ZDOAuth1Signer signer(kConsumerKey, kConsumerSecret, token.first, token.second);
    const QByteArray authorization =
        signer.signedRequestForRequest(unsignedRequest).valueForHTTPHeaderField("Authorization");
    const QString timing = work + u"/curl-time.txt"_s;
    const std::string command = "curl -sS -f -o /dev/null -w '%{time_total}' -H 'Expect:' -H " +
                                quoted(u"Authorization: "_s + QString::fromLatin1(authorization)) +
                                " -F title=Bench -F access=unlisted -F size=" + size.toStdString() +
                                " -F " + quoted(u"video=@"_s + video) + " " +
                                quoted(service + u"api/videos"_s) + " >" + quoted(timing);
    Run run;
    run.process = bench::runCommand(command);
    QFile output(timing);
    if (!run.process.ok || !output.open(QIODevice::ReadOnly))
        return {};
    run.uploadSeconds = output.readAll().trimmed().toDouble();
    return run;
}

} // namespace

int main(int argc, char **argv)
{
    QCoreApplication app(argc, argv);
    const qint64 mib = argc > 1 ? std::atoll(argv[1]) : 1024;
    const qint64 size = mib << 20;

    QTemporaryDir work(QDir::current().filePath(u"bench-publish-XXXXXX"_s));
    const QString video = work.filePath(u"video.mp4"_s);
    const QString small = work.filePath(u"small.mp4"_s);
    const QString data = work.filePath(u"service"_s);
    if (!work.isValid() || !writeRandomFile(video, size) || !writeRandomFile(small, 1 << 20))
        return 1;

    ChildService service;
    if (!service
             .start(QString::fromUtf8(ZD_DEMO_SERVICE),
                    {u"--port"_s, u"0"_s, u"--data"_s, data, u"--quiet"_s})
             .isEmpty())
        return 1;
    const QString url = service.url().toString();
    // Each run stores a copy of the video; the next one does not need it.
    const auto clearService = [&] {
        const QDir videos(data + u"/videos"_s);
        for (const QString &id : videos.entryList(QDir::Dirs | QDir::NoDotAndDotDot))
            QDir(videos.filePath(id)).removeRecursively();
    };

    const auto baseline = publishWithHost(url, small, u"streamed"_s, work.path());
    clearService();
    const auto streamed = publishWithHost(url, video, u"streamed"_s, work.path());
    clearService();
    const auto inMemory = publishWithHost(url, video, u"memory"_s, work.path());
    clearService();
    const auto token = signIn(url);
    const Run curl = token ? publishWithCurl(url, video, *token, work.path()) : Run();
    clearService();
    service.stop();
    for (const Run *run : {&baseline, &streamed, &inMemory, &curl}) {
        if (!run->process.ok || run->uploadSeconds <= 0)
            return 1;
    }

    const double fileMiB = double(size) / double(1 << 20);
    const auto throughput = [&](const Run &run) { return fileMiB / run.uploadSeconds; };
    bench::report("publish_streamed_upload", throughput(streamed), "MiB/s");
    bench::report("publish_in_memory_upload", throughput(inMemory), "MiB/s");
    bench::report("publish_curl_tool_upload", throughput(curl), "MiB/s");
    bench::report("publish_ratio_streamed_to_curl", curl.uploadSeconds / streamed.uploadSeconds,
                  "x");
    bench::report("publish_ratio_in_memory_to_curl", curl.uploadSeconds / inMemory.uploadSeconds,
                  "x");
    bench::report("publish_streamed_wall", streamed.process.seconds, "s");
    bench::report("publish_in_memory_wall", inMemory.process.seconds, "s");
    bench::report("publish_host_1MiB_peak_rss", baseline.process.peakMiB, "MiB");
    bench::report("publish_streamed_peak_rss", streamed.process.peakMiB, "MiB");
    bench::report("publish_streamed_peak_above_1MiB_run",
                  streamed.process.peakMiB - baseline.process.peakMiB, "MiB");
    bench::report("publish_in_memory_peak_rss", inMemory.process.peakMiB, "MiB");
    bench::report("publish_in_memory_peak_per_file_size", inMemory.process.peakMiB / fileMiB, "x");
    bench::report("publish_curl_tool_peak_rss", curl.process.peakMiB, "MiB");
    return 0;
}
