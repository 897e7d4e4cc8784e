#pragma once

#include <atomic>
#include <cstdint>
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
// with time, level, logger, source file, line and function, each kind of
// line at most TarvRepeatFilter's default times per interval, and, when
// stderr is the systemd journal, with the level's priority prefix and
// without the time (TarvJournalLayout). Properties files can name
// TarvRepeatFilter and TarvJournalLayout.
// log4cplus accepts a file that leaves the root logger without a valid level
// and then throws on the first message; such a file is refused: init()
// returns false with the reason in `problem` and applies the default
// configuration, so logging stays safe.
bool init(const QString& propertiesFile = QString(), QString* problem = nullptr);

// The layout pattern used by the default configuration: date and time to
// the millisecond, level, logger, [file:line function], message.
QString defaultPattern();
// The pattern of the default configuration when stderr is the journal,
// which stamps each line itself: defaultPattern() without the date.
QString defaultJournalPattern();

// Reads a level name as log4cplus writes it (TRACE, DEBUG, INFO, WARN,
// ERROR, FATAL, OFF; any case). False for anything else.
bool parseLevel(const QString& name, log4cplus::LogLevel* level);

// Sets the root logger's level, over what init() configured.
void setRootLevel(log4cplus::LogLevel level);

// Sends Qt's own messages (qDebug ... qFatal, and Qt's warnings) through
// log4cplus, to the logger "Qt", so that one configuration governs both.
void installQtMessageHandler();

// The state of one LOG4CPLUS_* call site, for TarvRepeatFilter: when the
// filter is the only way out of the configuration and is suppressing this
// site's lines, the site is "blocked" and its lines are only counted, before
// their message is built. Statics made by the macros below; not for direct
// use.
struct CallSite
{
    // The gate generation (see gateGeneration) in which the site is
    // blocked; 0 for none.
    std::atomic<std::uint64_t> blocked{0};
    // Lines counted while blocked, for the filter's summary.
    std::atomic<std::int64_t> gated{0};
    const char* file = nullptr;
    int line = 0;
};

// Changes whenever the filter that may block call sites changes, which
// unblocks every site at once.
extern std::atomic<std::uint64_t> gateGeneration;

// Tells the filter which call site the line about to be logged on this
// thread comes from.
void noteCallSite(CallSite& site, const char* file, int line);

// False when the site's lines are being suppressed (the line is counted);
// the macros then skip building the message and the log event.
inline bool passesCallSite(CallSite& site, const char* file, int line)
{
    if (site.blocked.load(std::memory_order_acquire) == gateGeneration.load(std::memory_order_acquire)) {
        site.gated.fetch_add(1, std::memory_order_relaxed);
        return false;
    }
    noteCallSite(site, file, line);
    return true;
}

} // namespace TarvLog

// log4cplus's macros test the logger's level through this predicate; the
// call site's gate is added after it (only for enabled levels). A line that
// TarvRepeatFilter would suppress then costs a few instructions instead of
// a message, a log event and a pass through the appender. The lambda gives
// every macro use a CallSite of its own.
#undef LOG4CPLUS_MACRO_LOGLEVEL_PRED
#define LOG4CPLUS_MACRO_LOGLEVEL_PRED(pred, logLevel)                                                              \
    (LOG4CPLUS_MACRO_##logLevel(pred)                                                                             \
     && TarvLog::passesCallSite(                                                                                  \
         []() -> TarvLog::CallSite& {                                                                             \
             static TarvLog::CallSite site;                                                                       \
             return site;                                                                                         \
         }(),                                                                                                     \
         __FILE__, __LINE__))
