#include "TarvLog.h"

#include <QFileInfo>

#include <log4cplus/configurator.h>
#include <log4cplus/consoleappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>

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
    return QStringLiteral("%D{%H:%M:%S.%q} %-5p %c [%b:%L %M] %m%n");
}

namespace {

void configureDefault()
{
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true /*stderr*/, true /*flush*/));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(defaultPattern().toStdString()));
    root.addAppender(appender);
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

} // namespace

bool init(const QString& propertiesFile, QString* problem)
{
    // log4cplus needs its process-wide state before the first logger is used;
    // the initializer is kept for the life of the process on purpose.
    static log4cplus::Initializer* const initializer = (tarvLogInitializer = new log4cplus::Initializer);
    Q_UNUSED(initializer);

    if (propertiesFile.isEmpty() || !QFileInfo(propertiesFile).isReadable()) {
        configureDefault();
        return true;
    }
    log4cplus::PropertyConfigurator::doConfigure(propertiesFile.toStdString());
    if (log4cplus::Logger::getRoot().getLogLevel() != log4cplus::NOT_SET_LOG_LEVEL)
        return true;
    configureDefault();
    if (problem) {
        *problem = propertiesFile
            + QStringLiteral(" gives the root logger no valid level (e.g. log4cplus.rootLogger=INFO, STDERR)");
    }
    return false;
}

} // namespace TarvLog
