#include "CMNode.h"

CMNode::CMNode(CMNodes* nodes, const CMPath& path)
    : QObject(nullptr), m_nodes(nodes), m_path(path)
{
}
