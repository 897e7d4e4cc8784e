#include <atomic>
#include <climits>
#include <thread>

#include <QElapsedTimer>
#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"
#include "ReplyWaiter.h"

// CMReply<T> over its shared CMReplyData<T>.
class tst_CMReply : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void freshReplyIsUnfinished()
    {
        const CMReply<QVariant> reply;
        QVERIFY(!reply.isFinished());
        QVERIFY(!reply.hasError());
        QVERIFY(reply.error().isEmpty());
        QVERIFY(!reply.result().isValid());
        QVERIFY(reply.data() != nullptr);
    }

    void everyDefaultReplyIsAFreshOne()
    {
        const CMReply<QVariant> a;
        const CMReply<QVariant> b;
        QVERIFY(a.data() != b.data());
        a.setResult(1);
        QVERIFY(!b.isFinished());
    }

    void copiesShareOneState()
    {
        const CMReply<QVariant> reply;
        const CMReply<QVariant> copy = reply;
        QCOMPARE(copy.data(), reply.data());
        copy.setResult(QStringLiteral("done"));
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.result(), QVariant(QStringLiteral("done")));
    }

    void setResultFinishes()
    {
        const CMReply<QVariant> reply;
        reply.setResult(true);
        QVERIFY(reply.isFinished());
        QVERIFY(!reply.hasError());
        QCOMPARE(reply.result(), QVariant(true));
        QVERIFY(reply.waitForFinished(0));
    }

    void setErrorFinishesWithTheError()
    {
        const CMReply<QVariant> reply;
        const CMError error(TrString("Refused"));
        reply.setError(error);
        QVERIFY(reply.isFinished());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error(), error);
        QVERIFY(!reply.result().isValid());
    }

    void finishingAFinishedReplyHasNoEffect_data()
    {
        QTest::addColumn<bool>("firstIsError");
        QTest::addColumn<bool>("secondIsError");
        QTest::newRow("result then result") << false << false;
        QTest::newRow("result then error") << false << true;
        QTest::newRow("error then result") << true << false;
        QTest::newRow("error then error") << true << true;
    }
    void finishingAFinishedReplyHasNoEffect()
    {
        QFETCH(bool, firstIsError);
        QFETCH(bool, secondIsError);
        const CMReply<QVariant> reply;
        const CMError firstError(TrString("first"));
        if (firstIsError)
            reply.setError(firstError);
        else
            reply.setResult(1);
        if (secondIsError)
            reply.setError(CMError(TrString("second")));
        else
            reply.setResult(2);
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.hasError(), firstIsError);
        QCOMPARE(reply.error(), firstIsError ? firstError : CMError());
        QCOMPARE(reply.result(), firstIsError ? QVariant() : QVariant(1));
    }

    void typedReplyKeepsItsResultType()
    {
        const CMReply<TarvSystemMember> reply;
        QVERIFY(reply.result().isEmpty());
        reply.setResult(TarvSystemMember().setId(QStringLiteral("a")));
        QCOMPARE(reply.result().id(), QStringLiteral("a"));
        QCOMPARE(CMReply<int>().result(), 0);
    }

    void boundedWaitFromAnotherThreadTimesOut()
    {
        const CMReply<QVariant> reply;
        ReplyWaiter waiter(reply.data(), [&] { return reply.waitForFinished(60); });
        waiter.join();
        QVERIFY(!waiter.finished());
        QVERIFY2(waiter.waited() >= 55, qPrintable(QString::number(waiter.waited())));
        QVERIFY2(waiter.waited() < 2000, qPrintable(QString::number(waiter.waited())));
        QVERIFY(!reply.isFinished());
    }

    void unboundedWaitFromAnotherThreadEndsWhenFinished()
    {
        const CMReply<QVariant> reply;
        QVariant seen;
        ReplyWaiter waiter(reply.data(), [&] {
            const bool finished = reply.waitForFinished(ULONG_MAX);
            seen = reply.result();
            return finished;
        });
        // The waiter is still blocked after a bounded wait of our own.
        QVERIFY(!reply.waitForFinished(50));
        QVERIFY(!waiter.returned());
        reply.setResult(42);
        waiter.join();
        QVERIFY(waiter.returned());
        QVERIFY(waiter.finished());
        QCOMPARE(seen, QVariant(42));
    }

    void defaultWaitHasNoLimit()
    {
        const CMReply<QVariant> reply;
        ReplyWaiter waiter(reply.data(), [&] { return reply.waitForFinished(); });
        QVERIFY(!reply.waitForFinished(50));
        QVERIFY(!waiter.returned());
        reply.setError(CMError(TrString("failed")));
        waiter.join();
        QVERIFY(waiter.returned());
    }

    void hugeLimitWaitsLikeNoLimit()
    {
        // Limits beyond what a signed millisecond count holds are no limit,
        // not an already passed deadline.
        const CMReply<QVariant> reply;
        ReplyWaiter waiter(reply.data(), [&] { return reply.waitForFinished(ULONG_MAX - 1); });
        QVERIFY(!reply.waitForFinished(50));
        QVERIFY(!waiter.returned());
        reply.setResult(1);
        waiter.join();
        QVERIFY(waiter.finished());
    }

    void waitOnAFinishedReplyReturnsAtOnce()
    {
        const CMReply<QVariant> reply;
        reply.setResult(1);
        QElapsedTimer timer;
        timer.start();
        QVERIFY(reply.waitForFinished(ULONG_MAX));
        QVERIFY(reply.waitForFinished(0));
        QVERIFY(timer.elapsed() < 1000);
    }

    void manyWaitersAreAllWoken()
    {
        const CMReply<QVariant> reply;
        std::atomic<int> woken{0};
        std::vector<std::thread> waiters;
        for (int i = 0; i < 4; ++i)
            waiters.emplace_back([&] {
                if (reply.waitForFinished())
                    ++woken;
            });
        reply.setResult(1);
        for (std::thread& waiter : waiters)
            waiter.join();
        QCOMPARE(woken.load(), 4);
    }
};

QTEST_GUILESS_MAIN(tst_CMReply)
#include "tst_CMReply.moc"
