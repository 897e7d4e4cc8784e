#pragma once

#include "CMNodes.h"
#include "CMWorker.h"

// A worker with a node registry of its own (a child of the worker).
class CMNodesWorker : public CMWorker
{
    Q_OBJECT

public:
    CMNodesWorker(const QVariantHash& settings, const QString& name);

    CMNodes* nodes() const { return m_nodes; }

private:
    CMNodes* m_nodes;
};
