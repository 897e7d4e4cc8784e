#pragma once

#include "CMNode.h"
#include "TrString.h"

// A node the user sees: it has a title and an id.
class CMUINode : public CMNode
{
    Q_OBJECT

public:
    void setTitle(const TrString& title);
    const TrString& title() const { return m_title; }
    void setId(const QString& id);
    const QString& id() const { return m_id; }

Q_SIGNALS:
    void titleChanged(const TrString& title);

protected:
    using CMNode::CMNode;

private:
    TrString m_title;
    QString m_id;
};
