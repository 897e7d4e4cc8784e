// Datagrams per second the receiver-link listener handles on one core,
// against a plain receive loop on a raw socket fed the same datagrams (what
// the machine's network stack delivers at most), and, for context, a bare
// QUdpSocket read loop (what Qt's socket API costs before any handling).
//
// Each round queues a batch of datagrams on the listener's socket with no
// event loop running, then times exactly one on_readyRead() call, which
// drains the whole batch; the same batch is then queued on the raw socket
// and timed through a recvfrom() loop, then on the Qt socket. Sending is
// outside the timed windows. Rates are per second of the thread's CPU time
// (per core, whatever else the machine runs) and per second of wall time.
// Logging is at its default configuration (INFO to stderr), so garbage is
// logged per datagram as in production.

#include <sched.h>
#include <time.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <vector>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QUdpSocket>

#include <tarv>

#include "LinkBenchSupport.h"
#include "ReceiverLinkTestSupport.h"
#include "SimpleGroupingSocket.h"

using namespace LinkBenchSupport;

namespace {

struct Kind
{
    const char* name;
    QByteArray payload;
};

qint64 threadCpuNanoseconds()
{
    timespec now {};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return now.tv_sec * Q_INT64_C(1000000000) + now.tv_nsec;
}

// Times one stretch of work in CPU and wall time.
class Stopwatch
{
public:
    void start()
    {
        m_cpu = threadCpuNanoseconds();
        m_wall.start();
    }
    qint64 cpuElapsed() const { return threadCpuNanoseconds() - m_cpu; }
    qint64 wallElapsed() const { return m_wall.nsecsElapsed(); }

private:
    qint64 m_cpu = 0;
    QElapsedTimer m_wall;
};

struct Figures
{
    qint64 handled = 0;
    qint64 cpu = 0;
    qint64 wall = 0;
    void add(const Stopwatch& watch, qint64 count)
    {
        cpu += watch.cpuElapsed();
        wall += watch.wallElapsed();
        handled += count;
    }
    double perCpuSecond() const { return cpu > 0 ? handled * 1e9 / cpu : 0.0; }
    double perWallSecond() const { return wall > 0 ? handled * 1e9 / wall : 0.0; }
};

int udpSocket(int family)
{
    const int fd = ::socket(family, SOCK_DGRAM, 0);
    if (fd < 0) {
        std::perror("socket");
        std::exit(1);
    }
    return fd;
}

// Takes whatever is still queued; returns how many datagrams that was.
int drainRest(int fd, std::vector<char>& buffer)
{
    int rest = 0;
    while (::recv(fd, buffer.data(), buffer.size(), MSG_DONTWAIT) >= 0)
        ++rest;
    return rest;
}

quint16 boundPort(int fd)
{
    sockaddr_storage address {};
    socklen_t length = sizeof address;
    getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    if (address.ss_family == AF_INET6)
        return ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
    return ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    TarvLog::init();
    const qint64 perKind = argc > 1 ? std::atoll(argv[1]) : 100000;

    // One core for everything: the listener, the raw loop and the sender.
    cpu_set_t allowed;
    sched_getaffinity(0, sizeof allowed, &allowed);
    int cpu = 0;
    while (cpu < CPU_SETSIZE && !CPU_ISSET(cpu, &allowed))
        ++cpu;
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(cpu, &one);
    if (sched_setaffinity(0, sizeof one, &one) != 0)
        std::perror("sched_setaffinity");

    TarvSetRequestPort(ReceiverLinkTestSupport::freeUdpPort());
    SimpleGroupingSocket listener;
    qint64 emitted = 0;
    tarvConnect(&listener, &SimpleGroupingSocket::addReceiver, &app,
                [&emitted](const TarvSystemMember&) { ++emitted; });
    const int listenerFd = ReceiverLinkTestSupport::boundUdpDescriptor(TarvRequestPort());
    if (listenerFd < 0) {
        std::fprintf(stderr, "listener did not bind port %u\n", TarvRequestPort());
        return 1;
    }

    // The raw socket is made like the listener's: dual-stack, any address.
    const int rawFd = udpSocket(AF_INET6);
    const int off = 0;
    setsockopt(rawFd, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 any {};
    any.sin6_family = AF_INET6;
    any.sin6_addr = in6addr_any;
    if (::bind(rawFd, reinterpret_cast<const sockaddr*>(&any), sizeof any) != 0) {
        std::perror("bind");
        return 1;
    }

    QUdpSocket qtSocket;
    if (!qtSocket.bind(QHostAddress(QHostAddress::Any), 0)) {
        std::fprintf(stderr, "Qt socket did not bind\n");
        return 1;
    }
    const int qtFd = ReceiverLinkTestSupport::boundUdpDescriptor(qtSocket.localPort());

    const int wanted = 8 * 1024 * 1024;
    const int granted = qMin(qMin(ReceiverLinkTestSupport::raiseReceiveBuffer(listenerFd, wanted),
                                  ReceiverLinkTestSupport::raiseReceiveBuffer(rawFd, wanted)),
                             ReceiverLinkTestSupport::raiseReceiveBuffer(qtFd, wanted));
    // Kernels charge well over a kilobyte per small datagram; keep every
    // batch well inside the buffer so none is dropped.
    const int batch = qBound(16, granted / 4096, 2000);

    const int sender = udpSocket(AF_INET);
    const sockaddr_in toListener = loopbackTo(TarvRequestPort());
    const sockaddr_in toRaw = loopbackTo(boundPort(rawFd));
    const sockaddr_in toQt = loopbackTo(qtSocket.localPort());

    const QByteArray add = realisticAdd();
    const QList<Kind> kinds{
        {"valid add", add},
        {"garbage", garbage(add.size())},
        {"add, bad JSON", brokenAdd(add.size())},
    };

    std::vector<char> buffer(65536);
    struct Row
    {
        const Kind* kind;
        Figures listener;
        Figures raw;
        Figures qt;
    };
    QList<Row> rows;
    for (const Kind& kind : kinds) {
        Row row {&kind, {}, {}, {}};
        emitted = 0;
        Stopwatch watch;
        while (row.listener.handled < perKind) {
            const int count = static_cast<int>(qMin<qint64>(batch, perKind - row.listener.handled));

            sendBatch(sender, toListener, kind.payload, count);
            watch.start();
            listener.on_readyRead();
            row.listener.add(watch, count - drainRest(listenerFd, buffer));

            sendBatch(sender, toRaw, kind.payload, count);
            sockaddr_storage from {};
            socklen_t fromLength = sizeof from;
            int received = 0;
            watch.start();
            while (::recvfrom(rawFd, buffer.data(), buffer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from),
                              &fromLength)
                   >= 0) {
                ++received;
                fromLength = sizeof from;
            }
            row.raw.add(watch, received);

            sendBatch(sender, toQt, kind.payload, count);
            received = 0;
            watch.start();
            while (qtSocket.hasPendingDatagrams()) {
                QByteArray datagram(static_cast<int>(qtSocket.pendingDatagramSize()) + 1, '\0');
                QHostAddress from;
                qtSocket.readDatagram(datagram.data(), datagram.size() - 1, &from);
                ++received;
            }
            row.qt.add(watch, received);
        }
        if (kind.payload == add && emitted != row.listener.handled) {
            std::fprintf(stderr, "listener emitted %lld adds for %lld datagrams\n", static_cast<long long>(emitted),
                         static_cast<long long>(row.listener.handled));
            return 1;
        }
        rows.append(row);
    }

    std::printf("receiver-link listener, one core (cpu %d), batches of %d, %lld datagrams per kind\n", cpu, batch,
                static_cast<long long>(perKind));
    for (const bool cpuTime : {true, false}) {
        std::printf("\ndatagrams per second of %s:\n", cpuTime ? "CPU time" : "wall time");
        std::printf("%-14s %6s %12s %12s %8s %12s\n", "datagram", "bytes", "listener", "raw socket", "ratio",
                    "Qt socket");
        for (const Row& row : qAsConst(rows)) {
            const double listenerRate = cpuTime ? row.listener.perCpuSecond() : row.listener.perWallSecond();
            const double rawRate = cpuTime ? row.raw.perCpuSecond() : row.raw.perWallSecond();
            const double qtRate = cpuTime ? row.qt.perCpuSecond() : row.qt.perWallSecond();
            std::printf("%-14s %6d %12.0f %12.0f %7.1f%% %12.0f\n", row.kind->name,
                        static_cast<int>(row.kind->payload.size()), listenerRate, rawRate,
                        100.0 * listenerRate / rawRate, qtRate);
        }
    }
    ::close(sender);
    ::close(rawFd);
    return 0;
}
