// Devices of two architectures on one LAN: dev2 runs the arm64 cross build's
// host and module under qemu-user, dev1 and dev3 the native ones. They find
// each other, join and leave each other, and a group saved on the arm64
// device forms again after a power cut of all three: the discovery records,
// the receiver link's datagrams and the saved group's file (its 64-bit
// millisecond timestamp) mean the same on both sides.

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonObject>
#include <QScopedPointer>
#include <QTest>

#include "Lab.h"
#include "LabApi.h"
#include "LabLog.h"
#include "LabRows.h"

namespace {

constexpr int kDevices = 3;
constexpr int kEmulated = 2;
constexpr int kResendMs = 300;
constexpr int kTimeoutMs = 2000;
constexpr int kDiscoveryMs = 1000;
// An emulated host runs several times slower than a native one and shares
// two cores with the others: generous bounds, but bounds.
constexpr int kSlowMs = 20000;

const QString kMembers = QStringLiteral("/grouping/members");

QString crossBuildDir()
{
    const QString configured = qEnvironmentVariable("LAB_BUILD_DIR_ARM64");
    return configured.isEmpty() ? QStringLiteral(TARV_SOURCE_DIR "/build-arm64") : configured;
}

// What a device's process really runs, from /proc (the lab's pid is the
// process that runs the host: qemu for an emulated one).
QString executableOf(qint64 pid)
{
    return QFileInfo(QStringLiteral("/proc/%1/exe").arg(pid)).canonicalFilePath();
}

} // namespace

class tst_LabMixedArch : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void theArm64DeviceRunsUnderEmulationAndTheOthersNatively();
    void devicesOfBothArchitecturesListEachOther();
    void theEmulatedDeviceJoinsANativeMasterAndLeaves();
    void aNativeDeviceJoinsTheEmulatedMasterAndLeaves();
    void aGroupSavedOnTheEmulatedDeviceFormsAgainAfterAPowerCutOfAll();

private:
    LabApi& api(int device) { return *m_api[device - 1]; }
    QString id(int device) const { return m_lab->id(device); }
    QStringList ids(std::initializer_list<int> devices) const
    {
        QStringList result;
        for (int device : devices)
            result << id(device);
        result.sort();
        return result;
    }
    bool waitForRows(int device, const QStringList& expected, int timeoutMs);
    // The record `device` lists for `member` in /system/members, empty when
    // none.
    QJsonObject memberRecord(int device, const QString& member);

    QScopedPointer<Lab> m_lab;
    QList<LabApi*> m_api;
};

void tst_LabMixedArch::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    const QString cross = crossBuildDir();
    if (!QFileInfo::exists(cross + QStringLiteral("/src/host/tarv-host")))
        QSKIP(qPrintable(QStringLiteral("no arm64 build in %1 (make build ARCH=arm64, or set LAB_BUILD_DIR_ARM64)").arg(cross)));
    m_lab.reset(new Lab(QStringLiteral("m%1").arg(QCoreApplication::applicationPid() % 10000000)));
    m_lab->setVariable(QStringLiteral("LAB_BUILD_DIR_ARM64"), cross);
    QVERIFY2(m_lab->up(kDevices, Lab::timeOptions(kResendMs, kTimeoutMs, kDiscoveryMs)
                                     + QStringList{QStringLiteral("--emulate"), QStringLiteral("dev%1=arm64").arg(kEmulated)}),
             qPrintable(m_lab->lastOutput()));
    for (int device = 1; device <= kDevices; ++device)
        m_api.append(new LabApi(m_lab->api(device), this));
}

// Every device alive, without a saved group and alone.
void tst_LabMixedArch::init()
{
    m_lab->status();
    for (int device = 1; device <= kDevices; ++device)
        QCOMPARE(m_lab->state(device), QStringLiteral("running"));
    for (int device = 1; device <= kDevices; ++device) {
        const LabApi::Reply cleared = api(device).save(QString(), {}, kSlowMs);
        QVERIFY2(cleared.ok(), qPrintable(QString::fromUtf8(cleared.body)));
    }
    for (int device = 1; device <= kDevices; ++device)
        api(device).leave();
    for (int device = 1; device <= kDevices; ++device)
        QVERIFY2(api(device).waitAlone(id(device), kTimeoutMs + kSlowMs), qPrintable(api(device).groupingSummary()));
}

void tst_LabMixedArch::cleanup()
{
    if (!QTest::currentTestFailed())
        return;
    for (int device = 1; device <= kDevices; ++device)
        LabLog(m_lab->logPath(device)).warnTail(QStringLiteral("dev%1 log").arg(device), 30);
}

void tst_LabMixedArch::cleanupTestCase()
{
    if (m_lab)
        QVERIFY2(m_lab->down(), qPrintable(m_lab->lastOutput()));
}

bool tst_LabMixedArch::waitForRows(int device, const QStringList& expected, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    do {
        if (rowIds(api(device).rows(kMembers)) == expected)
            return true;
        QTest::qWait(50);
    } while (clock.elapsed() < timeoutMs);
    return false;
}

QJsonObject tst_LabMixedArch::memberRecord(int device, const QString& member)
{
    for (const QJsonValue& row : api(device).rows(QStringLiteral("/system/members"))) {
        if (row.toObject().value(QStringLiteral("id")).toString() == member)
            return row.toObject().value(QStringLiteral("value")).toObject().value(QStringLiteral("systemMember")).toObject();
    }
    return QJsonObject();
}

