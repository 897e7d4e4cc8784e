#pragma once

#include <QList>
#include <QMutex>
#include <QString>

#include <log4cplus/appender.h>
#include <log4cplus/loglevel.h>

// One captured log event.
struct CapturedLog
{
    QString logger;
    log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
    QString message;
    QString file;
    int line = 0;
    QString function;
};

// Captures every log event of the process while it exists (all loggers at
// TRACE), so tests can assert the exact messages and levels the system
// promises. Thread-safe.
class LogCapture
{
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    QList<CapturedLog> events() const;
    void clear();

    // Events with exactly this level and message (optionally of one logger).
    int count(log4cplus::LogLevel level, const QString& message, const QString& logger = QString()) const;
    // Events with this level whose message starts with / contains `text`.
    int countStartingWith(log4cplus::LogLevel level, const QString& text, const QString& logger = QString()) const;
    int countContaining(log4cplus::LogLevel level, const QString& text, const QString& logger = QString()) const;
    // Messages of one level (optionally of one logger), in order.
    QStringList messages(log4cplus::LogLevel level, const QString& logger = QString()) const;
    // For failure output: every event as "LEVEL logger: message".
    QString dump() const;
    // The capturing appender, e.g. to put a filter on it.
    log4cplus::SharedAppenderPtr appender() const { return m_appender; }

private:
    class Appender;
    log4cplus::SharedAppenderPtr m_appender;
    Appender* m_capture;
};
