#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <unordered_map>

#include <log4cplus/appender.h>
#include <log4cplus/helpers/property.h>
#include <log4cplus/spi/filter.h>

namespace TarvLog {
struct CallSite;
}

// A log4cplus filter that bounds how often one kind of line is written: each
// kind (same logger, level and call site; for lines without a site, such as
// Qt's, the same constant part of the message, see constantPartLength())
// is passed at most maxPerInterval() times in a
// window of intervalMs() that opens with its first line; further lines of the
// window are denied (no layout, no write) and counted. When the window has
// ended, one line of the same logger, level and call site says how many were
// suppressed: "Suppressed N similar lines in M ms: <first line's message>".
// It comes before the next line of that kind, or at the latest about when
// the window ends (a thread of the filter's own wakes for it). A kind's
// first lines are never held back, so a single line at any level is always
// written.
//
// In a properties file, as the first filter of an appender:
//   log4cplus.appender.X.filters.1=TarvRepeatFilter
//   log4cplus.appender.X.filters.1.MaxPerInterval=10
//   log4cplus.appender.X.filters.1.IntervalMs=10000
// registerFactory() makes the name known; attachToAppenders() (TarvLog::init
// calls both) tells each such filter the appender its summaries go to.
// When that appender is the configuration's only one, lines of a suppressed
// call site are counted by the logging macros' gate (TarvLog::CallSite)
// before their message is built, and never reach the filter until the
// window ends.
class TarvRepeatFilter : public log4cplus::spi::Filter
{
public:
    static constexpr int DefaultMaxPerInterval = 10;
    static constexpr int DefaultIntervalMs = 10000;
    // Kinds tracked at once; beyond this, lines of one logger and level that
    // are not yet tracked share one kind, so a flood of ever new texts stays
    // bounded in memory and in log.
    static constexpr int MaxKinds = 1024;

    TarvRepeatFilter(int maxPerInterval, int intervalMs);
    // MaxPerInterval and IntervalMs (positive numbers; the defaults otherwise).
    explicit TarvRepeatFilter(const log4cplus::helpers::Properties& properties);
    ~TarvRepeatFilter() override;
    TarvRepeatFilter(const TarvRepeatFilter&) = delete;
    TarvRepeatFilter& operator=(const TarvRepeatFilter&) = delete;

    int maxPerInterval() const { return m_maxPerInterval; }
    int intervalMs() const { return m_intervalMs; }

    // The appender that summaries are written to: the one this filter sits
    // on. Without one, lines are still limited but no summary is written.
    void attach(log4cplus::Appender* appender);

    log4cplus::spi::FilterResult decide(const log4cplus::spi::InternalLoggingEvent& event) const override;

    // Makes "TarvRepeatFilter" usable in log4cplus properties files.
    static void registerFactory();
    // Attaches every TarvRepeatFilter on an appender of the current
    // configuration to that appender.
    static void attachToAppenders();

    // The length of the message's constant part: everything before the first
    // word holding a digit, a quote or an opening bracket, where numbers,
    // addresses, identifiers, quoted names and records begin. Capped, so a
    // long message costs a bounded scan.
    static std::size_t constantPartLength(const std::string& message);

private:
    using Clock = std::chrono::steady_clock;

    struct Kind
    {
        std::string logger;
        log4cplus::LogLevel level = log4cplus::NOT_SET_LOG_LEVEL;
        std::string file;
        int line = 0;
        std::string function;
        std::string firstMessage;
        Clock::time_point windowEnd;
        int written = 0;
        std::int64_t suppressed = 0;
        // The call site blocked while this kind's window lasts.
        TarvLog::CallSite* site = nullptr;
    };

    std::uint64_t keyOf(const log4cplus::spi::InternalLoggingEvent& event, bool withMessage) const;
    Kind& kindFor(const log4cplus::spi::InternalLoggingEvent& event, Clock::time_point now) const;
    void releaseSite(Kind& kind) const;
    void writeSummary(Kind& kind) const;
    void flushEnded(Clock::time_point now) const;
    void wakeFlusherBy(Clock::time_point deadline) const;
    void runFlusher();

    const int m_maxPerInterval;
    const int m_intervalMs;
    const Clock::duration m_interval;

    // Taken by decide(), always with the appender's lock already held (the
    // flusher enters through the appender too), so summaries and lines are
    // written in one order.
    mutable std::mutex m_mutex;
    mutable std::unordered_map<std::uint64_t, Kind> m_kinds;
    log4cplus::Appender* m_appender = nullptr;

    // When the flusher next has to look for ended windows.
    mutable std::mutex m_flusherMutex;
    mutable std::condition_variable m_flusherWake;
    mutable Clock::time_point m_flusherDeadline = Clock::time_point::max();
    bool m_stopping = false;
    std::thread m_flusher;
};
