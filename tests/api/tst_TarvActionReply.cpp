#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvActionReply : public QObject
{
    Q_OBJECT

private:
    static TarvActionReply full()
    {
        const TarvRoles result = TarvRoles()
            .setId(QStringLiteral("join-T"))
            .setType(TarvRolesType::GroupingTranscoder)
            .setTitle(TrString("Transcoder T"))
            .setValue(TarvValue().setSystemMember(TarvSystemMember().setId(QStringLiteral("T")).setTranscoder(true)));
        return TarvActionReply()
            .setXclass(QStringLiteral("reply"))
            .setResult(result)
            .setEvents({TarvEvent().setPath(CMPath("/ui/grouping")).setRowsType(TarvEventRowsType::Changed),
                        TarvEvent().setPath(CMPath("/grouping/members")).setRowsType(TarvEventRowsType::Changed)});
    }

private Q_SLOTS:
    void defaultIsEmpty()
    {
        QVERIFY(TarvActionReply().isEmpty());
        QVERIFY(TarvActionReply().events().isEmpty());
        QVERIFY(TarvActionReply().result().isEmpty());
    }

    void settersChainAndKeepNestedRecordsAndLists()
    {
        const TarvActionReply reply = full();
        QCOMPARE(reply.xclass(), QStringLiteral("reply"));
        QCOMPARE(reply.result().id(), QStringLiteral("join-T"));
        QCOMPARE(reply.result().value().systemMember().id(), QStringLiteral("T"));
        QCOMPARE(reply.events().size(), 2);
        QCOMPARE(reply.events().at(1).path(), CMPath("/grouping/members"));
        const QVariantList events = reply.value(TarvActionReply::Events()).toList();
        QCOMPARE(events.size(), 2);
        QCOMPARE(events.at(0).userType(), int(QMetaType::QVariantHash));
        QCOMPARE(TarvActionReply::Xclass(), QStringLiteral("xclass"));
    }

    void builtFromQVariantHash()
    {
        const TarvActionReply reply(QVariantHash{
            {QStringLiteral("xclass"), QStringLiteral("c")},
            {QStringLiteral("result"), QVariantHash{{QStringLiteral("id"), QStringLiteral("r")}}},
            {QStringLiteral("events"), QVariantList{QVariantHash{{QStringLiteral("path"), QStringLiteral("/p")}}}},
        });
        QCOMPARE(reply.xclass(), QStringLiteral("c"));
        QCOMPARE(reply.result().id(), QStringLiteral("r"));
        QCOMPARE(reply.events().size(), 1);
        QCOMPARE(reply.events().first().path(), CMPath("/p"));
    }

    void equalityComparesWholeContent()
    {
        verifyWholeContentEquality(full(), [](TarvActionReply& r) {
            TarvList<TarvEvent> events = r.events();
            events.removeLast();
            r.setEvents(events);
        });
        verifyWholeContentEquality(full(), [](TarvActionReply& r) {
            r.setResult(TarvRoles(r.result()).setTitle(TrString("Other")));
        });
        verifyWholeContentEquality(full(), [](TarvActionReply& r) { r.setXclass(QStringLiteral("x")); });
    }

    void travelsAsJsonVariantAndStreamWithNestedListOfRecords()
    {
        verifyRecordForms(full());
    }
};

QTEST_GUILESS_MAIN(tst_TarvActionReply)
#include "tst_TarvActionReply.moc"
