#pragma once

#include <climits>

#include <QDeadlineTimer>
#include <QEnableSharedFromThis>
#include <QMutex>
#include <QWaitCondition>

#include "CMError.h"

// The shared state of one reply: finished flag and error, guarded by a mutex
// and a wait condition so that any thread may wait for it. A reply finishes
// once; finishing it again has no effect.
class CMReplyAbstractData : public QEnableSharedFromThis<CMReplyAbstractData>
{
public:
    virtual ~CMReplyAbstractData() = default;

    bool isFinished() const;
    bool hasError() const;
    CMError error() const;

    // Blocks until the reply is finished or `msecs` have passed (ULONG_MAX,
    // or any limit beyond a signed 64-bit count: no limit). True when the
    // reply is finished.
    bool waitForFinished(unsigned long msecs = ULONG_MAX) const;
    // The deadline waitForFinished(msecs) keeps: ULONG_MAX has no limit
    // also where unsigned long is 32 bits wide (there, as a count, it would
    // be 49.7 days).
    static QDeadlineTimer deadlineFor(unsigned long msecs);

    // Finishes with an error. No effect on a finished reply.
    void setError(const CMError& error);
    // Finishes without a result. No effect on a finished reply.
    void finish();

protected:
    // Runs `store` under the lock and finishes, unless already finished.
    template <typename Store>
    bool finishWith(Store store)
    {
        QMutexLocker locker(&m_mutex);
        if (m_finished)
            return false;
        store();
        m_finished = true;
        m_condition.wakeAll();
        return true;
    }

    mutable QMutex m_mutex;

private:
    mutable QWaitCondition m_condition;
    bool m_finished = false;
    bool m_hasError = false;
    CMError m_error;
};
