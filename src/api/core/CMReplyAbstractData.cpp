#include "CMReplyAbstractData.h"

#include <climits>

#include <QDeadlineTimer>

bool CMReplyAbstractData::isFinished() const
{
    QMutexLocker locker(&m_mutex);
    return m_finished;
}

bool CMReplyAbstractData::hasError() const
{
    QMutexLocker locker(&m_mutex);
    return m_hasError;
}

CMError CMReplyAbstractData::error() const
{
    QMutexLocker locker(&m_mutex);
    return m_error;
}

bool CMReplyAbstractData::waitForFinished(unsigned long msecs) const
{
    QMutexLocker locker(&m_mutex);
    // Limits a signed millisecond count cannot hold mean "no limit"; cast,
    // they would turn negative and read as an already passed deadline.
    const QDeadlineTimer deadline = msecs > static_cast<unsigned long>(LLONG_MAX)
        ? QDeadlineTimer(QDeadlineTimer::Forever)
        : QDeadlineTimer(static_cast<qint64>(msecs));
    while (!m_finished) {
        if (!m_condition.wait(&m_mutex, deadline))
            return m_finished;
    }
    return true;
}

void CMReplyAbstractData::setError(const CMError& error)
{
    finishWith([&] {
        m_error = error;
        m_hasError = true;
    });
}

void CMReplyAbstractData::finish()
{
    finishWith([] {});
}
