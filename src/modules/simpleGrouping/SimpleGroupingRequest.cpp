#include "SimpleGroupingRequest.h"

#include <ctime>

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("SimpleGroupingRequest");
}

log4cplus::Logger containerLogger()
{
    return TarvLog::logger("SimpleGroupingRequest::TimeoutContainer");
}

// Deadlines are whole seconds in 32 bits.
qint32 now()
{
    return static_cast<qint32>(time(nullptr));
}

// The refusal of an unknown command is this literal with its first
// <command> characters dropped.
const char invalidCommand[] = "Invalid command ";
constexpr int invalidCommandLength = sizeof(invalidCommand) - 1;
} // namespace

bool SimpleGroupingRequest::TimeoutContainer::isEmpty() const
{
    return m_timeouts.isEmpty();
}

bool SimpleGroupingRequest::TimeoutContainer::add(QString id, int timeoutMs)
{
    const bool isNew = !m_timeouts.contains(id);
    m_timeouts.insert(id, now() + timeoutMs / 1000);
    return isNew;
}

void SimpleGroupingRequest::TimeoutContainer::remove(QString id)
{
    m_timeouts.remove(id);
}

int SimpleGroupingRequest::TimeoutContainer::peek() const
{
    auto it = m_timeouts.constBegin();
    if (it == m_timeouts.constEnd())
        return 0;
    int earliest = it.value();
    for (++it; it != m_timeouts.constEnd(); ++it) {
        if (it.value() < earliest)
            earliest = it.value();
    }
    return earliest;
}

QString SimpleGroupingRequest::TimeoutContainer::firstIdWithDeadline(int deadline) const
{
    for (auto it = m_timeouts.constBegin(); it != m_timeouts.constEnd(); ++it) {
        if (it.value() == deadline)
            return it.key();
    }
    return QString();
}

QString SimpleGroupingRequest::TimeoutContainer::pop()
{
    const QString id = firstIdWithDeadline(peek());
    if (!id.isEmpty())
        m_timeouts.remove(id);
    LOG4CPLUS_TRACE(containerLogger(), "TimeoutContainer::pop : Remove device: " << id);
    return id;
}

int SimpleGroupingRequest::TimeoutContainer::nextTimeout() const
{
    const int earliest = peek();
    const QString id = firstIdWithDeadline(earliest);
    int timeout = (earliest - now()) * 1000;
    if (timeout < 0)
        timeout = 0;
    LOG4CPLUS_TRACE(containerLogger(), "TimeoutContainer::nextTimeout : Next Timeout for "
                                           << id << " is in " << timeout << " milliseconds");
    printAll();
    return timeout;
}

void SimpleGroupingRequest::TimeoutContainer::printAll() const
{
    LOG4CPLUS_TRACE(containerLogger(), "Print all timeouts");
    const qint32 current = now();
    const QList<QString> ids = m_timeouts.keys();
    for (const QString& id : ids)
        LOG4CPLUS_TRACE(containerLogger(), id << "  timeout in: " << (m_timeouts.value(id) - current) * 1000 << " ms");
    LOG4CPLUS_TRACE(containerLogger(), "");
}

SimpleGroupingRequest::SimpleGroupingRequest(CMNodes* nodes, CMListRowsNode* membersNode)
{
    Q_UNUSED(membersNode);

    CMActivateNode* node = CMActivateNode::create(nodes, TarvGroupingRequestPath());
    node->setInvoke(this, &SimpleGroupingRequest::on_groupingRequest_activated, Qt::QueuedConnection);

    m_receiverTimeout = TarvValue(TarvHash(CMRoot()->getValue(TarvStopStreamingTimeoutPath()).toHash())).i32();

    tarvConnect(&m_socket, &SimpleGroupingSocket::addReceiver, this, &SimpleGroupingRequest::on_addReceiever,
                Qt::AutoConnection);
    tarvConnect(&m_socket, &SimpleGroupingSocket::removeReceiver, this, &SimpleGroupingRequest::on_removeReceiever,
                Qt::AutoConnection);

    // Started by the first recorded receiver, not here.
    m_timer.setSingleShot(false);
    m_timer.setInterval(m_receiverTimeout);
    tarvConnect(&m_timer, &QTimer::timeout, this, &SimpleGroupingRequest::on_timeout, Qt::AutoConnection);

    LOG4CPLUS_INFO(logger(), "Created SimpleGroupingRequest");
}

