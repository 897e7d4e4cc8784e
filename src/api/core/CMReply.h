#pragma once

#include <climits>

#include <QSharedPointer>
#include <QVariant>

#include "CMReplyData.h"

// A handle on one reply's shared state; copies share it. Every default-made
// reply is a fresh one.
template <typename T>
class CMReply
{
public:
    CMReply() : m_data(QSharedPointer<CMReplyData<T>>::create()) {}

    void setResult(const T& result) const { m_data->setResult(result); }
    void setError(const CMError& error) const { m_data->setError(error); }
    T result() const { return m_data->result(); }
    CMError error() const { return m_data->error(); }
    bool hasError() const { return m_data->hasError(); }
    bool isFinished() const { return m_data->isFinished(); }
    bool waitForFinished(unsigned long msecs = ULONG_MAX) const { return m_data->waitForFinished(msecs); }

    CMReplyData<T>* data() const { return m_data.data(); }

private:
    QSharedPointer<CMReplyData<T>> m_data;
};
