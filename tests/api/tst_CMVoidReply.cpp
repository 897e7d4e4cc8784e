#include <climits>

#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"
#include "ReplyWaiter.h"

class tst_CMVoidReply : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void nullViewIsNeverFinished()
    {
        const CMVoidReply view(nullptr);
        QVERIFY(view.isNull());
        QVERIFY(!view.isFinished());
        QVERIFY(!view.hasError());
        QVERIFY(view.error().isEmpty());
        QVERIFY(!view.waitForFinished(10));
        view.setError(CMError(TrString("ignored")));
        QVERIFY(!view.isFinished());
    }

    void viewsTheCallersReply()
    {
        const CMReply<QVariant> reply;
        const CMVoidReply view(reply.data());
        QVERIFY(!view.isNull());
        QVERIFY(!view.isFinished());
        reply.setResult(true);
        QVERIFY(view.isFinished());
        QVERIFY(!view.hasError());
        QVERIFY(view.waitForFinished(0));
    }

    void setErrorFailsTheCallersReply()
    {
        const CMReply<QVariant> reply;
        const CMVoidReply view(reply.data());
        const CMError error(TrString("Refused"));
        view.setError(error);
        QVERIFY(reply.isFinished());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error(), error);
        QCOMPARE(view.error(), error);
    }

    void setErrorOnAFinishedReplyHasNoEffect()
    {
        const CMReply<QVariant> reply;
        const CMVoidReply view(reply.data());
        reply.setResult(7);
        view.setError(CMError(TrString("late")));
        QVERIFY(!reply.hasError());
        QVERIFY(!view.hasError());
        QCOMPARE(reply.result(), QVariant(7));
    }

    void keepsTheStateAliveWithoutTheReply()
    {
        CMVoidReply view(nullptr);
        {
            const CMReply<QVariant> reply;
            view = CMVoidReply(reply.data());
        }
        QVERIFY(!view.isFinished());
        view.setError(CMError(TrString("x")));
        QVERIFY(view.isFinished());
        QCOMPARE(view.error().message(), QStringLiteral("x"));
    }

    void boundedWaitFromAnotherThreadTimesOut()
    {
        const CMReply<QVariant> reply;
        const CMVoidReply view(reply.data());
        ReplyWaiter waiter(reply.data(), [&] { return view.waitForFinished(40); });
        waiter.join();
        QVERIFY(!waiter.finished());
        QVERIFY2(waiter.waited() >= 35, qPrintable(QString::number(waiter.waited())));
    }

    void unboundedWaitFromAnotherThreadEndsWhenFailed()
    {
        const CMReply<QVariant> reply;
        const CMVoidReply view(reply.data());
        ReplyWaiter waiter(reply.data(), [&] { return view.waitForFinished(ULONG_MAX); });
        QVERIFY(!reply.waitForFinished(50));
        QVERIFY(!waiter.returned());
        view.setError(CMError(TrString("stop")));
        waiter.join();
        QVERIFY(waiter.finished());
        QVERIFY(reply.hasError());
    }
};

QTEST_GUILESS_MAIN(tst_CMVoidReply)
#include "tst_CMVoidReply.moc"
