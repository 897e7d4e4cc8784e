// The house from any device, end to end: four real hosts with the module in
// the lab. Every host lists every device in /system/house, tarvctl prints the
// house from any of them, and `tarvctl --device` changes another device
// through the host it talks to, with the same answers as when talking to
// that device directly.

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTest>

#include "Discovery.h"
#include "Lab.h"
#include "LabApi.h"
#include "LabDevices.h"

namespace {

constexpr int kResendMs = 300;
constexpr int kTimeoutMs = 2000;
// A short period so that a killed device leaves the house in seconds.
constexpr int kDiscoveryMs = 500;
// Allowance for a change to travel through announcements and HTTP on a busy
// two-core machine.
constexpr int kDeliveryMs = 1500;

const QString kHouse = QStringLiteral("/system/house");

QString name(int device)
{
    return QStringLiteral("dev%1").arg(device);
}

} // namespace

class tst_LabHouse : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void initTestCase();
    void init();
    void cleanup();
    void cleanupTestCase();

    void everyHostListsEveryDeviceWithItsControlApi();
    void houseCommandPrintsTheSameHouseFromEveryDevice();
    void deviceOptionJoinsAndLeavesAnotherDevice();
    void aRefusalThroughAnotherHostReadsAsWhenTalkingDirectly();
    void anUnknownDeviceIsNamed();
    void aCutDeviceIsReportedUnreachableByName();
    void aKilledDeviceLeavesTheHouseAndItsRestartBringsItBack();

private:
    LabApi& api(int device) { return m_devices.api(device); }
    QString id(int device) const { return m_devices.id(device); }
    // `tarvctl ARGS` in device `from`'s namespace (talking to its host).
    int ctl(int from, const QStringList& args, QString* output);
    // The houseMember records of a host's /system/house, by device id.
    QHash<QString, QJsonObject> house(int device);
    bool waitAllAlone();

    LabDevices m_devices;
    Lab* m_lab = nullptr;
};

void tst_LabHouse::initTestCase()
{
    const QString reason = Lab::unavailableReason();
    if (!reason.isEmpty())
        QSKIP(qPrintable(reason));
    QString why;
    QVERIFY2(m_devices.up(QStringLiteral("h"), 4, kResendMs, kTimeoutMs, kDiscoveryMs, &why), qPrintable(why));
    m_lab = &m_devices.lab();
}

void tst_LabHouse::init()
{
    QVERIFY2(waitAllAlone(), "the devices did not start the test on their own");
}

void tst_LabHouse::cleanup()
{
    if (QTest::currentTestFailed())
        m_devices.printLogTails(25);
    for (int device = 1; device <= 4; ++device)
        api(device).leave();
}

void tst_LabHouse::cleanupTestCase()
{
    QString why;
    QVERIFY2(m_devices.down(&why), qPrintable(why));
}

int tst_LabHouse::ctl(int from, const QStringList& args, QString* output)
{
    return m_lab->run(QStringList{QStringLiteral("exec"), name(from), QStringLiteral("tarvctl")} + args, output);
}

QHash<QString, QJsonObject> tst_LabHouse::house(int device)
{
    QHash<QString, QJsonObject> members;
    for (const QJsonValue& row : api(device).rows(kHouse)) {
        const QJsonObject member = row.toObject().value(QStringLiteral("value")).toObject().value(
            QStringLiteral("houseMember")).toObject();
        members.insert(member.value(QStringLiteral("id")).toString(), member);
    }
    return members;
}

bool tst_LabHouse::waitAllAlone()
{
    for (int device = 1; device <= 4; ++device) {
        if (!api(device).waitAlone(id(device), 10000))
            return false;
    }
    return true;
}

