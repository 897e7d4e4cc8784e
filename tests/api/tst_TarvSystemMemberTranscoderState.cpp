#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvSystemMemberTranscoderState : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void defaultIsEmptyAndUnknown()
    {
        QVERIFY(TarvSystemMemberTranscoderState().isEmpty());
        QCOMPARE(TarvSystemMemberTranscoderState().type(), TarvTranscoderState::Unknown);
    }

    void typeIsKeptAsItsNumber_data()
    {
        QTest::addColumn<int>("type");
        QTest::newRow("receiver") << 1;
        QTest::newRow("transcoder") << 2;
    }
    void typeIsKeptAsItsNumber()
    {
        QFETCH(int, type);
        const TarvSystemMemberTranscoderState state = TarvSystemMemberTranscoderState()
            .setId(QStringLiteral("me"))
            .setType(static_cast<TarvTranscoderState::Enum>(type));
        QCOMPARE(state.value(TarvSystemMemberTranscoderState::Type()).toInt(), type);
        QCOMPARE(state.id(), QStringLiteral("me"));
        QCOMPARE(int(TarvSystemMemberTranscoderState(QVariantHash{{QStringLiteral("type"), type}}).type()), type);
    }

    void equalityComparesWholeContent()
    {
        const TarvSystemMemberTranscoderState state
            = TarvSystemMemberTranscoderState().setId(QStringLiteral("me")).setType(TarvTranscoderState::Receiver);
        verifyWholeContentEquality(state, [](TarvSystemMemberTranscoderState& s) { s.setType(TarvTranscoderState::Transcoder); });
        verifyWholeContentEquality(state, [](TarvSystemMemberTranscoderState& s) { s.setId(QStringLiteral("you")); });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(
            TarvSystemMemberTranscoderState().setId(QStringLiteral("me")).setType(TarvTranscoderState::Transcoder));
    }
};

QTEST_GUILESS_MAIN(tst_TarvSystemMemberTranscoderState)
#include "tst_TarvSystemMemberTranscoderState.moc"
