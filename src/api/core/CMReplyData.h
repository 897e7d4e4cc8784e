#pragma once

#include "CMReplyAbstractData.h"

// A reply's shared state with its result.
template <typename T>
class CMReplyData : public CMReplyAbstractData
{
public:
    // Finishes with a result. No effect on a finished reply.
    void setResult(const T& result)
    {
        finishWith([&] { m_result = result; });
    }
    T result() const
    {
        QMutexLocker locker(&m_mutex);
        return m_result;
    }

private:
    T m_result{};
};
