// Instructions the receiver-link listener spends per datagram, counted by
// callgrind rather than timed: a count does not depend on the machine's
// speed or on what else it runs, so two builds compare to the instruction.
//
//   valgrind --tool=callgrind --toggle-collect=tarv_measured_drain
//            bench_link_instructions KIND [DATAGRAMS] [--log-config FILE]
//
// KIND is "add" (a valid add of about 300 bytes), "garbage" (as many bytes
// that are no command), "badjson" (an add whose JSON breaks off) or "qt"
// (the same garbage read by a bare QUdpSocket loop, as the listener reads:
// the floor below which no handling can go). Only tarv_measured_drain()
// counts; sending, set-up and a warm-up batch (first-use costs: lazy
// initialisation, the first lines of each kind) stay outside. Kernel work
// (the system calls themselves) is never counted, only the process's own
// instructions. scripts/bench-instructions runs every kind and prints the
// table. Logging is configured from --log-config like the host's (the
// installed file by default there); lines go to stderr.

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <QCoreApplication>
#include <QFile>
#include <QUdpSocket>

#include <tarv>

#include "LinkBenchSupport.h"
#include "ReceiverLinkTestSupport.h"
#include "SimpleGroupingSocket.h"

using namespace LinkBenchSupport;

namespace {

// The kernel's count of UDP datagrams it dropped for a full receive queue:
// a batch is only measured whole.
long long udpReceiveBufferErrors()
{
    QFile snmp(QStringLiteral("/proc/net/snmp"));
    if (!snmp.open(QIODevice::ReadOnly))
        return -1;
    const QList<QByteArray> lines = snmp.readAll().split('\n');
    for (int i = 0; i + 1 < lines.size(); ++i) {
        if (!lines.at(i).startsWith("Udp:") || !lines.at(i + 1).startsWith("Udp:"))
            continue;
        const QList<QByteArray> names = lines.at(i).simplified().split(' ');
        const QList<QByteArray> values = lines.at(i + 1).simplified().split(' ');
        const int index = names.indexOf("RcvbufErrors");
        return index >= 0 && index < values.size() ? values.at(index).toLongLong() : -1;
    }
    return -1;
}

// The floor: what reading costs through Qt's socket API, with the sender's
// address, into one reused buffer, before any handling.
int qtReadLoop(QUdpSocket& socket, QByteArray& buffer)
{
    int received = 0;
    while (socket.hasPendingDatagrams()) {
        QHostAddress from;
        if (socket.readDatagram(buffer.data(), buffer.size(), &from) < 0)
            break;
        ++received;
    }
    return received;
}

} // namespace

// The one function callgrind counts (--toggle-collect names it): C linkage
// so that its name is the same for every compiler and demangler.
extern "C" __attribute__((noinline)) int tarv_measured_drain(SimpleGroupingSocket* listener, QUdpSocket* socket,
                                                             QByteArray* buffer)
{
    if (listener) {
        listener->on_readyRead();
        return 0;
    }
    return qtReadLoop(*socket, *buffer);
}

// The same work outside the count, for the warm-up.
extern "C" __attribute__((noinline)) int tarv_unmeasured_drain(SimpleGroupingSocket* listener, QUdpSocket* socket,
                                                               QByteArray* buffer)
{
    if (listener) {
        listener->on_readyRead();
        return 0;
    }
    return qtReadLoop(*socket, *buffer);
}

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    QString logConfig;
    const int logFlag = args.indexOf(QStringLiteral("--log-config"));
    if (logFlag >= 0 && logFlag + 1 < args.size()) {
        logConfig = args.at(logFlag + 1);
        args.erase(args.begin() + logFlag, args.begin() + logFlag + 2);
    }
    QString problem;
    if (!TarvLog::init(logConfig, &problem)) {
        std::fprintf(stderr, "bench_link_instructions: %s\n", qPrintable(problem));
        return 2;
    }
    const QStringList kinds{QStringLiteral("add"), QStringLiteral("garbage"), QStringLiteral("badjson"),
                            QStringLiteral("qt")};
    if (args.isEmpty() || !kinds.contains(args.first())) {
        std::fprintf(stderr, "usage: bench_link_instructions add|garbage|badjson|qt [DATAGRAMS] [--log-config FILE]\n");
        return 2;
    }
    const QString kind = args.first();
    const int total = args.size() > 1 ? args.at(1).toInt() : 2000;
    if (total <= 0) {
        std::fprintf(stderr, "bench_link_instructions: DATAGRAMS must be a positive number, got '%s'\n",
                     qPrintable(args.at(1)));
        return 2;
    }

    const QByteArray add = realisticAdd();
    QByteArray payload = add;
    if (kind == QLatin1String("garbage") || kind == QLatin1String("qt"))
        payload = garbage(add.size());
    else if (kind == QLatin1String("badjson"))
        payload = brokenAdd(add.size());

    TarvSetRequestPort(ReceiverLinkTestSupport::freeUdpPort());
    SimpleGroupingSocket listener;
    qint64 emitted = 0;
    tarvConnect(&listener, &SimpleGroupingSocket::addReceiver, &app,
                [&emitted](const TarvSystemMember&) { ++emitted; });
    QUdpSocket qtSocket;
    if (!qtSocket.bind(QHostAddress(QHostAddress::Any), 0)) {
        std::fprintf(stderr, "bench_link_instructions: the Qt socket did not bind\n");
        return 1;
    }
    QByteArray buffer(SimpleGroupingSocket::MaxDatagramBytes, Qt::Uninitialized);
    const bool floor = kind == QLatin1String("qt");
    SimpleGroupingSocket* const measuredListener = floor ? nullptr : &listener;
    const sockaddr_in to = loopbackTo(floor ? qtSocket.localPort() : TarvRequestPort());

    const int sender = ::socket(AF_INET, SOCK_DGRAM, 0);
    // Small batches: the kernel's default receive queue holds them whole.
    const int batch = 50;
    sendBatch(sender, to, payload, batch);
    tarv_unmeasured_drain(measuredListener, &qtSocket, &buffer);

    const long long dropsBefore = udpReceiveBufferErrors();
    int sent = 0;
    int read = 0;
    emitted = 0;
    while (sent < total) {
        const int count = qMin(batch, total - sent);
        sendBatch(sender, to, payload, count);
        sent += count;
        read += tarv_measured_drain(measuredListener, &qtSocket, &buffer);
    }
    ::close(sender);
    if (udpReceiveBufferErrors() != dropsBefore) {
        std::fprintf(stderr, "bench_link_instructions: the kernel dropped datagrams; counts would be short\n");
        return 1;
    }
    if ((floor && read != total) || (kind == QLatin1String("add") && emitted != total)) {
        std::fprintf(stderr, "bench_link_instructions: %d datagrams sent, %lld handled\n", total,
                     static_cast<long long>(floor ? read : emitted));
        return 1;
    }
    std::printf("%s %d\n", qPrintable(kind), total);
    return 0;
}
