#include "TarvJournalLayout.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ostream>

#include <log4cplus/helpers/loglog.h>
#include <log4cplus/spi/factory.h>
#include <log4cplus/spi/loggingevent.h>

namespace {

TarvJournalLayout::Journal journalSetting(const log4cplus::helpers::Properties& properties)
{
    const std::string value = properties.getProperty("Journal", "auto");
    if (value == "true")
        return TarvJournalLayout::Journal::Yes;
    if (value == "false")
        return TarvJournalLayout::Journal::No;
    if (value != "auto")
        log4cplus::helpers::getLogLog().warn("TarvJournalLayout: Journal must be auto, true or false, got '" + value
                                             + "'; using auto");
    return TarvJournalLayout::Journal::Auto;
}

} // namespace

TarvJournalLayout::TarvJournalLayout(const std::string& pattern, const std::string& journalPattern, Journal journal)
    : m_forJournal(journal == Journal::Yes || (journal == Journal::Auto && stderrIsJournal()))
    , m_pattern(std::make_unique<log4cplus::PatternLayout>(m_forJournal ? journalPattern : pattern))
{
}

TarvJournalLayout::TarvJournalLayout(const log4cplus::helpers::Properties& properties)
    : TarvJournalLayout(properties.getProperty("ConversionPattern", "%-5p %c %m%n"),
                        properties.getProperty("JournalConversionPattern",
                                               properties.getProperty("ConversionPattern", "%-5p %c %m%n")),
                        journalSetting(properties))
{
}

TarvJournalLayout::~TarvJournalLayout() = default;

void TarvJournalLayout::formatAndAppend(log4cplus::tostream& output, const log4cplus::spi::InternalLoggingEvent& event)
{
    if (m_forJournal) {
        const char prefix[] = {'<', static_cast<char>('0' + priority(event.getLogLevel())), '>'};
        output.write(prefix, sizeof prefix);
    }
    m_pattern->formatAndAppend(output, event);
}

int TarvJournalLayout::priority(log4cplus::LogLevel level)
{
    if (level >= log4cplus::FATAL_LOG_LEVEL)
        return 2;
    if (level >= log4cplus::ERROR_LOG_LEVEL)
        return 3;
    if (level >= log4cplus::WARN_LOG_LEVEL)
        return 4;
    if (level >= log4cplus::INFO_LOG_LEVEL)
        return 6;
    return 7;
}

bool TarvJournalLayout::stderrIsJournal()
{
    // A child that inherits JOURNAL_STREAM but not the stream (stderr
    // redirected to a file) must not write prefixes into that file.
    const char* stream = std::getenv("JOURNAL_STREAM");
    if (!stream)
        return false;
    unsigned long long device = 0, inode = 0;
    char end = 0;
    if (std::sscanf(stream, "%llu:%llu%c", &device, &inode, &end) != 2)
        return false;
    struct stat status {};
    if (fstat(STDERR_FILENO, &status) != 0)
        return false;
    return static_cast<unsigned long long>(status.st_dev) == device
        && static_cast<unsigned long long>(status.st_ino) == inode;
}

void TarvJournalLayout::registerFactory()
{
    static const bool registered = log4cplus::spi::getLayoutFactoryRegistry().put(
        std::unique_ptr<log4cplus::spi::LayoutFactory>(
            new log4cplus::spi::FactoryTempl<TarvJournalLayout, log4cplus::spi::LayoutFactory>("TarvJournalLayout")));
    (void)registered;
}
