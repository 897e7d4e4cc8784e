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

    // Creation order is row order in the list node: the controller's members
    // row comes first, the UI's row second. The observer comes last.
    m_ctrl = new SimpleGroupingCtrl(nodes(), m_listNode);
    m_ui = new SimpleGroupingUI(nodes(), m_listNode);
    m_request = new SimpleGroupingRequest(nodes(), m_listNode);
    m_observer = new SimpleGroupingObserver(nodes(), m_listNode);

    m_removeReceiverNode = CMActivateNode::create(nodes(), TarvGroupingMembersRemoveReceiverPath());
    m_removeReceiverNode->setInvoke(this, &SimpleGroupingWorker::on_remove_receiver, Qt::QueuedConnection);

    QTimer::singleShot(100, Qt::PreciseTimer, this, &SimpleGroupingWorker::init);

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingWorker::init()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingWorker");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    tarvConnect(m_request, &SimpleGroupingRequest::requestAddReceiver, m_ctrl,
                &SimpleGroupingCtrl::on_requestAddReceiver, Qt::AutoConnection);
    tarvConnect(m_request, &SimpleGroupingRequest::requestRemoveReceiver, m_ctrl,
                &SimpleGroupingCtrl::on_requestRemoveReceiver, Qt::AutoConnection);
    tarvConnect(m_request, &SimpleGroupingRequest::requestJoinTranscoder, m_ctrl,
                &SimpleGroupingCtrl::on_joinTranscoder, Qt::AutoConnection);
    tarvConnect(m_request, &SimpleGroupingRequest::requestLeaveTranscoder, m_ctrl,
                &SimpleGroupingCtrl::on_leaveTranscoder, Qt::AutoConnection);
    tarvConnect(this, &SimpleGroupingWorker::requestRemoveReceiver, m_ctrl,
                &SimpleGroupingCtrl::on_requestRemoveReceiver, Qt::AutoConnection);

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
