#include "CMReplyAbstractData.h"

#include <climits>
#include <limits>

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

QDeadlineTimer CMReplyAbstractData::deadlineFor(unsigned long msecs)
{
    // ULONG_MAX is the "no limit" of every waiting call here, whatever the
    // width of unsigned long; a 32-bit one fits a signed 64-bit count and
    // would otherwise become a deadline weeks away.
    if (msecs == ULONG_MAX)
        return QDeadlineTimer(QDeadlineTimer::Forever);
    // Limits a signed millisecond count cannot hold (a 64-bit unsigned long
    // only) mean "no limit" too; cast, they would turn negative and read as
    // an already passed deadline. Compared as unsigned 64-bit values, so
    // that a 32-bit build has no always-false comparison.
    if (static_cast<quint64>(msecs) > static_cast<quint64>(std::numeric_limits<qint64>::max()))
        return QDeadlineTimer(QDeadlineTimer::Forever);
    return QDeadlineTimer(static_cast<qint64>(msecs));
}

bool CMReplyAbstractData::waitForFinished(unsigned long msecs) const
{
    QMutexLocker locker(&m_mutex);
    const QDeadlineTimer deadline = deadlineFor(msecs);
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
