#include "TarvRepeatFilter.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <set>
#include <vector>

#include <log4cplus/helpers/loglog.h>
#include <log4cplus/logger.h>
#include <log4cplus/spi/factory.h>
#include <log4cplus/spi/loggingevent.h>

#include "TarvLog.h"

namespace {

// Why a filter's decide() is being called on this thread by the filter
// itself: a tick of its flusher, or one of its own summaries passing
// through the appender. Anything else is a line to limit.
enum class Pass { Line, Tick, Summary };
thread_local const TarvRepeatFilter* t_filter = nullptr;
thread_local Pass t_pass = Pass::Line;
// The call site of the line being logged on this thread, as the macros'
// gate noted it; checked against the event, since a line logged without the
// macros (Qt's messages) has none.
thread_local TarvLog::CallSite* t_site = nullptr;
// The one filter whose denials may block call sites: only when it sees
// every line the configuration writes (it is the only appender's first
// filter) does a line it denies go nowhere else.
std::atomic<const TarvRepeatFilter*> s_gateFilter{nullptr};

void changeGateFilter(const TarvRepeatFilter* filter)
{
    s_gateFilter.store(filter);
    TarvLog::gateGeneration.fetch_add(1);
}

class PassScope
{
public:
    PassScope(const TarvRepeatFilter* filter, Pass pass)
        : m_filter(t_filter)
        , m_pass(t_pass)
    {
        t_filter = filter;
        t_pass = pass;
    }
    ~PassScope()
    {
        t_filter = m_filter;
        t_pass = m_pass;
    }
    PassScope(const PassScope&) = delete;
    PassScope& operator=(const PassScope&) = delete;

private:
    const TarvRepeatFilter* m_filter;
    Pass m_pass;
};

// A message's first words are enough to tell its kind; scanning further
// would make a long message cost more to suppress.
constexpr std::size_t MaxConstantPart = 120;

// Hashes bytes a word at a time: a suppressed line's whole cost is a few
// hundred instructions, so a byte-wise hash of its logger and text would be
// a large part of it. 64 bits: two kinds that collide would share a limit,
// at odds of about one in 10^16 per pair.
std::uint64_t mix(std::uint64_t hash, std::uint64_t word)
{
    hash ^= word;
    hash *= UINT64_C(0x9E3779B97F4A7C15);
    return hash ^ (hash >> 32);
}

std::uint64_t hashBytes(std::uint64_t hash, const char* bytes, std::size_t size)
{
    std::size_t i = 0;
    for (; i + 8 <= size; i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes + i, 8);
        hash = mix(hash, word);
    }
    std::uint64_t tail = size;
    for (; i < size; ++i)
        tail = (tail << 8) | static_cast<unsigned char>(bytes[i]);
    return mix(hash, tail);
}

int positiveProperty(const log4cplus::helpers::Properties& properties, const char* key, int fallback)
{
    if (!properties.exists(key))
        return fallback;
    const std::string& text = properties.getProperty(key);
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || value <= 0 || value > 1000000000L) {
        log4cplus::helpers::getLogLog().warn("TarvRepeatFilter: " + std::string(key) + " must be a positive number, got '"
                                             + text + "'; using " + std::to_string(fallback));
        return fallback;
    }
    return static_cast<int>(value);
}

// Every live filter, so that their threads are stopped at exit before
// log4cplus's own static objects go: a flusher writing a summary then would
// use an appender being torn down.
struct Registry
{
    std::mutex mutex;
    std::set<TarvRepeatFilter*> filters;
};

Registry& registry()
{
    static Registry* const instance = [] {
        std::atexit([] {
            Registry& r = registry();
            std::vector<TarvRepeatFilter*> live;
            {
                std::lock_guard<std::mutex> lock(r.mutex);
                live.assign(r.filters.begin(), r.filters.end());
            }
            for (TarvRepeatFilter* filter : live)
                filter->attach(nullptr);
        });
        return new Registry;
    }();
    return *instance;
}

} // namespace

namespace TarvLog {

std::atomic<std::uint64_t> gateGeneration{1};

void noteCallSite(CallSite& site, const char* file, int line)
{
    if (!s_gateFilter.load(std::memory_order_relaxed))
        return;
    site.file = file;
    site.line = line;
    t_site = &site;
}

} // namespace TarvLog

TarvRepeatFilter::TarvRepeatFilter(int maxPerInterval, int intervalMs)
    : m_maxPerInterval(std::max(1, maxPerInterval))
    , m_intervalMs(std::max(1, intervalMs))
    , m_interval(std::chrono::milliseconds(m_intervalMs))
{
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.filters.insert(this);
}

TarvRepeatFilter::TarvRepeatFilter(const log4cplus::helpers::Properties& properties)
    : TarvRepeatFilter(positiveProperty(properties, "MaxPerInterval", DefaultMaxPerInterval),
                       positiveProperty(properties, "IntervalMs", DefaultIntervalMs))
{
}

