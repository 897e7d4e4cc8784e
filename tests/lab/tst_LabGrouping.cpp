// Grouping end to end: three real hosts with the module, each in its own
// network namespace of the lab, talking over the receiver link and discovery.
// dev1 is the transcoder A, dev2 the receiver B, dev3 a third device C.

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QScopedPointer>
#include <QTest>
#include <QUdpSocket>

#include "Discovery.h"
#include "Lab.h"
#include "LabApi.h"
#include "LabDevices.h"
#include "LabEventStream.h"
#include "LabLog.h"
#include "LabRows.h"

namespace {

// Short time settings so that every scenario ends in seconds. A receiver cut
// off until its transcoder drops it (up to time-out + 1 s) must not meanwhile
// lose the transcoder from its own member list, or it would leave the group
// and never be re-added after the heal: discovery's removal bound must be
// longer than that.
constexpr int kResendMs = 300;
constexpr int kTimeoutMs = 2000;
constexpr int kDiscoveryMs = 1000;
constexpr int kDiscoveryGoneMs = Discovery::silenceLimitMs(Discovery::GoneAfterMissed, kDiscoveryMs);
static_assert(kDiscoveryGoneMs > kTimeoutMs + 1000 + kDiscoveryMs, "a cut-off receiver would lose its master");
constexpr int kRequestPort = 41230;

// Allowance for getting a change from the host to this process (HTTP event
// stream, scheduling on a busy two-core machine). Bounds on the system's own
// timing are checked on the hosts' log times, which need no allowance.
constexpr int kDeliveryMs = 500;

const QString kMembers = QStringLiteral("/grouping/members");

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

class tst_LabGrouping : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void joinListsReceiverOnTranscoderWithinOneSecond();
    void leaveRemovesReceiverAtOnce();
    void killedReceiverIsDroppedAfterTheTimeout();
    void absentReceiverIsDroppedAndReaddedWithinOneResendOfItsReturn_data();
    void absentReceiverIsDroppedAndReaddedWithinOneResendOfItsReturn();
    void renamedReceiverIsRenamedInTranscoderMembers();
    void killedMasterMakesReceiverLeaveWithinDiscoveryExpiry();
    void joiningItselfIsRefused();
    void followedTranscoderCannotJoinAnother();
    void malformedRequestsAreRefusedWithTheirError_data();
    void malformedRequestsAreRefusedWithTheirError();
    void garbageDatagramsChangeNothing();

private:
    // Joins dev`receiver` to dev`master` and waits until the master lists it.
    void joinAndWait(int receiver, int master);
    // Puts every device back to a lone transcoder with no followers.
    bool restoreBaseline(QString* why);
    bool waitAlone(int device, int timeoutMs);
    LabApi& api(int device) { return m_devices.api(device); }
    QString id(int device) const { return m_lab->id(device); }
    LabLog log(int device) const { return LabLog(m_lab->logPath(device)); }

    LabDevices m_devices;
    Lab* m_lab = nullptr; // the devices' lab once it is up
    QScopedPointer<LabEventStream> m_events; // dev1's
};

void tst_LabGrouping::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    QString why;
    QVERIFY2(m_devices.up(QStringLiteral("g"), 3, kResendMs, kTimeoutMs, kDiscoveryMs, &why), qPrintable(why));
    m_lab = &m_devices.lab();
    m_events.reset(new LabEventStream(m_lab->api(1)));
    QVERIFY(m_events->open());
}

void tst_LabGrouping::init()
{
    QString why;
    QVERIFY2(restoreBaseline(&why), qPrintable(why));
}

void tst_LabGrouping::cleanup()
{
    if (QTest::currentTestFailed())
        m_devices.printLogTails(25);
}

void tst_LabGrouping::cleanupTestCase()
{
    m_events.reset();
    QString why;
    QVERIFY2(m_devices.down(&why), qPrintable(why));
}

bool tst_LabGrouping::waitAlone(int device, int timeoutMs)
{
    return api(device).waitAlone(id(device), timeoutMs);
}

