#include "SimpleGroupingAdder.h"

#include <QByteArray>

#include <model/cmrequest>

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("SimpleGroupingAdder");
}

} // namespace

SimpleGroupingAdder::SimpleGroupingAdder()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingAdder");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    // Read once: a later change of the setting applies to the next device
    // start, not to a running sender.
    const TarvValue period(CMRoot()->getValue(TarvRequestStreamingTimeoutPath()).toHash());
    m_resendTimer.setSingleShot(false);
    m_resendTimer.setInterval(period.i32());
    tarvConnect(&m_resendTimer, &QTimer::timeout, this, &SimpleGroupingAdder::on_timer_timeout, Qt::AutoConnection);

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingAdder::start(const QString& message, const QString& host)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingAdder");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": host name: " << host << " message: " << message);

    // Say goodbye to the previous transcoder before greeting the new one.
    if (m_resendTimer.isActive())
        stop();

    LOG4CPLUS_TRACE(logger(), "Starting to send new message '" << message << "' to " << host);
    m_message = message;
    m_hostName = host;
    m_lookupId = QHostInfo::lookupHost(m_hostName, this, &SimpleGroupingAdder::on_addrLookup);
    // The first "add" leaves as soon as the lookup answers, not a period later.
    m_resendTimer.start();

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingAdder::stop()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingAdder");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    m_resendTimer.stop();
    if (!m_address.isNull()) {
        sendMessage(QStringLiteral("remove"));
        m_address.clear();
    }
    if (m_lookupId != -1) {
        QHostInfo::abortHostLookup(m_lookupId);
        m_lastAbortedLookupId = m_lookupId;
        m_lookupId = -1;
    }

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingAdder::sendMessage(const QString& prefix)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingAdder");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": " << prefix);

    const QByteArray payload = (prefix + m_message).toUtf8();
    if (m_socket.writeDatagram(payload.constData(), payload.size(), m_address, TarvRequestPort()) == -1) {
        // "add" also for a failed "remove": the wording is what log readers
        // search for.
        LOG4CPLUS_ERROR(logger(), "Error sending add request to " << m_address.toString() << " mesg: " << m_message
                                                                   << " SocketError: " << static_cast<int>(m_socket.error())
                                                                   << " | " << m_socket.errorString());
    } else {
        LOG4CPLUS_TRACE(logger(), prefix << " request successfully sent to " << m_address.toString());
    }

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingAdder::on_timer_timeout()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingAdder");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    if (!m_address.isNull())
        sendMessage(QStringLiteral("add"));
    // Re-resolve once per period so a transcoder that moves is followed.
    if (m_lookupId == -1)
        m_lookupId = QHostInfo::lookupHost(m_hostName, this, &SimpleGroupingAdder::on_addrLookup);

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingAdder::on_addrLookup(const QHostInfo& info)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingAdder");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    // stop() aborts the pending lookup, but Qt answers a name it has cached
    // with an already posted result that no abort reaches. Acting on it would
    // announce again after the goodbye, or, when start() followed at once, to
    // the transcoder just left, which would then list a phantom follower
    // until its time-out.
    if (!m_resendTimer.isActive()) {
        LOG4CPLUS_TRACE(logger(), "Ignoring lookup result for " << info.hostName() << ": not running");
        LOG4CPLUS_TRACE(logger(), "Leave " << scope);
        return;
    }
    if (info.lookupId() != -1 && info.lookupId() <= m_lastAbortedLookupId) {
        LOG4CPLUS_TRACE(logger(), "Ignoring lookup result for " << info.hostName() << ": aborted");
        LOG4CPLUS_TRACE(logger(), "Leave " << scope);
        return;
    }

    // A failed lookup keeps the last known address in use.
    if (info.error() != QHostInfo::NoError) {
        LOG4CPLUS_ERROR(logger(), "Address lookup failed: " << info.errorString());
    } else if (info.addresses().isEmpty()) {
        LOG4CPLUS_ERROR(logger(), "No addresses found for host: " << info.hostName());
    } else {
        const QHostAddress first = info.addresses().first();
        if (first != m_address) {
            m_address = first;
            sendMessage(QStringLiteral("add"));
        }
    }
    m_lookupId = -1;

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}
