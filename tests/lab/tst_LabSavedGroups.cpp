// Saved groups end to end: three real hosts with the module in the lab. A
// group saved on one device brings the others to it by themselves, also
// after every device was power-cycled (SIGKILL and restart); newer groups
// win; the player's state holds back the search for an old master.

#include <QCoreApplication>
#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QScopedPointer>
#include <QTest>

#include "Discovery.h"
#include "Lab.h"
#include "LabApi.h"
#include "LabEventStream.h"
#include "LabLog.h"
#include "LabRows.h"

namespace {

// The host's default discovery period: regrouping is measured as users get
// it. Short receiver-link times so that a follower that moved is dropped
// from its old master quickly.
constexpr int kResendMs = 300;
constexpr int kTimeoutMs = 2000;
constexpr int kDiscoveryMs = 1000;

// Allowance for getting a change from the host to this process (HTTP,
// scheduling on a busy two-core machine).
constexpr int kDeliveryMs = 500;

const QString kMembers = QStringLiteral("/grouping/members");
const QString kObserver = QStringLiteral("SimpleGroupingObserver");

qint64 nowMs()
{
    return QDateTime::currentMSecsSinceEpoch();
}

} // namespace

class tst_LabSavedGroups : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void aSavedGroupBringsItsMembersToTheSavingDevice();
    void theGroupFormsAgainAfterEveryDeviceWasPowerCycled();
    void aNewerGroupTakesAMemberAndTheOlderGroupLosesIt();
    void reSavingWithoutAMemberMakesItLeave();
    void aSaveOnAReceiverLeavesFirstThenSaves();
    void refusedSavesReachTheClientWithTheirText();
    void tarvctlSaveWaitsUntilTheGroupIsSaved();
    void playerStateOneHoldsBackTheSearchAndZeroReleasesIt();
    void aKilledMasterIsLeftNotRejoinedAndRegroupsWhenBack();

private:
    LabApi& api(int device) { return *m_api[device - 1]; }
    QString id(int device) const { return m_lab->id(device); }
    LabLog log(int device) const { return LabLog(m_lab->logPath(device)); }
    QStringList ids(std::initializer_list<int> devices) const
    {
        QStringList result;
        for (int device : devices)
            result << id(device);
        result.sort();
        return result;
    }
    // Waits (bounded) until `device` lists exactly these rows; the time
    // it took, -1 when it did not.
    qint64 waitForRows(int device, const QStringList& expected, int timeoutMs);
    // Saves dev1's group of all three and waits until it has formed.
    bool formGroupOfThree(QString* why);
    bool restartDevice(int device);
    bool restoreBaseline(QString* why);

    QScopedPointer<Lab> m_lab;
    QList<LabApi*> m_api;
};

void tst_LabSavedGroups::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    m_lab.reset(new Lab(QStringLiteral("s%1").arg(QCoreApplication::applicationPid() % 10000000)));
    QVERIFY2(m_lab->up(3, Lab::timeOptions(kResendMs, kTimeoutMs, kDiscoveryMs)), qPrintable(m_lab->lastOutput()));
    for (int device = 1; device <= 3; ++device)
        m_api.append(new LabApi(m_lab->api(device), this));
}

void tst_LabSavedGroups::init()
{
    QString why;
    QVERIFY2(restoreBaseline(&why), qPrintable(why));
}

void tst_LabSavedGroups::cleanup()
{
    if (!QTest::currentTestFailed())
        return;
    for (int device = 1; device <= 3; ++device)
        log(device).warnTail(QStringLiteral("dev%1 log").arg(device), 30);
}

void tst_LabSavedGroups::cleanupTestCase()
{
    if (m_lab)
        QVERIFY2(m_lab->down(), qPrintable(m_lab->lastOutput()));
}

qint64 tst_LabSavedGroups::waitForRows(int device, const QStringList& expected, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    do {
        if (rowIds(api(device).rows(kMembers)) == expected)
            return clock.elapsed();
        QTest::qWait(20);
    } while (clock.elapsed() < timeoutMs);
    return -1;
}

bool tst_LabSavedGroups::restartDevice(int device)
{
    const bool restarted = m_lab->run({QStringLiteral("restart"), QStringLiteral("dev%1").arg(device)}) == 0;
    m_lab->status();
    return restarted;
}

