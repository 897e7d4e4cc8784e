#pragma once

#include <memory>
#include <string>

#include <log4cplus/helpers/property.h>
#include <log4cplus/layout.h>

// A pattern layout that, when its lines go to the systemd journal, starts
// each with the level's syslog priority as "<N>" (which the journal reads
// off stderr and stdout of a unit and strips), so that journalctl -p err
// shows errors, and uses a second pattern there, without a date, because
// the journal stamps every line itself.
//
// In a properties file:
//   log4cplus.appender.X.layout=TarvJournalLayout
//   log4cplus.appender.X.layout.ConversionPattern=%D{...} %-5p %c %m%n
//   log4cplus.appender.X.layout.JournalConversionPattern=%-5p %c %m%n
//   log4cplus.appender.X.layout.Journal=auto        (or true / false)
// "auto" (the default) detects the journal as systemd tells a service:
// JOURNAL_STREAM names the device and inode of the stream, compared with
// this process's stderr. Without JournalConversionPattern the journal gets
// ConversionPattern. registerFactory() (TarvLog::init calls it) makes the
// name known.
class TarvJournalLayout : public log4cplus::Layout
{
public:
    enum class Journal { Auto, Yes, No };

    TarvJournalLayout(const std::string& pattern, const std::string& journalPattern, Journal journal = Journal::Auto);
    explicit TarvJournalLayout(const log4cplus::helpers::Properties& properties);
    ~TarvJournalLayout() override;

    // Whether this layout writes for the journal (prefix and its pattern).
    bool forJournal() const { return m_forJournal; }

    void formatAndAppend(log4cplus::tostream& output, const log4cplus::spi::InternalLoggingEvent& event) override;

    // The syslog priority of a level: FATAL 2 (crit), ERROR 3 (err), WARN 4
    // (warning), INFO 6 (info), DEBUG and TRACE 7 (debug).
    static int priority(log4cplus::LogLevel level);
    // True when JOURNAL_STREAM ("device:inode") names this process's stderr.
    static bool stderrIsJournal();
    static void registerFactory();

private:
    bool m_forJournal;
    std::unique_ptr<log4cplus::PatternLayout> m_pattern;
};
