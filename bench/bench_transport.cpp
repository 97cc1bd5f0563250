// The transport against libcurl used directly: a 1 GiB multipart upload through
// JSONHTTPRequest against the curl command-line tool sending the same bytes, and
// sequential small GET round trips against libcurl's easy interface. The server
// is a loopback process that reads and discards bodies.
#include "BenchSupport.h"

#include "net/JSONHTTPRequest.h"
#include "net/ZDFileUpload.h"
#include "net/ZDMultipart_p.h"

#include <curl/curl.h>

#include <QCoreApplication>
#include <QFile>
#include <QTemporaryDir>

#include <memory>

namespace {

class Finisher : public JSONHTTPRequestDelegate
{
public:
    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &) override
    {
        done(request, true);
    }
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override
    {
        std::fprintf(stderr, "request failed: %s\n", qPrintable(error.localizedDescription()));
        done(request, false);
    }
    std::function<void(JSONHTTPRequest *, bool)> done;
};

int argcStub = 1;
char nameStub[] = "bench";
char *argvStub[] = {nameStub, nullptr};

// Sends one request configured by `configure` on a fresh event loop and waits
// for its end.
bool sendOnce(const QUrl &url, const std::function<void(JSONHTTPRequest &)> &configure)
{
    QCoreApplication app(argcStub, argvStub);
    Finisher finisher;
    bool ok = false;
    finisher.done = [&](JSONHTTPRequest *, bool success) {
        ok = success;
        app.quit();
    };
    JSONHTTPRequest request(url, &finisher);
    configure(request);
    request.start();
    app.exec();
    return ok;
}

size_t discard(char *, size_t size, size_t count, void *)
{
    return size * count;
}

} // namespace

