// Loss soak in the lab (scripts/soak): N receivers follow one transcoder
// while every receiver's link drops X % of its packets each way for M
// minutes. Counts false drops: receivers' rows that leave the transcoder's
// members list (its own event stream) while every receiver is alive and
// joined, and receivers that leave their group while the transcoder is
// alive (their logs). Then, without loss, one receiver is cut off beyond
// the time-out and healed, and one is stalled (SIGSTOP) beyond the time-out
// and continued: each must be dropped, then re-added within one resend
// period of its return.
//
//   bench_soak [--receivers N] [--loss PCT] [--minutes M] [--resend-ms N] [--timeout-ms N] [--discovery-ms N]

#include <csignal>
#include <cstdio>

#include <QCoreApplication>
#include <QStringList>
#include <QTest>

#include "BenchSupport.h"
#include "Lab.h"
#include "LabApi.h"
#include "LabEventStream.h"
#include "LabLog.h"

namespace {

struct Options {
    int receivers = 5;
    int lossPercent = 5;
    int minutes = 15;
    int resendMs = 1000;
    int timeoutMs = 5000;
    int discoveryMs = 1000;
};

const QString kMembers = QStringLiteral("/grouping/members");

int fail(const QString& why, Lab& lab)
{
    std::fprintf(stderr, "bench_soak: %s\n%s\n", qPrintable(why), qPrintable(lab.lastOutput()));
    return 1;
}

// Rows of `ids` removed from the transcoder's members list in events[from..].
int removals(const LabEventStream& events, const QStringList& ids, int from)
{
    int count = 0;
    for (int i = from; i < events.size(); ++i) {
        for (const QString& id : ids) {
            if (LabEventStream::rowRemoved(kMembers, id)(events.events().at(i)))
                ++count;
        }
    }
    return count;
}

struct Outage {
    double droppedMs = -1; // from the start of the outage to the row's removal
    double readdedMs = -1; // from its end to the row's return
};

// Takes device `dev` away with `begin` for the time-out plus two seconds,
// brings it back with `end`, and times its removal and return on the
// transcoder's event stream.
bool outage(Lab& lab, LabEventStream& events, int dev, const QString& id, const QString& begin, const QString& end,
            const Options& options, Outage* result)
{
    const QString name = QStringLiteral("dev%1").arg(dev);
    int from = events.size();
    const qint64 started = LabEventStream::steadyUs();
    if (lab.run({begin, name}) != 0)
        return false;
    const int removed = events.waitFor(LabEventStream::rowRemoved(kMembers, id), from, options.timeoutMs + 3000);
    if (removed < 0)
        return false;
    result->droppedMs = double(events.events().at(removed).receivedUs - started) / 1000.0;
    // Stay away a while beyond the drop, as a longer outage would.
    QTest::qWait(2000);
    from = events.size();
    const qint64 back = LabEventStream::steadyUs();
    if (lab.run({end, name}) != 0)
        return false;
    const int added = events.waitFor(LabEventStream::rowAdded(kMembers, id), from, options.resendMs + 5000);
    if (added < 0)
        return false;
    result->readdedMs = double(events.events().at(added).receivedUs - back) / 1000.0;
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    if (!BenchSupport::parseIntOptions("bench_soak", app.arguments(), {{"--receivers", &options.receivers},
                                                                       {"--loss", &options.lossPercent},
                                                                       {"--minutes", &options.minutes},
                                                                       {"--resend-ms", &options.resendMs},
                                                                       {"--timeout-ms", &options.timeoutMs},
                                                                       {"--discovery-ms", &options.discoveryMs}}))
        return 2;
    if (options.receivers < 2 || options.lossPercent > 100) {
        std::fprintf(stderr, "bench_soak: needs at least 2 receivers and a loss of 0 to 100 %%\n");
        return 2;
    }
    const QString unavailable = Lab::unavailableReason();
    if (!unavailable.isEmpty()) {
        std::fprintf(stderr, "bench_soak: %s\n", qPrintable(unavailable));
        return 1;
    }

    const int devices = options.receivers + 1;
    Lab lab(QStringLiteral("s%1").arg(QCoreApplication::applicationPid() % 10000000));
    std::fprintf(stderr, "bench_soak: bringing up %d devices\n", devices);
    if (!lab.up(devices, {QStringLiteral("--resend-ms"), QString::number(options.resendMs),
                          QStringLiteral("--timeout-ms"), QString::number(options.timeoutMs),
                          QStringLiteral("--discovery-ms"), QString::number(options.discoveryMs)}))
        return fail(QStringLiteral("the lab did not come up"), lab);

    const QString master = lab.id(1);
    LabEventStream events(lab.api(1));
    if (!events.open())
        return fail(QStringLiteral("dev1's event stream does not open"), lab);
    QStringList receivers;
    QList<LabLog*> logs;
    QList<int> logFrom;
    for (int dev = 2; dev <= devices; ++dev) {
        const QString id = lab.id(dev);
        receivers << id;
        const int from = events.size();
        LabApi api(lab.api(dev));
        if (!api.join(master, QStringLiteral("dev1"), lab.address(1)).ok()
            || events.waitFor(LabEventStream::rowAdded(kMembers, id), from, 5000) < 0)
            return fail(QStringLiteral("dev%1 did not join dev1").arg(dev), lab);
        logs << new LabLog(lab.logPath(dev));
        logFrom << logs.last()->mark();
    }
    LabLog masterLog(lab.logPath(1));
    const int masterLogFrom = masterLog.mark();

    for (int dev = 2; dev <= devices; ++dev) {
        if (lab.run({QStringLiteral("loss"), QStringLiteral("dev%1").arg(dev), QString::number(options.lossPercent)}) != 0)
            return fail(QStringLiteral("loss on dev%1 failed").arg(dev), lab);
    }
    std::fprintf(stderr, "bench_soak: %d receivers follow dev1 under %d %% loss each for %d min\n", options.receivers,
                 options.lossPercent, options.minutes);
    const int soakFrom = events.size();
    const qint64 soakStart = LabEventStream::steadyUs();
    for (int minute = 1; minute <= options.minutes; ++minute) {
        QTest::qWait(60000);
        std::fprintf(stderr, "bench_soak:   minute %d: %d false drops on dev1's list\n", minute,
                     removals(events, receivers, soakFrom));
    }
    const double soakS = double(LabEventStream::steadyUs() - soakStart) / 1e6;
    const int soakTo = events.size();
    for (int dev = 2; dev <= devices; ++dev)
        lab.run({QStringLiteral("loss"), QStringLiteral("dev%1").arg(dev), QStringLiteral("0")});

    const int falseDrops = removals(events, receivers, soakFrom);
    int left = 0;
    int suspected = 0;
    int gone = 0;
    int stillFollowing = 0;
    for (int i = 0; i < logs.size(); ++i) {
        logs[i]->refresh();
        left += logs[i]->count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"),
                               QStringLiteral("Master disappeared, leaving group"), logFrom[i]);
        suspected += logs[i]->count(QStringLiteral("INFO"), QStringLiteral("Discovery"),
                                    QStringLiteral("Member ") + master + QStringLiteral(" missed 2 announcements"),
                                    logFrom[i]);
        gone += logs[i]->count(QStringLiteral("INFO"), QStringLiteral("Discovery"),
                               QStringLiteral("Member ") + master + QStringLiteral(" missed 8 announcements"),
                               logFrom[i]);
        LabApi api(lab.api(i + 2));
        if (api.deviceState() == 1 && api.ownMasterId(receivers.at(i)) == master)
            ++stillFollowing;
    }
    masterLog.refresh();
    int masterSuspected = 0;
    for (const QString& id : receivers)
        masterSuspected += masterLog.count(QStringLiteral("INFO"), QStringLiteral("Discovery"),
                                           QStringLiteral("Member ") + id + QStringLiteral(" missed 2 announcements"),
                                           masterLogFrom);
    int readds = 0;
    for (int i = soakFrom; i < soakTo; ++i) {
        for (const QString& id : receivers) {
            if (LabEventStream::rowAdded(kMembers, id)(events.events().at(i)))
                ++readds;
        }
    }

