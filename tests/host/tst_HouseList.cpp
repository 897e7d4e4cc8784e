#include <memory>

#include <QJsonDocument>
#include <QSignalSpy>
#include <QtTest>

#include "CMListRowsNode.h"
#include "CMNodes.h"
#include "HouseList.h"
#include "TarvConnect.h"
#include "TarvJson.h"
#include "TarvRoles.h"
#include "TarvValue.h"

namespace {

TarvSystemMember member(const QString& id)
{
    return TarvSystemMember()
        .setId(id)
        .setName(QStringLiteral("Name of ") + id)
        .setHost(id + QStringLiteral(".local"))
        .setIpAddress(QStringLiteral("10.77.0.50"))
        .setTranscoder(true)
        .setPersistentGroupMembers({id, QStringLiteral("other")})
        .setPersistentGroupTimestamp(1700000000123);
}

TarvRoles memberRow(const TarvSystemMember& record)
{
    TarvRoles row;
    row.setId(record.id()).setType(TarvRolesType::Unknown).setTitle(record.name()).setValue(
        TarvValue().setSystemMember(record));
    return row;
}

QVariant json(const QByteArray& text)
{
    return QJsonDocument::fromJson(text).toVariant();
}

} // namespace

class tst_HouseList : public QObject
{
    Q_OBJECT

private:
    std::unique_ptr<CMNodes> m_nodes;
    CMListRowsNode* m_members = nullptr;
    CMListRowsNode* m_house = nullptr;
    std::unique_ptr<HouseList> m_list;

    QVariantHash houseMember(const QString& id) const
    {
        return m_house->rowsGetById(id).value().value(HouseList::HouseMember()).toHash();
    }

    // Discovery's order: what it heard, then the members row.
    void hear(const TarvSystemMember& record, const Discovery::House& heard, const QString& source)
    {
        m_list->setMemberHouse(record, heard, QHostAddress(source));
        m_members->rowsSetById(memberRow(record));
    }

private Q_SLOTS:
    void init()
    {
        m_nodes = std::make_unique<CMNodes>();
        m_members = CMListRowsNode::create(m_nodes.get(), CMPath("/system/members"));
        m_members->setLoading(true);
        m_house = CMListRowsNode::create(m_nodes.get(), CMPath("/system/house"));
        m_list = std::make_unique<HouseList>(m_house, m_members, QStringLiteral("own"));
    }

    void cleanup()
    {
        m_list.reset();
        m_nodes.reset();
    }

