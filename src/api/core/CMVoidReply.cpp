#include "CMVoidReply.h"

CMVoidReply::CMVoidReply(CMReplyAbstractData* data)
    : m_data(data ? data->sharedFromThis() : QSharedPointer<CMReplyAbstractData>())
{
}

bool CMVoidReply::isFinished() const
{
    return m_data && m_data->isFinished();
}

bool CMVoidReply::hasError() const
{
    return m_data && m_data->hasError();
}

CMError CMVoidReply::error() const
{
    return m_data ? m_data->error() : CMError();
}

bool CMVoidReply::waitForFinished(unsigned long msecs) const
{
    return m_data && m_data->waitForFinished(msecs);
}

void CMVoidReply::setError(const CMError& error) const
{
    if (m_data)
        m_data->setError(error);
}
