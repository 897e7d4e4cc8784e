#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvPlayLogicData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultIsEmptyWithStateZero()
    {
        QVERIFY(TarvPlayLogicData().isEmpty());
        QCOMPARE(TarvPlayLogicData().state(), 0);
    }

    void stateReadsBack()
    {
        QCOMPARE(TarvPlayLogicData().setState(3).state(), 3);
        QCOMPARE(TarvPlayLogicData(QVariantHash{{QStringLiteral("state"), 2}}).state(), 2);
        QCOMPARE(TarvPlayLogicData::State(), QStringLiteral("state"));
    }

    void equalityComparesWholeContent()
    {
        verifyWholeContentEquality(TarvPlayLogicData().setState(1), [](TarvPlayLogicData& d) { d.setState(0); });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(TarvPlayLogicData().setState(1));
    }
};

QTEST_GUILESS_MAIN(tst_TarvPlayLogicData)
#include "tst_TarvPlayLogicData.moc"
