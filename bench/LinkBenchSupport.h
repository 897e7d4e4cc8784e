#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cstdio>
#include <cstdlib>

#include <QByteArray>
#include <QString>
#include <QUuid>

#include <tarv>

// What the receiver-link benchmarks send and how: both measure the same
// three kinds of datagram, so that their figures stay comparable.
namespace LinkBenchSupport {

// A receiver's own record as it goes out in every "add": about 300 bytes.
inline QByteArray realisticAdd()
{
    TarvList<QString> group;
    for (int i = 0; i < 2; ++i)
        group.append(QUuid::createUuid().toString(QUuid::WithoutBraces));
    const TarvSystemMember member = TarvSystemMember()
                                        .setId(QUuid::createUuid().toString(QUuid::WithoutBraces))
                                        .setName(QStringLiteral("Living Room Speaker"))
                                        .setHost(QStringLiteral("living-room-speaker.local"))
                                        .setIpAddress(QStringLiteral("192.168.178.42"))
                                        .setTranscoder(false)
                                        .setPersistentGroupTimestamp(Q_INT64_C(1700000000123))
                                        .setPersistentGroupMembers(group);
    return "add" + member.toJsonString().toUtf8();
}

// `start`, padded with letters to `size` bytes.
inline QByteArray filler(const char* start, int size)
{
    QByteArray bytes(start);
    while (bytes.size() < size)
        bytes.append(static_cast<char>('a' + bytes.size() % 26));
    return bytes;
}

// As many bytes as `size` that are no command of the link.
inline QByteArray garbage(int size)
{
    return filler("GET / HTTP/1.1 ", size);
}

// An add of `size` bytes whose JSON breaks off.
inline QByteArray brokenAdd(int size)
{
    return filler("add{\"id\":", size);
}

inline sockaddr_in loopbackTo(quint16 port)
{
    sockaddr_in to {};
    to.sin_family = AF_INET;
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    to.sin_port = htons(port);
    return to;
}

// Sends `count` copies of `payload`; a benchmark cannot go on with a short
// batch, so a failed send ends the process.
inline void sendBatch(int sender, const sockaddr_in& to, const QByteArray& payload, int count)
{
    for (int i = 0; i < count; ++i) {
        if (::sendto(sender, payload.constData(), static_cast<size_t>(payload.size()), 0,
                     reinterpret_cast<const sockaddr*>(&to), sizeof to)
            < 0) {
            std::perror("sendto");
            std::exit(1);
        }
    }
}

} // namespace LinkBenchSupport
