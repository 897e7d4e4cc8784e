#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvEvent : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultIsEmpty()
    {
        QVERIFY(TarvEvent().isEmpty());
        QVERIFY(TarvEvent().path().isEmpty());
        QCOMPARE(TarvEvent().rowsType(), TarvEventRowsType::None);
    }

    void settersChainAndKeepPathAsTextAndTypeAsNumber()
    {
        const TarvEvent event = TarvEvent().setPath(CMPath("/ui/grouping")).setRowsType(TarvEventRowsType::Changed);
        QCOMPARE(event.path(), CMPath("/ui/grouping"));
        QCOMPARE(event.rowsType(), TarvEventRowsType::Changed);
        QCOMPARE(event.value(TarvEvent::Path()).toString(), QStringLiteral("/ui/grouping"));
        QCOMPARE(event.value(TarvEvent::RowsType()).toInt(), 1);
        QCOMPARE(TarvEvent::RowsType(), QStringLiteral("rowsType"));
    }

    void builtFromQVariantHash()
    {
        const TarvEvent event(QVariantHash{{QStringLiteral("path"), QStringLiteral("/a/b")}, {QStringLiteral("rowsType"), 1}});
        QCOMPARE(event.path(), CMPath("/a/b"));
        QCOMPARE(event.rowsType(), TarvEventRowsType::Changed);
    }

    void equalityComparesWholeContent()
    {
        const TarvEvent event = TarvEvent().setPath(CMPath("/ui/grouping")).setRowsType(TarvEventRowsType::Changed);
        verifyWholeContentEquality(event, [](TarvEvent& e) { e.setPath(CMPath("/ui")); });
        verifyWholeContentEquality(event, [](TarvEvent& e) { e.setRowsType(TarvEventRowsType::None); });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(TarvEvent().setPath(CMPath("/ui/grouping")).setRowsType(TarvEventRowsType::Changed));
    }
};

QTEST_GUILESS_MAIN(tst_TarvEvent)
#include "tst_TarvEvent.moc"
