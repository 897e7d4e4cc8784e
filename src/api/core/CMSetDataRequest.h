#pragma once

#include <QMetaType>
#include <QSharedPointer>
#include <QVariant>

#include "CMPath.h"
#include "CMReply.h"
#include "CMVoidReply.h"

// What an action handler receives: the path, the value it was invoked with
// and the caller's reply. A shared handle: empty until assigned, copies share
// one request. When the last copy goes away without an answer the reply is
// finished without a result, so a caller never waits on a handler that
// simply returned.
class CMSetDataRequest
{
public:
    CMSetDataRequest() = default;
    CMSetDataRequest(const CMPath& path, const QVariant& value, const CMReply<QVariant>& reply);

    bool isEmpty() const { return m_data.isNull(); }

    // Using an empty request is a host programming error and ends the process.
    CMPath path() const;
    QVariant value() const;
    CMReply<QVariant> reply() const;
    CMVoidReply voidReply() const;

    // Completes the request with a result / fails it; the first answer wins.
    void setResult(const QVariant& result) const;
    void setError(const CMError& error) const;

private:
    struct Data;
    const Data& data() const;

    QSharedPointer<Data> m_data;
};

Q_DECLARE_METATYPE(CMSetDataRequest)
