#pragma once

#include <QObject>
#include <QUdpSocket>

#include <tarv>

// Transcoder side of the receiver link: listens on TarvRequestPort() on all
// interfaces and turns every valid "add<json>" / "remove<json>" datagram
// into one addReceiver / removeReceiver signal. An "add" gets the record's
// non-empty ipAddress replaced by the datagram's real source address.
// A failed bind is not reported; the listener then never emits.
class SimpleGroupingSocket : public QObject
{
    Q_OBJECT

public:
    // The largest UDP payload: every datagram fits the read buffer whole.
    static constexpr int MaxDatagramBytes = 65536;
    // Asked of the kernel for the port's receive queue (it caps the size at
    // net.core.rmem_max and doubles it for its bookkeeping): about 40 ms of
    // a 50,000/s flood of small datagrams. Larger would only make a real
    // "add" wait longer behind garbage when the listener cannot keep up.
    static constexpr int ReceiveBufferBytes = 1024 * 1024;

    SimpleGroupingSocket();

    // The receive queue's size as the kernel granted it, in bytes.
    int receiveBufferBytes();

    // One datagram as if it had just arrived from `sender`: what
    // on_readyRead() does with each (the fuzzer feeds it directly).
    void handleDatagram(const QByteArray& datagram, const QHostAddress& sender);

Q_SIGNALS:
    void addReceiver(const TarvSystemMember& member);
    void removeReceiver(const TarvSystemMember& member);

public Q_SLOTS:
    // Handles every datagram pending at the time of the call, in arrival
    // order.
    void on_readyRead();

private:
    QUdpSocket m_socket;
    // Reused for every datagram; its bytes are only valid during one
    // handleDatagram() call.
    QByteArray m_buffer;
};
