#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvSystemMember : public QObject
{
    Q_OBJECT

private:
    static TarvSystemMember full()
    {
        TarvSystemMember member;
        member.setId(QStringLiteral("dev-1"))
            .setName(QStringLiteral("Küche"))
            .setHost(QStringLiteral("kitchen.local"))
            .setIpAddress(QStringLiteral("192.168.1.20"))
            .setTranscoder(true)
            .setPersistentGroupTimestamp(Q_INT64_C(1700000000123))
            .setPersistentGroupMembers({QStringLiteral("dev-1"), QStringLiteral("dev-2")});
        return member;
    }

private Q_SLOTS:
    void defaultIsEmpty()
    {
        const TarvSystemMember member;
        QVERIFY(member.isEmpty());
        QCOMPARE(member.id(), QString());
        QCOMPARE(member.transcoder(), false);
        QCOMPARE(member.persistentGroupTimestamp(), Q_INT64_C(0));
        QVERIFY(member.persistentGroupMembers().isEmpty());
        QCOMPARE(member.toJson(false), QByteArray("{}"));
    }

    void anyFieldMakesItNonEmpty()
    {
        QVERIFY(!TarvSystemMember().setId(QStringLiteral("x")).isEmpty());
        QVERIFY(!TarvSystemMember().setTranscoder(false).isEmpty());
    }

    void builtFromQVariantHashReadsFieldNames()
    {
        const QVariantHash hash{
            {QStringLiteral("id"), QStringLiteral("dev-7")},
            {QStringLiteral("name"), QStringLiteral("Bad")},
            {QStringLiteral("host"), QStringLiteral("bath.local")},
            {QStringLiteral("ipAddress"), QStringLiteral("10.0.0.7")},
            {QStringLiteral("transcoder"), true},
            {QStringLiteral("persistentGroupTimestamp"), Q_INT64_C(5000000000)},
            {QStringLiteral("persistentGroupMembers"), QVariantList{QStringLiteral("a"), QStringLiteral("b")}},
        };
        const TarvSystemMember member(hash);
        QCOMPARE(member.id(), QStringLiteral("dev-7"));
        QCOMPARE(member.name(), QStringLiteral("Bad"));
        QCOMPARE(member.host(), QStringLiteral("bath.local"));
        QCOMPARE(member.ipAddress(), QStringLiteral("10.0.0.7"));
        QCOMPARE(member.transcoder(), true);
        QCOMPARE(member.persistentGroupTimestamp(), Q_INT64_C(5000000000));
        QCOMPARE(member.persistentGroupMembers(), TarvList<QString>({QStringLiteral("a"), QStringLiteral("b")}));
        QCOMPARE(member.hash(), hash);
    }

    void settersChainAndWriteFieldNames()
    {
        const TarvSystemMember member = full();
        QStringList keys = member.keys();
        keys.sort();
        QCOMPARE(keys, QStringList({"host", "id", "ipAddress", "name", "persistentGroupMembers",
                                    "persistentGroupTimestamp", "transcoder"}));
        QCOMPARE(TarvSystemMember::Id(), QStringLiteral("id"));
        QCOMPARE(TarvSystemMember::IpAddress(), QStringLiteral("ipAddress"));
        QCOMPARE(member.value(TarvSystemMember::Host()).toString(), QStringLiteral("kitchen.local"));
    }

    void equalityComparesWholeContent_data()
    {
        QTest::addColumn<QString>("field");
        for (const char* field : {"id", "name", "host", "ipAddress", "transcoder", "persistentGroupTimestamp",
                                  "persistentGroupMembers"})
            QTest::newRow(field) << QString::fromLatin1(field);
    }
    void equalityComparesWholeContent()
    {
        QFETCH(QString, field);
        verifyWholeContentEquality(full(), [&](TarvSystemMember& m) {
            if (field == "id") m.setId(QStringLiteral("other"));
            if (field == "name") m.setName(QStringLiteral("other"));
            if (field == "host") m.setHost(QStringLiteral("other"));
            if (field == "ipAddress") m.setIpAddress(QStringLiteral("10.9.9.9"));
            if (field == "transcoder") m.setTranscoder(false);
            if (field == "persistentGroupTimestamp") m.setPersistentGroupTimestamp(Q_INT64_C(1700000000124));
            if (field == "persistentGroupMembers") m.setPersistentGroupMembers({QStringLiteral("dev-1")});
        });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(full());
    }

    void jsonKeepsLargeTimestampExactly()
    {
        const TarvSystemMember member = TarvSystemMember().setPersistentGroupTimestamp(Q_INT64_C(1700000000123));
        TarvError error;
        const TarvSystemMember parsed(TarvJson::parse(member.toJson(false), error, nullptr).toHash());
        QCOMPARE(parsed.persistentGroupTimestamp(), Q_INT64_C(1700000000123));
        QVERIFY(parsed != TarvSystemMember().setPersistentGroupTimestamp(Q_INT64_C(1700000000124)));
    }

    void jsonUsesFieldNamesAsKeys()
    {
        const TarvSystemMember member
            = TarvSystemMember().setId(QStringLiteral("a")).setTranscoder(true).setIpAddress(QStringLiteral("1.2.3.4"));
        const QJsonObject object = QJsonDocument::fromJson(member.toJson(false)).object();
        QCOMPARE(object.value(QStringLiteral("id")).toString(), QStringLiteral("a"));
        QCOMPARE(object.value(QStringLiteral("transcoder")).toBool(), true);
        QCOMPARE(object.value(QStringLiteral("ipAddress")).toString(), QStringLiteral("1.2.3.4"));
        QCOMPARE(object.size(), 3);
    }
};

QTEST_GUILESS_MAIN(tst_TarvSystemMember)
#include "tst_TarvSystemMember.moc"
