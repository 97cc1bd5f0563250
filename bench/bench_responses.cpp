// Responses and many small requests: the peak memory of one very large raw
// response, plain and compressed, sequential small GETs against libcurl's easy
// interface reusing one handle, and sequential HTTPS GETs to a local TLS server
// (openssl s_server) against the curl tool and libcurl's easy interface.
//
// Arguments: the large response's size in MiB (default 2048), the number of
// small GETs (default 5000), the number of HTTPS GETs (default 100), the
// compressed response's decoded size in MiB (default 1024, the raw limit).
#include "BenchSupport.h"

#include "net/JSONHTTPRequest.h"

#include <curl/curl.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTemporaryDir>
#include <QThread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

int argcStub = 1;
char nameStub[] = "bench";
char *argvStub[] = {nameStub, nullptr};

class Finisher : public JSONHTTPRequestDelegate
{
public:
    void requestDidReceiveObject(JSONHTTPRequest *request, const QVariant &object) override
    {
        lastSize = object.toByteArray().size();
        done(request, true);
    }
    void requestDidFailWithError(JSONHTTPRequest *request, const ZDError &error) override
    {
        std::fprintf(stderr, "request failed: %s\n", qPrintable(error.localizedDescription()));
        done(request, false);
    }
    std::function<void(JSONHTTPRequest *, bool)> done;
    qsizetype lastSize = 0;
};

size_t discard(char *, size_t size, size_t count, void *)
{
    return size * count;
}

// `size` zero bytes in gzip (about a thousandth of their size).
std::string gzipOfZeros(qint64 size)
{
    const std::string command = "head -c " + std::to_string(size) + " /dev/zero | gzip -1";
    std::string compressed;
    if (FILE *pipe = popen(command.c_str(), "r")) {
        char buffer[1 << 16];
        while (const size_t got = std::fread(buffer, 1, sizeof buffer, pipe))
            compressed.append(buffer, got);
        pclose(pipe);
    }
    return compressed;
}

bool sendAll(int socket, const std::string &bytes)
{
    for (size_t sent = 0; sent < bytes.size();) {
        const ssize_t now = send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (now <= 0)
            return false;
        sent += size_t(now);
    }
    return true;
}

// Answers every connection with one response of `size` bytes (zeros in gzip
// when `gzipped`), then closes it.
class LargeResponseServer
{
public:
    explicit LargeResponseServer(qint64 size, bool gzipped = false)
    {
        const int listener = bench::listenOnLoopback(8, &m_port);
        std::fflush(stdout);
        m_pid = fork();
        if (m_pid == 0) {
            std::vector<char> chunk(1 << 20, 'r');
            const std::string packed = gzipped ? gzipOfZeros(size) : std::string();
            for (;;) {
                const int client = accept(listener, nullptr, nullptr);
                if (client < 0)
                    continue;
                char head[8192];
                (void)!recv(client, head, sizeof head, 0);
                if (gzipped) {
                    sendAll(client, "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                                    "Content-Encoding: gzip\r\nContent-Length: " +
                                        std::to_string(packed.size()) +
                                        "\r\nConnection: close\r\n\r\n" + packed);
                    close(client);
                    continue;
                }
                const std::string answer =
                    "HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\n"
                    "Content-Length: " +
                    std::to_string(size) + "\r\nConnection: close\r\n\r\n";
                (void)!send(client, answer.data(), answer.size(), MSG_NOSIGNAL);
                for (qint64 left = size; left > 0;) {
                    const ssize_t sent =
                        send(client, chunk.data(),
                             size_t(std::min<qint64>(left, qint64(chunk.size()))), MSG_NOSIGNAL);
                    if (sent <= 0)
                        break;
                    left -= sent;
                }
                close(client);
            }
        }
        close(listener);
    }
    ~LargeResponseServer()
    {
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
    }
    int port() const { return m_port; }

private:
    int m_port = 0;
    int m_pid = 0;
};

