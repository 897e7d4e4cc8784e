#include "SimpleGroupingSocket.h"

#include <cstring>

#include <QByteArray>
#include <QHostAddress>
#include <QString>

namespace {

// Looked up once: a lookup by name is a string built and a locked map
// searched, and a flood of garbage logs a line per datagram.
const log4cplus::Logger& logger()
{
    static const log4cplus::Logger instance = TarvLog::logger("SimpleGroupingSocket");
    return instance;
}

const QByteArray AddPrefix = QByteArrayLiteral("add");
const QByteArray RemovePrefix = QByteArrayLiteral("remove");
const QByteArray Utf8Bom = QByteArrayLiteral("\xEF\xBB\xBF");

// The body after the prefix as a record; empty unless it is a non-empty
// JSON object. The bytes are parsed as they came: a round trip through
// QString cost two conversions and two copies per datagram. Only bytes that
// are not UTF-8 take that round trip, which turns each bad sequence into
// U+FFFD, so that such a body reads as it always did (the parser's error
// text for them is Qt's, and tst_SimpleGroupingSocket holds it to that).
TarvHash parseBody(const QByteArray& body)
{
    TarvError error;
    const QVariant parsed = TarvJson::parse(body, error, nullptr);
    if (error.message == QLatin1String("invalid UTF8 string"))
        return TarvHash(TarvJson::parse(QString::fromUtf8(body).toUtf8(), error, nullptr).toHash());
    return TarvHash(parsed.toHash());
}

} // namespace

SimpleGroupingSocket::SimpleGroupingSocket()
    // Every datagram is read into one buffer that fits the largest: asking
    // for each one's size first would cost a system call per datagram, a
    // third of what a flood of garbage costs to read.
    : m_buffer(MaxDatagramBytes, Qt::Uninitialized)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingSocket");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    tarvConnect(&m_socket, &QUdpSocket::readyRead, this, &SimpleGroupingSocket::on_readyRead, Qt::AutoConnection);
    // A failed bind (port taken) is deliberately not reported: the listener
    // then just never hears anything.
    m_socket.bind(QHostAddress::Any, TarvRequestPort(), QAbstractSocket::DefaultForPlatform);
    // The kernel's default queue holds a few hundred small datagrams, a few
    // milliseconds of a flood: a listener that is scheduled out for longer
    // would lose the real "add"s among them and each such receiver would
    // wait a resend period. The kernel caps the size at net.core.rmem_max.
    m_socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, ReceiveBufferBytes);

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingSocket::on_readyRead()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingSocket");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    while (m_socket.hasPendingDatagrams()) {
        QHostAddress sender;
        const qint64 read = m_socket.readDatagram(m_buffer.data(), m_buffer.size(), &sender);
        if (read < 0) {
            // Nothing was taken from the queue; looping on would never end.
            LOG4CPLUS_ERROR(logger(), "Error reading datagram: " << m_socket.errorString());
            break;
        }
        handleDatagram(QByteArray::fromRawData(m_buffer.constData(), static_cast<int>(read)), sender);
    }

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingSocket::handleDatagram(const QByteArray& datagram, const QHostAddress& sender)
{
    // The payload is read as a C string: it ends at its first zero byte.
    // Cut here, not left to a terminator: a caller's bytes need not have one.
    // A leading UTF-8 byte order mark is skipped, as reading the bytes as
    // text always did.
    // memchr, not QByteArray::indexOf(), which compares byte by byte: on a
    // flood of garbage that scan cost more than reading the datagram.
    const void* const found = std::memchr(datagram.constData(), '\0', static_cast<size_t>(datagram.size()));
    const int zero = found ? static_cast<int>(static_cast<const char*>(found) - datagram.constData()) : -1;
    const int bom = datagram.startsWith(Utf8Bom) ? Utf8Bom.size() : 0;
    const QByteArray text = QByteArray::fromRawData(datagram.constData() + bom, (zero < 0 ? datagram.size() : zero) - bom);
    LOG4CPLUS_TRACE(logger(), "Received packet " << QString::fromUtf8(text));

    if (text.startsWith(AddPrefix)) {
        const TarvHash hash = parseBody(QByteArray::fromRawData(text.constData() + AddPrefix.size(),
                                                                text.size() - AddPrefix.size()));
        if (hash.isEmpty()) {
            LOG4CPLUS_ERROR(logger(), "Incorrect JSON data, dropping garbage packet");
            return;
        }
        TarvSystemMember member(hash);
        // The address the receiver reports is not trusted; the one the
        // datagram came from is. An unreported address stays unreported.
        const QString reported = member.ipAddress();
        if (!reported.isEmpty()) {
            const QString actual = tarvQHostAddressToIp(sender);
            LOG4CPLUS_TRACE(logger(), "Changing ipAddress from " << reported << " to " << actual);
            member.setIpAddress(actual);
        }
        LOG4CPLUS_TRACE(logger(), "EMIT addReceiver(" << member << ")");
        Q_EMIT addReceiver(member);
    } else if (text.startsWith(RemovePrefix)) {
        const TarvHash hash = parseBody(QByteArray::fromRawData(text.constData() + RemovePrefix.size(),
                                                                text.size() - RemovePrefix.size()));
        if (hash.isEmpty()) {
            LOG4CPLUS_ERROR(logger(), "Incorrect JSON data, dropping garbage packet");
            return;
        }
        const TarvSystemMember member(hash);
        LOG4CPLUS_TRACE(logger(), "EMIT removeReceiver(" << member << ")");
        Q_EMIT removeReceiver(member);
    } else {
        LOG4CPLUS_INFO(logger(), "Dropping garbage packet");
    }
}

int SimpleGroupingSocket::receiveBufferBytes()
{
    return m_socket.socketOption(QAbstractSocket::ReceiveBufferSizeSocketOption).toInt();
}
