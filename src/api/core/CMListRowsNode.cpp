#include "CMListRowsNode.h"

CMListRowsNode* CMListRowsNode::create(CMNodes* nodes, const CMPath& path)
{
    return createIn<CMListRowsNode>(nodes, path);
}

QList<QVariant> CMListRowsNode::rows() const
{
    QList<QVariant> list;
    list.reserve(m_rows.size());
    for (const TarvRoles& row : m_rows)
        list.append(row.toVariant());
    return list;
}

TarvRoles CMListRowsNode::getRowRoles(int index) const
{
    return index >= 0 && index < m_rows.size() ? m_rows.at(index) : TarvRoles();
}

int CMListRowsNode::indexOf(const QString& id) const
{
    for (int i = 0; i < m_rows.size(); ++i) {
        if (m_rows.at(i).id() == id)
            return i;
    }
    return -1;
}

TarvRoles CMListRowsNode::rowsGetById(const QString& id) const
{
    return getRowRoles(indexOf(id));
}

void CMListRowsNode::rowsSetById(const TarvRoles& row)
{
    const int index = indexOf(row.id());
    if (index < 0) {
        m_rows.append(row);
        reportChange(row, TarvRoles());
        return;
    }
    const TarvRoles old = m_rows.at(index);
    if (old == row)
        return;
    m_rows[index] = row;
    reportChange(row, old);
}

void CMListRowsNode::rowsRemoveById(const QString& id)
{
    const int index = indexOf(id);
    if (index < 0)
        return;
    const TarvRoles old = m_rows.takeAt(index);
    reportChange(TarvRoles(), old);
}

void CMListRowsNode::rowsAppend(const TarvRoles& row)
{
    rowsSetById(row);
}

void CMListRowsNode::rowsAppend(const CMPath& path)
{
    TarvRoles row;
    row.setId(path.toString()).setType(TarvRolesType::Path).setPath(path);
    if (auto* target = qobject_cast<CMUINode*>(nodes() ? nodes()->node(path) : nullptr))
        row.setTitle(target->title());
    rowsSetById(row);
}

void CMListRowsNode::rowsClear()
{
    while (!m_rows.isEmpty()) {
        const TarvRoles old = m_rows.takeFirst();
        reportChange(TarvRoles(), old);
    }
}

void CMListRowsNode::reportChange(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    Q_EMIT rowChanging(newRow, oldRow);
    Q_EMIT rowChanged(newRow, oldRow);
}

void CMListRowsNode::setLoading(bool loading)
{
    if (loading == m_loading)
        return;
    m_loading = loading;
    Q_EMIT loadingChanged(m_loading);
}
