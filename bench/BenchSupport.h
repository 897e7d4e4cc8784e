#pragma once

#include <utility>
#include <vector>

#include <QByteArray>
#include <QString>
#include <QStringList>

#include "Lab.h"
#include "LabLog.h"

class QTemporaryDir;

// What the lab benchmarks share: percentiles, their table rows, a process's
// CPU and memory from /proc, the machine's name, and waiting for a log line.
namespace BenchSupport {

// "--name N" pairs into the ints they name. An unknown name, a missing
// value or one that is not a whole number >= 0 is refused with a line on
// stderr naming `program`; false then.
using IntOption = std::pair<const char*, int*>;
bool parseIntOptions(const char* program, const QStringList& args, const std::vector<IntOption>& options);

struct Stats {
    int n = 0;
    double p50 = 0, p95 = 0, p99 = 0, min = 0, max = 0;
};

// Nearest-rank percentiles.
Stats stats(std::vector<double> values);
void printHeader();
void printRow(const char* what, const Stats& s, const char* unit);

// utime + stime of a process, in clock ticks; -1 when unreadable.
qint64 cpuTicks(qint64 pid);
// A "key: N kB" field of /proc/PID/status, in KiB; -1 when unreadable.
qint64 statusKb(qint64 pid, const QByteArray& key);
QString cpuModel();

// The time of the first entry of `log` from `from` on that matches and
// contains `containing`, waiting up to `timeoutMs` for it; -1 when none came.
qint64 entryTime(LabLog& log, const QString& level, const QString& logger, const QString& prefix,
                 const QString& containing, int from, int timeoutMs);

// When the host whose log this is became ready from `from` on, waiting up
// to 5 s; -1 when it did not. The host prints its ready line without a
// time (it is not logged), so this is the time of the line logged just
// before it: its control API listening, the last step of its start.
qint64 readyTime(LabLog& log, int from);

// The lab's log layout and bounded log file at INFO, with the controller's
// member changes (DEBUG) whose times the benchmarks read.
QByteArray logProperties();

// Writes logProperties() into `dir` and makes the lab's hosts use it; false
// when it cannot be written.
bool useLogProperties(Lab& lab, const QTemporaryDir& dir);

} // namespace BenchSupport
