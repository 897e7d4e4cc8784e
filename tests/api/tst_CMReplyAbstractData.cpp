#include <climits>
#include <limits>
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

    // ULONG_MAX is "no limit" whatever the width of unsigned long: with a
    // 32-bit one (armhf) it fits a 64-bit count and used to become a
    // deadline 49.7 days away; counts below it are deadlines of that length.
    void deadlineOfAWait_data()
    {
        QTest::addColumn<qulonglong>("msecs");
        QTest::addColumn<bool>("noLimit");
        QTest::newRow("zero") << qulonglong(0) << false;
        QTest::newRow("one second") << qulonglong(1000) << false;
        QTest::newRow("49 days") << qulonglong(49ULL * 24 * 3600 * 1000) << false;
        QTest::newRow("ULONG_MAX - 1") << qulonglong(ULONG_MAX - 1) << (qulonglong(ULONG_MAX) - 1 > qulonglong(LLONG_MAX));
        QTest::newRow("ULONG_MAX") << qulonglong(ULONG_MAX) << true;
    }

    void deadlineOfAWait()
    {
        QFETCH(qulonglong, msecs);
        QFETCH(bool, noLimit);
        const QDeadlineTimer deadline = CMReplyAbstractData::deadlineFor(static_cast<unsigned long>(msecs));
        QCOMPARE(deadline.isForever(), noLimit);
        if (!noLimit) {
            // Never an already passed deadline, never one longer than asked.
            const qint64 remaining = deadline.remainingTime();
            QVERIFY2(remaining >= 0 && static_cast<qulonglong>(remaining) <= msecs, qPrintable(QString::number(remaining)));
            QVERIFY(msecs < 1000 || static_cast<qulonglong>(remaining) + 1000 >= msecs);
        }
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