bool tst_LabGrouping::restoreBaseline(QString* why)
{
    m_lab->status();
    for (int device = 1; device <= 3; ++device) {
        if (m_lab->network(device) != QLatin1String("ok"))
            m_lab->run({QStringLiteral("heal"), QStringLiteral("dev%1").arg(device)});
        if (m_lab->state(device) == QLatin1String("stopped"))
            m_lab->run({QStringLiteral("cont"), QStringLiteral("dev%1").arg(device)});
        if (m_lab->state(device) == QLatin1String("dead")
            && m_lab->run({QStringLiteral("restart"), QStringLiteral("dev%1").arg(device)}) != 0) {
            *why = QStringLiteral("dev%1 did not restart: %2").arg(device).arg(m_lab->lastOutput());
            return false;
        }
    }
    m_lab->status();
    for (int device = 1; device <= 3; ++device)
        api(device).leave();
    // A follower that was killed or cut is dropped only at its time-out.
    for (int device = 1; device <= 3; ++device) {
        if (!waitAlone(device, kTimeoutMs + 2000)) {
            *why = QStringLiteral("dev%1 is not a lone transcoder: %2").arg(device).arg(api(device).groupingSummary());
            return false;
        }
    }
    if (!m_events->isOpen() && !m_events->open()) {
        *why = QStringLiteral("dev1's event stream cannot be opened again");
        return false;
    }
    return true;
}

void tst_LabGrouping::joinAndWait(int receiver, int master)
{
    const int from = m_events->size();
    const LabApi::Reply reply = api(receiver).join(id(master), QStringLiteral("dev%1").arg(master), m_lab->address(master));
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));
    if (master == 1)
        QVERIFY(m_events->waitFor(LabEventStream::rowAdded(kMembers, id(receiver)), from, 1000 + kDeliveryMs) >= 0);
}

void tst_LabGrouping::joinListsReceiverOnTranscoderWithinOneSecond()
{
    const int from = m_events->size();
    const qint64 requested = nowMs();
    const LabApi::Reply reply = api(2).join(id(1), QStringLiteral("dev1"), m_lab->address(1));
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));

    const int added = m_events->waitFor(LabEventStream::rowAdded(kMembers, id(2)), from, 1000);
    QVERIFY2(added >= 0, "dev1 did not list dev2 within 1 s of the join request");
    QVERIFY(m_events->events().at(added).receivedMs - requested <= 1000);

    // A's row for B: a grouping member naming A as master and B as follower.
    const QJsonObject row = api(1).row(kMembers, id(2));
    QCOMPARE(row.value(QStringLiteral("type")).toInt(), 101);
    QCOMPARE(row.value(QStringLiteral("title")).toString(), QStringLiteral("dev2"));
    QCOMPARE(masterIdOf(row), id(1));
    QCOMPARE(followerIdOf(row), id(2));
    QCOMPARE(groupingMember(row).value(QStringLiteral("follower")).toObject().value(QStringLiteral("ipAddress")).toString(),
             m_lab->address(2));
    QCOMPARE(rowIds(api(1).rows(kMembers)), sorted({id(1), id(2)}));

    // B is a receiver whose own row names A; A is still a transcoder.
    QCOMPARE(api(2).deviceState(), 1);
    QCOMPARE(api(2).ownMasterId(id(2)), id(1));
    QCOMPARE(rowIds(api(2).rows(kMembers)), QStringList{id(2)});
    QCOMPARE(api(1).deviceState(), 2);
    QCOMPARE(api(1).ownMasterId(id(1)), id(1));
    QCOMPARE(api(1).value(QStringLiteral("/system/member")).toObject().value(QStringLiteral("systemMember")).toObject()
                 .value(QStringLiteral("transcoder")), QJsonValue(true));
}

void tst_LabGrouping::leaveRemovesReceiverAtOnce()
{
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;

    const int from = m_events->size();
    const qint64 requested = nowMs();
    const LabApi::Reply reply = api(2).leave();
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));
    // The "remove" datagram goes out with the leave: no time-out involved.
    const int removed = m_events->waitFor(LabEventStream::rowRemoved(kMembers, id(2)), from, kDeliveryMs * 2);
    QVERIFY2(removed >= 0, "dev1 still lists dev2 after its leave");
    QVERIFY(m_events->events().at(removed).receivedMs - requested <= kDeliveryMs * 2);

    QCOMPARE(rowIds(api(1).rows(kMembers)), QStringList{id(1)});
    QCOMPARE(api(2).deviceState(), 2);
    QCOMPARE(api(2).ownMasterId(id(2)), id(2));
    QCOMPARE(followerIdOf(api(2).row(kMembers, id(2))), id(2));
}