int main(int argc, char **argv)
{
    const qsizetype uploadSize =
        argc > 1 ? qsizetype(std::atoll(argv[1])) << 20 : qsizetype(1024) << 20;
    const int roundTrips = argc > 2 ? std::atoi(argv[2]) : 2000;
    bench::DiscardServer server;
    const QUrl url(QStringLiteral("http://127.0.0.1:%1/upload").arg(server.port()));

    // --- upload --------------------------------------------------------------
    ZDFileUpload video;
    const auto prepare = [&] {
        video.setName(QStringLiteral("clip.mov"));
        video.setData(bench::randomBytes(uploadSize, 9));
    };
    const bench::ChildResult ours = bench::inChild(prepare, [&] {
        return sendOnce(url, [&](JSONHTTPRequest &request) {
            request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
            request.setPostParams(QVariantMap{{QStringLiteral("title"), QStringLiteral("Trip")}});
            request.setUnsignedPostParams(
                QVariantMap{{QStringLiteral("video"), QVariant::fromValue(video)}});
        });
    });

    // The transport alone: the same body built beforehand and sent as it is.
    QByteArray prebuilt;
    const bench::ChildResult transportOnly = bench::inChild(
        [&] {
            prepare();
            prebuilt = zdMultipartParamData({{QStringLiteral("video"), QVariant::fromValue(video)}},
                                            QStringLiteral("6B29FC40-CA47-1067-B31D-00DD010662DA"));
            video = ZDFileUpload();
        },
        [&] {
            return sendOnce(url, [&](JSONHTTPRequest &request) {
                request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
                request.setOverridePostBody(prebuilt);
            });
        });

    QTemporaryDir dir;
    const QString bodyPath = dir.filePath(QStringLiteral("body"));

    // The video streamed from its file: memory stays flat.
    const QString videoPath = dir.filePath(QStringLiteral("clip.mov"));
    {
        prepare();
        QFile file(videoPath);
        if (!file.open(QIODevice::WriteOnly) || file.write(video.data()) != uploadSize)
            return 1;
        video = ZDFileUpload();
    }
    const bench::ChildResult streamed =
        bench::inChild([] {},
                       [&] {
                           return sendOnce(url, [&](JSONHTTPRequest &request) {
                               request.setHTTPMethod(JSONHTTPRequestMethodMultipartPOST);
                               request.setPostParams(
                                   QVariantMap{{QStringLiteral("title"), QStringLiteral("Trip")}});
                               request.setUnsignedPostParams(QVariantMap{
                                   {QStringLiteral("video"),
                                    QVariant::fromValue(ZDStreamedFileUpload(videoPath))}});
                           });
                       });
    const QString boundary = QStringLiteral("6B29FC40-CA47-1067-B31D-00DD010662DA");
    {
        prepare();
        const QByteArray body = zdJoinSegments(
            zdMultipartSegments({{QStringLiteral("title"), QStringLiteral("Trip")}}, boundary) +
            zdMultipartSegments({{QStringLiteral("video"), QVariant::fromValue(video)}}, boundary));
        video = ZDFileUpload();
        QFile file(bodyPath);
        if (!file.open(QIODevice::WriteOnly) || file.write(body) != body.size())
            return 1;
    }
    // The tool reads at most 1 GiB into memory for --data-binary, so it uploads
    // the file as it reads it (-T), as a POST.
    const std::string command =
        "curl -sS -o /dev/null -X POST -H 'Expect:' -H 'Content-Type: multipart/form-data; "
        "boundary=" +
        boundary.toStdString() + "' -T " + bodyPath.toStdString() + " " +
        url.toString().toStdString();
    const bench::ChildResult curlTool = bench::runCommand(command);
    if (!ours.ok || !curlTool.ok || !transportOnly.ok || !streamed.ok)
        return 1;
    const double gib = double(uploadSize) / double(1 << 30);
    bench::report("upload_ours_multipart", gib / ours.seconds, "GiB/s");
    bench::report("upload_curl_tool", gib / curlTool.seconds, "GiB/s");
    bench::report("upload_ratio_ours_to_curl", curlTool.seconds / ours.seconds, "x");
    bench::report("upload_ours_prebuilt_body", gib / transportOnly.seconds, "GiB/s");
    bench::report("upload_ours_streamed_from_file", gib / streamed.seconds, "GiB/s");
    bench::report("upload_ratio_streamed_to_curl", curlTool.seconds / streamed.seconds, "x");
    bench::report("upload_ours_streamed_peak_rss", streamed.peakMiB, "MiB");
    bench::report("upload_ours_peak_rss", ours.peakMiB, "MiB");
    bench::report("upload_curl_tool_peak_rss", curlTool.peakMiB, "MiB");

    // --- round trips ---------------------------------------------------------
    const QUrl small(QStringLiteral("http://127.0.0.1:%1/ping").arg(server.port()));
    const bench::ChildResult trips =
        bench::inChild([] {},
                       [&] {
                           QCoreApplication app(argcStub, argvStub);
                           Finisher finisher;
                           int left = roundTrips;
                           bool ok = true;
                           std::unique_ptr<JSONHTTPRequest> current;
                           const auto next = [&] {
                               current = std::make_unique<JSONHTTPRequest>(small, &finisher);
                               current->start();
                           };
                           finisher.done = [&](JSONHTTPRequest *, bool success) {
                               ok &= success;
                               if (--left == 0 || !ok)
                                   app.quit();
                               else
                                   next(); // destroys the finished request from inside its callback
                           };
                           next();
                           app.exec();
                           return ok;
                       });
    const bench::ChildResult easy =
        bench::inChild([] {},
                       [&] {
                           CURL *handle = curl_easy_init();
                           const std::string target = small.toString().toStdString();
                           curl_easy_setopt(handle, CURLOPT_URL, target.c_str());
                           curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discard);
                           bool ok = true;
                           for (int i = 0; i < roundTrips; ++i)
                               ok &= curl_easy_perform(handle) == CURLE_OK;
                           curl_easy_cleanup(handle);
                           return ok;
                       });
    if (!trips.ok || !easy.ok)
        return 1;
    bench::report("roundtrip_ours", trips.seconds * 1e6 / roundTrips, "us/request");
    bench::report("roundtrip_libcurl_easy", easy.seconds * 1e6 / roundTrips, "us/request");
    bench::report("roundtrip_ratio_ours_to_easy", easy.seconds / trips.seconds, "x");
    return 0;
}
