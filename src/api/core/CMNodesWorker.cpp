#include "CMNodesWorker.h"

CMNodesWorker::CMNodesWorker(const QVariantHash& settings, const QString& name)
    : CMWorker(settings, name), m_nodes(new CMNodes(this))
{
}