// Sends `count` requests one after the other, each started from the previous
// one's callback; `firstSeconds` gets the time of the first.
bool runSequence(const QUrl &url, int count, JSONHTTPResponseType type, qint64 limit,
                 double *firstSeconds = nullptr, qsizetype *lastSize = nullptr)
{
    QCoreApplication app(argcStub, argvStub);
    Finisher finisher;
    int left = count;
    bool ok = true;
    QElapsedTimer first;
    std::unique_ptr<JSONHTTPRequest> current;
    const auto next = [&] {
        current = std::make_unique<JSONHTTPRequest>(url, &finisher);
        current->setResponseType(type);
        if (limit > 0)
            current->setMaximumResponseSize(limit);
        current->start();
    };
    finisher.done = [&](JSONHTTPRequest *, bool success) {
        if (left == count && firstSeconds)
            *firstSeconds = double(first.nsecsElapsed()) / 1e9;
        ok &= success;
        if (--left == 0 || !ok)
            app.quit();
        else
            next();
    };
    first.start();
    next();
    app.exec();
    if (lastSize)
        *lastSize = finisher.lastSize;
    return ok;
}

bool run(const QString &program, const QStringList &arguments, const QString &directory = {})
{
    QProcess process;
    process.setWorkingDirectory(directory);
    process.start(program, arguments);
    return process.waitForFinished(120000) && process.exitCode() == 0;
}

} // namespace

