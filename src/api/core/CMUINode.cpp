#include "CMUINode.h"

void CMUINode::setTitle(const TrString& title)
{
    if (title == m_title)
        return;
    m_title = title;
    Q_EMIT titleChanged(m_title);
}

void CMUINode::setId(const QString& id)
{
    m_id = id;
}
