#include "SimpleGroupingWorker.h"

#include <QTimer>

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("SimpleGroupingWorker");
}
} // namespace

SimpleGroupingWorker::SimpleGroupingWorker(const QVariantHash& settings)
    : CMNodesWorker(settings, QStringLiteral("SimpleGroupingWorker"))
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingWorker");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    m_listNode = CMListRowsNode::create(nodes(), addPrefix(QString()));
    m_listNode->setTitle(TrString("VopGrouping"));

    m_removeReceiverNode = CMActivateNode::create(nodes(), TarvGroupingMembersRemoveReceiverPath());
    m_removeReceiverNode->setInvoke(this, &SimpleGroupingWorker::on_remove_receiver, Qt::QueuedConnection);

    QTimer::singleShot(100, Qt::PreciseTimer, this, &SimpleGroupingWorker::init);

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingWorker::init()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingWorker");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);
    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingWorker::on_remove_receiver(const CMSetDataRequest& request)
{
    const TarvSystemMember member(request.value().toHash());
    Q_EMIT requestRemoveReceiver(member);
}

extern "C" CMAbstractWorker* worker_create(void* first, const QVariantHash& settings)
{
    Q_UNUSED(first);
    return new SimpleGroupingWorker(settings);
}