void tst_LabHouse::everyHostListsEveryDeviceWithItsControlApi()
{
    for (int device = 1; device <= 4; ++device) {
        QTRY_COMPARE_WITH_TIMEOUT(house(device).size(), 4, kDeliveryMs);
        const QHash<QString, QJsonObject> members = house(device);
        for (int other = 1; other <= 4; ++other) {
            const QJsonObject member = members.value(id(other));
            QCOMPARE(member.value(QStringLiteral("name")).toString(), name(other));
            QCOMPARE(member.value(QStringLiteral("transcoder")).toBool(), true);
            QCOMPARE(member.value(QStringLiteral("master")).toString(), id(other));
            // The address other devices reach it at is the lab's own for
            // that device: the one its API listens on.
            const QJsonObject api = member.value(QStringLiteral("api")).toObject();
            QCOMPARE(QStringLiteral("http://%1:%2")
                         .arg(api.value(QStringLiteral("address")).toString())
                         .arg(api.value(QStringLiteral("port")).toInt()),
                     m_lab->api(other));
        }
    }
}

void tst_LabHouse::houseCommandPrintsTheSameHouseFromEveryDevice()
{
    QVERIFY(api(2).join(id(1), name(1), m_lab->address(1)).ok());
    for (int device = 1; device <= 4; ++device)
        QTRY_COMPARE_WITH_TIMEOUT(house(device).value(id(2)).value(QStringLiteral("master")).toString(), id(1),
                                  kDeliveryMs);
    for (int device = 1; device <= 4; ++device) {
        QString output;
        QCOMPARE(ctl(device, {QStringLiteral("house"), QStringLiteral("--json")}, &output), 0);
        const QJsonObject house = QJsonDocument::fromJson(output.toUtf8()).object();
        QVERIFY2(!house.isEmpty(), qPrintable(output));
        const QJsonArray groups = house.value(QStringLiteral("groups")).toArray();
        QCOMPARE(groups.size(), 1);
        const QJsonObject group = groups.first().toObject();
        QCOMPARE(group.value(QStringLiteral("transcoder")).toObject().value(QStringLiteral("id")).toString(), id(1));
        const QJsonArray followers = group.value(QStringLiteral("followers")).toArray();
        QCOMPARE(followers.size(), 1);
        QCOMPARE(followers.first().toObject().value(QStringLiteral("id")).toString(), id(2));
        QCOMPARE(house.value(QStringLiteral("alone")).toArray().size(), 2);
        // The group holds this device exactly when it is dev1 or dev2.
        QCOMPARE(QJsonDocument(groups).toJson().count("\"self\": true"), device <= 2 ? 1 : 0);

        QCOMPARE(ctl(device, {QStringLiteral("house")}, &output), 0);
        QVERIFY2(output.contains(QStringLiteral("Group of dev1")), qPrintable(output));
        QVERIFY2(output.contains(QStringLiteral("tarvctl talks to ") + name(device)), qPrintable(output));
    }
}

void tst_LabHouse::deviceOptionJoinsAndLeavesAnotherDevice()
{
    QString output;
    // From dev4, by name: dev2 joins dev1 and tarvctl returns once it has.
    QCOMPARE(ctl(4, {QStringLiteral("--device"), name(2), QStringLiteral("join"), name(1)}, &output), 0);
    QVERIFY2(output.trimmed().endsWith(QStringLiteral("joined dev1")), qPrintable(output));
    QCOMPARE(api(2).ownMasterId(id(2)), id(1));
    // dev1 lists its new follower, and every host's house shows it.
    QTRY_VERIFY_WITH_TIMEOUT(!api(1).row(QStringLiteral("/grouping/members"), id(2)).isEmpty(), kDeliveryMs);
    for (int device = 1; device <= 4; ++device)
        QTRY_COMPARE_WITH_TIMEOUT(house(device).value(id(2)).value(QStringLiteral("master")).toString(), id(1),
                                  kDeliveryMs);

    // By id this time.
    QCOMPARE(ctl(4, {QStringLiteral("--device"), id(2), QStringLiteral("leave")}, &output), 0);
    QVERIFY2(output.trimmed().endsWith(QStringLiteral("left dev1")), qPrintable(output));
    QCOMPARE(api(2).ownMasterId(id(2)), id(2));
}

