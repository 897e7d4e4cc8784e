// Grouping at scale, measured in the lab (scripts/bench-scale): discovery
// convergence on N devices, N-1 receivers joining one transcoder, join and
// leave latency while the others follow, the transcoder's CPU and RSS with
// its followers, discovery traffic per device, SIGKILL of several receivers
// at once, and a saved group coming back after every device lost power.
//
// Then a transcoder with 5 followers gets a flood of garbage datagrams:
// joins during the flood, its API, its followers and its log are watched.
//
//   bench_scale [--devices N] [--rounds N] [--watch-s N] [--kills N] [--group N] [--flood-s N]
//               [--flood-rate N]

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <vector>

#include <unistd.h>

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
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
    int devices = 32;
    int rounds = 200;
    int watchS = 60;
    int kills = 10;
    int group = 16;
    int floodS = 60;
    int floodRate = 50000;
};

// The flood's transcoder and its followers: devices outside the saved group.
constexpr int FloodFollowers = 5;

// Default time settings of the host.
constexpr int ResendMs = 1000;
constexpr int TimeoutMs = 5000;
constexpr int DiscoveryMs = 1000;

const QString Members = QStringLiteral("/grouping/members");

int fail(const QString& why, Lab& lab)
{
    std::fprintf(stderr, "bench_scale: %s\n%s\n", qPrintable(why), qPrintable(lab.lastOutput()));
    return 1;
}

struct Interface {
    qint64 rxBytes = -1, rxPackets = 0, txBytes = 0, txPackets = 0;
};

// eth0's counters inside a device's namespace.
Interface interfaceCounters(Lab& lab, int device)
{
    QString out;
    Interface counters;
    if (lab.run({QStringLiteral("exec"), QStringLiteral("dev%1").arg(device), QStringLiteral("cat"),
                 QStringLiteral("/proc/net/dev")},
                &out)
        != 0)
        return counters;
    for (const QString& line : out.split(QLatin1Char('\n'))) {
        if (!line.trimmed().startsWith(QLatin1String("eth0:")))
            continue;
        const QStringList f = line.section(QLatin1Char(':'), 1).split(QRegularExpression(QStringLiteral("\\s+")),
                                                                      Qt::SkipEmptyParts);
        counters.rxBytes = f.value(0).toLongLong();
        counters.rxPackets = f.value(1).toLongLong();
        counters.txBytes = f.value(8).toLongLong();
        counters.txPackets = f.value(9).toLongLong();
    }
    return counters;
}

// When the device's discovery had reported every other device as appeared
// (its log's "Member ID ... appeared" lines from `from` on); -1 when it never did.
qint64 convergedTime(LabLog& log, const QStringList& others, int from)
{
    log.refresh();
    QHash<QString, qint64> first;
    for (const LabLog::Entry& entry : log.find(QStringLiteral("INFO"), QStringLiteral("Discovery"),
                                               QStringLiteral("Member "), from)) {
        if (!entry.message.endsWith(QLatin1String(" appeared")))
            continue;
        const QString id = entry.message.section(QLatin1Char(' '), 1, 1);
        if (!first.contains(id))
            first.insert(id, entry.timeMs);
    }
    qint64 last = 0;
    for (const QString& id : others) {
        if (!first.contains(id))
            return -1;
        last = qMax(last, first.value(id));
    }
    return last;
}

// Waits until `stream` has reported rows added for all `ids` from `from` on;
// the arrival (steady µs) of the last, or -1.
qint64 waitAllAdded(LabEventStream& stream, const QStringList& ids, int from, int timeoutMs)
{
    qint64 last = 0;
    for (const QString& id : ids) {
        const int index = stream.waitFor(LabEventStream::rowAdded(Members, id), from, timeoutMs);
        if (index < 0)
            return -1;
        last = qMax(last, stream.events().at(index).receivedUs);
    }
    return last;
}

struct Flood {
    bool ran = false;
    std::vector<double> joinMs, apiMs;
    int joinsLost = 0, apiFailed = 0, followersDropped = 0, stillListed = 0;
    double cpuPercent = 0;
    qint64 rssBeforeKb = 0, rssAfterKb = 0, logGrowth = 0;
    // Lines of the flooded host's log about each kind of datagram: written
    // as they came, and summaries of those suppressed.
    int garbageLines = 0, garbageSummaries = 0, badJsonLines = 0, badJsonSummaries = 0;
    QString sender;
};

