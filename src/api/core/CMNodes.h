#pragma once

#include <QHash>
#include <QList>
#include <QMutex>
#include <QObject>

#include "CMPath.h"

class CMNode;

// A node registry: owns its nodes (as their QObject parent) and finds them by
// path. Every registry is known to the root worker, which is how any path
// of the process is reached. A path is unique in a registry: adding a node
// at a taken path replaces (and deletes) the earlier node.
class CMNodes : public QObject
{
    Q_OBJECT

public:
    explicit CMNodes(QObject* parent = nullptr);
    ~CMNodes() override;

    CMNode* node(const CMPath& path) const;
    bool isNodeAtPath(const CMPath& path) const;
    QList<CMNode*> allNodes() const;

    // Takes ownership of a new node and publishes it. Used by the nodes'
    // create() functions.
    void add(CMNode* node);

Q_SIGNALS:
    void nodeAdded(const CMPath& path);
    void nodeRemoved(const CMPath& path);

private:
    void forget(const CMPath& path, QObject* node);

    mutable QMutex m_mutex;
    QHash<CMPath, CMNode*> m_nodes;
};