void tst_LabHouse::aRefusalThroughAnotherHostReadsAsWhenTalkingDirectly()
{
    QVERIFY(api(2).join(id(1), name(1), m_lab->address(1)).ok());
    QTRY_VERIFY_WITH_TIMEOUT(!api(1).row(QStringLiteral("/grouping/members"), id(2)).isEmpty(), kDeliveryMs);
    QTRY_COMPARE_WITH_TIMEOUT(house(4).value(id(2)).value(QStringLiteral("master")).toString(), id(1), kDeliveryMs);

    // dev1 has a follower: its module refuses to make it follow dev3.
    QString direct;
    const int directCode = ctl(1, {QStringLiteral("--timeout-ms"), QStringLiteral("1500"), QStringLiteral("join"),
                                   name(3)},
                               &direct);
    QString forwarded;
    const int forwardedCode = ctl(4, {QStringLiteral("--timeout-ms"), QStringLiteral("1500"), QStringLiteral("--device"),
                                      name(1), QStringLiteral("join"), name(3)},
                                  &forwarded);
    QCOMPARE(directCode, 1);
    QCOMPARE(forwardedCode, directCode);
    QCOMPARE(forwarded, direct);
    QVERIFY2(direct.contains(QStringLiteral("no change: the device refused")), qPrintable(direct));

    // A value the host refuses: the same 422 text either way.
    const QStringList rename{QStringLiteral("set"), QStringLiteral("/settings/device/name"), QStringLiteral("\"\"")};
    QCOMPARE(ctl(1, rename, &direct), ctl(4, QStringList{QStringLiteral("--device"), name(1)} + rename, &forwarded));
    QCOMPARE(forwarded, direct);
    QVERIFY2(!direct.trimmed().isEmpty(), "the refusal printed nothing");
}

void tst_LabHouse::anUnknownDeviceIsNamed()
{
    QString output;
    QCOMPARE(ctl(4, {QStringLiteral("--device"), QStringLiteral("attic"), QStringLiteral("status")}, &output), 1);
    QVERIFY2(output.contains(QStringLiteral("no device with the id or name 'attic'")), qPrintable(output));
    for (int device = 1; device <= 4; ++device)
        QVERIFY2(output.contains(name(device)), qPrintable(output));
}

void tst_LabHouse::aCutDeviceIsReportedUnreachableByName()
{
    QString output;
    QCOMPARE(m_lab->run({QStringLiteral("cut"), name(3)}), 0);
    const int code = ctl(4, {QStringLiteral("--device"), name(3), QStringLiteral("status")}, &output);
    QCOMPARE(m_lab->run({QStringLiteral("heal"), name(3)}), 0);
    QCOMPARE(code, 3);
    QVERIFY2(output.contains(QStringLiteral("Device 'dev3'")) && output.contains(QStringLiteral("unreachable")),
             qPrintable(output));
    // Healed before discovery gave it up: still in the house, reachable.
    QTRY_COMPARE_WITH_TIMEOUT(ctl(4, {QStringLiteral("--device"), name(3), QStringLiteral("status")}, &output), 0,
                              kDeliveryMs * 2);
}

void tst_LabHouse::aKilledDeviceLeavesTheHouseAndItsRestartBringsItBack()
{
    const int goneAfterMs = Discovery::silenceLimitMs(Discovery::GoneAfterMissed, kDiscoveryMs);
    // How soon after its last announcement a device goes is discovery's
    // own matter (tst_Discovery pins it); here it must go from every house
    // within that time.
    QCOMPARE(m_lab->run({QStringLiteral("kill"), name(3)}), 0);
    for (int device : {1, 2, 4})
        QTRY_VERIFY_WITH_TIMEOUT(!house(device).contains(id(3)), goneAfterMs + kDeliveryMs);

    QString output;
    QCOMPARE(ctl(4, {QStringLiteral("--device"), name(3), QStringLiteral("status")}, &output), 1);
    QVERIFY2(output.contains(QStringLiteral("no device with the id or name 'dev3'")), qPrintable(output));

    QCOMPARE(m_lab->run({QStringLiteral("restart"), name(3)}), 0);
    for (int device : {1, 2, 4})
        QTRY_VERIFY_WITH_TIMEOUT(house(device).contains(id(3)), kDiscoveryMs + kDeliveryMs * 2);
    QCOMPARE(ctl(4, {QStringLiteral("--device"), name(3), QStringLiteral("status")}, &output), 0);
}

QTEST_GUILESS_MAIN(tst_LabHouse)
#include "tst_LabHouse.moc"
