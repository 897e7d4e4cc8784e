#pragma once

#include <ostream>

#include <QByteArray>
#include <QString>
#include <QVariant>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>

// Streaming of Qt values into log4cplus messages (log4cplus streams are
// std::ostream). Records, paths and texts bring their own operator<<.
std::ostream& operator<<(std::ostream& out, const QString& text);
std::ostream& operator<<(std::ostream& out, const QByteArray& bytes);
std::ostream& operator<<(std::ostream& out, const QVariant& value);

namespace TarvLog {

// The logger of one class; every class logs under its own name.
log4cplus::Logger logger(const char* className);

// Configures log4cplus for the process. With a readable properties file its
// settings rule; without one every logger writes INFO and above to stderr
// with time, level, logger, source file, line and function.
// log4cplus accepts a file that leaves the root logger without a valid level
// and then throws on the first message; such a file is refused: init()
// returns false with the reason in `problem` and applies the default
// configuration, so logging stays safe.
bool init(const QString& propertiesFile = QString(), QString* problem = nullptr);

// The layout pattern used by the default configuration: date and time to
// the millisecond, level, logger, [file:line function], message.
QString defaultPattern();

// Reads a level name as log4cplus writes it (TRACE, DEBUG, INFO, WARN,
// ERROR, FATAL, OFF; any case). False for anything else.
bool parseLevel(const QString& name, log4cplus::LogLevel* level);

// Sets the root logger's level, over what init() configured.
void setRootLevel(log4cplus::LogLevel level);

// Sends Qt's own messages (qDebug ... qFatal, and Qt's warnings) through
// log4cplus, to the logger "Qt", so that one configuration governs both.
void installQtMessageHandler();

} // namespace TarvLog