    std::fprintf(stderr, "bench_soak: cutting dev2 off beyond the time-out, then healing it\n");
    Outage cut;
    if (!outage(lab, events, 2, receivers.at(0), QStringLiteral("cut"), QStringLiteral("heal"), options, &cut))
        return fail(QStringLiteral("the cut-off dev2 was not dropped and re-added"), lab);
    std::fprintf(stderr, "bench_soak: stalling dev3 (SIGSTOP) beyond the time-out, then continuing it\n");
    Outage stall;
    if (!outage(lab, events, 3, receivers.at(1), QStringLiteral("stop"), QStringLiteral("cont"), options, &stall))
        return fail(QStringLiteral("the stalled dev3 was not dropped and re-added"), lab);

    std::printf("\nLoss soak: %d receivers follow one transcoder, %d %% loss each way on every receiver for %.1f min; "
                "resend %d ms, time-out %d ms, discovery %d ms\n\n",
                options.receivers, options.lossPercent, soakS / 60.0, options.resendMs, options.timeoutMs,
                options.discoveryMs);
    std::printf("| measure | value |\n|---|---|\n");
    std::printf("| false drops: receiver rows gone from the transcoder's list | %d |\n", falseDrops);
    std::printf("| false drops: receivers that left their group (\"Master disappeared\") | %d |\n", left);
    std::printf("| receivers still following the transcoder at the end | %d of %d |\n", stillFollowing,
                options.receivers);
    std::printf("| rows added on the transcoder during the soak (re-adds) | %d |\n", readds);
    std::printf("| receivers' discovery: transcoder suspected (2 announcements missed in a row) | %d |\n", suspected);
    std::printf("| receivers' discovery: transcoder removed (8 missed in a row) | %d |\n", gone);
    std::printf("| transcoder's discovery: a receiver suspected | %d |\n", masterSuspected);
    std::printf("| cut of dev2 -> its row dropped | %.0f ms |\n", cut.droppedMs);
    std::printf("| heal of dev2 -> its row back | %.0f ms |\n", cut.readdedMs);
    std::printf("| SIGSTOP of dev3 -> its row dropped | %.0f ms |\n", stall.droppedMs);
    std::printf("| SIGCONT of dev3 -> its row back | %.0f ms |\n", stall.readdedMs);

    qDeleteAll(logs);
    events.close();
    if (!lab.down())
        return fail(QStringLiteral("the lab did not come down"), lab);
    const bool good = falseDrops == 0 && left == 0 && stillFollowing == options.receivers
        && cut.readdedMs <= options.resendMs + 500 && stall.readdedMs <= options.resendMs + 500;
    return good ? 0 : 1;
}
