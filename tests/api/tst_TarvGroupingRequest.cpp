#include <QtTest>

#include <tarv>

#include "RecordChecks.h"

class tst_TarvGroupingRequest : public QObject
{
    Q_OBJECT

private:
    static TarvGroupingRequest join()
    {
        return TarvGroupingRequest()
            .setCommand(TarvGroupingRequestCommand::Join)
            .setMaster(TarvSystemMember().setId(QStringLiteral("T")).setName(QStringLiteral("Transcoder"))
                           .setHost(QStringLiteral("t.local")));
    }

private Q_SLOTS:
    void masterKeyNameIsMaster()
    {
        QCOMPARE(TarvGroupingRequest::Master(), QStringLiteral("master"));
        QCOMPARE(TarvGroupingRequest::Command(), QStringLiteral("command"));
        QVERIFY(join().contains(TarvGroupingRequest::Master()));
        QCOMPARE(TarvSystemMember(join().value(TarvGroupingRequest::Master()).toHash()).id(), QStringLiteral("T"));
    }

    void defaultIsEmptyWithCommandNone()
    {
        QVERIFY(TarvGroupingRequest().isEmpty());
        QCOMPARE(TarvGroupingRequest().command(), TarvGroupingRequestCommand::None);
    }

    void commandIsKeptAsItsNumber_data()
    {
        QTest::addColumn<int>("command");
        QTest::newRow("join") << 1;
        QTest::newRow("leave") << -1;
    }
    void commandIsKeptAsItsNumber()
    {
        QFETCH(int, command);
        const TarvGroupingRequest request
            = TarvGroupingRequest().setCommand(static_cast<TarvGroupingRequestCommand::Enum>(command));
        QCOMPARE(request.value(TarvGroupingRequest::Command()).toInt(), command);
        QCOMPARE(int(TarvGroupingRequest(QVariantHash{{QStringLiteral("command"), command}}).command()), command);
        QCOMPARE(request.toJson(false), QStringLiteral("{\"command\":%1}").arg(command).toUtf8());
    }

    void builtFromQVariantHash()
    {
        const TarvGroupingRequest request(QVariantHash{
            {QStringLiteral("command"), -1},
            {QStringLiteral("master"), QVariantHash{{QStringLiteral("id"), QStringLiteral("T")}}},
        });
        QCOMPARE(request.command(), TarvGroupingRequestCommand::Leave);
        QCOMPARE(request.master().id(), QStringLiteral("T"));
    }

    void equalityComparesWholeContent()
    {
        verifyWholeContentEquality(join(), [](TarvGroupingRequest& r) { r.setCommand(TarvGroupingRequestCommand::Leave); });
        verifyWholeContentEquality(join(), [](TarvGroupingRequest& r) {
            r.setMaster(TarvSystemMember(r.master()).setHost(QStringLiteral("u.local")));
        });
    }

    void travelsAsJsonVariantAndStream()
    {
        verifyRecordForms(join());
        verifyRecordForms(TarvGroupingRequest().setCommand(TarvGroupingRequestCommand::Leave));
    }
};

QTEST_GUILESS_MAIN(tst_TarvGroupingRequest)
#include "tst_TarvGroupingRequest.moc"