TarvRepeatFilter::~TarvRepeatFilter()
{
    attach(nullptr);
    Registry& r = registry();
    std::lock_guard<std::mutex> lock(r.mutex);
    r.filters.erase(this);
}

void TarvRepeatFilter::attach(log4cplus::Appender* appender)
{
    if (s_gateFilter.load() == this)
        changeGateFilter(nullptr);
    // The old flusher ends first: it may be writing to the old appender.
    {
        std::lock_guard<std::mutex> lock(m_flusherMutex);
        m_stopping = true;
    }
    m_flusherWake.notify_all();
    if (m_flusher.joinable() && m_flusher.get_id() != std::this_thread::get_id())
        m_flusher.join();
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_appender = appender;
    }
    if (!appender)
        return;
    {
        std::lock_guard<std::mutex> lock(m_flusherMutex);
        m_stopping = false;
    }
    m_flusher = std::thread(&TarvRepeatFilter::runFlusher, this);
    // Windows that were counting before stay due.
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& entry : m_kinds) {
        if (entry.second.suppressed > 0)
            wakeFlusherBy(entry.second.windowEnd);
    }
}

std::size_t TarvRepeatFilter::constantPartLength(const std::string& message)
{
    const std::size_t limit = std::min(message.size(), MaxConstantPart);
    std::size_t wordStart = 0;
    for (std::size_t i = 0; i < limit; ++i) {
        const char c = message[i];
        if (c == ' ') {
            wordStart = i + 1;
        } else if ((c >= '0' && c <= '9') || c == '"' || c == '\'' || c == '{' || c == '[' || c == '(' || c == '<') {
            return wordStart;
        }
    }
    return limit;
}

std::uint64_t TarvRepeatFilter::keyOf(const log4cplus::spi::InternalLoggingEvent& event, bool withMessage) const
{
    // A kind is a call site: one log statement is one message written by
    // one developer, and whatever varies between its lines (numbers,
    // addresses, records, error texts) is its variable part, so no guess
    // about where that part starts is needed, and two statements with the
    // same text stay apart. Lines without a site (Qt's own messages in a
    // release build, or when the sites are full) are told apart by their
    // text up to the first variable-looking word.
    std::uint64_t hash = mix(static_cast<std::uint64_t>(event.getLogLevel()),
                             static_cast<std::uint64_t>(static_cast<std::uint32_t>(event.getLine())));
    hash = hashBytes(hash, event.getLoggerName().data(), event.getLoggerName().size());
    if (!withMessage)
        return hash;
    const std::string& file = event.getFile();
    if (event.getLine() > 0 && !file.empty())
        return hashBytes(hash, file.data(), file.size());
    const std::string& message = event.getMessage();
    return hashBytes(hash ^ 1, message.data(), constantPartLength(message));
}

TarvRepeatFilter::Kind& TarvRepeatFilter::kindFor(const log4cplus::spi::InternalLoggingEvent& event,
                                                  Clock::time_point now) const
{
    std::uint64_t key = keyOf(event, true);
    auto found = m_kinds.find(key);
    if (found != m_kinds.end())
        return found->second;
    if (m_kinds.size() >= static_cast<std::size_t>(MaxKinds)) {
        for (auto it = m_kinds.begin(); it != m_kinds.end();) {
            if (it->second.suppressed == 0 && it->second.windowEnd <= now)
                it = m_kinds.erase(it);
            else
                ++it;
        }
        // Still full: this line shares the kind of its logger and level,
        // so the number of kinds stays bounded by loggers times levels.
        if (m_kinds.size() >= static_cast<std::size_t>(MaxKinds))
            key = keyOf(event, false);
    }
    return m_kinds[key];
}

log4cplus::spi::FilterResult TarvRepeatFilter::decide(const log4cplus::spi::InternalLoggingEvent& event) const
{
    if (t_filter == this) {
        if (t_pass == Pass::Summary)
            return log4cplus::spi::NEUTRAL;
        flushEnded(Clock::now());
        return log4cplus::spi::DENY;
    }

    TarvLog::CallSite* site = t_site;
    t_site = nullptr;
    if (site && (site->line != event.getLine() || !site->file || event.getFile() != site->file))
        site = nullptr;
    const Clock::time_point now = Clock::now();
    std::lock_guard<std::mutex> lock(m_mutex);
    Kind& kind = kindFor(event, now);
    if (kind.written > 0 && now < kind.windowEnd) {
        if (kind.written < m_maxPerInterval) {
            ++kind.written;
            return log4cplus::spi::NEUTRAL;
        }
        if (kind.suppressed++ == 0)
            wakeFlusherBy(kind.windowEnd);
        // The rest of the window's lines from this site need not be built:
        // the gate counts them until the flusher ends the window.
        if (site && s_gateFilter.load(std::memory_order_relaxed) == this) {
            kind.site = site;
            site->blocked.store(TarvLog::gateGeneration.load(), std::memory_order_release);
        }
        return log4cplus::spi::DENY;
    }
    // A new window opens with this line; what the last one held back is
    // told first, so the summary precedes the lines after it.
    releaseSite(kind);
    if (kind.suppressed > 0)
        writeSummary(kind);
    // A line the gate counted just as the flusher released its site is
    // told with this window.
    if (site) {
        kind.suppressed += site->gated.exchange(0);
        if (kind.suppressed > 0)
            wakeFlusherBy(now + m_interval);
    }
    kind.logger = event.getLoggerName();
    kind.level = event.getLogLevel();
    kind.file = event.getFile();
    kind.line = event.getLine();
    kind.function = event.getFunction();
    kind.firstMessage = event.getMessage();
    kind.windowEnd = now + m_interval;
    kind.written = 1;
    return log4cplus::spi::NEUTRAL;
}