// Every device alive, idle, without a saved group and alone. A cleared group
// carries the time it was cleared, so every group a test saves later is
// newer than anything left from the test before.
bool tst_LabSavedGroups::restoreBaseline(QString* why)
{
    m_lab->status();
    for (int device = 1; device <= 3; ++device) {
        if (m_lab->state(device) == QLatin1String("dead") && !restartDevice(device)) {
            *why = QStringLiteral("dev%1 did not restart: %2").arg(device).arg(m_lab->lastOutput());
            return false;
        }
    }
    for (int device = 1; device <= 3; ++device) {
        api(device).setPlayerState(0);
        const LabApi::Reply cleared = api(device).save(QString(), {});
        if (!cleared.ok()) {
            *why = QStringLiteral("dev%1 did not clear its saved group: %2")
                       .arg(device)
                       .arg(QString::fromUtf8(cleared.body));
            return false;
        }
    }
    for (int device = 1; device <= 3; ++device)
        api(device).leave();
    for (int device = 1; device <= 3; ++device) {
        if (!api(device).waitAlone(id(device), kTimeoutMs + 2000)) {
            *why = QStringLiteral("dev%1 is not a lone transcoder: %2").arg(device).arg(api(device).groupingSummary());
            return false;
        }
    }
    return true;
}

bool tst_LabSavedGroups::formGroupOfThree(QString* why)
{
    const LabApi::Reply reply = api(1).save(QStringLiteral("Home"), {id(2), id(3)});
    if (!reply.ok()) {
        *why = QStringLiteral("the save was refused: ") + QString::fromUtf8(reply.body);
        return false;
    }
    if (waitForRows(1, ids({1, 2, 3}), kDiscoveryMs + 2000) < 0) {
        *why = QStringLiteral("the group did not form: dev1 lists ")
            + rowIds(api(1).rows(kMembers)).join(QLatin1Char(' '));
        return false;
    }
    return true;
}

void tst_LabSavedGroups::aSavedGroupBringsItsMembersToTheSavingDevice()
{
    LabLog log2 = log(2);
    const int log2From = log2.mark();
    const qint64 before = nowMs();
    const LabApi::Reply reply = api(1).save(QStringLiteral("Home"), {id(2), id(3)});
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));

    // Written with this device, the name and the time of the save.
    const QJsonObject saved = api(1).savedGroup();
    QCOMPARE(saved.value(QStringLiteral("name")).toString(), QStringLiteral("Home"));
    QCOMPARE(groupMembers(saved), ids({1, 2, 3}));
    const qint64 timestamp = static_cast<qint64>(saved.value(QStringLiteral("timestamp")).toDouble());
    QVERIFY(timestamp >= before && timestamp <= nowMs());
    // The own record carries it at once.
    const QJsonObject record =
        api(1).value(QStringLiteral("/system/member")).toObject().value(QStringLiteral("systemMember")).toObject();
    QCOMPARE(static_cast<qint64>(record.value(QStringLiteral("persistentGroupTimestamp")).toDouble()), timestamp);

    // The changed record is announced at once; the others see it well
    // within one discovery period and join.
    const qint64 took = waitForRows(1, ids({1, 2, 3}), kDiscoveryMs);
    QVERIFY2(took >= 0, "dev2 and dev3 did not come to dev1 within one discovery period");
    qInfo("the group formed %lld ms after the save was answered", took);
    for (int device : {2, 3}) {
        QCOMPARE(api(device).deviceState(), 1);
        QCOMPARE(api(device).ownMasterId(id(device)), id(1));
        // Joining another device's group gives up the own one.
        QCOMPARE(groupMembers(api(device).savedGroup()), QStringList());
    }
    QVERIFY(log2.waitForCount(QStringLiteral("DEBUG"), kObserver, QStringLiteral("Joining new master: ") + id(1), 1,
                              1000, log2From));
}

void tst_LabSavedGroups::theGroupFormsAgainAfterEveryDeviceWasPowerCycled()
{
    QString why;
    QVERIFY2(formGroupOfThree(&why), qPrintable(why));

    for (int device = 1; device <= 3; ++device)
        QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev%1").arg(device)}), 0);
    for (int device = 1; device <= 3; ++device)
        QVERIFY2(restartDevice(device), qPrintable(m_lab->lastOutput()));
    const qint64 took = waitForRows(1, ids({1, 2, 3}), 3 * kDiscoveryMs + 3000);
    QVERIFY2(took >= 0, qPrintable(QStringLiteral("the group did not form again: dev1 lists ")
                                   + rowIds(api(1).rows(kMembers)).join(QLatin1Char(' '))));
    qInfo("the group formed again %lld ms after the last device was ready", took);
    QCOMPARE(groupMembers(api(1).savedGroup()), ids({1, 2, 3}));
    for (int device : {2, 3}) {
        QCOMPARE(api(device).deviceState(), 1);
        QCOMPARE(api(device).ownMasterId(id(device)), id(1));
    }
}

