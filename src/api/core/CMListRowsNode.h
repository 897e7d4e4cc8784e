#pragma once

#include <QList>
#include <QVariant>

#include "CMUINode.h"
#include "TarvRoles.h"

// A list of rows (TarvRoles) in order, keyed by row id: ids are unique, and
// appending a row whose id is present replaces that row in place.
// Every change is reported once by rowChanged(new, old), after the list
// holds it: an empty `newRow` is a removal, an empty `oldRow` an addition.
// Just before rowChanged, rowChanging(new, old) announces the same change,
// so that every mirror of the list (CMRowsClone) can hold it before any of
// them reports it: a reaction to one mirror's report that reads another
// mirror never sees a row that is already gone.
// Writing a row equal to the stored one is no change and reports nothing.
// A list may say it is still loading (for instance a list gathered from the
// network during its first round).
class CMListRowsNode : public CMUINode
{
    Q_OBJECT

public:
    static CMListRowsNode* create(CMNodes* nodes, const CMPath& path);

    QString kind() const override { return QStringLiteral("list"); }

    QList<QVariant> rows() const;
    QList<TarvRoles> rolesList() const { return m_rows; }
    int rowsSize() const { return m_rows.size(); }
    TarvRoles getRowRoles(int index) const;
    TarvRoles rowsGetById(const QString& id) const;

    void rowsSetById(const TarvRoles& row);
    void rowsRemoveById(const QString& id);
    void rowsAppend(const TarvRoles& row);
    // Adds a row that points at the node at `path` (id and path = the path,
    // title = that node's title when it is a UI node).
    void rowsAppend(const CMPath& path);
    void rowsClear();

    bool isLoading() const { return m_loading; }
    void setLoading(bool loading);

Q_SIGNALS:
    void rowChanging(const TarvRoles& newRow, const TarvRoles& oldRow);
    void rowChanged(const TarvRoles& newRow, const TarvRoles& oldRow);
    void loadingChanged(bool loading);

private:
    friend class CMNode;
    using CMUINode::CMUINode;

    int indexOf(const QString& id) const;
    void reportChange(const TarvRoles& newRow, const TarvRoles& oldRow);

    QList<TarvRoles> m_rows;
    bool m_loading = false;
};
