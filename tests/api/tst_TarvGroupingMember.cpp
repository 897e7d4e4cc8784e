#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvGroupingMember : public QObject
{
    Q_OBJECT

private:
    static TarvGroupingMember full()
    {
        return TarvGroupingMember()
            .setMaster(TarvSystemMember().setId(QStringLiteral("m")).setHost(QStringLiteral("m.local")).setTranscoder(true))
            .setFollower(TarvSystemMember().setId(QStringLiteral("f")).setIpAddress(QStringLiteral("10.0.0.2"))
                             .setPersistentGroupMembers({QStringLiteral("m"), QStringLiteral("f")}));
    }

private Q_SLOTS:
    void defaultIsEmpty()
    {
        QVERIFY(TarvGroupingMember().isEmpty());
        QVERIFY(TarvGroupingMember().master().isEmpty());
        QVERIFY(TarvGroupingMember().follower().isEmpty());
    }

    void settersChainAndKeepNestedRecords()
    {
        const TarvGroupingMember member = full();
        QCOMPARE(member.master().id(), QStringLiteral("m"));
        QCOMPARE(member.master().transcoder(), true);
        QCOMPARE(member.follower().ipAddress(), QStringLiteral("10.0.0.2"));
        QCOMPARE(TarvGroupingMember::Master(), QStringLiteral("master"));
        QCOMPARE(TarvGroupingMember::Follower(), QStringLiteral("follower"));
        QCOMPARE(member.value(TarvGroupingMember::Master()).userType(), int(QMetaType::QVariantHash));
    }

    void builtFromQVariantHash()
    {
        const TarvGroupingMember member(QVariantHash{
            {QStringLiteral("master"), QVariantHash{{QStringLiteral("id"), QStringLiteral("a")}}},
            {QStringLiteral("follower"), QVariantHash{{QStringLiteral("id"), QStringLiteral("b")}}},
        });
        QCOMPARE(member.master().id(), QStringLiteral("a"));
        QCOMPARE(member.follower().id(), QStringLiteral("b"));
        QVERIFY(!member.isEmpty());
    }

    void equalityComparesNestedContent()
    {
        verifyWholeContentEquality(full(), [](TarvGroupingMember& m) {
            m.setFollower(TarvSystemMember(m.follower()).setName(QStringLiteral("x")));
        });
        verifyWholeContentEquality(full(), [](TarvGroupingMember& m) {
            m.setMaster(TarvSystemMember(m.master()).setTranscoder(false));
        });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(full());
    }
};

QTEST_GUILESS_MAIN(tst_TarvGroupingMember)
#include "tst_TarvGroupingMember.moc"
