#include <climits>
#include <thread>

#include <QtTest>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "RecordChecks.h"

// Records every changed(new, old) together with what value() held then.
class ChangeLog : public QObject
{
public:
    explicit ChangeLog(CMValueItem* item)
    {
        tarvConnect(item, &CMValueItem::changed, this, [this, item](const TarvValue& newValue, const TarvValue& oldValue) {
            newValues << newValue;
            oldValues << oldValue;
            heldValues << item->value();
        });
    }
    int count() const { return newValues.size(); }
    QList<TarvValue> newValues;
    QList<TarvValue> oldValues;
    QList<TarvValue> heldValues;
};

class tst_CMValueItem : public QObject
{
    Q_OBJECT

private:
    static TarvValue i32(int value) { return TarvValue().setI32_(value); }
    static void set(const CMPath& path, const TarvValue& value)
    {
        const CMReply<QVariant> reply;
        CMRoot()->setValue(path, value, reply);
        QVERIFY(reply.isFinished());
        QVERIFY(!reply.hasError());
    }

private Q_SLOTS:
    void cleanup()
    {
        CMRoot()->clearValues();
    }

    void startsEmptyAndLoadsOnTheNextPassOfTheEventLoop()
    {
        CMRoot()->defineValue(CMPath("/v/timeout"), i32(5000));
        QObject owner;
        auto* item = new CMValueItem(&owner, CMPath("/v/timeout"));
        ChangeLog log(item);
        QCOMPARE(item->parent(), &owner);
        QCOMPARE(item->path(), CMPath("/v/timeout"));
        QVERIFY(item->value().isEmpty());
        QVERIFY(!item->isLoaded());
        QCOMPARE(log.count(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(log.count(), 1, 2000);
        QVERIFY(item->isLoaded());
        QCOMPARE(log.newValues.first(), i32(5000));
        QVERIFY(log.oldValues.first().isEmpty());
        QCOMPARE(log.heldValues.first(), i32(5000));
        QCOMPARE(item->value().i32_(), 5000);
    }

    void eachChangeIsReportedOnceAfterTheItemHoldsIt()
    {
        CMRoot()->defineValue(CMPath("/v/state"), i32(1));
        QObject owner;
        auto* item = new CMValueItem(&owner, CMPath("/v/state"));
        ChangeLog log(item);
        QTRY_COMPARE_WITH_TIMEOUT(log.count(), 1, 2000);
        set(CMPath("/v/state"), i32(2));
        QCOMPARE(log.count(), 2);
        QCOMPARE(log.newValues.at(1), i32(2));
        QCOMPARE(log.oldValues.at(1), i32(1));
        QCOMPARE(log.heldValues.at(1), i32(2));
        set(CMPath("/v/state"), TarvValue().setString_(QStringLiteral("x")));
        QCOMPARE(log.count(), 3);
        QCOMPARE(log.oldValues.at(2), i32(2));
        QCOMPARE(item->value().string_(), QStringLiteral("x"));
    }

    void equalWritesAreNotReported()
    {
        const TarvValue member = TarvValue().setSystemMember(TarvSystemMember().setId(QStringLiteral("me")));
        CMRoot()->defineValue(CMPath("/v/member"), member);
        QObject owner;
        auto* item = new CMValueItem(&owner, CMPath("/v/member"));
        ChangeLog log(item);
        QTRY_COMPARE_WITH_TIMEOUT(log.count(), 1, 2000);
        set(CMPath("/v/member"), member);
        // Redefining with the same value notifies the root's listeners, not the item's.
        CMRoot()->defineValue(CMPath("/v/member"), member);
        QCOMPARE(log.count(), 1);
        set(CMPath("/v/member"), TarvValue().setSystemMember(TarvSystemMember().setId(QStringLiteral("me2"))));
        QCOMPARE(log.count(), 2);
    }

    void changesBeforeLoadingAreFoldedIntoTheLoad()
    {
        CMRoot()->defineValue(CMPath("/v/early"), i32(1));
        QObject owner;
        auto* item = new CMValueItem(&owner, CMPath("/v/early"));
        ChangeLog log(item);
        set(CMPath("/v/early"), i32(2));
        set(CMPath("/v/early"), i32(3));
        QCOMPARE(log.count(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(log.count(), 1, 2000);
        QCOMPARE(log.newValues.first(), i32(3));
        QVERIFY(log.oldValues.first().isEmpty());
    }

    void undefinedPathLoadsEmpty()
    {
        QObject owner;
        auto* item = new CMValueItem(&owner, CMPath("/v/nothing"));
        ChangeLog log(item);
        QTRY_COMPARE_WITH_TIMEOUT(log.count(), 1, 2000);
        QVERIFY(item->isLoaded());
        QVERIFY(log.newValues.first().isEmpty());
        QVERIFY(log.oldValues.first().isEmpty());
        // A later definition is a change.
        CMRoot()->defineValue(CMPath("/v/nothing"), i32(4));
        QCOMPARE(log.count(), 2);
        QCOMPARE(item->value(), i32(4));
    }

    void changeWrittenFromAnotherThreadIsReportedOnTheItemsThread()
    {
        CMRoot()->defineValue(CMPath("/v/remote"), i32(1));
        QObject owner;
        auto* item = new CMValueItem(&owner, CMPath("/v/remote"));
        QList<Qt::HANDLE> threads;
        tarvConnect(item, &CMValueItem::changed, this,
                    [&threads](const TarvValue&, const TarvValue&) { threads << QThread::currentThreadId(); });
        QTRY_COMPARE_WITH_TIMEOUT(threads.size(), 1, 2000);
        bool stored = false;
        std::thread writer([&stored] {
            const CMReply<QVariant> reply;
            CMRoot()->setValue(CMPath("/v/remote"), i32(9), reply);
            stored = reply.waitForFinished(ULONG_MAX) && !reply.hasError();
        });
        const auto joinWriter = qScopeGuard([&] {
            if (writer.joinable())
                writer.join();
        });
        QTRY_COMPARE_WITH_TIMEOUT(threads.size(), 2, 5000);
        writer.join();
        QVERIFY(stored);
        QCOMPARE(threads.at(1), QThread::currentThreadId());
        QCOMPARE(item->value(), i32(9));
    }

    void deletedWithItsParent()
    {
        CMRoot()->defineValue(CMPath("/v/owned"), i32(1));
        QPointer<CMValueItem> item;
        {
            QObject owner;
            item = new CMValueItem(&owner, CMPath("/v/owned"));
        }
        QVERIFY(item.isNull());
        // Changes after the item is gone reach nobody and break nothing.
        set(CMPath("/v/owned"), i32(2));
        QCoreApplication::processEvents();
    }
};

QTEST_GUILESS_MAIN(tst_CMValueItem)
#include "tst_CMValueItem.moc"
