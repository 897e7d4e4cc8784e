#include <QDateTime>
#include <QJsonArray>
#include <QJsonDocument>
#include <QtTest>

#include "CannedServer.h"
#include "CommandRun.h"
#include "CtlCommand.h"

namespace {

const QByteArray meHost = R"({"id":"me","name":"dev3","host":"h3","address":"10.0.0.3","requestPort":41230,"version":"0.1.0"})";

// Seven devices, in no useful order: two transcoders (one with a saved
// group), followers of one of them (one not reachable), a device following
// nobody, one whose master is unknown and one following a device that is
// gone.
const QByteArray house = R"({"path":"/system/house","title":"House","loading":false,"rows":[
  {"id":"s","type":0,"title":"shed","value":{"houseMember":{"id":"s","name":"shed","host":"hs","ipAddress":"10.0.0.9",
    "transcoder":false,"master":"","savedGroup":{"name":"Old","members":["s","zz"],"timestamp":1600000000000},"api":null}}},
  {"id":"h","type":0,"title":"hall","value":{"houseMember":{"id":"h","name":"hall","host":"hh","ipAddress":"10.0.0.8",
    "transcoder":false,"master":"a","savedGroup":{"name":"","members":[],"timestamp":0},"api":null}}},
  {"id":"c","type":0,"title":"Living","value":{"houseMember":{"id":"c","name":"Living","host":"hc","ipAddress":"10.0.0.4",
    "transcoder":true,"master":"c","savedGroup":{"name":"","members":[],"timestamp":0},"api":{"address":"10.0.0.4","port":8080}}}},
  {"id":"me","type":0,"title":"dev3","value":{"houseMember":{"id":"me","name":"dev3","host":"h3","ipAddress":"10.0.0.3",
    "transcoder":false,"master":"a","savedGroup":{"name":"","members":[],"timestamp":0},"api":{"address":"10.0.0.3","port":8080}}}},
  {"id":"g","type":0,"title":"garage","value":{"houseMember":{"id":"g","name":"garage","host":"hg","ipAddress":"10.0.0.5",
    "transcoder":false,"master":"g","savedGroup":{"name":"","members":[],"timestamp":0},"api":{"address":"10.0.0.5","port":8080}}}},
  {"id":"a","type":0,"title":"kitchen","value":{"houseMember":{"id":"a","name":"kitchen","host":"h1","ipAddress":"10.0.0.1",
    "transcoder":true,"master":"a","savedGroup":{"name":"Home","members":["a","me"],"timestamp":1700000000000},
    "api":{"address":"10.0.0.1","port":8080}}}},
  {"id":"o","type":0,"title":"attic","value":{"houseMember":{"id":"o","name":"attic","host":"ho","ipAddress":"10.0.0.6",
    "transcoder":false,"master":"x9","savedGroup":{"name":"","members":[],"timestamp":0},"api":{"address":"10.0.0.6","port":8080}}}}]})";

QString localTime(qint64 msSinceEpoch)
{
    return QDateTime::fromMSecsSinceEpoch(msSinceEpoch).toLocalTime().toString("yyyy-MM-dd HH:mm:ss");
}

QStringList idsOf(const QJsonArray& devices)
{
    QStringList ids;
    for (const QJsonValue& device : devices)
        ids.append(device.toObject().value("id").toString());
    return ids;
}

} // namespace

class tst_CtlHouseCommand : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void houseShowsEveryGroupSortedByName();
    void houseJsonHasGroupsLoneDevicesAndTheRawRows();
    void houseOfOneDeviceSaysSoAndNamesNoSavedGroup();
    void houseOfAHostNotInItsOwnListSaysSo();
    void houseFailsWithTheHostsError_data();
    void houseFailsWithTheHostsError();
};

void tst_CtlHouseCommand::houseShowsEveryGroupSortedByName()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/system/house", 200, house);
    const CommandRun result = CommandRun::of({"--api", server.api(), "house"});
    QCOMPARE(result.err, QString());
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("House: 7 devices, 1 group; tarvctl talks to dev3 [me]\n"
                                 "Group of kitchen [a]\n"
                                 "  kitchen [a]  transcoder\n"
                                 "  dev3 [me]  follower (this device)\n"
                                 "  hall [h]  follower (not reachable)\n"
                                 "On their own\n"
                                 "  attic [o]  follows x9, not in the house\n"
                                 "  garage [g]  follows nobody\n"
                                 "  Living [c]  transcoder\n"
                                 "  shed [s]  master unknown (not reachable)\n"
                                 "Saved groups\n"
                                 "  kitchen [a]: \"Home\": kitchen, dev3 (saved "
                                 + localTime(1700000000000) + ")\n"
                                 "  shed [s]: \"Old\": shed, zz (saved " + localTime(1600000000000) + ")\n"));
    const QList<CannedServer::Received> received = server.received();
    QCOMPARE(received.size(), 2);
    QCOMPARE(received.at(0).path, QString("/api/v1/host"));
    QCOMPARE(received.at(1).path, QString("/api/v1/rows"));
    QCOMPARE(received.at(1).params.value("path"), QString("/system/house"));
}

