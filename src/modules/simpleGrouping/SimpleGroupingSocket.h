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
    SimpleGroupingSocket();

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
};
