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

namespace TarvLog {

log4cplus::Logger logger(const char* className)
{
    return log4cplus::Logger::getInstance(className);
}

QString defaultPattern()
{
    return QStringLiteral("%D{%H:%M:%S.%q} %-5p %c [%b:%L %M] %m%n");
}

void init(const QString& propertiesFile)
{
    // log4cplus needs its process-wide state before the first logger is used;
    // the initializer is kept for the life of the process on purpose.
    static log4cplus::Initializer* initializer = new log4cplus::Initializer;
    Q_UNUSED(initializer);

    if (!propertiesFile.isEmpty() && QFileInfo(propertiesFile).isReadable()) {
        log4cplus::PropertyConfigurator::doConfigure(propertiesFile.toStdString());
        return;
    }
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    log4cplus::SharedAppenderPtr appender(new log4cplus::ConsoleAppender(true /*stderr*/, true /*flush*/));
    appender->setLayout(std::make_unique<log4cplus::PatternLayout>(defaultPattern().toStdString()));
    root.addAppender(appender);
    root.setLogLevel(log4cplus::INFO_LOG_LEVEL);
}

} // namespace TarvLog