void tst_CtlHouseCommand::houseJsonHasGroupsLoneDevicesAndTheRawRows()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, meHost);
    server.answer("GET", "/api/v1/rows?path=/system/house", 200, house);
    const CommandRun result = CommandRun::of({"--api", server.api(), "house", "--json"});
    QCOMPARE(result.exitCode, 0);
    const QJsonObject answer = CommandRun::parseObject(result.out);
    QCOMPARE(answer.value("self").toString(), QString("me"));
    const QJsonArray groups = answer.value("groups").toArray();
    QCOMPARE(groups.size(), 1);
    const QJsonObject kitchen = groups.at(0).toObject();
    QCOMPARE(kitchen.value("transcoder").toObject().value("id").toString(), QString("a"));
    QCOMPARE(idsOf(kitchen.value("followers").toArray()), QStringList({"me", "h"}));
    QCOMPARE(kitchen.value("followers").toArray().at(0).toObject().value("self").toBool(), true);
    QCOMPARE(kitchen.value("followers").toArray().at(1).toObject().value("reachable").toBool(), false);
    QCOMPARE(kitchen.value("transcoder").toObject().value("savedGroup").toObject(),
             QJsonObject({{"name", "Home"},
                          {"members", QJsonArray({QJsonObject({{"id", "a"}, {"name", "kitchen"}}),
                                                  QJsonObject({{"id", "me"}, {"name", "dev3"}})})},
                          {"timestamp", 1700000000000.0}}));
    // A transcoder nobody follows is on its own, sorted among the others.
    QCOMPARE(idsOf(answer.value("alone").toArray()), QStringList({"o", "g", "c", "s"}));
    QVERIFY(answer.value("alone").toArray().at(1).toObject().value("savedGroup").isNull());
    const QJsonArray devices = answer.value("devices").toArray();
    QCOMPARE(devices.size(), 7);
    const QJsonArray rows = QJsonDocument::fromJson(house).object().value("rows").toArray();
    QCOMPARE(devices.at(0).toObject(), rows.at(0).toObject().value("value").toObject().value("houseMember").toObject());
}

void tst_CtlHouseCommand::houseOfOneDeviceSaysSoAndNamesNoSavedGroup()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, R"({"id":"a","name":"kitchen"})");
    server.answer("GET", "/api/v1/rows?path=/system/house", 200, R"({"path":"/system/house","rows":[
        {"id":"a","value":{"houseMember":{"id":"a","name":"kitchen","transcoder":true,"master":"a",
          "savedGroup":{"name":"","members":[],"timestamp":1700000000000},"api":null}}}]})");
    const CommandRun result = CommandRun::of({"--api", server.api(), "house"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("House: 1 device, 0 groups; tarvctl talks to kitchen [a]\n"
                                 "On their own\n"
                                 "  kitchen [a]  transcoder (this device, not reachable)\n"
                                 "Saved groups: none\n"));
}

void tst_CtlHouseCommand::houseOfAHostNotInItsOwnListSaysSo()
{
    CannedServer server;
    server.answer("GET", "/api/v1/host", 200, R"({"id":"zz","name":"new"})");
    server.answer("GET", "/api/v1/rows?path=/system/house", 200, R"({"path":"/system/house","loading":true,"rows":[]})");
    const CommandRun result = CommandRun::of({"--api", server.api(), "house"});
    QCOMPARE(result.exitCode, 0);
    QCOMPARE(result.out, QString("House: 0 devices, 0 groups; tarvctl talks to zz (not in the house)\n"
                                 "On their own: none\n"
                                 "Saved groups: none\n"));
}

void tst_CtlHouseCommand::houseFailsWithTheHostsError_data()
{
    QTest::addColumn<int>("hostStatus");
    QTest::addColumn<int>("houseStatus");
    QTest::addColumn<int>("exitCode");
    QTest::addColumn<QString>("error");
    QTest::newRow("no house list") << 200 << 404 << 1
                                   << "tarvctl: error (HTTP 404): Not found: No node at /system/house\n";
    QTest::newRow("host refuses") << 500 << 200 << 1
                                  << "tarvctl: error (HTTP 500): Not found: No node at /system/house\n";
}

void tst_CtlHouseCommand::houseFailsWithTheHostsError()
{
    QFETCH(int, hostStatus);
    QFETCH(int, houseStatus);
    QFETCH(int, exitCode);
    QFETCH(QString, error);
    CannedServer server;
    const QByteArray refusal = R"({"error":{"name":"NotFound","title":"Not found","message":"No node at /system/house"}})";
    server.answer("GET", "/api/v1/host", hostStatus, hostStatus == 200 ? meHost : refusal);
    server.answer("GET", "/api/v1/rows?path=/system/house", houseStatus, houseStatus == 200 ? house : refusal);
    const CommandRun result = CommandRun::of({"--api", server.api(), "house"});
    QCOMPARE(result.exitCode, exitCode);
    QCOMPARE(result.err, error);
    QCOMPARE(result.out, QString());
}

QTEST_GUILESS_MAIN(tst_CtlHouseCommand)
#include "tst_CtlHouseCommand.moc"
