#include "CMRootWorker.h"

#include <QCoreApplication>
#include <QThread>

#include "CMActivateNode.h"
#include "CMListRowsNode.h"
#include "CMNodes.h"
#include "CMSetDataRequest.h"
#include "TarvLog.h"

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("CMRootWorker");
}
} // namespace

CMRootWorker* CMRoot()
{
    // Lives for the process on purpose: module objects that outlive every
    // scope keep calling it until exit.
    static CMRootWorker* root = [] {
        auto* worker = new CMRootWorker;
        if (QCoreApplication* app = QCoreApplication::instance())
            worker->moveToThread(app->thread());
        return worker;
    }();
    return root;
}

QVariant CMRootWorker::getValue(const CMPath& path)
{
    QMutexLocker locker(&m_mutex);
    return m_values.value(path);
}

CMVoidReply CMRootWorker::setValue(const CMPath& path, const TarvValue& value, const CMReply<QVariant>& reply)
{
    const QVariant variant = value.toVariant();
    if (QThread::currentThread() == thread())
        applySet(path, variant, reply);
    else
        QMetaObject::invokeMethod(this, [this, path, variant, reply] { applySet(path, variant, reply); },
                                  Qt::QueuedConnection);
    return CMVoidReply(reply.data());
}

void CMRootWorker::applySet(const CMPath& path, const QVariant& value, const CMReply<QVariant>& reply)
{
    const QString refusal = storeValue(path, value);
    if (refusal.isEmpty()) {
        reply.setResult(value);
        return;
    }
    // Modules often do not read the outcome of their writes; the refusal is
    // logged so that it is not lost.
    LOG4CPLUS_WARN(logger(), "Refused a value for " << path << ": " << refusal);
    reply.setError(CMError(TrString(refusal)));
}

CMVoidReply CMRootWorker::invoke(const CMPath& path, const TarvHash& value, const CMReply<QVariant>& reply)
{
    CMNode* node = findNode(path);
    auto* action = qobject_cast<CMActivateNode*>(node);
    if (!action) {
        const QString reason = node ? QStringLiteral("Not an action: ") : QStringLiteral("No such action: ");
        reply.setError(CMError(TrString(reason + path.toString())));
        return CMVoidReply(reply.data());
    }
    // Qt drops a queued call whose context object is deleted before it runs,
    // and with it the request. A request still held when its holder is let
    // go was never delivered: fail it instead of letting it finish silently.
    const QSharedPointer<CMSetDataRequest> pending(
        new CMSetDataRequest(path, value.toVariant(), reply), [](CMSetDataRequest* undelivered) {
            if (!undelivered->isEmpty())
                undelivered->setError(
                    CMError(TrString(QStringLiteral("Action removed: ") + undelivered->path().toString())));
            delete undelivered;
        });
    QMetaObject::invokeMethod(
        action,
        [action, pending] {
            const CMSetDataRequest request = *pending;
            *pending = CMSetDataRequest();
            action->activate(request);
        },
        Qt::QueuedConnection);
    return CMVoidReply(reply.data());
}

void CMRootWorker::defineValue(const CMPath& path, const QVariant& initial, const Validator& validator)
{
    {
        QMutexLocker locker(&m_mutex);
        m_values.insert(path, initial);
        if (validator)
            m_validators.insert(path, validator);
        else
            m_validators.remove(path);
    }
    Q_EMIT notifier(path)->changed(path, initial);
    Q_EMIT valueChanged(path, initial);
}

void CMRootWorker::undefineValue(const CMPath& path)
{
    QMutexLocker locker(&m_mutex);
    m_values.remove(path);
    m_validators.remove(path);
}

void CMRootWorker::clearValues()
{
    QMutexLocker locker(&m_mutex);
    m_values.clear();
    m_validators.clear();
}

bool CMRootWorker::hasValue(const CMPath& path) const
{
    QMutexLocker locker(&m_mutex);
    return m_values.contains(path);
}

QList<CMPath> CMRootWorker::valuePaths() const
{
    QMutexLocker locker(&m_mutex);
    return m_values.keys();
}

QString CMRootWorker::storeValue(const CMPath& path, const QVariant& value)
{
    Validator validator;
    bool defined = false;
    {
        QMutexLocker locker(&m_mutex);
        defined = m_values.contains(path);
        validator = m_validators.value(path);
    }
    // A path nobody defined becomes a value on its first write, as on the
    // device's host; only a node's path is not one.
    if (!defined && findNode(path))
        return QStringLiteral("Not a value: ") + path.toString();
    if (validator) {
        const QString refusal = validator(value);
        if (!refusal.isEmpty())
            return refusal;
    }
    {
        QMutexLocker locker(&m_mutex);
        QVariant& stored = m_values[path];
        if (stored == value)
            return QString();
        stored = value;
    }
    LOG4CPLUS_DEBUG(logger(), "Value changed: " << path << " = " << TarvHash(value.toHash()));
    Q_EMIT notifier(path)->changed(path, value);
    Q_EMIT valueChanged(path, value);
    return QString();
}

CMValueNotifier* CMRootWorker::notifier(const CMPath& path)
{
    QMutexLocker locker(&m_mutex);
    CMValueNotifier*& notifier = m_notifiers[path];
    if (!notifier) {
        notifier = new CMValueNotifier;
        notifier->moveToThread(thread());
    }
    return notifier;
}

CMNode* CMRootWorker::findNode(const CMPath& path) const
{
    QMutexLocker locker(&m_mutex);
    for (CMNodes* nodes : m_registries) {
        if (CMNode* node = nodes->node(path))
            return node;
    }
    return nullptr;
}

QList<CMNode*> CMRootWorker::allNodes() const
{
    QMutexLocker locker(&m_mutex);
    QList<CMNode*> all;
    for (CMNodes* nodes : m_registries)
        all += nodes->allNodes();
    return all;
}

void CMRootWorker::addRegistry(CMNodes* nodes)
{
    {
        QMutexLocker locker(&m_mutex);
        m_registries.append(nodes);
    }
    tarvConnect(nodes, &CMNodes::nodeAdded, this,
                [this, nodes](const CMPath& path) { on_registry_nodeAdded(nodes, path); });
    tarvConnect(nodes, &CMNodes::nodeRemoved, this, &CMRootWorker::nodeRemoved);
}

void CMRootWorker::removeRegistry(CMNodes* nodes)
{
    {
        QMutexLocker locker(&m_mutex);
        m_registries.removeAll(nodes);
    }
    nodes->disconnect(this);
    for (CMNode* node : nodes->allNodes()) {
        node->disconnect(this);
        Q_EMIT nodeRemoved(node->path());
    }
}

void CMRootWorker::on_registry_nodeAdded(CMNodes* nodes, const CMPath& path)
{
    if (auto* list = qobject_cast<CMListRowsNode*>(nodes->node(path))) {
        tarvConnect(list, &CMListRowsNode::rowChanged, this,
                    [this, path](const TarvRoles& newRow, const TarvRoles& oldRow) {
                        Q_EMIT rowsChanged(path, newRow, oldRow);
                    });
    }
    Q_EMIT nodeAdded(path);
}