void TarvRepeatFilter::releaseSite(Kind& kind) const
{
    if (!kind.site)
        return;
    kind.site->blocked.store(0, std::memory_order_release);
    kind.suppressed += kind.site->gated.exchange(0);
    kind.site = nullptr;
}

void TarvRepeatFilter::writeSummary(Kind& kind) const
{
    if (m_appender) {
        const std::string message = "Suppressed " + std::to_string(kind.suppressed) + " similar lines in "
            + std::to_string(m_intervalMs) + " ms: " + kind.firstMessage;
        const log4cplus::spi::InternalLoggingEvent summary(kind.logger, kind.level, message, kind.file.c_str(),
                                                           kind.line, kind.function.c_str());
        const PassScope scope(this, Pass::Summary);
        m_appender->doAppend(summary);
    }
    kind.suppressed = 0;
}

void TarvRepeatFilter::flushEnded(Clock::time_point now) const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    Clock::time_point next = Clock::time_point::max();
    for (auto& entry : m_kinds) {
        Kind& kind = entry.second;
        if (kind.suppressed == 0)
            continue;
        if (kind.windowEnd <= now) {
            releaseSite(kind);
            writeSummary(kind);
            // The next line of this kind opens a window of its own.
            kind.written = 0;
        } else {
            next = std::min(next, kind.windowEnd);
        }
    }
    std::lock_guard<std::mutex> flusherLock(m_flusherMutex);
    m_flusherDeadline = next;
}

void TarvRepeatFilter::wakeFlusherBy(Clock::time_point deadline) const
{
    {
        std::lock_guard<std::mutex> lock(m_flusherMutex);
        if (deadline >= m_flusherDeadline)
            return;
        m_flusherDeadline = deadline;
    }
    m_flusherWake.notify_one();
}

void TarvRepeatFilter::runFlusher()
{
    std::unique_lock<std::mutex> lock(m_flusherMutex);
    while (!m_stopping) {
        if (m_flusherDeadline == Clock::time_point::max()) {
            m_flusherWake.wait(lock);
            continue;
        }
        if (Clock::now() < m_flusherDeadline) {
            m_flusherWake.wait_until(lock, m_flusherDeadline);
            continue;
        }
        m_flusherDeadline = Clock::time_point::max();
        lock.unlock();
        // Through the appender, so that its lock orders the summaries with
        // the lines other threads write. FATAL passes any threshold but OFF.
        log4cplus::Appender* appender = nullptr;
        {
            std::lock_guard<std::mutex> stateLock(m_mutex);
            appender = m_appender;
        }
        if (appender) {
            const log4cplus::spi::InternalLoggingEvent tick("TarvRepeatFilter", log4cplus::FATAL_LOG_LEVEL,
                                                            std::string(), nullptr, 0);
            const PassScope scope(this, Pass::Tick);
            appender->doAppend(tick);
        }
        lock.lock();
    }
}

void TarvRepeatFilter::registerFactory()
{
    static const bool registered = log4cplus::spi::getFilterFactoryRegistry().put(
        std::unique_ptr<log4cplus::spi::FilterFactory>(
            new log4cplus::spi::FactoryTempl<TarvRepeatFilter, log4cplus::spi::FilterFactory>("TarvRepeatFilter")));
    (void)registered;
}

void TarvRepeatFilter::attachToAppenders()
{
    std::vector<log4cplus::Logger> loggers = log4cplus::Logger::getCurrentLoggers();
    loggers.push_back(log4cplus::Logger::getRoot());
    std::set<log4cplus::Appender*> appenders;
    for (log4cplus::Logger& logger : loggers) {
        for (const log4cplus::SharedAppenderPtr& appender : logger.getAllAppenders()) {
            if (!appenders.insert(appender.get()).second)
                continue;
            for (log4cplus::spi::FilterPtr filter = appender->getFilter(); filter; filter = filter->next) {
                if (auto* repeat = dynamic_cast<TarvRepeatFilter*>(filter.get()))
                    repeat->attach(appender.get());
            }
        }
    }
    // Call sites may be blocked only when a denied line has no other way
    // out: one appender, with this filter first.
    const TarvRepeatFilter* gate = nullptr;
    if (appenders.size() == 1)
        gate = dynamic_cast<const TarvRepeatFilter*>((*appenders.begin())->getFilter().get());
    changeGateFilter(gate);
}
