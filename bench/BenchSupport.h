#pragma once

// Shared pieces of the benchmarks: timing, peak memory measured in a forked
// child, a loopback server that reads and discards request bodies, and the
// BENCH line format ("BENCH <name> <value> <unit>").

#include <QByteArray>
#include <QElapsedTimer>

#include <cstdio>
#include <functional>
#include <string>

namespace bench {

inline void report(const char *name, double value, const char *unit)
{
    std::printf("BENCH %s %.4g %s\n", name, value, unit);
    std::fflush(stdout);
}

// Best (shortest) of `rounds` runs of `work`, in seconds.
double bestSeconds(int rounds, const std::function<void()> &work);

struct ChildResult
{
    double seconds = 0; // what the child measured
    double peakMiB = 0; // the child's peak resident memory
    double baseMiB = 0; // resident memory before the measured work
    bool ok = false;
};

// Runs `prepare` then `work` in a forked child; reports the time of `work` and
// the child's peak resident memory before and after it.
ChildResult inChild(const std::function<void()> &prepare, const std::function<bool()> &work);

// Runs a command, returns its wall time and the peak resident memory of the
// process (RUSAGE_CHILDREN).
ChildResult runCommand(const std::string &command);

QByteArray randomBytes(qsizetype size, unsigned seed);

// A listening TCP socket on 127.0.0.1 at a free port, which goes to `port`.
int listenOnLoopback(int backlog, int *port);

// A loopback HTTP/1.1 server in a forked child: it reads every request with its
// Content-Length body, discards the body and answers "{}". Stops when destroyed.
class DiscardServer
{
public:
    DiscardServer();
    ~DiscardServer();
    int port() const { return m_port; }

private:
    int m_port = 0;
    int m_pid = 0;
};

} // namespace bench
