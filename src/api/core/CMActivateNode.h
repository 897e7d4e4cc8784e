#pragma once

#include "CMSetDataRequest.h"
#include "CMUINode.h"
#include "TarvConnect.h"

// An action node. Activations (through the root worker's invoke) reach the
// slot bound with setInvoke as a CMSetDataRequest; the handler answers on
// the request. An activation with no handler bound is failed at once.
class CMActivateNode : public CMUINode
{
    Q_OBJECT

public:
    static CMActivateNode* create(CMNodes* nodes, const CMPath& path);

    QString kind() const override { return QStringLiteral("action"); }

    template <typename Receiver, typename Method>
    QMetaObject::Connection setInvoke(const Receiver* receiver, Method method,
                                      Qt::ConnectionType type = Qt::QueuedConnection)
    {
        m_bound = true;
        return tarvConnect(this, &CMActivateNode::invokeRequested, receiver, method, type);
    }

    // Delivers one activation to the bound handler. Call on the node's thread.
    void activate(const CMSetDataRequest& request);

Q_SIGNALS:
    void invokeRequested(const CMSetDataRequest& request, QPrivateSignal);

private:
    friend class CMNode;
    using CMUINode::CMUINode;

    bool m_bound = false;
};
