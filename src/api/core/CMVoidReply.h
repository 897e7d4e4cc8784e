#pragma once

#include <climits>

#include <QSharedPointer>

#include "CMReplyAbstractData.h"

// What setValue and invoke return: a result-less view on the caller's reply.
// It keeps the reply's state alive as long as it exists.
class CMVoidReply
{
public:
    explicit CMVoidReply(CMReplyAbstractData* data);

    bool isNull() const { return m_data.isNull(); }
    bool isFinished() const;
    bool hasError() const;
    CMError error() const;
    bool waitForFinished(unsigned long msecs = ULONG_MAX) const;
    void setError(const CMError& error) const;

private:
    QSharedPointer<CMReplyAbstractData> m_data;
};
