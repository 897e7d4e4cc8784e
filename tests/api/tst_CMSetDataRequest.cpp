#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "ChildProcess.h"
#include "RecordChecks.h"

class tst_CMSetDataRequest : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void emptyUntilAssigned()
    {
        CMSetDataRequest request;
        QVERIFY(request.isEmpty());
        const CMSetDataRequest copyOfEmpty = request;
        QVERIFY(copyOfEmpty.isEmpty());
        request = CMSetDataRequest(CMPath("/a"), 1, CMReply<QVariant>());
        QVERIFY(!request.isEmpty());
        QVERIFY(copyOfEmpty.isEmpty());
    }

    void carriesPathValueAndTheCallersReply()
    {
        const CMReply<QVariant> reply;
        const TarvSystemMember member = TarvSystemMember().setId(QStringLiteral("r1"));
        const CMSetDataRequest request(CMPath("/grouping/removeReceiver"), member.toVariant(), reply);
        QCOMPARE(request.path(), CMPath("/grouping/removeReceiver"));
        QCOMPARE(TarvSystemMember(request.value().toHash()), member);
        QCOMPARE(request.reply().data(), reply.data());
        request.voidReply().setError(CMError(TrString("no")));
        QVERIFY(reply.hasError());
    }

    void setResultCompletesTheCallersReply()
    {
        const CMReply<QVariant> reply;
        const CMSetDataRequest request(CMPath("/a"), QVariant(), reply);
        request.setResult(true);
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.result(), QVariant(true));
    }

    void setErrorFailsTheCallersReplyAndFirstAnswerWins()
    {
        const CMReply<QVariant> reply;
        const CMSetDataRequest request(CMPath("/a"), QVariant(), reply);
        request.setError(CMError(TrString("Invalid")));
        request.setResult(true);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Invalid"));
        QVERIFY(!reply.result().isValid());
    }

    void copiesShareOneRequest()
    {
        const CMReply<QVariant> reply;
        const CMSetDataRequest request(CMPath("/a"), 5, reply);
        const CMSetDataRequest copy = request;
        copy.setResult(QStringLiteral("by copy"));
        QCOMPARE(request.reply().result(), QVariant(QStringLiteral("by copy")));
        QCOMPARE(copy.value(), QVariant(5));
    }

    void unansweredRequestFinishesTheReplyWithoutResultWhenTheLastCopyDies()
    {
        const CMReply<QVariant> reply;
        auto* request = new CMSetDataRequest(CMPath("/a"), 5, reply);
        auto* copy = new CMSetDataRequest(*request);
        delete request;
        QVERIFY(!reply.isFinished());
        delete copy;
        QVERIFY(reply.isFinished());
        QVERIFY(!reply.hasError());
        QVERIFY(!reply.result().isValid());
    }

    void answeredRequestKeepsItsAnswerWhenItDies()
    {
        const CMReply<QVariant> reply;
        {
            const CMSetDataRequest request(CMPath("/a"), 5, reply);
            request.setResult(9);
        }
        QCOMPARE(reply.result(), QVariant(9));
        QVERIFY(!reply.hasError());
    }

    void travelsInsideAVariant()
    {
        const CMReply<QVariant> reply;
        QVariant variant = QVariant::fromValue(CMSetDataRequest(CMPath("/a"), 1, reply));
        const CMSetDataRequest unpacked = variant.value<CMSetDataRequest>();
        QVERIFY(!unpacked.isEmpty());
        QCOMPARE(unpacked.path(), CMPath("/a"));
        variant = QVariant();
        QVERIFY(!reply.isFinished());
        unpacked.setResult(2);
        QCOMPARE(reply.result(), QVariant(2));
    }

    void usingAnEmptyRequestAsserts_data()
    {
        QTest::addColumn<QString>("scenario");
        QTest::newRow("path") << "path";
        QTest::newRow("value") << "value";
        QTest::newRow("reply") << "reply";
        QTest::newRow("voidReply") << "voidReply";
        QTest::newRow("setResult") << "setResult";
        QTest::newRow("setError") << "setError";
    }
    void usingAnEmptyRequestAsserts()
    {
        QFETCH(QString, scenario);
        const ChildResult child = runChildScenario(scenario);
        QVERIFY(child.finished);
        QCOMPARE(child.status, QProcess::CrashExit);
        QVERIFY2(child.stderrText.contains(QStringLiteral("ASSERT: \"request data\"")), qPrintable(child.stderrText));
        QVERIFY2(!child.stdoutText.contains(QStringLiteral("survived")), qPrintable(child.stdoutText));
    }
};

static int childMain(const QString& scenario)
{
    const CMSetDataRequest empty;
    if (scenario == QLatin1String("path"))
        empty.path();
    else if (scenario == QLatin1String("value"))
        empty.value();
    else if (scenario == QLatin1String("reply"))
        empty.reply();
    else if (scenario == QLatin1String("voidReply"))
        empty.voidReply();
    else if (scenario == QLatin1String("setResult"))
        empty.setResult(1);
    else if (scenario == QLatin1String("setError"))
        empty.setError(CMError(TrString("x")));
    printf("survived\n");
    return 0;
}

TARV_TEST_MAIN_WITH_CHILDREN(tst_CMSetDataRequest, childMain)
#include "tst_CMSetDataRequest.moc"
