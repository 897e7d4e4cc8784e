#include "BenchSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

#include <QElapsedTimer>
#include <QFile>
#include <QList>
#include <QTemporaryDir>
#include <QTest>

namespace BenchSupport {

bool parseIntOptions(const char* program, const QStringList& args, const std::vector<IntOption>& options)
{
    for (int i = 1; i < args.size(); i += 2) {
        const auto option = std::find_if(options.begin(), options.end(),
                                         [&](const IntOption& o) { return args.at(i) == QLatin1String(o.first); });
        if (option == options.end()) {
            std::fprintf(stderr, "%s: unknown option %s\n", program, qPrintable(args.at(i)));
            return false;
        }
        bool number = false;
        const int value = args.value(i + 1).toInt(&number);
        if (!number || value < 0) {
            std::fprintf(stderr, "%s: %s needs a whole number\n", program, qPrintable(args.at(i)));
            return false;
        }
        *option->second = value;
    }
    return true;
}

Stats stats(std::vector<double> values)
{
    Stats s;
    s.n = int(values.size());
    if (values.empty())
        return s;
    std::sort(values.begin(), values.end());
    auto rank = [&values](double p) {
        const size_t index = size_t(std::max(1.0, std::ceil(p / 100.0 * double(values.size())))) - 1;
        return values.at(std::min(index, values.size() - 1));
    };
    s.p50 = rank(50);
    s.p95 = rank(95);
    s.p99 = rank(99);
    s.min = values.front();
    s.max = values.back();
    return s;
}

void printHeader()
{
    std::printf("| %-45s | %5s | %8s | %8s | %8s | %8s | %8s | %-2s |\n", "measure", "n", "p50", "p95", "p99", "min", "max", "");
    std::printf("|%s|-------|----------|----------|----------|----------|----------|----|\n",
                "-----------------------------------------------");
}

void printRow(const char* what, const Stats& s, const char* unit)
{
    std::printf("| %-45s | %5d | %8.1f | %8.1f | %8.1f | %8.1f | %8.1f | %-2s |\n", what, s.n, s.p50, s.p95, s.p99,
                s.min, s.max, unit);
}

qint64 cpuTicks(qint64 pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray text = file.readAll();
    const QList<QByteArray> fields = text.mid(text.lastIndexOf(')') + 2).split(' ');
    // After the command: state is field 3 of stat, utime 14, stime 15.
    return fields.value(11).toLongLong() + fields.value(12).toLongLong();
}

qint64 statusKb(qint64 pid, const QByteArray& key)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith(key + ':'))
            return line.mid(key.size() + 1).trimmed().split(' ').value(0).toLongLong();
    }
    return -1;
}

QString cpuModel()
{
    QFile file(QStringLiteral("/proc/cpuinfo"));
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : file.readAll().split('\n')) {
            if (line.startsWith("model name"))
                return QString::fromUtf8(line.mid(line.indexOf(':') + 1).trimmed());
        }
    }
    return QStringLiteral("unknown CPU");
}

qint64 entryTime(LabLog& log, const QString& level, const QString& logger, const QString& prefix,
                 const QString& containing, int from, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    do {
        log.refresh();
        for (const LabLog::Entry& entry : log.find(level, logger, prefix, from)) {
            if (entry.message.contains(containing))
                return entry.timeMs;
        }
        QTest::qWait(20);
    } while (clock.elapsed() < timeoutMs);
    return -1;
}

qint64 readyTime(LabLog& log, int from)
{
    return entryTime(log, QStringLiteral("INFO"), QStringLiteral("ControlApi"), QStringLiteral("Control API on "),
                     QString(), from, 5000);
}

QByteArray logProperties()
{
    // Bounded like the lab's own: a flood writes a line per datagram.
    return "log4cplus.rootLogger=INFO, LOG\n"
           "log4cplus.logger.SimpleGroupingCtrl=DEBUG\n"
           "log4cplus.appender.LOG=log4cplus::RollingFileAppender\n"
           "log4cplus.appender.LOG.File=${TARV_LAB_LOG}\n"
           "log4cplus.appender.LOG.Append=true\n"
           "log4cplus.appender.LOG.MaxFileSize=64MB\n"
           "log4cplus.appender.LOG.MaxBackupIndex=1\n"
           "log4cplus.appender.LOG.ImmediateFlush=true\n"
           "log4cplus.appender.LOG.layout=log4cplus::PatternLayout\n"
           "log4cplus.appender.LOG.layout.ConversionPattern=%D{%Y-%m-%d %H:%M:%S.%q} %-5p %c [%b:%L %M] %m%n\n";
}

bool useLogProperties(Lab& lab, const QTemporaryDir& dir)
{
    QFile logConfig(dir.filePath(QStringLiteral("log.properties")));
    if (!dir.isValid() || !logConfig.open(QIODevice::WriteOnly))
        return false;
    logConfig.write(logProperties());
    logConfig.close();
    lab.setVariable(QStringLiteral("LAB_LOG_CONFIG"), logConfig.fileName());
    return true;
}

} // namespace BenchSupport
