#include <QtTest>

#include <tarv>

// The numbers of the enums are what the records carry, so they are fixed.
class tst_TarvEnums : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void valuesAreFixed_data()
    {
        QTest::addColumn<int>("actual");
        QTest::addColumn<int>("expected");
        QTest::newRow("TranscoderState::Receiver") << int(TarvTranscoderState::Receiver) << 1;
        QTest::newRow("TranscoderState::Transcoder") << int(TarvTranscoderState::Transcoder) << 2;
        QTest::newRow("RolesType::GroupingMember") << int(TarvRolesType::GroupingMember) << 101;
        QTest::newRow("RolesType::GroupingTranscoder") << int(TarvRolesType::GroupingTranscoder) << 102;
        QTest::newRow("RolesType::Follower") << int(TarvRolesType::Follower) << 6;
        QTest::newRow("GroupingRequestCommand::Join") << int(TarvGroupingRequestCommand::Join) << 1;
        QTest::newRow("GroupingRequestCommand::Leave") << int(TarvGroupingRequestCommand::Leave) << -1;
        QTest::newRow("EventRowsType::Changed") << int(TarvEventRowsType::Changed) << 1;
    }
    void valuesAreFixed()
    {
        QFETCH(int, actual);
        QFETCH(int, expected);
        QCOMPARE(actual, expected);
    }
};

QTEST_GUILESS_MAIN(tst_TarvEnums)
#include "tst_TarvEnums.moc"
