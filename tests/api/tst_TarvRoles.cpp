#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvRoles : public QObject
{
    Q_OBJECT

private:
    static TarvRoles full()
    {
        const TarvGroupingMember value = TarvGroupingMember()
            .setMaster(TarvSystemMember().setId(QStringLiteral("m")).setTranscoder(true))
            .setFollower(TarvSystemMember().setId(QStringLiteral("f")).setPersistentGroupMembers({QStringLiteral("m")}));
        TarvRoles roles;
        roles.setId(QStringLiteral("f"))
            .setType(TarvRolesType::GroupingMember)
            .setTitle(TrString("Follower"))
            .setPath(CMPath("/grouping/members/f"))
            .setValue(TarvValue().setGroupingMember(value));
        return roles;
    }

private Q_SLOTS:
    void defaultIsEmpty()
    {
        const TarvRoles roles;
        QVERIFY(roles.isEmpty());
        QCOMPARE(roles.type(), TarvRolesType::Unknown);
        QVERIFY(roles.title().isEmpty());
        QVERIFY(roles.path().isEmpty());
        QVERIFY(roles.value().isEmpty());
    }

    void settersChainAndGettersReadBack()
    {
        const TarvRoles roles = full();
        QCOMPARE(roles.id(), QStringLiteral("f"));
        QCOMPARE(roles.type(), TarvRolesType::GroupingMember);
        QCOMPARE(roles.title().toString(), QStringLiteral("Follower"));
        QCOMPARE(roles.path(), CMPath("/grouping/members/f"));
        QCOMPARE(roles.value().groupingMember().master().id(), QStringLiteral("m"));
        QStringList keys = roles.keys();
        keys.sort();
        QCOMPARE(keys, QStringList({"id", "path", "title", "type", "value"}));
    }

    void keepsTypeAsNumberPathAndTitleAsText()
    {
        const TarvRoles roles = full();
        QCOMPARE(roles.hash().value(TarvRoles::Type()).toInt(), 101);
        QCOMPARE(roles.hash().value(TarvRoles::Path()).toString(), QStringLiteral("/grouping/members/f"));
        QCOMPARE(roles.hash().value(TarvRoles::Title()).toString(), QStringLiteral("Follower"));
        QCOMPARE(roles.hash().value(TarvRoles::Value()).userType(), int(QMetaType::QVariantHash));
    }

    void builtFromQVariantHash()
    {
        const TarvRoles roles(QVariantHash{
            {QStringLiteral("id"), QStringLiteral("r")},
            {QStringLiteral("type"), 102},
            {QStringLiteral("title"), QStringLiteral("T")},
            {QStringLiteral("path"), QStringLiteral("/ui/grouping/r")},
            {QStringLiteral("value"), QVariantHash{{QStringLiteral("string_"), QStringLiteral("v")}}},
        });
        QCOMPARE(roles.id(), QStringLiteral("r"));
        QCOMPARE(roles.type(), TarvRolesType::GroupingTranscoder);
        QCOMPARE(roles.title().toString(), QStringLiteral("T"));
        QCOMPARE(roles.path(), CMPath("/ui/grouping/r"));
        QCOMPARE(roles.value().string_(), QStringLiteral("v"));
    }

    void equalityComparesWholeContent_data()
    {
        QTest::addColumn<QString>("field");
        for (const char* field : {"id", "type", "title", "path", "nestedValue"})
            QTest::newRow(field) << QString::fromLatin1(field);
    }
    void equalityComparesWholeContent()
    {
        QFETCH(QString, field);
        verifyWholeContentEquality(full(), [&](TarvRoles& r) {
            if (field == "id") r.setId(QStringLiteral("g"));
            if (field == "type") r.setType(TarvRolesType::Follower);
            if (field == "title") r.setTitle(TrString("Other"));
            if (field == "path") r.setPath(CMPath("/x"));
            if (field == "nestedValue") {
                TarvGroupingMember m = r.value().groupingMember();
                m.setMaster(TarvSystemMember(m.master()).setName(QStringLiteral("renamed")));
                r.setValue(TarvValue().setGroupingMember(m));
            }
        });
    }

    void travelsAsJsonVariantAndStreamWithNestedValue()
    {
        verifyRecordForms(full());
    }
};

QTEST_GUILESS_MAIN(tst_TarvRoles)
#include "tst_TarvRoles.moc"
