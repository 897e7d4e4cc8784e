#include <thread>

#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

class tst_CMReplyAbstractData : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void finishEndsWithoutResultOrError()
    {
        CMReplyData<QVariant> data;
        QVERIFY(!data.isFinished());
        data.finish();
        QVERIFY(data.isFinished());
        QVERIFY(!data.hasError());
        QVERIFY(!data.result().isValid());
        data.setResult(5);
        QVERIFY(!data.result().isValid());
    }

    void firstAnswerWins()
    {
        CMReplyData<QVariant> data;
        data.setError(CMError(TrString("no")));
        data.finish();
        data.setResult(1);
        QVERIFY(data.hasError());
        QCOMPARE(data.error().message(), QStringLiteral("no"));
        QVERIFY(!data.result().isValid());
    }

    void usedThroughTheBaseClass()
    {
        const CMReply<QVariant> reply;
        CMReplyAbstractData* base = reply.data();
        base->setError(CMError(TrString("via base")));
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("via base"));
    }

    void finishWakesAWaiterInAnotherThread()
    {
        const CMReply<QVariant> reply;
        bool finished = false;
        std::thread waiter([&] { finished = reply.data()->waitForFinished(); });
        QVERIFY(!reply.data()->waitForFinished(30));
        reply.data()->finish();
        waiter.join();
        QVERIFY(finished);
    }

    void sharesItselfWithVoidReplies()
    {
        CMVoidReply view(nullptr);
        {
            const CMReply<QVariant> reply;
            view = CMVoidReply(reply.data());
            QCOMPARE(reply.data()->sharedFromThis().data(), static_cast<CMReplyAbstractData*>(reply.data()));
        }
        // The caller's handles are gone; the view still holds the state.
        QVERIFY(!view.isNull());
        view.setError(CMError(TrString("late")));
        QVERIFY(view.isFinished());
    }
};

QTEST_GUILESS_MAIN(tst_CMReplyAbstractData)
#include "tst_CMReplyAbstractData.moc"
