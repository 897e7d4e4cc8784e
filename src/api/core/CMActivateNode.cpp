#include "CMActivateNode.h"

CMActivateNode* CMActivateNode::create(CMNodes* nodes, const CMPath& path)
{
    return createIn<CMActivateNode>(nodes, path);
}

void CMActivateNode::activate(const CMSetDataRequest& request)
{
    if (!m_bound) {
        request.setError(CMError(TrString(QStringLiteral("No handler for ") + path().toString())));
        return;
    }
    Q_EMIT invokeRequested(request, QPrivateSignal());
}
