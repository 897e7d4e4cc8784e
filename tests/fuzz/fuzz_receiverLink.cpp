// The receiver-link datagram path as a transcoder runs it: the listener's
// prefix test, cut at the first zero byte, JSON parse, record building and
// address replacement, then the deadline bookkeeping of the request object
// that the listener feeds, expiry included. With a zero time-out every
// receiver is due at once, so each input also runs the expiry loop, which
// must end (a receiver whose id can never be popped would spin it forever;
// libFuzzer reports that as a time-out).
//
// Input: up to 16 datagrams separated by "\xff\xfe"; the first byte of the
// input chooses the sender's address.

#include <cstdint>

#include <QHostAddress>

#include <model/cmrequest>
#include <tarv>

#include "FuzzSupport.h"
#include "SimpleGroupingRequest.h"
#include "SimpleGroupingSocket.h"

namespace {

struct Transcoder
{
    Transcoder()
    {
        fuzzSetUpProcess();
        // Port 0: the harness never listens on the real request port.
        TarvSetRequestPort(0);
        CMRoot()->defineValue(TarvStopStreamingTimeoutPath(), TarvValue().setI32_(0).toVariant());
        request = new SimpleGroupingRequest(&nodes, nullptr);
        tarvConnect(&listener, &SimpleGroupingSocket::addReceiver, request, &SimpleGroupingRequest::on_addReceiever,
                    Qt::AutoConnection);
        tarvConnect(&listener, &SimpleGroupingSocket::removeReceiver, request,
                    &SimpleGroupingRequest::on_removeReceiever, Qt::AutoConnection);
    }

    CMNodes nodes;
    // Lives for the process, as the module's request object does.
    SimpleGroupingRequest* request = nullptr;
    SimpleGroupingSocket listener;
};

QHostAddress sender(quint8 choice)
{
    switch (choice % 5) {
    case 0:
        return QHostAddress(QStringLiteral("10.77.0.12"));
    case 1:
        return QHostAddress(QStringLiteral("::ffff:192.168.1.20"));
    case 2:
        return QHostAddress(QStringLiteral("fe80::1%1"));
    case 3:
        return QHostAddress(QHostAddress::LocalHostIPv6);
    default:
        return QHostAddress();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Transcoder transcoder;
    if (size == 0)
        return 0;
    const QHostAddress from = sender(data[0]);
    for (const QByteArray& datagram : fuzzParts(data + 1, size - 1, 16))
        transcoder.listener.handleDatagram(datagram, from);
    transcoder.request->on_timeout();
    return 0;
}