void tst_LabGrouping::killedReceiverIsDroppedAfterTheTimeout()
{
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;
    LabLog logA = log(1);
    const int logFrom = logA.mark();
    // Let B announce a few times before it dies.
    QVERIFY(logA.waitForCount(QStringLiteral("TRACE"), QStringLiteral("SimpleGroupingSocket"),
                              QStringLiteral("Received packet add"), 3, kResendMs * 5, logFrom));

    const int from = m_events->size();
    QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev2")}), 0);
    const qint64 killed = nowMs();
    const int removed = m_events->waitFor(LabEventStream::rowRemoved(kMembers, id(2)), from,
                                          kTimeoutMs + 1000 + kDeliveryMs + kResendMs);
    QVERIFY2(removed >= 0, "dev1 did not drop the killed dev2");

    // Measured on A's own clock: from the last "add" A received from B to
    // the removal by expiry.
    QVERIFY(logA.waitForCount(QStringLiteral("INFO"), QString(), QStringLiteral("Remove remote receiver due to timeout: ") + id(2), 1, 2000, logFrom));
    const QList<LabLog::Entry> removals = logA.find(QStringLiteral("INFO"), QString(), QStringLiteral("Remove remote receiver due to timeout: ") + id(2), logFrom);
    QCOMPARE(removals.size(), 1);
    qint64 lastAdd = 0;
    for (const LabLog::Entry& entry : logA.find(QStringLiteral("TRACE"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Received packet add"), logFrom)) {
        if (entry.message.contains(id(2)) && entry.timeMs <= removals.first().timeMs)
            lastAdd = entry.timeMs;
    }
    QVERIFY(lastAdd > 0);
    QVERIFY(lastAdd <= killed);
    const qint64 delay = removals.first().timeMs - lastAdd;
    qInfo("dev2 dropped %lld ms after its last add (time-out %d ms)", delay, kTimeoutMs);
    QVERIFY2(delay >= kTimeoutMs - 1000, qPrintable(QStringLiteral("dropped too early: %1 ms").arg(delay)));
    QVERIFY2(delay <= kTimeoutMs + 1000, qPrintable(QStringLiteral("dropped too late: %1 ms").arg(delay)));
    QVERIFY(m_events->events().at(removed).receivedMs - removals.first().timeMs <= kDeliveryMs);
    QCOMPARE(rowIds(api(1).rows(kMembers)), QStringList{id(1)});

    QVERIFY2(m_lab->run({QStringLiteral("restart"), QStringLiteral("dev2")}) == 0, qPrintable(m_lab->lastOutput()));
    m_lab->status();
    QVERIFY(waitAlone(2, 3000));
}

void tst_LabGrouping::absentReceiverIsDroppedAndReaddedWithinOneResendOfItsReturn_data()
{
    // How B goes away and comes back: its network cut off and healed, or
    // its host stalled (SIGSTOP) and continued.
    QTest::addColumn<QString>("away");
    QTest::addColumn<QString>("back");
    QTest::newRow("cut off, healed") << QStringLiteral("cut") << QStringLiteral("heal");
    QTest::newRow("stalled, continued") << QStringLiteral("stop") << QStringLiteral("cont");
}

void tst_LabGrouping::absentReceiverIsDroppedAndReaddedWithinOneResendOfItsReturn()
{
    QFETCH(QString, away);
    QFETCH(QString, back);
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;
    LabLog logA = log(1);
    const int logFrom = logA.mark();

    const int from = m_events->size();
    QCOMPARE(m_lab->run({away, QStringLiteral("dev2")}), 0);
    const int removed = m_events->waitFor(LabEventStream::rowRemoved(kMembers, id(2)), from,
                                          kTimeoutMs + 1000 + kDeliveryMs + kResendMs);
    QVERIFY2(removed >= 0, "dev1 did not drop the absent dev2");
    QVERIFY(logA.waitForCount(QStringLiteral("INFO"), QString(), QStringLiteral("Remove remote receiver due to timeout: ") + id(2), 1, 2000, logFrom));
    const qint64 removedAt = logA.find(QStringLiteral("INFO"), QString(), QStringLiteral("Remove remote receiver due to timeout: ") + id(2), logFrom).first().timeMs;
    qint64 lastAdd = 0;
    for (const LabLog::Entry& entry : logA.find(QStringLiteral("TRACE"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Received packet add"))) {
        if (entry.message.contains(id(2)) && entry.timeMs <= removedAt)
            lastAdd = entry.timeMs;
    }
    QVERIFY(lastAdd > 0);
    QVERIFY(removedAt - lastAdd >= kTimeoutMs - 1000);
    QVERIFY(removedAt - lastAdd <= kTimeoutMs + 1000);
    // B itself still believes it follows A: its absence was shorter than
    // B's discovery removal bound of A.
    const int healFrom = m_events->size();
    const int healLogFrom = logA.mark();
    QCOMPARE(m_lab->run({back, QStringLiteral("dev2")}), 0);
    const qint64 healed = nowMs();
    QCOMPARE(api(2).deviceState(), 1);
    QCOMPARE(api(2).ownMasterId(id(2)), id(1));

    const int readded = m_events->waitFor(LabEventStream::rowAdded(kMembers, id(2)), healFrom, kResendMs + 1000);
    QVERIFY2(readded >= 0, "dev1 did not list dev2 again after its return");
    QVERIFY(logA.waitForCount(QStringLiteral("TRACE"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Received packet add"), 1, 1000, healLogFrom));
    const qint64 firstAdd = logA.find(QStringLiteral("TRACE"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Received packet add"), healLogFrom).first().timeMs;
    qInfo("dev2 re-added %lld ms after %s (resend period %d ms)", firstAdd - healed, qPrintable(back), kResendMs);
    // One resend period after the return, plus the time A takes to log it.
    QVERIFY2(firstAdd - healed <= kResendMs + 100, qPrintable(QStringLiteral("first add %1 ms after the return").arg(firstAdd - healed)));
    QVERIFY(m_events->events().at(readded).receivedMs - healed <= kResendMs + kDeliveryMs);
    QCOMPARE(followerIdOf(api(1).row(kMembers, id(2))), id(2));
}

void tst_LabGrouping::renamedReceiverIsRenamedInTranscoderMembers()
{
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;
    const QString newName = QStringLiteral("kitchen");
    const int from = m_events->size();
    const LabApi::Reply reply = api(2).setValue(QStringLiteral("/settings/device/name"), QJsonObject{{QStringLiteral("string_"), newName}});
    QCOMPARE(reply.status, 200);

    const int renamed = m_events->waitFor([&](const LabEvent& event) {
        return event.name == QLatin1String("rows") && event.path() == kMembers
            && event.newRow().value(QStringLiteral("id")).toString() == id(2)
            && event.newRow().value(QStringLiteral("title")).toString() == newName;
    }, from, 1000 + kDeliveryMs);
    QVERIFY2(renamed >= 0, "dev1's members row for dev2 did not take the new name");
    const QJsonObject row = api(1).row(kMembers, id(2));
    QCOMPARE(row.value(QStringLiteral("title")).toString(), newName);
    QCOMPARE(groupingMember(row).value(QStringLiteral("follower")).toObject().value(QStringLiteral("name")).toString(), newName);
    QCOMPARE(masterIdOf(row), id(1));
    // B's own row follows too, and B is still A's receiver.
    QTRY_COMPARE_WITH_TIMEOUT(groupingMember(api(2).row(kMembers, id(2))).value(QStringLiteral("follower")).toObject()
                                  .value(QStringLiteral("name")).toString(), newName, 1000);
    QCOMPARE(api(2).deviceState(), 1);

    QCOMPARE(api(2).setValue(QStringLiteral("/settings/device/name"), QJsonObject{{QStringLiteral("string_"), QStringLiteral("dev2")}}).status, 200);
    QTRY_COMPARE_WITH_TIMEOUT(api(1).row(kMembers, id(2)).value(QStringLiteral("title")).toString(), QStringLiteral("dev2"), 1000 + kDeliveryMs);
}

void tst_LabGrouping::killedMasterMakesReceiverLeaveWithinDiscoveryExpiry()
{
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;
    LabLog logB = log(2);
    const int logFrom = logB.mark();

    QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev1")}), 0);
    const qint64 killed = nowMs();
    // B drops A from its members once it missed the discovery limit of
    // announcements; A's last one left before the kill.
    const int expiry = kDiscoveryGoneMs;
    QVERIFY2(logB.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("Master disappeared, leaving group"),
                               1, expiry + 1000, logFrom),
             "dev2 did not leave its vanished master");
    const LabLog::Entry leave = logB.find(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("Master disappeared, leaving group"), logFrom).first();
    QCOMPARE(leave.message, QStringLiteral("Master disappeared, leaving group"));
    const qint64 delay = leave.timeMs - killed;
    qInfo("dev2 left %lld ms after its master was killed (discovery period %d ms)", delay, kDiscoveryMs);
    // Not before: A's last announcement left at most one period before the
    // kill (the allowance covers the script returning after the kill).
    QVERIFY2(delay >= kDiscoveryGoneMs - kDiscoveryMs - 200, qPrintable(QStringLiteral("left too early: %1 ms").arg(delay)));
    QVERIFY2(delay <= expiry + kDeliveryMs, qPrintable(QStringLiteral("left too late: %1 ms").arg(delay)));
    QCOMPARE(logB.count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("leaveTranscoder: resetting to transcoder state"), logFrom), 1);

    QTRY_COMPARE_WITH_TIMEOUT(api(2).deviceState(), 2, 1000);
    QCOMPARE(api(2).ownMasterId(id(2)), id(2));

    m_events->close();
    QVERIFY2(m_lab->run({QStringLiteral("restart"), QStringLiteral("dev1")}) == 0, qPrintable(m_lab->lastOutput()));
    m_lab->status();
    QVERIFY(m_events->open());
}

void tst_LabGrouping::joiningItselfIsRefused()
{
    LabLog logB = log(2);
    const int logFrom = logB.mark();
    // The request itself is well formed, so the request node accepts it; the
    // controller refuses it and says so in its log.
    const LabApi::Reply reply = api(2).join(id(2), QStringLiteral("dev2"), m_lab->address(2));
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));
    QVERIFY(logB.waitForCount(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("Cannot join transcoder: "), 1, 2000, logFrom));
    const LabLog::Entry refusal = logB.find(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("Cannot join transcoder: "), logFrom).first();
    QVERIFY2(refusal.message.endsWith(QStringLiteral(", as it is this device!")), qPrintable(refusal.message));
    QVERIFY(refusal.message.contains(id(2)));

    QCOMPARE(api(2).deviceState(), 2);
    QCOMPARE(rowIds(api(2).rows(kMembers)), QStringList{id(2)});
    QCOMPARE(api(2).ownMasterId(id(2)), id(2));
}

void tst_LabGrouping::followedTranscoderCannotJoinAnother()
{
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;
    LabLog logA = log(1);
    const int logFrom = logA.mark();

    const LabApi::Reply reply = api(1).join(id(3), QStringLiteral("dev3"), m_lab->address(3));
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));
    QVERIFY(logA.waitForCount(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingCtrl"),
                              QStringLiteral("Transcoder has followers, can not change state to receiver! Discarding..."), 1, 2000, logFrom));
    QCOMPARE(logA.find(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("Transcoder has followers"), logFrom).first().message,
             QStringLiteral("Transcoder has followers, can not change state to receiver! Discarding..."));
    QCOMPARE(logA.count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("joinTranscoder: "), logFrom), 0);

    // Nothing changed on A; B still follows it; C has no follower.
    QCOMPARE(api(1).deviceState(), 2);
    QCOMPARE(api(1).ownMasterId(id(1)), id(1));
    QCOMPARE(rowIds(api(1).rows(kMembers)), sorted({id(1), id(2)}));
    QCOMPARE(api(2).deviceState(), 1);
    QCOMPARE(rowIds(api(3).rows(kMembers)), QStringList{id(3)});
}

void tst_LabGrouping::malformedRequestsAreRefusedWithTheirError_data()
{
    QTest::addColumn<QByteArray>("body");
    QTest::addColumn<QString>("error");
    QTest::addColumn<QString>("logged");

    QTest::newRow("empty") << QByteArray("{}") << "Empty grouping request" << "Empty grouping request";
    QTest::newRow("join without master") << QByteArray(R"({"groupingRequest":{"command":1}})")
                                         << "Missing grouping master in request" << "Missing grouping master in request";
    QTest::newRow("join with empty master id")
        << QByteArray(R"({"groupingRequest":{"command":1,"master":{"id":"","name":"x"}}})")
        << "Missing grouping master id" << "Missing grouping master id";
    QTest::newRow("command 0") << QByteArray(R"({"groupingRequest":{"command":0}})") << "Invalid command "
                               << "Received invalid command";
    QTest::newRow("command 2") << QByteArray(R"({"groupingRequest":{"command":2}})") << "valid command "
                               << "Received invalid command";
    // The record itself as the value, without the union's key, holds no
    // request: command 0.
    QTest::newRow("bare record, command -1") << QByteArray(R"({"command":-1})") << "Invalid command "
                                             << "Received invalid command";
}

void tst_LabGrouping::malformedRequestsAreRefusedWithTheirError()
{
    QFETCH(QByteArray, body);
    QFETCH(QString, error);
    QFETCH(QString, logged);
    LabLog logB = log(2);
    const int logFrom = logB.mark();

    const LabApi::Reply reply = api(2).post(QStringLiteral("invoke"), QStringLiteral("/grouping/request"), body);
    QVERIFY2(reply.status >= 400 && reply.status < 500, reply.body.constData());
    QCOMPARE(errorMessage(reply), error);
    QVERIFY(logB.waitForCount(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingRequest"), logged, 1, 2000, logFrom));
    QCOMPARE(api(2).deviceState(), 2);
    QCOMPARE(rowIds(api(2).rows(kMembers)), QStringList{id(2)});
}

void tst_LabGrouping::garbageDatagramsChangeNothing()
{
    joinAndWait(2, 1);
    if (QTest::currentTestFailed())
        return;
    const QJsonArray before = api(1).rows(kMembers);
    QCOMPARE(rowIds(before), sorted({id(1), id(2)}));
    LabLog logA = log(1);
    const int logFrom = logA.mark();

    // Five kinds of garbage in turn: binary without a command prefix, "add"
    // with broken JSON, "remove" with a JSON array, "add" with an empty
    // object, and an upper-case prefix. The listener drops the first and the
    // last as garbage (INFO) and the others as incorrect JSON (ERROR).
    QRandomGenerator random(20260521);
    auto garbage = [&random](int k, bool* jsonError) {
        QByteArray bytes;
        switch (k % 5) {
        case 0: {
            const int size = 1 + random.bounded(k % 97 == 0 ? 8000 : 500);
            bytes.resize(size);
            for (int i = 0; i < size; ++i)
                bytes[i] = char(random.bounded(256));
            if (bytes.at(0) == 'a' || bytes.at(0) == 'r')
                bytes[0] = 'x';
            *jsonError = false;
            break;
        }
        case 1:
            bytes = "add{\"id\":\"" + QByteArray::number(random.generate()) + "\",";
            *jsonError = true;
            break;
        case 2:
            bytes = "remove[1,2,3]";
            *jsonError = true;
            break;
        case 3:
            bytes = "add{}";
            *jsonError = true;
            break;
        default:
            bytes = "ADD{\"id\":\"intruder\",\"ipAddress\":\"10.0.0.1\"}";
            *jsonError = false;
            break;
        }
        return bytes;
    };

    QUdpSocket socket;
    const QHostAddress target(m_lab->address(1));
    constexpr int total = 10000;
    // Small enough that a batch always fits the listener's receive buffer.
    constexpr int batch = 50;
    int dropped = 0;
    int incorrect = 0;
    for (int k = 0; k < total; ++k) {
        bool jsonError = false;
        const QByteArray datagram = garbage(k, &jsonError);
        QCOMPARE(socket.writeDatagram(datagram, target, kRequestPort), qint64(datagram.size()));
        (jsonError ? incorrect : dropped) += 1;
        if ((k + 1) % batch == 0) {
            // Pace the flood by A's own progress so the kernel never drops a
            // datagram for a full receive buffer and every one is accounted for.
            QVERIFY2(logA.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Dropping garbage packet"), dropped, 5000, logFrom),
                     qPrintable(QStringLiteral("dev1 handled only %1 of %2 garbage datagrams")
                                    .arg(logA.count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Dropping garbage packet"), logFrom)).arg(dropped)));
            QVERIFY(logA.waitForCount(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Incorrect JSON data, dropping garbage packet"), incorrect, 5000, logFrom));
        }
    }
    logA.refresh();
    QCOMPARE(dropped + incorrect, total);
    QCOMPARE(logA.count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Dropping garbage packet"), logFrom), dropped);
    QCOMPARE(logA.count(QStringLiteral("ERROR"), QStringLiteral("SimpleGroupingSocket"), QStringLiteral("Incorrect JSON data, dropping garbage packet"), logFrom), incorrect);

    // A still answers, its members are exactly what they were, and B (whose
    // "add"s kept coming through the flood) still follows it.
    const LabApi::Reply host = api(1).get(QStringLiteral("host"), QString(), 1000);
    QCOMPARE(host.status, 200);
    QCOMPARE(host.json.toObject().value(QStringLiteral("id")).toString(), id(1));
    QCOMPARE(api(1).rows(kMembers), before);
    QCOMPARE(api(1).deviceState(), 2);
    QCOMPARE(api(2).deviceState(), 1);
    QCOMPARE(m_lab->status().value(QStringLiteral("devices")).toArray().at(0).toObject().value(QStringLiteral("state")).toString(),
             QStringLiteral("running"));
}

QTEST_GUILESS_MAIN(tst_LabGrouping)
#include "tst_LabGrouping.moc"
