// Grouping figures measured in the lab (scripts/bench-lab): join and leave
// latency as a transcoder's own event stream reports them, the delay from a
// receiver's SIGKILL to its removal, and the footprint of one idle host.
//
//   bench_lab [--rounds N] [--kills N] [--idle-s N] [--resend-ms N] [--timeout-ms N] [--discovery-ms N]

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <vector>

#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QStringList>
#include <QTest>

#include "Lab.h"
#include "LabApi.h"
#include "LabEventStream.h"

namespace {

struct Options {
    int rounds = 200;
    int kills = 20;
    int idleS = 60;
    int resendMs = 1000;
    int timeoutMs = 5000;
    int discoveryMs = 1000;
};

struct Stats {
    int n = 0;
    double p50 = 0, p95 = 0, p99 = 0, min = 0, max = 0;
};

// Nearest-rank percentiles.
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

void printRow(const char* what, const Stats& s, const char* unit)
{
    std::printf("| %-45s | %5d | %8.1f | %8.1f | %8.1f | %8.1f | %8.1f | %-2s |\n", what, s.n, s.p50, s.p95, s.p99,
                s.min, s.max, unit);
}

// utime + stime of a process, in clock ticks.
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

int fail(const QString& why, Lab& lab)
{
    std::fprintf(stderr, "bench_lab: %s\n%s\n", qPrintable(why), qPrintable(lab.lastOutput()));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    const QStringList args = app.arguments();
    for (int i = 1; i + 1 < args.size(); i += 2) {
        const int value = args.at(i + 1).toInt();
        if (args.at(i) == QLatin1String("--rounds")) options.rounds = value;
        else if (args.at(i) == QLatin1String("--kills")) options.kills = value;
        else if (args.at(i) == QLatin1String("--idle-s")) options.idleS = value;
        else if (args.at(i) == QLatin1String("--resend-ms")) options.resendMs = value;
        else if (args.at(i) == QLatin1String("--timeout-ms")) options.timeoutMs = value;
        else if (args.at(i) == QLatin1String("--discovery-ms")) options.discoveryMs = value;
        else {
            std::fprintf(stderr, "bench_lab: unknown option %s\n", qPrintable(args.at(i)));
            return 2;
        }
    }
    const QString unavailable = Lab::unavailableReason();
    if (!unavailable.isEmpty()) {
        std::fprintf(stderr, "bench_lab: %s\n", qPrintable(unavailable));
        return 1;
    }

    Lab lab(QStringLiteral("b%1").arg(QCoreApplication::applicationPid() % 10000000));
    std::fprintf(stderr, "bench_lab: bringing up 3 devices\n");
    if (!lab.up(3, {QStringLiteral("--resend-ms"), QString::number(options.resendMs),
                    QStringLiteral("--timeout-ms"), QString::number(options.timeoutMs),
                    QStringLiteral("--discovery-ms"), QString::number(options.discoveryMs)}))
        return fail(QStringLiteral("the lab did not come up"), lab);

    const QString members = QStringLiteral("/grouping/members");
    const QString idA = lab.id(1);
    const QString idB = lab.id(2);
    LabApi a(lab.api(1));
    LabEventStream eventsA(lab.api(1));
    if (!eventsA.open())
        return fail(QStringLiteral("dev1's event stream does not open"), lab);

    // Join and leave, alternating: each latency runs from just before the
    // request leaves this process to the row event's arrival from A.
    std::vector<double> joinMs;
    std::vector<double> leaveMs;
    std::fprintf(stderr, "bench_lab: %d join/leave rounds\n", options.rounds);
    for (int round = 0; round < options.rounds; ++round) {
        LabApi b(lab.api(2));
        int from = eventsA.size();
        qint64 start = LabEventStream::steadyUs();
        LabApi::Reply reply = b.join(idA, QStringLiteral("dev1"), lab.address(1));
        if (!reply.ok())
            return fail(QStringLiteral("join refused in round %1: %2").arg(round).arg(QString::fromUtf8(reply.body)), lab);
        int index = eventsA.waitFor(LabEventStream::rowAdded(members, idB), from, 5000);
        if (index < 0)
            return fail(QStringLiteral("no row on dev1 in round %1").arg(round), lab);
        joinMs.push_back(double(eventsA.events().at(index).receivedUs - start) / 1000.0);

        from = eventsA.size();
        start = LabEventStream::steadyUs();
        reply = b.leave();
        if (!reply.ok())
            return fail(QStringLiteral("leave refused in round %1").arg(round), lab);
        index = eventsA.waitFor(LabEventStream::rowRemoved(members, idB), from, 5000);
        if (index < 0)
            return fail(QStringLiteral("row not removed on dev1 in round %1").arg(round), lab);
        leaveMs.push_back(double(eventsA.events().at(index).receivedUs - start) / 1000.0);
    }

    // SIGKILL to removal: the kill lands at a random point of the resend
    // period, as it would in the field.
    std::vector<double> killMs;
    std::fprintf(stderr, "bench_lab: %d SIGKILL trials\n", options.kills);
    for (int trial = 0; trial < options.kills; ++trial) {
        LabApi b(lab.api(2));
        int from = eventsA.size();
        if (!b.join(idA, QStringLiteral("dev1"), lab.address(1)).ok()
            || eventsA.waitFor(LabEventStream::rowAdded(members, idB), from, 5000) < 0)
            return fail(QStringLiteral("join before kill %1 failed").arg(trial), lab);
        QTest::qWait(QRandomGenerator::global()->bounded(options.resendMs) + options.resendMs);
        from = eventsA.size();
        const qint64 pid = lab.pid(2);
        const qint64 start = LabEventStream::steadyUs();
        ::kill(pid_t(pid), SIGKILL);
        const int index = eventsA.waitFor(LabEventStream::rowRemoved(members, idB), from, options.timeoutMs + 5000);
        if (index < 0)
            return fail(QStringLiteral("killed dev2 never removed in trial %1").arg(trial), lab);
        killMs.push_back(double(eventsA.events().at(index).receivedUs - start) / 1000.0);
        std::fprintf(stderr, "bench_lab:   trial %d: removed %.0f ms after the kill\n", trial + 1, killMs.back());
        if (lab.run({QStringLiteral("restart"), QStringLiteral("dev2")}) != 0)
            return fail(QStringLiteral("dev2 did not restart"), lab);
        lab.status();
    }
    eventsA.close();

    // One host, idle but in a live three-device LAN (discovery running).
    std::fprintf(stderr, "bench_lab: watching dev3 idle for %d s\n", options.idleS);
    const qint64 pid = lab.pid(3);
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    const qint64 ticks0 = cpuTicks(pid);
    const qint64 wall0 = LabEventStream::steadyUs();
    QTest::qWait(options.idleS * 1000);
    const qint64 ticks1 = cpuTicks(pid);
    const double wallS = double(LabEventStream::steadyUs() - wall0) / 1e6;
    const double cpuPercent = 100.0 * double(ticks1 - ticks0) / double(ticksPerSecond) / wallS;
    const qint64 rssKb = statusKb(pid, "VmRSS");
    const qint64 hwmKb = statusKb(pid, "VmHWM");

    std::printf("\nLab benchmark: 3 devices; resend %d ms, time-out %d ms, discovery %d ms; %s, %ld cores\n\n",
                options.resendMs, options.timeoutMs, options.discoveryMs, qPrintable(cpuModel()),
                sysconf(_SC_NPROCESSORS_ONLN));
    std::printf("| %-45s | %5s | %8s | %8s | %8s | %8s | %8s | %-2s |\n", "measure", "n", "p50", "p95", "p99", "min", "max", "");
    std::printf("|%s|-------|----------|----------|----------|----------|----------|----|\n",
                "-----------------------------------------------");
    printRow("join: request on B -> row on A's events", stats(joinMs), "ms");
    printRow("leave: request on B -> row gone on A's events", stats(leaveMs), "ms");
    printRow("SIGKILL of B -> row gone on A's events", stats(killMs), "ms");
    std::printf("\nOne idle tarv-host with the module (dev3, %.0f s): RSS %.1f MiB (peak %.1f MiB), CPU %.3f %% of one core\n",
                wallS, double(rssKb) / 1024.0, double(hwmKb) / 1024.0, cpuPercent);

    if (!lab.down())
        return fail(QStringLiteral("the lab did not come down"), lab);
    return 0;
}
