#include "CMSetDataRequest.h"

struct CMSetDataRequest::Data
{
    CMPath path;
    QVariant value;
    CMReply<QVariant> reply;

    ~Data() { reply.data()->finish(); }
};

CMSetDataRequest::CMSetDataRequest(const CMPath& path, const QVariant& value, const CMReply<QVariant>& reply)
    : m_data(new Data{path, value, reply})
{
}

const CMSetDataRequest::Data& CMSetDataRequest::data() const
{
    if (!m_data)
        qt_assert("request data", __FILE__, __LINE__);
    return *m_data;
}

CMPath CMSetDataRequest::path() const
{
    return data().path;
}

QVariant CMSetDataRequest::value() const
{
    return data().value;
}

CMReply<QVariant> CMSetDataRequest::reply() const
{
    return data().reply;
}

CMVoidReply CMSetDataRequest::voidReply() const
{
    return CMVoidReply(data().reply.data());
}

void CMSetDataRequest::setResult(const QVariant& result) const
{
    data().reply.setResult(result);
}

void CMSetDataRequest::setError(const CMError& error) const
{
    data().reply.setError(error);
}