void tst_LabMixedArch::theArm64DeviceRunsUnderEmulationAndTheOthersNatively()
{
    m_lab->status();
    QVERIFY2(executableOf(m_lab->pid(kEmulated)).endsWith(QStringLiteral("/qemu-aarch64")),
             qPrintable(executableOf(m_lab->pid(kEmulated))));
    for (int device : {1, 3})
        QVERIFY2(executableOf(m_lab->pid(device)).endsWith(QStringLiteral("/src/host/tarv-host")),
                 qPrintable(executableOf(m_lab->pid(device))));
    const QJsonArray devices = m_lab->status().value(QStringLiteral("devices")).toArray();
    QCOMPARE(devices.at(kEmulated - 1).toObject().value(QStringLiteral("emulated")).toString(), QStringLiteral("arm64"));
    QCOMPARE(devices.at(0).toObject().value(QStringLiteral("emulated")).toString(), QString());
}

void tst_LabMixedArch::devicesOfBothArchitecturesListEachOther()
{
    for (int device = 1; device <= kDevices; ++device) {
        for (int other = 1; other <= kDevices; ++other) {
            const QJsonObject record = memberRecord(device, id(other));
            QVERIFY2(!record.isEmpty(), qPrintable(QStringLiteral("dev%1 does not list dev%2").arg(device).arg(other)));
            QCOMPARE(record.value(QStringLiteral("name")).toString(), QStringLiteral("dev%1").arg(other));
        }
    }
}

void tst_LabMixedArch::theEmulatedDeviceJoinsANativeMasterAndLeaves()
{
    const LabApi::Reply joined = api(kEmulated).join(id(1), QStringLiteral("dev1"), m_lab->address(1));
    QVERIFY2(joined.ok(), qPrintable(QString::fromUtf8(joined.body)));
    QVERIFY2(waitForRows(1, ids({1, 2}), kSlowMs), qPrintable(api(1).groupingSummary()));
    QCOMPARE(api(kEmulated).ownMasterId(id(kEmulated)), id(1));

    QVERIFY(api(kEmulated).leave().ok());
    QVERIFY2(waitForRows(1, ids({1}), kSlowMs), qPrintable(api(1).groupingSummary()));
    QVERIFY(api(kEmulated).waitAlone(id(kEmulated), kSlowMs));
}

void tst_LabMixedArch::aNativeDeviceJoinsTheEmulatedMasterAndLeaves()
{
    const LabApi::Reply joined = api(3).join(id(kEmulated), QStringLiteral("dev2"), m_lab->address(kEmulated));
    QVERIFY2(joined.ok(), qPrintable(QString::fromUtf8(joined.body)));
    QVERIFY2(waitForRows(kEmulated, ids({2, 3}), kSlowMs), qPrintable(api(kEmulated).groupingSummary()));
    QCOMPARE(api(3).ownMasterId(id(3)), id(kEmulated));

    QVERIFY(api(3).leave().ok());
    QVERIFY2(waitForRows(kEmulated, ids({2}), kSlowMs), qPrintable(api(kEmulated).groupingSummary()));
    QVERIFY(api(3).waitAlone(id(3), kSlowMs));
}

void tst_LabMixedArch::aGroupSavedOnTheEmulatedDeviceFormsAgainAfterAPowerCutOfAll()
{
    const qint64 before = QDateTime::currentMSecsSinceEpoch();
    const LabApi::Reply saved = api(kEmulated).save(QStringLiteral("Mixed"), {id(1), id(3)}, kSlowMs);
    QVERIFY2(saved.ok(), qPrintable(QString::fromUtf8(saved.body)));
    QVERIFY2(waitForRows(kEmulated, ids({1, 2, 3}), kSlowMs), qPrintable(api(kEmulated).groupingSummary()));
    const QJsonObject group = api(kEmulated).savedGroup();
    const qint64 timestamp = static_cast<qint64>(group.value(QStringLiteral("timestamp")).toDouble());
    QVERIFY2(timestamp >= before && timestamp <= QDateTime::currentMSecsSinceEpoch(), qPrintable(QString::number(timestamp)));
    // The native devices read the arm64 device's announced time unchanged
    // (its next announcement carries it).
    for (int device : {1, 3}) {
        const auto announced = [&] {
            return static_cast<qint64>(
                memberRecord(device, id(kEmulated)).value(QStringLiteral("persistentGroupTimestamp")).toDouble());
        };
        QTRY_COMPARE_WITH_TIMEOUT(announced(), timestamp, kSlowMs);
    }

    // The power cut: every host killed, then all started again at once.
    for (int device = 1; device <= kDevices; ++device)
        QCOMPARE(m_lab->run({QStringLiteral("kill"), QStringLiteral("dev%1").arg(device)}), 0);
    QVERIFY2(m_lab->run({QStringLiteral("restart"), QStringLiteral("dev1"), QStringLiteral("dev2"), QStringLiteral("dev3")},
                        nullptr, 180000) == 0,
             qPrintable(m_lab->lastOutput()));
    m_lab->status();

    QVERIFY2(waitForRows(kEmulated, ids({1, 2, 3}), kSlowMs + 3 * kDiscoveryMs),
             qPrintable(QStringLiteral("the group did not form again: ") + api(kEmulated).groupingSummary()));
    const QJsonObject reloaded = api(kEmulated).savedGroup();
    QCOMPARE(groupMembers(reloaded), ids({1, 2, 3}));
    QCOMPARE(reloaded.value(QStringLiteral("name")).toString(), QStringLiteral("Mixed"));
    QCOMPARE(static_cast<qint64>(reloaded.value(QStringLiteral("timestamp")).toDouble()), timestamp);
    for (int device : {1, 3})
        QCOMPARE(api(device).ownMasterId(id(device)), id(kEmulated));
}

QTEST_GUILESS_MAIN(tst_LabMixedArch)
#include "tst_LabMixedArch.moc"
