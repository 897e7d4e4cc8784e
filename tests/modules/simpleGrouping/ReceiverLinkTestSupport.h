#pragma once

#include <sys/socket.h>
#include <netinet/in.h>

#include <QByteArray>
#include <QElapsedTimer>
#include <QHostAddress>
#include <QList>
#include <QUdpSocket>

#include "ModuleTestSupport.h"

// Helpers for tests that speak the receiver link over real UDP on the
// loopback interface.
namespace ReceiverLinkTestSupport {

// Also reachable under this namespace, where the benchmark looks for it.
using ::freeUdpPort;

// Reads every datagram that reached `sink` before a sentinel datagram sent
// now from another socket of this thread. Loopback delivers one thread's
// datagrams to one socket in the order they were written, so the result is
// exactly what had been sent to `sink` before this call, with no waiting on
// time. `ok` is false when the sentinel did not come back within 3 s.
inline QList<QByteArray> datagramsBeforeSentinel(QUdpSocket& sink, bool* ok)
{
    static int serial = 0;
    const QByteArray sentinel = "sentinel-" + QByteArray::number(++serial);
    QUdpSocket probe;
    QList<QByteArray> received;
    *ok = false;
    if (probe.writeDatagram(sentinel, sink.localAddress(), sink.localPort()) != sentinel.size())
        return received;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 3000) {
        if (!sink.hasPendingDatagrams()) {
            sink.waitForReadyRead(50);
            continue;
        }
        QByteArray datagram(static_cast<int>(sink.pendingDatagramSize()), '\0');
        sink.readDatagram(datagram.data(), datagram.size());
        if (datagram == sentinel) {
            *ok = true;
            return received;
        }
        received.append(datagram);
    }
    return received;
}

// The descriptor of this process's UDP socket bound to `port`, or -1. Lets a
// test give a socket it does not own a receive buffer large enough for a
// burst; the kernel's default holds only a few hundred small datagrams.
inline int boundUdpDescriptor(quint16 port)
{
    for (int fd = 0; fd < 4096; ++fd) {
        int type = 0;
        socklen_t typeLength = sizeof type;
        if (getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &typeLength) != 0 || type != SOCK_DGRAM)
            continue;
        sockaddr_storage address {};
        socklen_t addressLength = sizeof address;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) != 0)
            continue;
        quint16 boundPort = 0;
        if (address.ss_family == AF_INET)
            boundPort = ntohs(reinterpret_cast<const sockaddr_in*>(&address)->sin_port);
        else if (address.ss_family == AF_INET6)
            boundPort = ntohs(reinterpret_cast<const sockaddr_in6*>(&address)->sin6_port);
        if (boundPort == port)
            return fd;
    }
    return -1;
}

// Raises a socket's receive buffer, beyond the system maximum if the process
// may. Returns the size the kernel granted.
inline int raiseReceiveBuffer(int fd, int bytes)
{
#ifdef SO_RCVBUFFORCE
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) != 0)
#endif
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);
    int granted = 0;
    socklen_t length = sizeof granted;
    getsockopt(fd, SOL_SOCKET, SO_RCVBUF, &granted, &length);
    return granted;
}

} // namespace ReceiverLinkTestSupport
