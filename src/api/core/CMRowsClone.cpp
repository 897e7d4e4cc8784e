#include "CMRowsClone.h"

#include <QTimer>

#include "CMListRowsNode.h"
#include "CMRootWorker.h"
#include "TarvConnect.h"

CMRowsClone::CMRowsClone(QObject* parent, const CMPath& path, int typeFilter)
    : QObject(parent), m_path(path), m_typeFilter(typeFilter)
{
    QTimer::singleShot(0, this, &CMRowsClone::load);
}

TarvRoles CMRowsClone::rowById(const QString& id) const
{
    const int index = indexOf(id);
    return index < 0 ? TarvRoles() : m_rows.at(index);
}

int CMRowsClone::indexOf(const QString& id) const
{
    for (int i = 0; i < m_rows.size(); ++i) {
        if (m_rows.at(i).id() == id)
            return i;
    }
    return -1;
}

bool CMRowsClone::accepts(const TarvRoles& row) const
{
    return !row.isEmpty() && (m_typeFilter < 0 || row.type() == m_typeFilter);
}

void CMRowsClone::setLoading(bool loading)
{
    if (loading == m_loading)
        return;
    m_loading = loading;
    Q_EMIT loadingChanged(m_loading);
}

void CMRowsClone::load()
{
    tarvConnect(CMRoot(), &CMRootWorker::nodeAdded, this, &CMRowsClone::on_root_nodeAdded);
    tarvConnect(CMRoot(), &CMRootWorker::nodeRemoved, this, &CMRowsClone::on_root_nodeRemoved);
    setLoading(true);
    if (auto* node = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(m_path)))
        attach(node);
}

void CMRowsClone::attach(CMListRowsNode* node)
{
    if (m_node == node)
        return;
    m_node = node;
    tarvConnect(node, &CMListRowsNode::rowChanging, this, &CMRowsClone::on_node_rowChanging);
    tarvConnect(node, &CMListRowsNode::rowChanged, this, &CMRowsClone::on_node_rowChanged);
    tarvConnect(node, &CMListRowsNode::loadingChanged, this, &CMRowsClone::on_node_loadingChanged);
    for (const TarvRoles& row : node->rolesList()) {
        on_node_rowChanging(row, TarvRoles());
        on_node_rowChanged();
    }
    if (!node->isLoading())
        setLoading(false);
}

void CMRowsClone::on_node_rowChanging(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    const TarvRoles added = accepts(newRow) ? newRow : TarvRoles();
    const QString id = added.isEmpty() ? oldRow.id() : added.id();
    const int index = indexOf(id);
    const TarvRoles previous = index < 0 ? TarvRoles() : m_rows.at(index);
    bool changed = true;
    if (added.isEmpty()) {
        if (index < 0)
            changed = false;
        else
            m_rows.removeAt(index);
    } else if (index < 0) {
        m_rows.append(added);
    } else if (previous == added) {
        changed = false;
    } else {
        m_rows[index] = added;
    }
    m_unreported.append(changed ? qMakePair(added, previous) : qMakePair(TarvRoles(), TarvRoles()));
}

void CMRowsClone::on_node_rowChanged()
{
    // A slot may change the list while this mirror reports; the node then
    // announces and reports the nested change inside this call, and the
    // queue keeps every mirror's reports in the order of the changes.
    if (m_unreported.isEmpty())
        return;
    const QPair<TarvRoles, TarvRoles> change = m_unreported.takeFirst();
    if (change.first.isEmpty() && change.second.isEmpty())
        return;
    Q_EMIT itemChanged(change.first, change.second);
}

void CMRowsClone::on_node_loadingChanged(bool loading)
{
    setLoading(loading);
}

void CMRowsClone::on_root_nodeAdded(const CMPath& path)
{
    if (path != m_path || !m_loading)
        return;
    if (auto* node = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(m_path)))
        attach(node);
}

void CMRowsClone::on_root_nodeRemoved(const CMPath& path)
{
    if (path != m_path || !m_node)
        return;
    m_node->disconnect(this);
    m_node.clear();
    m_unreported.clear();
    while (!m_rows.isEmpty()) {
        const TarvRoles old = m_rows.takeLast();
        Q_EMIT itemChanged(TarvRoles(), old);
    }
    setLoading(true);
}