void tst_LabSavedGroups::aNewerGroupTakesAMemberAndTheOlderGroupLosesIt()
{
    QCOMPARE(api(1).save(QStringLiteral("One"), {id(3)}).status, 200);
    QVERIFY(waitForRows(1, ids({1, 3}), kDiscoveryMs + 2000) >= 0);
    const QJsonObject older = api(1).savedGroup();
    LabLog log1 = log(1);
    const int log1From = log1.mark();

    QCOMPARE(api(2).save(QStringLiteral("Two"), {id(3)}).status, 200);
    const qint64 took = waitForRows(2, ids({2, 3}), kDiscoveryMs + 2000);
    QVERIFY2(took >= 0, "dev3 did not move to dev2");
    qInfo("dev3 moved to dev2 %lld ms after the save", took);
    QCOMPARE(api(3).ownMasterId(id(3)), id(2));
    // dev1 drops its former follower when its "add"s stop.
    QVERIFY(waitForRows(1, ids({1}), kTimeoutMs + 1000 + kDeliveryMs) >= 0);

    const QJsonObject pruned = api(1).savedGroup();
    QCOMPARE(groupMembers(pruned), ids({1}));
    QCOMPARE(pruned.value(QStringLiteral("name")), older.value(QStringLiteral("name")));
    QCOMPARE(pruned.value(QStringLiteral("timestamp")), older.value(QStringLiteral("timestamp")));
    QVERIFY(log1.waitForCount(QStringLiteral("DEBUG"), kObserver, QStringLiteral("Moved to a different group: ") + id(3),
                              1, 1000, log1From));
}

void tst_LabSavedGroups::reSavingWithoutAMemberMakesItLeave()
{
    QString why;
    QVERIFY2(formGroupOfThree(&why), qPrintable(why));
    LabLog log3 = log(3);
    const int log3From = log3.mark();

    QCOMPARE(api(1).save(QStringLiteral("Home"), {id(2)}).status, 200);
    QVERIFY(log3.waitForCount(QStringLiteral("DEBUG"), kObserver, QStringLiteral("Leaving current master: ") + id(1),
                              1, kDiscoveryMs + 1000, log3From));
    // The leave sends "remove": dev1 drops dev3 at once, not at the time-out.
    QVERIFY(waitForRows(1, ids({1, 2}), kDeliveryMs * 2) >= 0);
    QVERIFY(api(3).waitAlone(id(3), 1000));
    QCOMPARE(api(2).ownMasterId(id(2)), id(1));
}

void tst_LabSavedGroups::aSaveOnAReceiverLeavesFirstThenSaves()
{
    QCOMPARE(api(2).join(id(1), QStringLiteral("dev1"), m_lab->address(1)).status, 200);
    QVERIFY(waitForRows(1, ids({1, 2}), 1000 + kDeliveryMs) >= 0);
    LabLog log2 = log(2);
    const int log2From = log2.mark();

    const LabApi::Reply reply = api(2).save(QStringLiteral("Two"), {id(3)});
    const qint64 answered = nowMs();
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));

    // It left dev1 before the group was written.
    QVERIFY(log2.waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"),
                              QStringLiteral("leaveTranscoder: resetting to transcoder state"), 1, 1000, log2From));
    const qint64 left = log2.find(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"),
                                  QStringLiteral("leaveTranscoder: resetting to transcoder state"), log2From)
                            .first()
                            .timeMs;
    const QJsonObject saved = api(2).savedGroup();
    QCOMPARE(saved.value(QStringLiteral("name")).toString(), QStringLiteral("Two"));
    QCOMPARE(groupMembers(saved), ids({2, 3}));
    const qint64 timestamp = static_cast<qint64>(saved.value(QStringLiteral("timestamp")).toDouble());
    QVERIFY2(timestamp >= left && timestamp <= answered,
             qPrintable(QStringLiteral("left %1, saved %2, answered %3").arg(left).arg(timestamp).arg(answered)));
    QVERIFY(waitForRows(1, ids({1}), kDeliveryMs * 2) >= 0);
    // ...and its new group comes to it.
    QVERIFY(waitForRows(2, ids({2, 3}), kDiscoveryMs + 2000) >= 0);
}

