#include "CMNodes.h"

#include "CMNode.h"
#include "CMRootWorker.h"
#include "TarvConnect.h"
#include "TarvLog.h"

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("CMNodes");
}
} // namespace

CMNodes::CMNodes(QObject* parent)
    : QObject(parent)
{
    CMRoot()->addRegistry(this);
}

CMNodes::~CMNodes()
{
    CMRoot()->removeRegistry(this);
    const QList<CMNode*> nodes = allNodes();
    for (CMNode* node : nodes)
        node->disconnect(this);
}

CMNode* CMNodes::node(const CMPath& path) const
{
    QMutexLocker locker(&m_mutex);
    return m_nodes.value(path);
}

bool CMNodes::isNodeAtPath(const CMPath& path) const
{
    return node(path) != nullptr;
}

QList<CMNode*> CMNodes::allNodes() const
{
    QMutexLocker locker(&m_mutex);
    return m_nodes.values();
}

void CMNodes::add(CMNode* node)
{
    const CMPath path = node->path();
    node->setParent(this);
    CMNode* previous = nullptr;
    {
        QMutexLocker locker(&m_mutex);
        previous = m_nodes.value(path);
        m_nodes.insert(path, node);
    }
    if (previous) {
        LOG4CPLUS_WARN(logger(), "Replacing node at " << path);
        previous->disconnect(this);
        Q_EMIT nodeRemoved(path);
        delete previous;
    }
    tarvConnect(node, &QObject::destroyed, this, [this, path](QObject* gone) { forget(path, gone); });
    Q_EMIT nodeAdded(path);
}

void CMNodes::forget(const CMPath& path, QObject* node)
{
    {
        QMutexLocker locker(&m_mutex);
        auto it = m_nodes.find(path);
        if (it == m_nodes.end() || static_cast<QObject*>(it.value()) != node)
            return;
        m_nodes.erase(it);
    }
    Q_EMIT nodeRemoved(path);
}
