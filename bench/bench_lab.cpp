// Grouping figures measured in the lab (scripts/bench-lab): join and leave
// latency as a transcoder's own event stream reports them, the delay from a
// receiver's SIGKILL to its removal, and the footprint of one idle host.
//
// It also times how long a saved group takes to come back after power loss.
//
//   bench_lab [--rounds N] [--kills N] [--regroups N] [--idle-s N] [--resend-ms N] [--timeout-ms N]
//             [--discovery-ms N]

#include <algorithm>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <vector>

#include <unistd.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QStringList>
#include <QTemporaryDir>
#include <QTest>

#include "BenchSupport.h"
#include "Lab.h"
#include "LabApi.h"
#include "LabEventStream.h"
#include "LabLog.h"

using namespace BenchSupport;

namespace {

struct Options {
    int rounds = 200;
    int kills = 20;
    int regroups = 10;
    int idleS = 60;
    int resendMs = 1000;
    int timeoutMs = 5000;
    int discoveryMs = 1000;
};

int fail(const QString& why, Lab& lab)
{
    std::fprintf(stderr, "bench_lab: %s\n%s\n", qPrintable(why), qPrintable(lab.lastOutput()));
    return 1;
}

struct Regroup {
    bool formed = false;
    // From the last restarted host's ready line (negative when the group was
    // back before that host printed it) and from its first log line.
    double fromReadyMs = 0;
    double fromStartMs = 0;
};

// Kills `killed` with SIGKILL and restarts them in that order; dev1 keeps
// the saved group of all three. The group is back when dev1 has listed
// both other devices as followers again ("Added to membersNode" in its log,
// the moment its members list changed). Times are the hosts' log times (one
// machine, one clock); the event stream cannot see it, as dev1's API is not
// up yet when a restarted dev1 lists its followers.
Regroup regroup(Lab& lab, const QList<int>& killed, int limitMs)
{
    QList<LabLog> logs;
    QList<int> from;
    for (int device = 1; device <= 3; ++device) {
        logs.append(LabLog(lab.logPath(device)));
        from.append(logs.last().mark());
    }
    for (int device : killed)
        ::kill(pid_t(lab.pid(device)), SIGKILL);
    for (int device : killed) {
        if (lab.run({QStringLiteral("restart"), QStringLiteral("dev%1").arg(device)}) != 0)
            return Regroup();
    }
    lab.status();
    qint64 lastReady = 0;
    qint64 lastStart = 0;
    for (int device : killed) {
        LabLog& log = logs[device - 1];
        const qint64 ready = readyTime(log, from.at(device - 1));
        log.refresh();
        if (ready < 0 || log.entries().size() <= from.at(device - 1))
            return Regroup();
        lastReady = qMax(lastReady, ready);
        lastStart = qMax(lastStart, log.entries().at(from.at(device - 1)).timeMs);
    }
    qint64 regrouped = 0;
    for (int follower : {2, 3}) {
        const qint64 added = entryTime(logs[0], QStringLiteral("DEBUG"), QStringLiteral("SimpleGroupingCtrl"),
                                       QStringLiteral("Added to membersNode: "), lab.id(follower), from.at(0), limitMs);
        if (added < 0)
            return Regroup();
        regrouped = qMax(regrouped, added);
    }
    Regroup result;
    result.formed = true;
    if (killed.isEmpty())
        lastReady = lastStart = regrouped;
    result.fromReadyMs = double(regrouped - lastReady);
    result.fromStartMs = double(regrouped - lastStart);
    return result;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    if (!parseIntOptions("bench_lab", app.arguments(), {{"--rounds", &options.rounds},
                                                     {"--kills", &options.kills},
                                                     {"--regroups", &options.regroups},
                                                     {"--idle-s", &options.idleS},
                                                     {"--resend-ms", &options.resendMs},
                                                     {"--timeout-ms", &options.timeoutMs},
                                                     {"--discovery-ms", &options.discoveryMs}}))
        return 2;
    const QString unavailable = Lab::unavailableReason();
    if (!unavailable.isEmpty()) {
        std::fprintf(stderr, "bench_lab: %s\n", qPrintable(unavailable));
        return 1;
    }

    Lab lab(QStringLiteral("b%1").arg(QCoreApplication::applicationPid() % 10000000));
    // The lab's log layout, with the controller's member changes (DEBUG)
    // for the regroup times.
    QTemporaryDir logDir;
    if (!useLogProperties(lab, logDir))
        return 1;
    std::fprintf(stderr, "bench_lab: bringing up 3 devices\n");
    if (!lab.up(3, Lab::timeOptions(options.resendMs, options.timeoutMs, options.discoveryMs)))
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

    // Regroup after power loss: dev1 saves the group of three; then (a) all
    // three devices, (b) only dev1 are killed and restarted.
    std::vector<double> allFromReady, allFromStart, masterFromReady, masterFromStart;
    std::fprintf(stderr, "bench_lab: %d regroup trials of each kind\n", options.regroups);
    {
        LabApi(lab.api(2)).leave();
        const int from = LabLog(lab.logPath(1)).mark();
        if (!a.save(QStringLiteral("Home"), {idB, lab.id(3)}).ok())
            return fail(QStringLiteral("dev1 did not save the group"), lab);
        LabLog log1(lab.logPath(1));
        for (int follower : {2, 3}) {
            if (entryTime(log1, QStringLiteral("DEBUG"), QStringLiteral("SimpleGroupingCtrl"),
                          QStringLiteral("Added to membersNode: "), lab.id(follower), from, 10000) < 0)
                return fail(QStringLiteral("the saved group did not form"), lab);
        }
        for (int trial = 0; trial < options.regroups; ++trial) {
            const Regroup all = regroup(lab, {2, 3, 1}, 20000);
            if (!all.formed)
                return fail(QStringLiteral("no regroup after all were killed, trial %1").arg(trial), lab);
            allFromReady.push_back(all.fromReadyMs);
            allFromStart.push_back(all.fromStartMs);
            const Regroup master = regroup(lab, {1}, 20000);
            if (!master.formed)
                return fail(QStringLiteral("no regroup after the master was killed, trial %1").arg(trial), lab);
            masterFromReady.push_back(master.fromReadyMs);
            masterFromStart.push_back(master.fromStartMs);
            std::fprintf(stderr, "bench_lab:   trial %d: all %.0f ms (%.0f from start), master only %.0f ms (%.0f)\n",
                         trial + 1, all.fromReadyMs, all.fromStartMs, master.fromReadyMs, master.fromStartMs);
        }
    }

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
    printHeader();
    printRow("join: request on B -> row on A's events", stats(joinMs), "ms");
    printRow("leave: request on B -> row gone on A's events", stats(leaveMs), "ms");
    printRow("SIGKILL of B -> row gone on A's events", stats(killMs), "ms");
    printRow("regroup, all 3 killed: last ready -> all on A", stats(allFromReady), "ms");
    printRow("regroup, all 3 killed: last start -> all on A", stats(allFromStart), "ms");
    printRow("regroup, A killed: ready -> all on A", stats(masterFromReady), "ms");
    printRow("regroup, A killed: start -> all on A", stats(masterFromStart), "ms");
    std::printf("\nOne idle tarv-host with the module (dev3, %.0f s): RSS %.1f MiB (peak %.1f MiB), CPU %.3f %% of one core\n",
                wallS, double(rssKb) / 1024.0, double(hwmKb) / 1024.0, cpuPercent);

    if (!lab.down())
        return fail(QStringLiteral("the lab did not come down"), lab);
    return 0;
}