void SimpleGroupingRequest::on_groupingRequest_activated(const CMSetDataRequest& request)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingRequest");
    LOG4CPLUS_TRACE(logger(), Q_FUNC_INFO << "Value: " << TarvHash(request.value().toHash()));

    const TarvHash map(request.value().toHash());
    if (map.isEmpty()) {
        request.voidReply().setError(CMError(TrString("Empty grouping request")));
        LOG4CPLUS_ERROR(logger(), "Empty grouping request");
        return;
    }
    LOG4CPLUS_DEBUG(logger(), "Received command: " << map);

    // The request is a value union holding the grouping request
    // ({"groupingRequest": {"command": 1, "master": {...}}}). A value without
    // that key holds no request: it reads as an empty one, command 0.
    const TarvGroupingRequest groupingRequest = TarvValue(map).groupingRequest();
    // Read as a number: a client may send any, and an enum variable may hold
    // only the enum's own values.
    const int command = groupingRequest.hash().value(TarvGroupingRequest::Command()).toInt();
    if (command == TarvGroupingRequestCommand::Join) {
        if (!groupingRequest.contains(TarvGroupingRequest::Master())) {
            request.voidReply().setError(CMError(TrString("Missing grouping master in request")));
            LOG4CPLUS_ERROR(logger(), "Missing grouping master in request");
            return;
        }
        const TarvSystemMember master = groupingRequest.master();
        if (master.id().isEmpty()) {
            request.voidReply().setError(CMError(TrString("Missing grouping master id")));
            LOG4CPLUS_ERROR(logger(), "Missing grouping master id");
            return;
        }
        LOG4CPLUS_TRACE(logger(), "emit requestJoinTranscoder(" << master << ")");
        Q_EMIT requestJoinTranscoder(master);
    } else if (command == TarvGroupingRequestCommand::Leave) {
        LOG4CPLUS_TRACE(logger(), "emit requestLeaveTranscoder()");
        Q_EMIT requestLeaveTranscoder();
    } else {
        // The refusal text is a suffix of the literal, chosen by the command
        // as a character offset (kept as callers know it). Offsets past the
        // literal would read beyond it, so those get the whole literal.
        const int offset = command >= 0 && command <= invalidCommandLength ? command : 0;
        request.voidReply().setError(CMError(TrString(invalidCommand + offset)));
        LOG4CPLUS_ERROR(logger(), "Received invalid command" << map);
        return;
    }

    request.setResult(true);
    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingRequest::on_addReceiever(const TarvSystemMember& member)
{
    // pop() never takes out an empty id, so the expiry loop in on_timeout()
    // would spin on such an entry forever once its deadline passed.
    if (member.id().isEmpty()) {
        LOG4CPLUS_ERROR(logger(), "Ignoring receiver without id, it could never expire: " << member);
        return;
    }
    if (m_timeoutContainer.add(member.id(), m_receiverTimeout))
        Q_EMIT requestAddReceiver(member);
    updateTimer();
}

void SimpleGroupingRequest::on_removeReceiever(const TarvSystemMember& member)
{
    m_timeoutContainer.remove(member.id());
    // Also for unknown ids, so that the controller can clean up its own list.
    Q_EMIT requestRemoveReceiver(member);
    updateTimer();
}

void SimpleGroupingRequest::on_timeout()
{
    m_timer.stop();
    const qint32 current = now();
    while (!m_timeoutContainer.isEmpty() && m_timeoutContainer.peek() <= current) {
        const QString id = m_timeoutContainer.pop();
        LOG4CPLUS_INFO(logger(), "Remove remote receiver due to timeout: " << id);
        TarvSystemMember member;
        member.setId(id);
        Q_EMIT requestRemoveReceiver(member);
    }
    updateTimer();
}

void SimpleGroupingRequest::updateTimer()
{
    if (m_timeoutContainer.isEmpty())
        return;
    m_timer.setInterval(m_timeoutContainer.nextTimeout());
    m_timer.start();
}
