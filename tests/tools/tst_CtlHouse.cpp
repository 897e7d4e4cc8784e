#include <QJsonDocument>
#include <QtTest>

#include "CtlHouse.h"

namespace {

CtlHouse houseOf(const QByteArray& rows)
{
    return CtlHouse::fromRows(QJsonDocument::fromJson(rows).object());
}

const QByteArray devices = R"({"path":"/system/house","rows":[
  {"id":"a1","value":{"houseMember":{"id":"a1","name":"Kitchen","transcoder":true,"master":"a1",
    "savedGroup":{"name":"Home","members":["a1","b2"],"timestamp":1700000000000},"api":{"address":"10.0.0.1","port":8080}}}},
  {"id":"b2","value":{"houseMember":{"id":"b2","name":"twin","transcoder":false,"master":"a1","api":null}}},
  {"id":"c3","value":{"houseMember":{"id":"c3","name":"Twin","transcoder":false,"master":"c3","api":null}}},
  {"id":"d4","value":{"houseMember":{"id":"d4","name":"a1","transcoder":false,"master":"","api":null}}},
  {"id":"e5","value":{"notAHouseMember":{}}},
  {"id":"","value":{"houseMember":{"name":"nameless"}}},
  "not a row"]})";

} // namespace

class tst_CtlHouse : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void rowsBecomeDevices();
    void findsByIdFirstThenByNameIgnoringCase_data();
    void findsByIdFirstThenByNameIgnoringCase();
};

void tst_CtlHouse::rowsBecomeDevices()
{
    const CtlHouse house = houseOf(devices);
    // The row without a record keeps its id; the one without any id is dropped.
    QCOMPARE(house.devices().size(), 5);
    const CtlHouse::Device* kitchen = house.byId("a1");
    QVERIFY(kitchen);
    QCOMPARE(kitchen->name, QString("Kitchen"));
    QVERIFY(kitchen->transcoder);
    QVERIFY(kitchen->reachable);
    QCOMPARE(kitchen->apiAddress, QString("10.0.0.1"));
    QCOMPARE(kitchen->apiPort, 8080);
    QVERIFY(kitchen->hasSavedGroup);
    QCOMPARE(kitchen->savedGroup.name, QString("Home"));
    QCOMPARE(kitchen->savedGroup.members, QStringList({"a1", "b2"}));
    QCOMPARE(kitchen->savedGroup.timestamp, qint64(1700000000000));
    const CtlHouse::Device* twin = house.byId("b2");
    QVERIFY(twin);
    QVERIFY(!twin->reachable);
    QVERIFY(!twin->hasSavedGroup);
    QCOMPARE(twin->master, QString("a1"));
    QVERIFY(house.byId("e5"));
    QCOMPARE(house.nameOf("e5"), QString("e5"));
    QCOMPARE(house.nameOf("gone"), QString("gone"));
}

void tst_CtlHouse::findsByIdFirstThenByNameIgnoringCase_data()
{
    QTest::addColumn<QString>("wanted");
    QTest::addColumn<int>("match");
    QTest::addColumn<QString>("id");
    QTest::addColumn<QStringList>("candidates");
    QTest::newRow("id") << "b2" << int(CtlHouse::Found) << "b2" << QStringList();
    // "a1" is Kitchen's id and d4's name: the id wins.
    QTest::newRow("id before a name") << "a1" << int(CtlHouse::Found) << "a1" << QStringList();
    QTest::newRow("name") << "Kitchen" << int(CtlHouse::Found) << "a1" << QStringList();
    QTest::newRow("name, other case") << "KITCHEN" << int(CtlHouse::Found) << "a1" << QStringList();
    QTest::newRow("id, other case is no id") << "B2" << int(CtlHouse::Unknown) << ""
                                             << QStringList({"a1", "e5", "Kitchen", "Twin", "twin"});
    QTest::newRow("shared name") << "TWIN" << int(CtlHouse::Ambiguous) << "" << QStringList({"b2", "c3"});
    QTest::newRow("unknown") << "cellar" << int(CtlHouse::Unknown) << ""
                             << QStringList({"a1", "e5", "Kitchen", "Twin", "twin"});
}

void tst_CtlHouse::findsByIdFirstThenByNameIgnoringCase()
{
    QFETCH(QString, wanted);
    QFETCH(int, match);
    QFETCH(QString, id);
    QFETCH(QStringList, candidates);
    QString found;
    QStringList listed{"left over"};
    QCOMPARE(int(houseOf(devices).find(wanted, &found, &listed)), match);
    QCOMPARE(found, id);
    QCOMPARE(listed, candidates);
}

QTEST_GUILESS_MAIN(tst_CtlHouse)
#include "tst_CtlHouse.moc"
