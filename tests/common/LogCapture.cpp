#include "LogCapture.h"

#include <QStringList>

#include <log4cplus/logger.h>
#include <log4cplus/spi/loggingevent.h>

#include "TarvLog.h"

class LogCapture::Appender : public log4cplus::Appender
{
public:
    ~Appender() override { destructorImpl(); }
    void close() override {}

    QList<CapturedLog> events() const
    {
        QMutexLocker locker(&m_mutex);
        return m_events;
    }
    void clear()
    {
        QMutexLocker locker(&m_mutex);
        m_events.clear();
    }

protected:
    void append(const log4cplus::spi::InternalLoggingEvent& event) override
    {
        CapturedLog captured;
        captured.logger = QString::fromStdString(event.getLoggerName());
        captured.level = event.getLogLevel();
        captured.message = QString::fromStdString(event.getMessage());
        captured.file = QString::fromStdString(event.getFile());
        captured.line = event.getLine();
        captured.function = QString::fromStdString(event.getFunction());
        QMutexLocker locker(&m_mutex);
        m_events.append(captured);
    }

private:
    mutable QMutex m_mutex;
    QList<CapturedLog> m_events;
};

LogCapture::LogCapture()
    : m_capture(new Appender)
{
    TarvLog::init();
    m_appender = log4cplus::SharedAppenderPtr(m_capture);
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    root.addAppender(m_appender);
    root.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

LogCapture::~LogCapture()
{
    log4cplus::Logger::getRoot().removeAppender(m_appender);
}

QList<CapturedLog> LogCapture::events() const
{
    return m_capture->events();
}

void LogCapture::clear()
{
    m_capture->clear();
}

namespace {
template <typename Match>
int countMatching(const QList<CapturedLog>& events, log4cplus::LogLevel level, const QString& logger, Match match)
{
    int n = 0;
    for (const CapturedLog& event : events) {
        if (event.level == level && (logger.isEmpty() || event.logger == logger) && match(event.message))
            ++n;
    }
    return n;
}
} // namespace

int LogCapture::count(log4cplus::LogLevel level, const QString& message, const QString& logger) const
{
    return countMatching(events(), level, logger, [&](const QString& m) { return m == message; });
}

int LogCapture::countStartingWith(log4cplus::LogLevel level, const QString& text, const QString& logger) const
{
    return countMatching(events(), level, logger, [&](const QString& m) { return m.startsWith(text); });
}

int LogCapture::countContaining(log4cplus::LogLevel level, const QString& text, const QString& logger) const
{
    return countMatching(events(), level, logger, [&](const QString& m) { return m.contains(text); });
}

QStringList LogCapture::messages(log4cplus::LogLevel level, const QString& logger) const
{
    QStringList list;
    for (const CapturedLog& event : events()) {
        if (event.level == level && (logger.isEmpty() || event.logger == logger))
            list.append(event.message);
    }
    return list;
}

QString LogCapture::dump() const
{
    QStringList lines;
    for (const CapturedLog& event : events())
        lines.append(QStringLiteral("%1 %2: %3").arg(event.level).arg(event.logger, event.message));
    return lines.join(QLatin1Char('\n'));
}
