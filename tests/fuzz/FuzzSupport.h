#pragma once

#include <QCoreApplication>

#include <log4cplus/logger.h>
#include <log4cplus/nullappender.h>

#include <tarv>

// What every harness needs once per process: an application object for
// Qt's event machinery and logging at TRACE into a null appender, so that
// every log line is formatted (its code is fuzzed too) but nothing is
// written. Both live as long as the process, like a host's.
inline void fuzzSetUpProcess()
{
    static int argc = 1;
    static char name[] = "fuzz";
    static char* argv[] = {name, nullptr};
    static QCoreApplication* const app = new QCoreApplication(argc, argv);
    Q_UNUSED(app)
    TarvLog::init();
    log4cplus::Logger root = log4cplus::Logger::getRoot();
    root.removeAllAppenders();
    root.addAppender(log4cplus::SharedAppenderPtr(new log4cplus::NullAppender()));
    root.setLogLevel(log4cplus::TRACE_LOG_LEVEL);
}

// Splits the fuzzer's input into parts at each "\xff\xfe", at most `limit`.
inline QList<QByteArray> fuzzParts(const uint8_t* data, size_t size, int limit)
{
    const QByteArray input = QByteArray::fromRawData(reinterpret_cast<const char*>(data), static_cast<int>(size));
    QList<QByteArray> parts;
    int from = 0;
    while (parts.size() < limit - 1) {
        const int at = input.indexOf("\xff\xfe", from);
        if (at < 0)
            break;
        parts.append(input.mid(from, at - from));
        from = at + 2;
    }
    parts.append(input.mid(from));
    return parts;
}
