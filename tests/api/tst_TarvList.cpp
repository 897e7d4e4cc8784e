#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvList : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void isAQListOfItsItems()
    {
        TarvList<QString> list{QStringLiteral("a"), QStringLiteral("b")};
        list.append(QStringLiteral("c"));
        QCOMPARE(list.size(), 3);
        const QList<QString> plain = list;
        QCOMPARE(TarvList<QString>(plain), list);
        QVERIFY(TarvList<QString>().isEmpty());
    }

    void stringsTravelAsVariantList()
    {
        const TarvList<QString> list{QStringLiteral("a"), QStringLiteral("b")};
        const QVariantList variants = list.toVariantList();
        QCOMPARE(variants, QVariantList({QStringLiteral("a"), QStringLiteral("b")}));
        QCOMPARE(TarvList<QString>::fromVariantList(variants), list);
    }

    void recordsTravelAsListOfHashes()
    {
        const TarvList<TarvEvent> list{TarvEvent().setPath(CMPath("/a")), TarvEvent().setPath(CMPath("/b"))};
        const QVariantList variants = list.toVariantList();
        QCOMPARE(variants.size(), 2);
        QCOMPARE(variants.at(0).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(variants.at(1).toHash().value(QStringLiteral("path")).toString(), QStringLiteral("/b"));
        QCOMPARE(TarvList<TarvEvent>::fromVariantList(variants), list);
    }

    void numbersAndEnumsTravelAsVariantList()
    {
        const TarvList<qint64> numbers{Q_INT64_C(1) << 40, -1};
        QCOMPARE(TarvList<qint64>::fromVariantList(numbers.toVariantList()), numbers);
        const TarvList<TarvRolesType::Enum> types{TarvRolesType::Follower, TarvRolesType::GroupingMember};
        QCOMPARE(types.toVariantList(), QVariantList({6, 101}));
        QCOMPARE(TarvList<TarvRolesType::Enum>::fromVariantList(QVariantList{6, 101}), types);
    }

    void listFieldIsKeptAsVariantListInItsRecord()
    {
        const TarvGroupingPersistentGroup group = TarvGroupingPersistentGroup().setMembers({QStringLiteral("x")});
        QCOMPARE(group.value(QStringLiteral("members")).userType(), int(QMetaType::QVariantList));
        QCOMPARE(group.toJson(false), QByteArray(R"({"members":["x"]})"));
    }

    void notAListGivesEmptyList()
    {
        QVERIFY(TarvList<QString>::fromVariantList(QVariant(5).toList()).isEmpty());
        QVERIFY(TarvGroupingPersistentGroup(QVariantHash{{QStringLiteral("members"), 5}}).members().isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_TarvList)
#include "tst_TarvList.moc"