int main(int argc, char **argv)
{
    const qint64 responseSize = (argc > 1 ? std::atoll(argv[1]) : 2048) << 20;
    const int smallGets = argc > 2 ? std::atoi(argv[2]) : 5000;
    const int httpsGets = argc > 3 ? std::atoi(argv[3]) : 100;
    const qint64 compressedSize = (argc > 4 ? std::atoll(argv[4]) : 1024) << 20;

    // --- one large raw response ------------------------------------------
    {
        LargeResponseServer server(responseSize);
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/large").arg(server.port()));
        qsizetype received = 0;
        const bench::ChildResult ours =
            bench::inChild([] {},
                           [&] {
                               return runSequence(url, 1, JSONHTTPResponseTypeRawData, responseSize,
                                                  nullptr, &received) &&
                                      received == responseSize;
                           });
        const bench::ChildResult tool =
            bench::runCommand("curl -sS -o /dev/null " + url.toString().toStdString());
        // The same job with libcurl easy: the body kept in a buffer sized once.
        const bench::ChildResult easy = bench::inChild(
            [] {},
            [&] {
                QByteArray body;
                body.reserve(responseSize);
                CURL *handle = curl_easy_init();
                const std::string target = url.toString().toStdString();
                curl_easy_setopt(handle, CURLOPT_URL, target.c_str());
                curl_easy_setopt(handle, CURLOPT_WRITEDATA, &body);
                curl_easy_setopt(
                    handle, CURLOPT_WRITEFUNCTION,
                    +[](char *data, size_t size, size_t count, void *userdata) -> size_t {
                        static_cast<QByteArray *>(userdata)->append(data, qsizetype(size * count));
                        return size * count;
                    });
                const bool ok =
                    curl_easy_perform(handle) == CURLE_OK && body.size() == responseSize;
                curl_easy_cleanup(handle);
                return ok;
            });
        if (!ours.ok || !tool.ok || !easy.ok)
            return 1;
        const double bodyMiB = double(responseSize) / double(1 << 20);
        bench::report("large_response_body", bodyMiB, "MiB");
        bench::report("large_response_ours_peak_rss", ours.peakMiB, "MiB");
        bench::report("large_response_ours_peak_over_body", ours.peakMiB - bodyMiB,
                      "MiB(bound_16)");
        bench::report("large_response_curl_tool_to_devnull_peak_rss", tool.peakMiB, "MiB");
        bench::report("large_response_libcurl_easy_in_memory_peak_rss", easy.peakMiB, "MiB");
        bench::report("large_response_ratio_ours_peak_to_easy", ours.peakMiB / easy.peakMiB,
                      "x(lower_is_better)");
        bench::report("large_response_libcurl_easy_in_memory_throughput",
                      bodyMiB / 1024 / easy.seconds, "GiB/s");
        bench::report("large_response_ratio_ours_time_to_easy", ours.seconds / easy.seconds,
                      "x(lower_is_better)");
        bench::report("large_response_ours_throughput", bodyMiB / 1024 / ours.seconds, "GiB/s");
        bench::report("large_response_curl_tool_throughput", bodyMiB / 1024 / tool.seconds,
                      "GiB/s");
    }

    // --- one large raw response that comes compressed -------------------------
    // About a MiB on the wire, decoded as large as the raw default limit allows;
    // its decoded size is unknown until the end.
    {
        LargeResponseServer server(compressedSize, true);
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/packed").arg(server.port()));
        qsizetype received = 0;
        const bench::ChildResult ours = bench::inChild(
            [] {},
            [&] {
                return runSequence(url, 1, JSONHTTPResponseTypeRawData, 0, nullptr, &received) &&
                       received == compressedSize;
            });
        if (!ours.ok)
            return 1;
        const double bodyMiB = double(compressedSize) / double(1 << 20);
        bench::report("compressed_response_decoded_body", bodyMiB, "MiB");
        bench::report("compressed_response_ours_peak_over_body", ours.peakMiB - bodyMiB,
                      "MiB(lower_is_better)");
    }

    // --- sequential small GETs -----------------------------------------------
    {
        bench::DiscardServer server;
        const QUrl url(QStringLiteral("http://127.0.0.1:%1/ping").arg(server.port()));
        const bench::ChildResult ours = bench::inChild(
            [] {}, [&] { return runSequence(url, smallGets, JSONHTTPResponseTypeJSON, 0); });
        const bench::ChildResult easy =
            bench::inChild([] {},
                           [&] {
                               CURL *handle = curl_easy_init();
                               const std::string target = url.toString().toStdString();
                               curl_easy_setopt(handle, CURLOPT_URL, target.c_str());
                               curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discard);
                               bool ok = true;
                               for (int i = 0; i < smallGets; ++i)
                                   ok &= curl_easy_perform(handle) == CURLE_OK;
                               curl_easy_cleanup(handle);
                               return ok;
                           });
        if (!ours.ok || !easy.ok)
            return 1;
        bench::report("small_gets_count", smallGets, "requests");
        bench::report("small_gets_ours", ours.seconds * 1e6 / smallGets, "us/request");
        bench::report("small_gets_libcurl_easy_reused", easy.seconds * 1e6 / smallGets,
                      "us/request");
        bench::report("small_gets_ratio_ours_time_to_easy", ours.seconds / easy.seconds,
                      "x(lower_is_better)");
    }

    // --- sequential HTTPS GETs to a local TLS server --------------------------
    QTemporaryDir dir;
    const auto path = [&](const char *name) { return dir.filePath(QString::fromLatin1(name)); };
    const QString openssl = QStringLiteral("openssl");
    const QStringList ec{QStringLiteral("-newkey"), QStringLiteral("ec"),
                         QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:prime256v1"),
                         QStringLiteral("-nodes")};
    {
        QFile ext(path("server.ext"));
        if (!ext.open(QIODevice::WriteOnly) || ext.write("subjectAltName=IP:127.0.0.1\n") < 0)
            return 1;
    }
    if (!run(openssl,
             QStringList{QStringLiteral("req"), QStringLiteral("-x509")} + ec +
                 QStringList{QStringLiteral("-keyout"), path("ca.key"), QStringLiteral("-out"),
                             path("ca.pem"), QStringLiteral("-days"), QStringLiteral("2"),
                             QStringLiteral("-subj"), QStringLiteral("/CN=Bench Authority")}) ||
        !run(openssl, QStringList{QStringLiteral("req")} + ec +
                          QStringList{QStringLiteral("-keyout"), path("server.key"),
                                      QStringLiteral("-out"), path("server.csr"),
                                      QStringLiteral("-subj"), QStringLiteral("/CN=127.0.0.1")}) ||
        !run(openssl, {QStringLiteral("x509"), QStringLiteral("-req"), QStringLiteral("-in"),
                       path("server.csr"), QStringLiteral("-CA"), path("ca.pem"),
                       QStringLiteral("-CAkey"), path("ca.key"), QStringLiteral("-CAcreateserial"),
                       QStringLiteral("-out"), path("server.pem"), QStringLiteral("-days"),
                       QStringLiteral("2"), QStringLiteral("-extfile"), path("server.ext")})) {
        std::fprintf(stderr, "openssl could not make the certificates\n");
        return 1;
    }
    {
        QFile page(path("page.json"));
        if (!page.open(QIODevice::WriteOnly) || page.write("{\"ok\":true}") < 0)
            return 1;
    }
    // The peers trust the system's authorities and the bench's, as the library does.
    {
        QFile system(QStringLiteral("/etc/ssl/certs/ca-certificates.crt"));
        QFile own(path("ca.pem"));
        QFile bundle(path("bundle.pem"));
        if (!own.open(QIODevice::ReadOnly) || !bundle.open(QIODevice::WriteOnly))
            return 1;
        if (system.open(QIODevice::ReadOnly))
            bundle.write(system.readAll());
        bundle.write(own.readAll());
    }
    int port = 0;
    {
        QTcpServer probe;
        probe.listen(QHostAddress::LocalHost, 0);
        port = probe.serverPort();
    }
    QProcess server;
    server.setWorkingDirectory(dir.path());
    server.start(openssl, {QStringLiteral("s_server"), QStringLiteral("-quiet"),
                           QStringLiteral("-accept"), QStringLiteral("127.0.0.1:%1").arg(port),
                           QStringLiteral("-cert"), path("server.pem"), QStringLiteral("-key"),
                           path("server.key"), QStringLiteral("-WWW")});
    for (int i = 0; i < 100; ++i) {
        QTcpSocket probe;
        probe.connectToHost(QHostAddress::LocalHost, quint16(port));
        if (probe.waitForConnected(100))
            break;
        QThread::msleep(50);
    }
    const QUrl url(QStringLiteral("https://127.0.0.1:%1/page.json").arg(port));
    const std::string target = url.toString().toStdString();
    const auto trustBenchAuthority = [&] {
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.addCaCertificates(path("ca.pem"));
        QSslConfiguration::setDefaultConfiguration(configuration);
    };
    // Each run in a fresh process: the first request pays for the trust store.
    const bench::ChildResult oursFirst = bench::inChild(
        trustBenchAuthority, [&] { return runSequence(url, 1, JSONHTTPResponseTypeJSON, 0); });
    const bench::ChildResult ours = bench::inChild(trustBenchAuthority, [&] {
        return runSequence(url, httpsGets, JSONHTTPResponseTypeJSON, 0);
    });
    const auto easyRun = [&](int count) {
        return bench::inChild([] {},
                              [&] {
                                  CURL *handle = curl_easy_init();
                                  const std::string bundle = path("bundle.pem").toStdString();
                                  curl_easy_setopt(handle, CURLOPT_URL, target.c_str());
                                  curl_easy_setopt(handle, CURLOPT_CAINFO, bundle.c_str());
                                  curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &discard);
                                  bool ok = true;
                                  for (int i = 0; i < count; ++i)
                                      ok &= curl_easy_perform(handle) == CURLE_OK;
                                  curl_easy_cleanup(handle);
                                  return ok;
                              });
    };
    const bench::ChildResult easyFirst = easyRun(1);
    const bench::ChildResult easy = easyRun(httpsGets);
    const std::string bundle = path("bundle.pem").toStdString();
    const bench::ChildResult toolFirst =
        bench::runCommand("curl -sS -o /dev/null --cacert " + bundle + " " + target);
    std::string many = "curl -sS --cacert " + bundle;
    for (int i = 0; i < httpsGets; ++i)
        many += " -o /dev/null " + target;
    const bench::ChildResult toolRun = bench::runCommand(many);
    server.kill();
    server.waitForFinished();
    if (!ours.ok || !easy.ok || !toolFirst.ok || !toolRun.ok || !oursFirst.ok || !easyFirst.ok)
        return 1;
    bench::report("https_ours_first_request", oursFirst.seconds * 1e3, "ms");
    bench::report("https_libcurl_easy_first_request", easyFirst.seconds * 1e3, "ms");
    bench::report("https_gets_count", httpsGets, "requests");
    bench::report("https_ours_whole_run", ours.seconds * 1e3, "ms");
    bench::report("https_libcurl_easy_whole_run", easy.seconds * 1e3, "ms");
    bench::report("https_curl_tool_whole_run_one_process", toolRun.seconds * 1e3, "ms");
    bench::report("https_ratio_ours_time_to_easy", ours.seconds / easy.seconds,
                  "x(lower_is_better)");
    bench::report("https_ratio_ours_time_to_curl_tool", ours.seconds / toolRun.seconds,
                  "x(lower_is_better)");
    bench::report("https_curl_tool_first_request_whole_process", toolFirst.seconds * 1e3, "ms");
    bench::report("https_ratio_ours_first_to_easy_first", oursFirst.seconds / easyFirst.seconds,
                  "x(lower_is_better)");
    return 0;
}