    void aRowHoldsTheRecordTheHouseAndTheApi()
    {
        const TarvRoles row = HouseList::makeRow(member(QStringLiteral("d1")), Discovery::House{"t1", "Party", 8080},
                                                 QStringLiteral("10.77.0.9"));
        QCOMPARE(row.id(), QStringLiteral("d1"));
        QCOMPARE(row.type(), TarvRolesType::Unknown);
        QCOMPARE(row.title().toString(), QStringLiteral("Name of d1"));
        QCOMPARE(row.value().toVariant(), json(R"({"houseMember": {
            "id": "d1", "name": "Name of d1", "host": "d1.local", "ipAddress": "10.77.0.50",
            "transcoder": true, "master": "t1",
            "savedGroup": {"name": "Party", "members": ["d1", "other"], "timestamp": 1700000000123},
            "api": {"address": "10.77.0.9", "port": 8080}}})"));
        QCOMPARE(row.value().toJson(false),
                 QByteArray(R"({"houseMember":{"api":{"address":"10.77.0.9","port":8080},"host":"d1.local",)"
                            R"("id":"d1","ipAddress":"10.77.0.50","master":"t1","name":"Name of d1",)"
                            R"("savedGroup":{"members":["d1","other"],"name":"Party","timestamp":1700000000123},)"
                            R"("transcoder":true}})"));
    }

    void theApiIsNullWithoutAddressOrPort_data()
    {
        QTest::addColumn<QString>("address");
        QTest::addColumn<int>("port");
        QTest::newRow("port 0") << QStringLiteral("10.77.0.9") << 0;
        QTest::newRow("no address") << QString() << 8080;
    }

    void theApiIsNullWithoutAddressOrPort()
    {
        QFETCH(QString, address);
        QFETCH(int, port);
        const TarvRoles row =
            HouseList::makeRow(member(QStringLiteral("d1")), Discovery::House{"", "", static_cast<quint16>(port)}, address);
        const QVariant api = row.value().value(HouseList::HouseMember()).toHash().value(QStringLiteral("api"));
        QVERIFY(api.isNull());
        QVERIFY(row.value().toJson(false).contains(R"("api":null)"));
        // As the JSON parser reads it back: no change when written again.
        TarvError error;
        QCOMPARE(TarvJson::parse(row.value().toJson(false), error, nullptr), row.value().toVariant());
        QVERIFY(!error.isError());
    }

    void theApiAddressIsTheSourceNeverThePayload_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QString>("address");
        QTest::newRow("IPv4") << QStringLiteral("10.77.0.13") << QStringLiteral("10.77.0.13");
        QTest::newRow("IPv4 mapped") << QStringLiteral("::ffff:10.77.0.14") << QStringLiteral("10.77.0.14");
        QTest::newRow("IPv6") << QStringLiteral("fd00::7") << QStringLiteral("fd00::7");
    }

    void theApiAddressIsTheSourceNeverThePayload()
    {
        QFETCH(QString, source);
        QFETCH(QString, address);
        hear(member(QStringLiteral("d1")), Discovery::House{"d1", "", 8080}, source);
        const QVariantHash api = houseMember(QStringLiteral("d1")).value(QStringLiteral("api")).toHash();
        QCOMPARE(api, (QVariantHash{{QStringLiteral("address"), address}, {QStringLiteral("port"), 8080}}));
        QCOMPARE(houseMember(QStringLiteral("d1")).value(QStringLiteral("ipAddress")).toString(),
                 QStringLiteral("10.77.0.50"));
    }

    void aDeviceAnnouncingPortZeroHasNoApi()
    {
        hear(member(QStringLiteral("d1")), Discovery::House{"d1", "", 0}, QStringLiteral("10.77.0.13"));
        QVERIFY(houseMember(QStringLiteral("d1")).value(QStringLiteral("api")).isNull());
    }

    void aRowAppearsOnceAndChangesOnlyWithItsContent()
    {
        QSignalSpy rows(m_house, &CMListRowsNode::rowChanged);
        const TarvSystemMember d1 = member(QStringLiteral("d1"));
        hear(d1, Discovery::House{"d1", "Party", 8080}, QStringLiteral("10.77.0.13"));
        QCOMPARE(rows.count(), 1);
        QVERIFY(rows.first().at(1).value<TarvRoles>().isEmpty());
        for (int i = 0; i < 5; ++i)
            hear(d1, Discovery::House{"d1", "Party", 8080}, QStringLiteral("10.77.0.13"));
        QCOMPARE(rows.count(), 1);

        // One change of the house information, one change of the record.
        hear(d1, Discovery::House{"t9", "Party", 8080}, QStringLiteral("10.77.0.13"));
        QCOMPARE(rows.count(), 2);
        QCOMPARE(houseMember(QStringLiteral("d1")).value(QStringLiteral("master")).toString(), QStringLiteral("t9"));
        hear(TarvSystemMember(d1).setName(QStringLiteral("Renamed")), Discovery::House{"t9", "Party", 8080},
             QStringLiteral("10.77.0.13"));
        QCOMPARE(rows.count(), 3);
        QCOMPARE(m_house->rowsGetById(QStringLiteral("d1")).title().toString(), QStringLiteral("Renamed"));
        // A new source address is a new api address.
        hear(TarvSystemMember(d1).setName(QStringLiteral("Renamed")), Discovery::House{"t9", "Party", 8080},
             QStringLiteral("10.77.0.99"));
        QCOMPARE(rows.count(), 4);
    }

    void aRowLeavesWithItsMembersRowAndComesBackEmptyOfOldNews()
    {
        hear(member(QStringLiteral("d1")), Discovery::House{"t1", "Party", 8080}, QStringLiteral("10.77.0.13"));
        hear(member(QStringLiteral("d2")), Discovery::House{"d2", "", 0}, QStringLiteral("10.77.0.14"));
        QCOMPARE(m_house->rowsSize(), 2);
        int houseRowsWhenMemberLeft = -1;
        tarvConnect(m_members, &CMListRowsNode::rowChanged, this,
                    [&](const TarvRoles&, const TarvRoles&) { houseRowsWhenMemberLeft = m_house->rowsSize(); });
        m_members->rowsRemoveById(QStringLiteral("d1"));
        QCOMPARE(houseRowsWhenMemberLeft, 1);
        QVERIFY(m_house->rowsGetById(QStringLiteral("d1")).isEmpty());
        QVERIFY(!m_house->rowsGetById(QStringLiteral("d2")).isEmpty());

        // Listed again without a word from discovery: no old house news.
        m_members->rowsSetById(memberRow(member(QStringLiteral("d1"))));
        QCOMPARE(houseMember(QStringLiteral("d1")).value(QStringLiteral("master")).toString(), QString());
        QVERIFY(houseMember(QStringLiteral("d1")).value(QStringLiteral("api")).isNull());
    }

    void theOwnRowComesFromSetOwnOnly()
    {
        QSignalSpy rows(m_house, &CMListRowsNode::rowChanged);
        const TarvSystemMember own = member(QStringLiteral("own"));
        m_list->setOwn(own, Discovery::House{"own", "Party", 8080}, QStringLiteral("10.77.0.2"));
        QCOMPARE(rows.count(), 1);
        QCOMPARE(houseMember(QStringLiteral("own")).value(QStringLiteral("api")).toHash().value(QStringLiteral("address")),
                 QVariant(QStringLiteral("10.77.0.2")));
        m_list->setOwn(own, Discovery::House{"own", "Party", 8080}, QStringLiteral("10.77.0.2"));
        QCOMPARE(rows.count(), 1);
        // Its own announcement heard back, its members row and its removal
        // from the members list leave it alone.
        m_list->setMemberHouse(own, Discovery::House{"x", "", 0}, QHostAddress(QStringLiteral("10.77.0.66")));
        m_members->rowsSetById(memberRow(own));
        m_members->rowsRemoveById(QStringLiteral("own"));
        QCOMPARE(rows.count(), 1);
        QCOMPARE(houseMember(QStringLiteral("own")).value(QStringLiteral("master")).toString(), QStringLiteral("own"));
        m_list->setOwn(own, Discovery::House{"own", "Party", 0}, QStringLiteral("10.77.0.2"));
        QCOMPARE(rows.count(), 2);
        QVERIFY(houseMember(QStringLiteral("own")).value(QStringLiteral("api")).isNull());
    }

    void loadingFollowsTheMembersList()
    {
        QVERIFY(m_house->isLoading());
        m_members->setLoading(false);
        QVERIFY(!m_house->isLoading());
        m_members->setLoading(true);
        QVERIFY(m_house->isLoading());
    }
};

QTEST_GUILESS_MAIN(tst_HouseList)
#include "tst_HouseList.moc"
