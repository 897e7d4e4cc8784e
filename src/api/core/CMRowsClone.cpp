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
    tarvConnect(node, &CMListRowsNode::rowChanged, this, &CMRowsClone::on_node_rowChanged);
    tarvConnect(node, &CMListRowsNode::loadingChanged, this, &CMRowsClone::on_node_loadingChanged);
    for (const TarvRoles& row : node->rolesList())
        on_node_rowChanged(row, TarvRoles());
    if (!node->isLoading())
        setLoading(false);
}

void CMRowsClone::on_node_rowChanged(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    const TarvRoles added = accepts(newRow) ? newRow : TarvRoles();
    const QString id = added.isEmpty() ? oldRow.id() : added.id();
    const int index = indexOf(id);
    const TarvRoles previous = index < 0 ? TarvRoles() : m_rows.at(index);
    if (added.isEmpty()) {
        if (index < 0)
            return;
        m_rows.removeAt(index);
    } else if (index < 0) {
        m_rows.append(added);
    } else {
        if (previous == added)
            return;
        m_rows[index] = added;
    }
    Q_EMIT itemChanged(added, previous);
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
    while (!m_rows.isEmpty()) {
        const TarvRoles old = m_rows.takeLast();
        Q_EMIT itemChanged(TarvRoles(), old);
    }
    setLoading(true);
}
