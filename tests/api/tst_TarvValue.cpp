#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

// TarvValue is a union of typed views: the hash holds exactly one view
// under its name.
class tst_TarvValue : public QObject
{
    Q_OBJECT

private:
    static TarvSystemMember member(const QString& id)
    {
        return TarvSystemMember().setId(id).setName(QStringLiteral("n-") + id).setHost(id + QStringLiteral(".local"))
            .setTranscoder(true).setPersistentGroupMembers({id});
    }
    static TarvGroupingMember groupingMember()
    {
        return TarvGroupingMember().setMaster(member(QStringLiteral("m"))).setFollower(member(QStringLiteral("f")));
    }
    static TarvGroupingRequest groupingRequest()
    {
        return TarvGroupingRequest().setCommand(TarvGroupingRequestCommand::Join).setMaster(member(QStringLiteral("m")));
    }
    static TarvGroupingPersistentGroup group()
    {
        return TarvGroupingPersistentGroup().setName(QStringLiteral("Wohnzimmer"))
            .setMembers({QStringLiteral("a"), QStringLiteral("b")}).setTimestamp(Q_INT64_C(1700000000999));
    }
    static TarvSystemMemberTranscoderState state()
    {
        return TarvSystemMemberTranscoderState().setId(QStringLiteral("me")).setType(TarvTranscoderState::Transcoder);
    }

    // Every view set once, as (view name, value).
    static QList<QPair<QString, TarvValue>> everyView()
    {
        return {
            {QStringLiteral("systemMember"), TarvValue().setSystemMember(member(QStringLiteral("x")))},
            {QStringLiteral("groupingMember"), TarvValue().setGroupingMember(groupingMember())},
            {QStringLiteral("groupingRequest"), TarvValue().setGroupingRequest(groupingRequest())},
            {QStringLiteral("groupingPersistentGroup"), TarvValue().setGroupingPersistentGroup(group())},
            {QStringLiteral("systemMemberTranscoderState"), TarvValue().setSystemMemberTranscoderState(state())},
            {QStringLiteral("string_"), TarvValue().setString_(QStringLiteral("text"))},
            {QStringLiteral("i32_"), TarvValue().setI32_(5000)},
        };
    }

private Q_SLOTS:
    void defaultIsEmptyWithEmptyViews()
    {
        const TarvValue value;
        QVERIFY(value.isEmpty());
        QVERIFY(value.systemMember().isEmpty());
        QVERIFY(value.groupingMember().isEmpty());
        QVERIFY(value.groupingRequest().isEmpty());
        QVERIFY(value.groupingPersistentGroup().isEmpty());
        QVERIFY(value.systemMemberTranscoderState().isEmpty());
        QCOMPARE(value.string_(), QString());
        QCOMPARE(value.i32_(), 0);
    }

    void eachViewReadsBackWhatWasSet()
    {
        TarvValue value;
        QCOMPARE(value.setSystemMember(member(QStringLiteral("x"))).systemMember(), member(QStringLiteral("x")));
        QCOMPARE(value.setGroupingMember(groupingMember()).groupingMember(), groupingMember());
        QCOMPARE(value.setGroupingRequest(groupingRequest()).groupingRequest(), groupingRequest());
        QCOMPARE(value.setGroupingPersistentGroup(group()).groupingPersistentGroup(), group());
        QCOMPARE(value.setSystemMemberTranscoderState(state()).systemMemberTranscoderState(), state());
        QCOMPARE(value.setString_(QStringLiteral("s")).string_(), QStringLiteral("s"));
        QCOMPARE(value.setI32_(-7).i32_(), -7);
    }

    void i32IsTheSameViewAsI32_()
    {
        const TarvValue value = TarvValue().setI32_(5000);
        QCOMPARE(value.i32(), 5000);
        QCOMPARE(value.i32(), value.i32_());
    }

    void hashHoldsTheViewUnderItsName()
    {
        for (const auto& view : everyView())
            QCOMPARE(view.second.keys(), QStringList{view.first});
        QCOMPARE(TarvValue().setI32_(5000).toJson(false), QByteArray(R"({"i32_":5000})"));
        QCOMPARE(TarvValue().setString_(QStringLiteral("x")).toJson(false), QByteArray(R"({"string_":"x"})"));
        QCOMPARE(TarvValue().setSystemMember(TarvSystemMember().setId(QStringLiteral("a"))).toJson(false),
                 QByteArray(R"({"systemMember":{"id":"a"}})"));
    }

    void settingOneViewReplacesTheOther_data()
    {
        QTest::addColumn<int>("first");
        QTest::addColumn<int>("second");
        const int n = everyView().size();
        for (int first = 0; first < n; ++first) {
            for (int second = 0; second < n; ++second) {
                if (first != second)
                    QTest::addRow("%s then %s", qPrintable(everyView().at(first).first),
                                  qPrintable(everyView().at(second).first))
                        << first << second;
            }
        }
    }
    void settingOneViewReplacesTheOther()
    {
        QFETCH(int, first);
        QFETCH(int, second);
        const auto views = everyView();
        TarvValue value = views.at(first).second;
        const TarvValue& replacement = views.at(second).second;
        // Apply the second view through its setter on the value holding the first.
        switch (second) {
        case 0: value.setSystemMember(replacement.systemMember()); break;
        case 1: value.setGroupingMember(replacement.groupingMember()); break;
        case 2: value.setGroupingRequest(replacement.groupingRequest()); break;
        case 3: value.setGroupingPersistentGroup(replacement.groupingPersistentGroup()); break;
        case 4: value.setSystemMemberTranscoderState(replacement.systemMemberTranscoderState()); break;
        case 5: value.setString_(replacement.string_()); break;
        case 6: value.setI32_(replacement.i32_()); break;
        }
        QCOMPARE(value, replacement);
        QCOMPARE(value.keys(), QStringList{views.at(second).first});
        QVERIFY(!value.contains(views.at(first).first));
    }

    void builtFromQVariantHash()
    {
        const TarvValue value(QVariantHash{{QStringLiteral("i32_"), 42}});
        QCOMPARE(value.i32_(), 42);
        const TarvValue nested(QVariantHash{
            {QStringLiteral("systemMember"), QVariantHash{{QStringLiteral("id"), QStringLiteral("z")}}}});
        QCOMPARE(nested.systemMember().id(), QStringLiteral("z"));
    }

    void equalityComparesWholeContent()
    {
        verifyWholeContentEquality(TarvValue().setGroupingMember(groupingMember()), [](TarvValue& v) {
            v.setGroupingMember(TarvGroupingMember(v.groupingMember()).setFollower(member(QStringLiteral("g"))));
        });
        verifyWholeContentEquality(TarvValue().setI32_(1), [](TarvValue& v) { v.setI32_(2); });
        QVERIFY(TarvValue().setI32_(1) != TarvValue().setString_(QStringLiteral("1")));
    }

    void everyViewTravelsAsJsonVariantAndStream_data()
    {
        QTest::addColumn<TarvValue>("value");
        for (const auto& view : everyView())
            QTest::newRow(qPrintable(view.first)) << view.second;
    }
    void everyViewTravelsAsJsonVariantAndStream()
    {
        QFETCH(TarvValue, value);
        verifyRecordForms(value);
    }
};

QTEST_GUILESS_MAIN(tst_TarvValue)
#include "tst_TarvValue.moc"