// tarvctl's save names the devices by name and returns once the device
// keeps the group: the module answers a save as soon as it is written, so
// only the setting shows that it was kept.
void tst_LabSavedGroups::tarvctlSaveWaitsUntilTheGroupIsSaved()
{
    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev1"), QStringLiteral("tarvctl"), QStringLiteral("save"),
                         QStringLiteral("Home"), QStringLiteral("dev2")},
                        &output),
             0);
    QVERIFY2(output.trimmed().endsWith(QStringLiteral("saved Home")), qPrintable(output));
    // Already kept when tarvctl returned.
    const QJsonObject saved = api(1).savedGroup();
    QCOMPARE(saved.value(QStringLiteral("name")).toString(), QStringLiteral("Home"));
    QCOMPARE(groupMembers(saved), ids({1, 2}));

    QCOMPARE(m_lab->run({QStringLiteral("exec"), QStringLiteral("dev1"), QStringLiteral("tarvctl"), QStringLiteral("save"),
                         QStringLiteral("Home")},
                        &output),
             0);
    QVERIFY2(output.trimmed().endsWith(QStringLiteral("cleared the saved group")), qPrintable(output));
    QCOMPARE(api(1).savedGroup().value(QStringLiteral("members")).toArray(), QJsonArray());
}

void tst_LabSavedGroups::refusedSavesReachTheClientWithTheirText()
{
    const QJsonObject before = api(1).savedGroup();
    LabApi::Reply reply = api(1).save(QString(), {id(2)});
    QCOMPARE(reply.status, 422);
    QCOMPARE(errorMessage(reply), QStringLiteral("Missing name in save request"));
    QCOMPARE(api(1).savedGroup(), before);
    // The record without its union key holds no saved group: it reads as an
    // empty one, which clears (answered true, like a save naming nobody).
    reply = api(1).post(QStringLiteral("invoke"), QStringLiteral("/grouping/persistentGroup/save"),
                        QByteArray(R"({"name":"Home","members":["x"]})"));
    QCOMPARE(reply.status, 200);
    QCOMPARE(reply.json.toObject().value(QStringLiteral("result")), QJsonValue(true));
    QCOMPARE(api(1).savedGroup().value(QStringLiteral("name")).toString(), QString());
    QCOMPARE(api(1).savedGroup().value(QStringLiteral("members")).toArray(), QJsonArray());

    // Until its lists have loaded (one discovery period after a start) a
    // device holds a save; a second one displaces it. The first save is
    // sent from the moment dev3's API answers again after a restart.
    QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev3")}), 0);
    LabLog log3 = log(3);
    const int log3From = log3.mark();
    QProcess first;
    const QString body = QStringLiteral(R"({"groupingPersistentGroup":{"name":"First","members":["%1"]}})").arg(id(1));
    first.start(QStringLiteral("bash"),
                {QStringLiteral("-c"),
                 QStringLiteral("while :; do \"$0\" --api \"$1\" invoke /grouping/persistentGroup/save \"$2\"; rc=$?; "
                                "[ $rc -ne 3 ] && exit $rc; sleep 0.01; done"),
                 Lab::buildDir() + QStringLiteral("/src/tools/tarvctl"), m_lab->api(3), body});
    QVERIFY(first.waitForStarted(2000));
    // Restarted in the background: the script waits until the devices see
    // each other again, by which time the lists have long loaded.
    QProcess restart;
    restart.setProcessEnvironment(m_lab->environment());
    restart.setProcessChannelMode(QProcess::MergedChannels);
    restart.start(QStringLiteral("bash"), {Lab::script(), QStringLiteral("restart"), QStringLiteral("dev3")});
    QVERIFY(log3.waitForCount(QStringLiteral("TRACE"), kObserver,
                              QStringLiteral("Enter SimpleGroupingWorker::queueSaveRequest: "), 1, 10000, log3From));
    reply = api(3).save(QStringLiteral("Second"), {id(2)});
    QTRY_COMPARE_WITH_TIMEOUT(first.state(), QProcess::NotRunning, 5000);
    QVERIFY2(restart.waitForFinished(30000) || restart.state() == QProcess::NotRunning, "the restart did not end");
    m_lab->status();
    QCOMPARE(restart.exitCode(), 0);
    QCOMPARE(first.exitCode(), 1);
    QVERIFY2(QString::fromUtf8(first.readAllStandardError()).contains(QStringLiteral("Operation overriden")),
             "the first save was not displaced");
    QCOMPARE(reply.status, 200);
    QCOMPARE(api(3).savedGroup().value(QStringLiteral("name")).toString(), QStringLiteral("Second"));
}

