#include "TarvLog.h"

#include <cstdio>
#include <cstdlib>
#include <iostream>

#include <QFileInfo>
#include <QStringList>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/loglevel.h>

#include "TarvJournalLayout.h"
#include "TarvRepeatFilter.h"

std::ostream& operator<<(std::ostream& out, const QString& text)
{
    return out << text.toUtf8().constData();
}

std::ostream& operator<<(std::ostream& out, const QByteArray& bytes)
{
    return out.write(bytes.constData(), bytes.size());
}

std::ostream& operator<<(std::ostream& out, const QVariant& value)
{
    return out << value.toString();
}

// Never deleted, and reachable through this name with external linkage so
// that neither the optimiser nor a leak checker loses it.
log4cplus::Initializer* tarvLogInitializer = nullptr;

namespace TarvLog {

log4cplus::Logger logger(const char* className)
{
    return log4cplus::Logger::getInstance(className);
}

QString defaultPattern()
{
    return QStringLiteral("%D{%Y-%m-%d %H:%M:%S.%q} %-5p %c [%b:%L %M] %m%n");
}

QString defaultJournalPattern()
{
    return QStringLiteral("%-5p %c [%b:%L %M] %m%n");
}

bool parseLevel(const QString& name, log4cplus::LogLevel* level)
{
    static const QStringList names = {QStringLiteral("TRACE"), QStringLiteral("DEBUG"), QStringLiteral("INFO"),
                                      QStringLiteral("WARN"),  QStringLiteral("ERROR"), QStringLiteral("FATAL"),
                                      QStringLiteral("OFF")};
    static const log4cplus::LogLevel levels[] = {log4cplus::TRACE_LOG_LEVEL, log4cplus::DEBUG_LOG_LEVEL,
                                                 log4cplus::INFO_LOG_LEVEL,  log4cplus::WARN_LOG_LEVEL,
                                                 log4cplus::ERROR_LOG_LEVEL, log4cplus::FATAL_LOG_LEVEL,
                                                 log4cplus::OFF_LOG_LEVEL};
    const int index = names.indexOf(name.toUpper());
    if (index < 0)
        return false;
    *level = levels[index];
    return true;
}

void setRootLevel(log4cplus::LogLevel level)
{
    log4cplus::Logger::getRoot().setLogLevel(level);
}

namespace {

void forwardQtMessage(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    log4cplus::LogLevel level = log4cplus::DEBUG_LOG_LEVEL;
    switch (type) {
    case QtDebugMsg: level = log4cplus::DEBUG_LOG_LEVEL; break;
    case QtInfoMsg: level = log4cplus::INFO_LOG_LEVEL; break;
    case QtWarningMsg: level = log4cplus::WARN_LOG_LEVEL; break;
    case QtCriticalMsg: level = log4cplus::ERROR_LOG_LEVEL; break;
    case QtFatalMsg: level = log4cplus::FATAL_LOG_LEVEL; break;
    }
    const log4cplus::Logger qt = logger("Qt");
    if (qt.isEnabledFor(level)) {
        // Qt's release builds leave the context empty; log4cplus wants texts.
        qt.forcedLog(level, message.toUtf8().toStdString(), context.file ? context.file : "",
                     context.file ? context.line : -1, context.function ? context.function : "");
    }
    // Qt promises that qFatal ends the process.
    if (type == QtFatalMsg)
        std::abort();
}

} // namespace

void installQtMessageHandler()
{
    qInstallMessageHandler(&forwardQtMessage);
}

namespace {

// log4cplus writes a line to std::cerr piece by piece (date, level,
// logger, file, line, function, message: about fifteen pieces), and both
// std::cerr (unitbuf) and C's stderr (unbuffered) pass every piece on at
// once, so each was a system call of its own: under a flood of garbage
// datagrams that was most of what each one cost, and lines of processes
// sharing the stream could interleave mid-line. Line-buffered, a line is
// one write. Done once, before the first line; the appender's immediate
// flush still pushes out a line that lacks a newline.
void bufferStderrByLine()
{
    static char buffer[64 * 1024];
    static const bool done = [] {
        std::cerr.unsetf(std::ios_base::unitbuf);
        return std::setvbuf(stderr, buffer, _IOLBF, sizeof buffer) == 0;
    }();
    Q_UNUSED(done);
}

void configureDefault()
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true /*stderr*/, true /*flush*/));
    appender->setLayout(std::make_unique<TarvJournalLayout>(defaultPattern().toStdString(),
                                                            defaultJournalPattern().toStdString()));
    appender->addFilter(log4cplus::spi::FilterPtr(
        new TarvRepeatFilter(TarvRepeatFilter::DefaultMaxPerInterval, TarvRepeatFilter::DefaultIntervalMs)));
    root.addAppender(appender);
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);
    TarvRepeatFilter::attachToAppenders();
}

} // namespace

bool init(const QString& propertiesFile, QString* problem)
{
    // log4cplus needs its process-wide state before the first logger is used;
    // the initializer is kept for the life of the process on purpose.
    static log4cplus::Initializer* const initializer = (tarvLogInitializer = new log4cplus::Initializer);
    Q_UNUSED(initializer);
    bufferStderrByLine();
    TarvRepeatFilter::registerFactory();
    TarvJournalLayout::registerFactory();

    if (propertiesFile.isEmpty() || !QFileInfo(propertiesFile).isReadable()) {
        configureDefault();
        return true;
    }
    log4cplus::PropertyConfigurator::doConfigure(propertiesFile.toStdString());
    if (log4cplus::Logger::getRoot().getLogLevel() != log4cplus::NOT_SET_LOG_LEVEL) {
        TarvRepeatFilter::attachToAppenders();
        return true;
    }
    configureDefault();
    if (problem) {
        *problem = propertiesFile
            + QStringLiteral(" gives the root logger no valid level (e.g. log4cplus.rootLogger=INFO, STDERR)");
    }
    return false;
}

} // namespace TarvLog
