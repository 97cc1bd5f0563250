#include "DemoVideoService.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <pthread.h>
#include <signal.h>
#include <time.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

using namespace Qt::StringLiterals;

namespace {

[[noreturn]] void usageError(const QString &message)
{
    std::fprintf(stderr, "zd_demo_service: %s\n", qUtf8Printable(message));
    std::exit(2);
}

} // namespace

int main(int argc, char *argv[])
{
    // SIGINT and SIGTERM end the service cleanly: they are blocked in every
    // thread (the server's workers inherit the mask) and taken by one waiter.
    // One that the parent set to be ignored, as shells do with SIGINT for
    // background jobs, stays ignored.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(u"zd_demo_service"_s);

    QCommandLineParser parser;
    parser.setApplicationDescription(
        u"A demo video service on 127.0.0.1 for the publishing library's demo plug-in."_s);
    parser.addHelpOption();
    const QCommandLineOption portOption(
        u"port"_s, u"The port to listen on; 0 picks a free one (default 8765)."_s, u"N"_s,
        u"8765"_s);
    const QCommandLineOption dataOption(
        u"data"_s, u"The folder for published videos (default ./demo-service-data)."_s, u"DIR"_s,
        u"demo-service-data"_s);
    const QCommandLineOption rejectOption(
        u"reject-uploads"_s, u"Answer every valid upload with 422 and keep nothing."_s);
    const QCommandLineOption dieOption(
        u"die-after-bytes"_s,
        u"Fault injection: exit at once (status 70) when an upload's video exceeds N bytes."_s,
        u"N"_s);
    const QCommandLineOption cutOption(
        u"cut-every-bytes"_s,
        u"Fault injection: break off a resumable upload's chunk every N bytes taken."_s, u"N"_s);
    const QCommandLineOption throttleOption(
        u"throttle"_s,
        u"Fault injection: take a resumable upload's chunks at most N bytes a second."_s, u"N"_s);
    const QCommandLineOption tokensDieOption(
        u"tokens-die-after"_s,
        u"Fault injection: OAuth 2.0 access tokens stop working S seconds after they are issued."_s,
        u"S"_s);
    const QCommandLineOption quietOption(u"quiet"_s, u"Do not log requests."_s);
    parser.addOptions({portOption, dataOption, rejectOption, dieOption, cutOption, throttleOption,
                       tokensDieOption, quietOption});
    parser.process(app);

    bool isNumber = false;
    const int port = parser.value(portOption).toInt(&isNumber);
    if (!isNumber || port < 0 || port > 65535)
        usageError(u"--port takes a number from 0 to 65535"_s);
    DemoVideoService::Options options;
    options.dataDirectory = parser.value(dataOption);
    options.rejectUploads = parser.isSet(rejectOption);
    options.logRequests = !parser.isSet(quietOption);
    if (parser.isSet(dieOption)) {
        options.dieAfterBytes = parser.value(dieOption).toLongLong(&isNumber);
        if (!isNumber || options.dieAfterBytes < 0)
            usageError(u"--die-after-bytes takes a number of bytes"_s);
    }

    if (parser.isSet(cutOption)) {
        options.cutEveryBytes = parser.value(cutOption).toLongLong(&isNumber);
        if (!isNumber || options.cutEveryBytes <= 0)
            usageError(u"--cut-every-bytes takes a positive number of bytes"_s);
    }

    if (parser.isSet(throttleOption)) {
        options.throttleBytesPerSecond = parser.value(throttleOption).toLongLong(&isNumber);
        if (!isNumber || options.throttleBytesPerSecond <= 0)
            usageError(u"--throttle takes a positive number of bytes a second"_s);
    }

    if (parser.isSet(tokensDieOption)) {
        options.tokensDieAfterSeconds = parser.value(tokensDieOption).toInt(&isNumber);
        if (!isNumber || options.tokensDieAfterSeconds <= 0)
            usageError(u"--tokens-die-after takes a positive number of seconds"_s);
    }

    DemoVideoService service(options);
    if (!service.listen(port)) {
        std::fprintf(stderr, "zd_demo_service: %s\n", qUtf8Printable(service.errorString()));
        return 1;
    }
    std::atomic<bool> finished = false;
    std::thread waiter([&] {
        // Wakes now and then, in case the server ends on its own.
        const timespec interval{0, 200'000'000};
        while (!finished) {
            if (sigtimedwait(&stopSignals, nullptr, &interval) > 0) {
                service.stop();
                return;
            }
        }
    });
    std::printf("listening on http://127.0.0.1:%d/\n", service.port());
    std::fflush(stdout);

    const bool served = service.serve();
    finished = true;
    waiter.join();
    return served ? 0 : 1;
}