void tst_LabSavedGroups::playerStateOneHoldsBackTheSearchAndZeroReleasesIt()
{
    QCOMPARE(api(1).save(QStringLiteral("Home"), {id(2)}).status, 200);
    QVERIFY(waitForRows(1, ids({1, 2}), kDiscoveryMs + 2000) >= 0);

    // Playing, dev2 leaves; nothing brings it back to dev1.
    QCOMPARE(api(2).setPlayerState(1).status, 200);
    QCOMPARE(api(2).leave().status, 200);
    QVERIFY(api(2).waitAlone(id(2), 1000));
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < 2 * kDiscoveryMs) {
        QVERIFY2(rowIds(api(1).rows(kMembers)) == ids({1}), "dev2 went back to dev1 while playing");
        QTest::qWait(100);
    }
    QCOMPARE(api(2).deviceState(), 2);

    // Idle again, it searches and finds dev1's group.
    QCOMPARE(api(2).setPlayerState(0).status, 200);
    const qint64 took = waitForRows(1, ids({1, 2}), 1000 + kDeliveryMs);
    QVERIFY2(took >= 0, "dev2 did not go back to dev1 when the player was idle");
    qInfo("dev2 back on dev1 %lld ms after the player went idle", took);
}

void tst_LabSavedGroups::aKilledMasterIsLeftNotRejoinedAndRegroupsWhenBack()
{
    QString why;
    QVERIFY2(formGroupOfThree(&why), qPrintable(why));
    LabLog log2 = log(2);
    LabLog log3 = log(3);
    const int log2From = log2.mark();
    const int log3From = log3.mark();

    QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev1")}), 0);
    // The followers' discovery removes the silent master after its bound.
    const int expiry = Discovery::silenceLimitMs(Discovery::GoneAfterMissed, kDiscoveryMs);
    for (LabLog* follower : {&log2, &log3}) {
        QVERIFY2(follower->waitForCount(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"),
                                        QStringLiteral("Master disappeared, leaving group"), 1, expiry + 1000,
                                        follower == &log2 ? log2From : log3From),
                 "a follower did not leave its vanished master");
    }
    QVERIFY(api(2).waitAlone(id(2), 1000));
    QVERIFY(api(3).waitAlone(id(3), 1000));
    // Alone they stay: one more discovery period, and no join was sent to
    // the dead master.
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < kDiscoveryMs) {
        QCOMPARE(api(2).deviceState(), 2);
        QCOMPARE(api(3).deviceState(), 2);
        QTest::qWait(100);
    }
    QCOMPARE(log2.count(QStringLiteral("DEBUG"), kObserver, QStringLiteral("Joining new master"), log2From), 0);
    QCOMPARE(log3.count(QStringLiteral("DEBUG"), kObserver, QStringLiteral("Joining new master"), log3From), 0);
    QCOMPARE(log2.count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("joinTranscoder: "),
                        log2From),
             0);
    QCOMPARE(log3.count(QStringLiteral("INFO"), QStringLiteral("SimpleGroupingCtrl"), QStringLiteral("joinTranscoder: "),
                        log3From),
             0);

    // Back, the master lists every follower again: rows on the master.
    QVERIFY2(restartDevice(1), qPrintable(m_lab->lastOutput()));
    const qint64 took = waitForRows(1, ids({1, 2, 3}), 2 * kDiscoveryMs + 2000);
    QVERIFY2(took >= 0, qPrintable(QStringLiteral("dev1 lists ") + rowIds(api(1).rows(kMembers)).join(QLatin1Char(' '))));
    qInfo("every follower listed on the restarted master %lld ms after it was ready", took);
    QCOMPARE(api(2).ownMasterId(id(2)), id(1));
    QCOMPARE(api(3).ownMasterId(id(3)), id(1));
}

QTEST_GUILESS_MAIN(tst_LabSavedGroups)
#include "tst_LabSavedGroups.moc"
