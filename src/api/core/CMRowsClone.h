#pragma once

#include <QList>
#include <QObject>
#include <QPair>
#include <QPointer>

#include "CMPath.h"
#include "TarvRoles.h"

class CMListRowsNode;

// Mirrors the rows of a list node anywhere in the process, in list order and
// by id. `typeFilter` -1 mirrors every row, otherwise only rows of that type.
// Starts empty; on the next pass of the event loop it reports
// loadingChanged(true), every existing row as itemChanged(row, empty), and
// loadingChanged(false) once the node has finished loading. A node that does
// not exist yet is waited for. Afterwards every change is reported once,
// after rows() holds it; an empty `newRoles` is a removal. All mirrors of a
// list on one thread take in a change before any of them reports it, so a
// slot reacting to one mirror finds the change in the others too (their
// rows() may then hold changes they have not reported yet).
class CMRowsClone : public QObject
{
    Q_OBJECT

public:
    CMRowsClone(QObject* parent, const CMPath& path, int typeFilter);

    const CMPath& path() const { return m_path; }
    const QList<TarvRoles>& rows() const { return m_rows; }
    TarvRoles rowById(const QString& id) const;
    int size() const { return m_rows.size(); }
    bool isLoading() const { return m_loading; }

Q_SIGNALS:
    void itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles);
    void loadingChanged(bool loading);

private:
    void load();
    void attach(CMListRowsNode* node);
    void setLoading(bool loading);
    bool accepts(const TarvRoles& row) const;
    int indexOf(const QString& id) const;
    // Takes a change into rows() and keeps its report (or a blank one when
    // the change is nothing to this mirror) for on_node_rowChanged.
    void on_node_rowChanging(const TarvRoles& newRow, const TarvRoles& oldRow);
    // Reports the oldest kept change.
    void on_node_rowChanged();
    void on_node_loadingChanged(bool loading);
    void on_root_nodeAdded(const CMPath& path);
    void on_root_nodeRemoved(const CMPath& path);

    CMPath m_path;
    int m_typeFilter;
    QPointer<CMListRowsNode> m_node;
    QList<TarvRoles> m_rows;
    // Changes taken in and not reported yet, oldest first: (new, old), or
    // a blank pair for a change that is nothing to this mirror.
    QList<QPair<TarvRoles, TarvRoles>> m_unreported;
    bool m_loading = false;
};
