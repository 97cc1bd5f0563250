#include "BenchSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QRandomGenerator>

#include <algorithm>
#include <cstring>
#include <map>
#include <vector>

namespace bench {

namespace {

double maxRssMiB(int who)
{
    rusage usage{};
    getrusage(who, &usage);
    return double(usage.ru_maxrss) / 1024.0;
}

} // namespace

double bestSeconds(int rounds, const std::function<void()> &work)
{
    double best = 1e300;
    for (int i = 0; i < rounds; ++i) {
        QElapsedTimer timer;
        timer.start();
        work();
        best = std::min(best, double(timer.nsecsElapsed()) / 1e9);
    }
    return best;
}

namespace {

ChildResult measureInChild(const std::function<void()> &prepare, const std::function<bool()> &work,
                           int who)
{
    int fds[2];
    if (pipe(fds) != 0)
        return {};
    std::fflush(stdout);
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        prepare();
        ChildResult result;
        result.baseMiB = maxRssMiB(RUSAGE_SELF);
        QElapsedTimer timer;
        timer.start();
        result.ok = work();
        result.seconds = double(timer.nsecsElapsed()) / 1e9;
        result.peakMiB = maxRssMiB(who);
        (void)!write(fds[1], &result, sizeof result);
        _exit(0);
    }
    close(fds[1]);
    ChildResult result;
    if (read(fds[0], &result, sizeof result) != sizeof result)
        result.ok = false;
    close(fds[0]);
    waitpid(pid, nullptr, 0);
    return result;
}

} // namespace

ChildResult inChild(const std::function<void()> &prepare, const std::function<bool()> &work)
{
    return measureInChild(prepare, work, RUSAGE_SELF);
}

ChildResult runCommand(const std::string &command)
{
    // A fresh intermediate child, so that RUSAGE_CHILDREN holds this command only.
    return measureInChild([] {}, [&] { return std::system(command.c_str()) == 0; },
                          RUSAGE_CHILDREN);
}

QByteArray randomBytes(qsizetype size, unsigned seed)
{
    QByteArray bytes(size, Qt::Uninitialized);
    QRandomGenerator rng(seed);
    auto *words = reinterpret_cast<quint32 *>(bytes.data());
    rng.fillRange(words, size_t(size / 4));
    return bytes;
}

namespace {

struct ServerConnection
{
    std::string head;
    long long remaining = -1; // body bytes still to read; -1 while reading the head
};

[[noreturn]] void serve(int listener)
{
    std::vector<pollfd> fds{{listener, POLLIN, 0}};
    std::map<int, ServerConnection> connections;
    std::vector<char> buffer(4 << 20);
    for (;;) {
        if (poll(fds.data(), fds.size(), -1) < 0)
            continue;
        std::vector<pollfd> next{{listener, POLLIN, 0}};
        if (fds[0].revents & POLLIN) {
            const int client = accept(listener, nullptr, nullptr);
            if (client >= 0) {
                connections[client] = {};
                next.push_back({client, POLLIN, 0});
            }
        }
        for (size_t i = 1; i < fds.size(); ++i) {
            const int fd = fds[i].fd;
            bool open = true;
            if (fds[i].revents & (POLLIN | POLLHUP | POLLERR)) {
                const ssize_t got = recv(fd, buffer.data(), buffer.size(), 0);
                if (got <= 0) {
                    open = false;
                } else {
                    ServerConnection &c = connections[fd];
                    ssize_t used = 0;
                    while (used < got) {
                        if (c.remaining < 0) {
                            c.head.append(buffer.data() + used, size_t(got - used));
                            used = got;
                            const size_t end = c.head.find("\r\n\r\n");
                            if (end == std::string::npos)
                                break;
                            long long length = 0;
                            std::string lower = c.head.substr(0, end);
                            std::transform(lower.begin(), lower.end(), lower.begin(), ::tolower);
                            if (const size_t at = lower.find("content-length:");
                                at != std::string::npos)
                                length = std::atoll(lower.c_str() + at + 15);
                            const auto extra = static_cast<long long>(c.head.size() - end - 4);
                            c.remaining = length;
                            used = got - extra; // the bytes after the head are body
                            c.head.clear();
                        }
                        const long long take = std::min<long long>(c.remaining, got - used);
                        c.remaining -= take;
                        used += take;
                        if (c.remaining == 0) {
                            static const char answer[] =
                                "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\n"
                                "Content-Length: 2\r\n\r\n{}";
                            (void)!send(fd, answer, sizeof answer - 1, MSG_NOSIGNAL);
                            c.remaining = -1;
                        }
                    }
                }
            }
            if (open)
                next.push_back({fd, POLLIN, 0});
            else {
                close(fd);
                connections.erase(fd);
            }
        }
        fds = std::move(next);
    }
}

} // namespace

int listenOnLoopback(int backlog, int *port)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    int yes = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address);
    listen(listener, backlog);
    socklen_t length = sizeof address;
    getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length);
    *port = ntohs(address.sin_port);
    return listener;
}

DiscardServer::DiscardServer()
{
    const int listener = listenOnLoopback(64, &m_port);
    std::fflush(stdout);
    m_pid = fork();
    if (m_pid == 0)
        serve(listener);
    close(listener);
}

DiscardServer::~DiscardServer()
{
    kill(m_pid, SIGTERM);
    waitpid(m_pid, nullptr, 0);
}

} // namespace bench