// A device's log with what log4cplus rolled over from it (log.1, log.2 ...).
qint64 logBytes(const QString& path)
{
    qint64 bytes = QFileInfo(path).size();
    for (int i = 1; QFileInfo::exists(path + QStringLiteral(".%1").arg(i)); ++i)
        bytes += QFileInfo(path + QStringLiteral(".%1").arg(i)).size();
    return bytes;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    if (!parseIntOptions("bench_scale", app.arguments(), {{"--devices", &options.devices},
                                                       {"--rounds", &options.rounds},
                                                       {"--watch-s", &options.watchS},
                                                       {"--kills", &options.kills},
                                                       {"--group", &options.group},
                                                       {"--flood-s", &options.floodS},
                                                       {"--flood-rate", &options.floodRate}}))
        return 2;
    const int n = options.devices;
    if (n < 4 || options.kills < 1 || options.kills > n - 3 || options.group < 2 || options.group > n
        || (options.floodS > 0 && options.group + FloodFollowers + 2 > n)) {
        std::fprintf(stderr, "bench_scale: need --devices >= 4, 1 <= --kills <= devices - 3, 2 <= --group <= devices, "
                             "and for a flood (--flood-s > 0) %d devices outside the group\n",
                     FloodFollowers + 2);
        return 2;
    }
    const QString unavailable = Lab::unavailableReason();
    if (!unavailable.isEmpty()) {
        std::fprintf(stderr, "bench_scale: %s\n", qPrintable(unavailable));
        return 1;
    }

    Lab lab(QStringLiteral("s%1").arg(QCoreApplication::applicationPid() % 10000000));
    QTemporaryDir logDir;
    if (!useLogProperties(lab, logDir))
        return 1;

    // 1. Discovery convergence, from the hosts' own log times.
    std::fprintf(stderr, "bench_scale: bringing up %d devices\n", n);
    if (!lab.up(n, Lab::timeOptions(ResendMs, TimeoutMs, DiscoveryMs)))
        return fail(QStringLiteral("the lab did not come up"), lab);
    QStringList ids;
    for (int device = 1; device <= n; ++device)
        ids.append(lab.id(device));
    qint64 firstReady = 0, lastReady = 0, converged = 0;
    for (int device = 1; device <= n; ++device) {
        LabLog log(lab.logPath(device));
        const qint64 ready = readyTime(log, 0);
        QStringList others = ids;
        others.removeAt(device - 1);
        const qint64 seen = convergedTime(log, others, 0);
        if (ready < 0 || seen < 0)
            return fail(QStringLiteral("dev%1: no ready line or not every member appeared in its log").arg(device), lab);
        firstReady = firstReady == 0 ? ready : qMin(firstReady, ready);
        lastReady = qMax(lastReady, ready);
        converged = qMax(converged, seen);
    }

    // 2. Every other device joins dev1.
    LabApi a(lab.api(1));
    LabEventStream eventsA(lab.api(1));
    if (!eventsA.open())
        return fail(QStringLiteral("dev1's event stream does not open"), lab);
    const QStringList followers = ids.mid(1);
    std::fprintf(stderr, "bench_scale: %d receivers join dev1\n", n - 1);
    int from = eventsA.size();
    qint64 start = LabEventStream::steadyUs();
    for (int device = 2; device <= n; ++device) {
        if (!LabApi(lab.api(device)).join(ids.at(0), QStringLiteral("dev1"), lab.address(1)).ok())
            return fail(QStringLiteral("dev%1 refused to join").arg(device), lab);
    }
    const qint64 requestsSentUs = LabEventStream::steadyUs();
    qint64 allListed = waitAllAdded(eventsA, followers, from, 20000);
    if (allListed < 0)
        return fail(QStringLiteral("dev1 did not list every follower"), lab);
    const double allJoinedMs = double(allListed - start) / 1000.0;
    const double requestsMs = double(requestsSentUs - start) / 1000.0;

    // 3. One more join and leave, again and again, while the others follow.
    const int last = n;
    const QString idLast = ids.at(last - 1);
    {
        LabApi b(lab.api(last));
        from = eventsA.size();
        if (!b.leave().ok() || eventsA.waitFor(LabEventStream::rowRemoved(Members, idLast), from, 5000) < 0)
            return fail(QStringLiteral("dev%1 did not leave").arg(last), lab);
    }
    std::vector<double> joinMs, leaveMs;
    std::fprintf(stderr, "bench_scale: %d join/leave rounds of dev%d while %d follow\n", options.rounds, last, n - 2);
    for (int round = 0; round < options.rounds; ++round) {
        LabApi b(lab.api(last));
        from = eventsA.size();
        start = LabEventStream::steadyUs();
        if (!b.join(ids.at(0), QStringLiteral("dev1"), lab.address(1)).ok())
            return fail(QStringLiteral("join refused in round %1").arg(round), lab);
        int index = eventsA.waitFor(LabEventStream::rowAdded(Members, idLast), from, 5000);
        if (index < 0)
            return fail(QStringLiteral("no row on dev1 in round %1").arg(round), lab);
        joinMs.push_back(double(eventsA.events().at(index).receivedUs - start) / 1000.0);
        from = eventsA.size();
        start = LabEventStream::steadyUs();
        if (!b.leave().ok())
            return fail(QStringLiteral("leave refused in round %1").arg(round), lab);
        index = eventsA.waitFor(LabEventStream::rowRemoved(Members, idLast), from, 5000);
        if (index < 0)
            return fail(QStringLiteral("row not removed on dev1 in round %1").arg(round), lab);
        leaveMs.push_back(double(eventsA.events().at(index).receivedUs - start) / 1000.0);
    }
    from = eventsA.size();
    if (!LabApi(lab.api(last)).join(ids.at(0), QStringLiteral("dev1"), lab.address(1)).ok()
        || eventsA.waitFor(LabEventStream::rowAdded(Members, idLast), from, 5000) < 0)
        return fail(QStringLiteral("dev%1 did not join again").arg(last), lab);

    // 4. The transcoder with all followers, nobody asking its API; and the
    // discovery traffic on its link (a transcoder sends nothing else).
    eventsA.close();
    std::fprintf(stderr, "bench_scale: watching dev1 with %d followers for %d s\n", n - 1, options.watchS);
    const qint64 pid = lab.pid(1);
    const long ticksPerSecond = sysconf(_SC_CLK_TCK);
    const Interface net0 = interfaceCounters(lab, 1);
    const qint64 ticks0 = cpuTicks(pid);
    const qint64 wall0 = LabEventStream::steadyUs();
    QTest::qWait(options.watchS * 1000);
    const qint64 ticks1 = cpuTicks(pid);
    const double wallS = double(LabEventStream::steadyUs() - wall0) / 1e6;
    const Interface net1 = interfaceCounters(lab, 1);
    const double cpuPercent = 100.0 * double(ticks1 - ticks0) / double(ticksPerSecond) / wallS;
    const qint64 rssKb = statusKb(pid, "VmRSS");
    const qint64 hwmKb = statusKb(pid, "VmHWM");
    const double txBytesPerS = double(net1.txBytes - net0.txBytes) / wallS;
    const double txPacketsPerS = double(net1.txPackets - net0.txPackets) / wallS;
    const double rxBytesPerS = double(net1.rxBytes - net0.rxBytes) / wallS;
    const double rxPacketsPerS = double(net1.rxPackets - net0.rxPackets) / wallS;

    // 5. Several receivers SIGKILLed at once: each dropped within the
    // time-out + 1 s, nobody else dropped meanwhile.
    if (!eventsA.open())
        return fail(QStringLiteral("dev1's event stream does not open again"), lab);
    std::fprintf(stderr, "bench_scale: SIGKILL of %d receivers at once\n", options.kills);
    QStringList killedIds;
    from = eventsA.size();
    start = LabEventStream::steadyUs();
    for (int device = n - options.kills; device < n; ++device) {
        ::kill(pid_t(lab.pid(device)), SIGKILL);
        killedIds.append(ids.at(device - 1));
    }
    std::vector<double> killMs;
    for (const QString& id : killedIds) {
        const int index = eventsA.waitFor(LabEventStream::rowRemoved(Members, id), from, TimeoutMs + 5000);
        if (index < 0)
            return fail(QStringLiteral("killed %1 never removed").arg(id), lab);
        killMs.push_back(double(eventsA.events().at(index).receivedUs - start) / 1000.0);
    }
    // One more resend period for a wrong drop to show.
    QTest::qWait(ResendMs + 500);
    int othersDropped = 0;
    for (int i = from; i < eventsA.size(); ++i) {
        const LabEvent& event = eventsA.events().at(i);
        if (event.name == QLatin1String("rows") && event.path() == Members && event.newRow().isEmpty()
            && !killedIds.contains(event.oldRow().value(QStringLiteral("id")).toString()))
            ++othersDropped;
    }
    eventsA.close();

    // 6. Regroup at scale: dev1 saves a group; every device loses power.
    QStringList restartAll;
    for (int device = 1; device <= n; ++device)
        restartAll.append(QStringLiteral("dev%1").arg(device));
    QStringList killedDevs;
    for (int device = n - options.kills; device < n; ++device)
        killedDevs.append(QStringLiteral("dev%1").arg(device));
    if (lab.run(QStringList{QStringLiteral("restart")} + killedDevs, nullptr, 120000) != 0)
        return fail(QStringLiteral("the killed devices did not restart"), lab);
    lab.status();
    for (int device = 2; device <= n; ++device)
        LabApi(lab.api(device)).leave();
    const QStringList groupIds = ids.mid(1, options.group - 1);
    std::fprintf(stderr, "bench_scale: dev1 saves a group of %d; all %d devices SIGKILLed and restarted\n",
                 options.group, n);
    LabLog log1(lab.logPath(1));
    int mark1 = log1.mark();
    if (!a.save(QStringLiteral("Home"), groupIds, 10000).ok())
        return fail(QStringLiteral("dev1 did not save the group"), lab);
    for (const QString& id : groupIds) {
        if (entryTime(log1, QStringLiteral("DEBUG"), QStringLiteral("SimpleGroupingCtrl"),
                      QStringLiteral("Added to membersNode: "), id, mark1, 20000)
            < 0)
            return fail(QStringLiteral("the saved group did not form (%1 missing)").arg(id), lab);
    }
    QList<int> marks;
    for (int device = 1; device <= n; ++device) {
        marks.append(LabLog(lab.logPath(device)).mark());
        ::kill(pid_t(lab.pid(device)), SIGKILL);
    }
    if (lab.run(QStringList{QStringLiteral("restart")} + restartAll, nullptr, 180000) != 0)
        return fail(QStringLiteral("the devices did not restart"), lab);
    lab.status();
    qint64 lastRestartReady = 0;
    for (int device = 1; device <= n; ++device) {
        LabLog log(lab.logPath(device));
        const qint64 ready = readyTime(log, marks.at(device - 1));
        if (ready < 0)
            return fail(QStringLiteral("dev%1 has no ready line after its restart").arg(device), lab);
        lastRestartReady = qMax(lastRestartReady, ready);
    }
    LabLog log1Again(lab.logPath(1));
    qint64 regrouped = 0;
    for (const QString& id : groupIds) {
        const qint64 added = entryTime(log1Again, QStringLiteral("DEBUG"), QStringLiteral("SimpleGroupingCtrl"),
                                       QStringLiteral("Added to membersNode: "), id, marks.at(0), 20000);
        if (added < 0)
            return fail(QStringLiteral("the group did not come back (%1 missing)").arg(id), lab);
        regrouped = qMax(regrouped, added);
    }

    // 7. A flood of garbage on a transcoder with followers: devices after
    // the saved group, one transcoder, its followers and one that joins and
    // leaves during the flood.
    Flood flood;
    if (options.floodS > 0) {
        const int master = options.group + 1;
        const int joiner = master + FloodFollowers + 1;
        const QString idMaster = ids.at(master - 1);
        const QString idJoiner = ids.at(joiner - 1);
        // The flooded host logs as installed (its repeat limit and all):
        // the log a device would write. It is restarted to read it.
        {
            QFile installed(QStringLiteral(TARV_SOURCE_DIR "/packaging/log4cplus.properties"));
            QFile runConfig(lab.runDir() + QStringLiteral("/log.properties"));
            if (!installed.open(QIODevice::ReadOnly) || !runConfig.open(QIODevice::WriteOnly)
                || runConfig.write(installed.readAll()) < 0)
                return fail(QStringLiteral("the installed log configuration could not be given to the lab"), lab);
        }
        if (lab.run({QStringLiteral("restart"), QStringLiteral("dev%1").arg(master)}, nullptr, 60000) != 0)
            return fail(QStringLiteral("dev%1 did not restart with the installed log configuration").arg(master), lab);
        // Its new process id, for the CPU and RSS figures below.
        lab.status();
        LabApi m(lab.api(master));
        LabEventStream eventsM(lab.api(master));
        if (!eventsM.open())
            return fail(QStringLiteral("dev%1's event stream does not open").arg(master), lab);
        QStringList floodFollowers;
        from = eventsM.size();
        for (int device = master + 1; device < joiner; ++device) {
            floodFollowers.append(ids.at(device - 1));
            if (!LabApi(lab.api(device)).join(idMaster, QStringLiteral("dev%1").arg(master), lab.address(master)).ok())
                return fail(QStringLiteral("dev%1 refused to join dev%2").arg(device).arg(master), lab);
        }
        if (waitAllAdded(eventsM, floodFollowers, from, 10000) < 0)
            return fail(QStringLiteral("dev%1 did not list its followers").arg(master), lab);
        const QString logPath = lab.logPath(master);
        const qint64 logBefore = logBytes(logPath);
        const qint64 pidM = lab.pid(master);
        const qint64 rss0 = statusKb(pidM, "VmRSS");
        const qint64 ticks0 = cpuTicks(pidM);
        QProcess sender;
        sender.setProcessEnvironment(lab.environment());
        sender.setProcessChannelMode(QProcess::MergedChannels);
        std::fprintf(stderr, "bench_scale: flooding dev%d (%d followers) with %d garbage datagrams/s for %d s\n",
                     master, FloodFollowers, options.floodRate, options.floodS);
        const qint64 floodStart = LabEventStream::steadyUs();
        const int fromFlood = eventsM.size();
        sender.start(QStringLiteral("bash"), {Lab::script(), QStringLiteral("flood"), QStringLiteral("dev%1").arg(master),
                                              QString::number(options.floodRate), QString::number(options.floodS),
                                              QStringLiteral("mixed")});
        if (!sender.waitForStarted(5000))
            return fail(QStringLiteral("the flood sender did not start"), lab);
        QTest::qWait(1000);
        // Join and leave of one more device, and the API, during the flood.
        while (sender.state() != QProcess::NotRunning
               && LabEventStream::steadyUs() - floodStart < qint64(options.floodS - 2) * 1000000) {
            LabApi j(lab.api(joiner));
            int at = eventsM.size();
            qint64 t0 = LabEventStream::steadyUs();
            if (j.join(idMaster, QStringLiteral("dev%1").arg(master), lab.address(master)).ok()) {
                const int index = eventsM.waitFor(LabEventStream::rowAdded(Members, idJoiner), at, 5000);
                if (index >= 0)
                    flood.joinMs.push_back(double(eventsM.events().at(index).receivedUs - t0) / 1000.0);
                else
                    ++flood.joinsLost;
            } else {
                ++flood.joinsLost;
            }
            at = eventsM.size();
            if (!j.leave().ok() || eventsM.waitFor(LabEventStream::rowRemoved(Members, idJoiner), at, 5000) < 0)
                ++flood.joinsLost;
            t0 = LabEventStream::steadyUs();
            const LabApi::Reply host = m.get(QStringLiteral("host"), QString(), 5000);
            if (host.ok())
                flood.apiMs.push_back(double(LabEventStream::steadyUs() - t0) / 1000.0);
            else
                ++flood.apiFailed;
            QTest::qWait(200);
        }
        // waitForFinished() is false for a process that has already ended.
        if (sender.state() != QProcess::NotRunning && !sender.waitForFinished((options.floodS + 30) * 1000))
            return fail(QStringLiteral("the flood sender did not end"), lab);
        flood.sender = QString::fromLocal8Bit(sender.readAll()).trimmed().section(QLatin1Char('\n'), -1);
        const double floodWallS = double(LabEventStream::steadyUs() - floodStart) / 1e6;
        flood.cpuPercent = 100.0 * double(cpuTicks(pidM) - ticks0) / double(sysconf(_SC_CLK_TCK)) / floodWallS;
        flood.rssBeforeKb = rss0;
        flood.rssAfterKb = statusKb(pidM, "VmRSS");
        // What the log says of each kind of refused datagram, with the
        // summaries of the flood's last windows (IntervalMs of the installed
        // configuration, 10 s), which count as its growth too.
        QTest::qWait(11000);
        flood.logGrowth = logBytes(logPath) - logBefore;
        {
            QFile logFile(logPath);
            if (logFile.open(QIODevice::ReadOnly) && logFile.size() >= logBefore && logFile.seek(logBefore)) {
                const QList<QByteArray> lines = logFile.readAll().split('\n');
                for (const QByteArray& line : lines) {
                    const bool summary = line.contains(" Suppressed ");
                    if (line.contains("Dropping garbage packet"))
                        ++(summary ? flood.garbageSummaries : flood.garbageLines);
                    else if (line.contains("Incorrect JSON data, dropping garbage packet"))
                        ++(summary ? flood.badJsonSummaries : flood.badJsonLines);
                }
            }
        }
        // One more resend period for a wrong drop to show.
        QTest::qWait(ResendMs + 500);
        for (int i = fromFlood; i < eventsM.size(); ++i) {
            const LabEvent& event = eventsM.events().at(i);
            if (event.name == QLatin1String("rows") && event.path() == Members && event.newRow().isEmpty()
                && floodFollowers.contains(event.oldRow().value(QStringLiteral("id")).toString()))
                ++flood.followersDropped;
        }
        flood.stillListed = 0;
        for (const QString& id : floodFollowers)
            flood.stillListed += m.row(Members, id).isEmpty() ? 0 : 1;
        flood.ran = true;
    }

    std::printf("\nScale benchmark: %d devices; resend %d ms, time-out %d ms, discovery %d ms; %s, %ld cores, "
                "load average at the end %s\n\n",
                n, ResendMs, TimeoutMs, DiscoveryMs, qPrintable(cpuModel()), sysconf(_SC_NPROCESSORS_ONLN),
                [] {
                    QFile f(QStringLiteral("/proc/loadavg"));
                    return f.open(QIODevice::ReadOnly) ? f.readAll().split(' ').mid(0, 3).join(' ') : QByteArray("?");
                }()
                    .constData());
    std::printf("discovery: first host ready -> every device lists all %d: %lld ms (%lld ms after the last host was "
                "ready; hosts ready over %lld ms)\n",
                n, converged - firstReady, converged - lastReady, lastReady - firstReady);
    std::printf("%d receivers join dev1: all listed %.0f ms after the first request (requests sent one after "
                "another, the last %.0f ms after the first)\n",
                n - 1, allJoinedMs, requestsMs);
    std::printf("dev1 with %d followers (%.0f s, nobody asking its API): CPU %.3f %% of one core, RSS %.1f MiB "
                "(peak %.1f MiB)\n",
                n - 1, wallS, cpuPercent, double(rssKb) / 1024.0, double(hwmKb) / 1024.0);
    std::printf("dev1's link: sends %.0f B/s in %.2f datagrams/s (its discovery announcements), receives %.0f B/s in "
                "%.1f datagrams/s (%d announcements and %d \"add\" per second)\n",
                txBytesPerS, txPacketsPerS, rxBytesPerS, rxPacketsPerS, n - 1, n - 1);
    std::printf("SIGKILL of %d receivers at once: all dropped, the last %.0f ms after the kill (bound: time-out + "
                "1 s = %d ms); other followers dropped: %d\n",
                options.kills, *std::max_element(killMs.begin(), killMs.end()), TimeoutMs + 1000, othersDropped);
    std::printf("saved group of %d, all %d devices SIGKILLed and restarted at once: the %d followers back on dev1 "
                "%lld ms after the last host was ready\n\n",
                options.group, n, options.group - 1, regrouped - lastRestartReady);
    printHeader();
    printRow("join: request on B -> row on A's events", stats(joinMs), "ms");
    printRow("leave: request on B -> row gone on A's events", stats(leaveMs), "ms");
    printRow("SIGKILL of receivers -> row gone on A's events", stats(killMs), "ms");
    if (flood.ran) {
        printRow("flood: join request -> row on A's events", stats(flood.joinMs), "ms");
        printRow("flood: GET /api/v1/host on A", stats(flood.apiMs), "ms");
        std::printf("\nflood (%s): followers dropped %d, still listed %d of %d; joins or leaves lost %d; API calls "
                    "failed %d; transcoder CPU %.0f %% of one core, RSS %.1f -> %.1f MiB; its log grew %.1f MiB\n",
                    qPrintable(flood.sender), flood.followersDropped, flood.stillListed, FloodFollowers,
                    flood.joinsLost, flood.apiFailed, flood.cpuPercent, double(flood.rssBeforeKb) / 1024.0,
                    double(flood.rssAfterKb) / 1024.0, double(flood.logGrowth) / 1048576.0);
        std::printf("flood log (installed configuration, %lld bytes): garbage %d lines and %d summaries, bad JSON %d "
                    "lines and %d summaries\n",
                    static_cast<long long>(flood.logGrowth), flood.garbageLines, flood.garbageSummaries,
                    flood.badJsonLines, flood.badJsonSummaries);
    }

    if (!lab.down())
        return fail(QStringLiteral("the lab did not come down"), lab);
    return 0;
}
