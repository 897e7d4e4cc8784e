#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvGroupingPersistentGroup : public QObject
{
    Q_OBJECT

private:
    static TarvGroupingPersistentGroup full()
    {
        return TarvGroupingPersistentGroup()
            .setName(QStringLiteral("Erdgeschoss"))
            .setMembers({QStringLiteral("dev-1"), QStringLiteral("dev-2"), QStringLiteral("dev-3")})
            .setTimestamp(Q_INT64_C(1700000000123));
    }

private Q_SLOTS:
    void defaultIsEmpty()
    {
        const TarvGroupingPersistentGroup group;
        QVERIFY(group.isEmpty());
        QCOMPARE(group.name(), QString());
        QVERIFY(group.members().isEmpty());
        QCOMPARE(group.timestamp(), Q_INT64_C(0));
    }

    void settersChainAndGettersReadBack()
    {
        const TarvGroupingPersistentGroup group = full();
        QCOMPARE(group.name(), QStringLiteral("Erdgeschoss"));
        QCOMPARE(group.members(),
                 TarvList<QString>({QStringLiteral("dev-1"), QStringLiteral("dev-2"), QStringLiteral("dev-3")}));
        QCOMPARE(group.timestamp(), Q_INT64_C(1700000000123));
        QCOMPARE(group.value(TarvGroupingPersistentGroup::Members()).userType(), int(QMetaType::QVariantList));
        QCOMPARE(TarvGroupingPersistentGroup::Timestamp(), QStringLiteral("timestamp"));
    }

    void timestampIsSigned64Bit()
    {
        const qint64 big = Q_INT64_C(1) << 52;
        QCOMPARE(TarvGroupingPersistentGroup().setTimestamp(big).timestamp(), big);
        QCOMPARE(TarvGroupingPersistentGroup().setTimestamp(-big).timestamp(), -big);
        TarvError error;
        const TarvGroupingPersistentGroup parsed(
            TarvJson::parse(TarvGroupingPersistentGroup().setTimestamp(big + 1).toJson(false), error, nullptr).toHash());
        QCOMPARE(parsed.timestamp(), big + 1);
    }

    void builtFromQVariantHash()
    {
        const TarvGroupingPersistentGroup group(QVariantHash{
            {QStringLiteral("name"), QStringLiteral("g")},
            {QStringLiteral("members"), QVariantList{QStringLiteral("x")}},
            {QStringLiteral("timestamp"), Q_INT64_C(99)},
        });
        QCOMPARE(group.name(), QStringLiteral("g"));
        QCOMPARE(group.members(), TarvList<QString>({QStringLiteral("x")}));
        QCOMPARE(group.timestamp(), Q_INT64_C(99));
    }

    void equalityComparesWholeContent()
    {
        verifyWholeContentEquality(full(), [](TarvGroupingPersistentGroup& g) { g.setName(QStringLiteral("other")); });
        verifyWholeContentEquality(full(), [](TarvGroupingPersistentGroup& g) {
            g.setMembers({QStringLiteral("dev-1"), QStringLiteral("dev-3"), QStringLiteral("dev-2")});
        });
        verifyWholeContentEquality(full(), [](TarvGroupingPersistentGroup& g) { g.setTimestamp(g.timestamp() + 1); });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(full());
    }
};

QTEST_GUILESS_MAIN(tst_TarvGroupingPersistentGroup)
#include "tst_TarvGroupingPersistentGroup.moc"
