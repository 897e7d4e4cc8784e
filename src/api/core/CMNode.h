#pragma once

#include <QObject>

#include "CMPath.h"

class CMNodes;

// A node of the data model at a fixed path, owned by its registry.
class CMNode : public QObject
{
    Q_OBJECT

public:
    const CMPath& path() const { return m_path; }
    CMNodes* nodes() const { return m_nodes; }

    // A short name of the node's kind for listings ("list", "action").
    virtual QString kind() const { return QStringLiteral("node"); }

protected:
    CMNode(CMNodes* nodes, const CMPath& path);

    // Creates a node of type T in the registry and returns it.
    template <typename T>
    static T* createIn(CMNodes* nodes, const CMPath& path);

private:
    CMNodes* m_nodes;
    CMPath m_path;
};

#include "CMNodes.h"

template <typename T>
T* CMNode::createIn(CMNodes* nodes, const CMPath& path)
{
    T* node = new T(nodes, path);
    nodes->add(node);
    return node;
}
