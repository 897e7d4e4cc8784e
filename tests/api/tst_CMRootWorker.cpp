#include <climits>
#include <future>
#include <thread>

#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "LogCapture.h"
#include "RecordChecks.h"

// Receives value changes; may live in another thread.
class ValueListener : public QObject
{
    Q_OBJECT

public:
    QList<QPair<CMPath, QVariant>> changes;
    QList<Qt::HANDLE> threads;
    mutable QMutex mutex;

    int count() const
    {
        QMutexLocker locker(&mutex);
        return changes.size();
    }

public Q_SLOTS:
    void on_value_changed(const CMPath& path, const QVariant& value)
    {
        QMutexLocker locker(&mutex);
        changes << qMakePair(path, value);
        threads << QThread::currentThreadId();
    }
};

class tst_CMRootWorker : public QObject
{
    Q_OBJECT

private:
    static TarvValue i32(int value) { return TarvValue().setI32_(value); }

private Q_SLOTS:
    void cleanup()
    {
        CMRoot()->clearValues();
    }

    void oneRootLivingOnTheApplicationThread()
    {
        QCOMPARE(CMRoot(), CMRoot());
        QCOMPARE(CMRoot()->thread(), QCoreApplication::instance()->thread());
        CMAbstractWorker* asWorker = CMRoot();
        QVERIFY(asWorker);
    }

    void definedValuesAreKnown()
    {
        CMRoot()->defineValue(CMPath("/r/a"), i32(1));
        CMRoot()->defineValue(CMPath("/r/b"), i32(2));
        QVERIFY(CMRoot()->hasValue(CMPath("/r/a")));
        QVERIFY(!CMRoot()->hasValue(CMPath("/r/c")));
        QList<CMPath> paths = CMRoot()->valuePaths();
        std::sort(paths.begin(), paths.end());
        QCOMPARE(paths, QList<CMPath>({CMPath("/r/a"), CMPath("/r/b")}));
        CMRoot()->undefineValue(CMPath("/r/a"));
        QVERIFY(!CMRoot()->hasValue(CMPath("/r/a")));
        QVERIFY(!CMRoot()->getValue(CMPath("/r/a")).isValid());
        CMRoot()->clearValues();
        QVERIFY(CMRoot()->valuePaths().isEmpty());
    }

    void getValueIsSynchronous()
    {
        const TarvValue state = TarvValue().setSystemMemberTranscoderState(
            TarvSystemMemberTranscoderState().setId(QStringLiteral("me")).setType(TarvTranscoderState::Transcoder));
        CMRoot()->defineValue(TarvDeviceStatePath(), state);
        const QVariant value = CMRoot()->getValue(TarvDeviceStatePath());
        QCOMPARE(value.userType(), int(QMetaType::QVariantHash));
        QCOMPARE(TarvValue(value.toHash()), state);
        QVERIFY(!CMRoot()->getValue(CMPath("/r/undefined")).isValid());
    }

    void getValueFromAnotherThread()
    {
        CMRoot()->defineValue(CMPath("/r/shared"), i32(77));
        QVariant seen;
        std::thread reader([&seen] { seen = CMRoot()->getValue(CMPath("/r/shared")); });
        reader.join();
        QCOMPARE(TarvValue(seen.toHash()), i32(77));
    }

    void setValueOnTheOwningThreadHasCompletedOnReturn()
    {
        CMRoot()->defineValue(CMPath("/r/state"), i32(1));
        QSignalSpy changed(CMRoot(), &CMRootWorker::valueChanged);
        const CMReply<QVariant> reply;
        const CMVoidReply view = CMRoot()->setValue(CMPath("/r/state"), i32(2), reply);
        QVERIFY(view.isFinished());
        QVERIFY(reply.isFinished());
        QVERIFY(!reply.hasError());
        QCOMPARE(TarvValue(reply.result().toHash()), i32(2));
        QCOMPARE(TarvValue(CMRoot()->getValue(CMPath("/r/state")).toHash()), i32(2));
        QCOMPARE(changed.count(), 1);
        QCOMPARE(changed.at(0).at(0).value<CMPath>(), CMPath("/r/state"));
        QCOMPARE(TarvValue(changed.at(0).at(1).toHash()), i32(2));
    }

    void setValueFromAnotherThreadIsStoredOnTheRootsThread()
    {
        CMRoot()->defineValue(CMPath("/r/remote"), i32(1));
        ValueListener listener;
        CMRoot()->connectValueChange(CMPath("/r/remote"), &listener, &ValueListener::on_value_changed);
        bool finished = false;
        bool finishedAtReturn = true;
        std::promise<void> returned;
        std::thread writer([&] {
            const CMReply<QVariant> reply;
            const CMVoidReply view = CMRoot()->setValue(CMPath("/r/remote"), i32(5), reply);
            finishedAtReturn = view.isFinished();
            returned.set_value();
            finished = view.waitForFinished(ULONG_MAX) && !reply.hasError();
        });
        const auto joinWriter = qScopeGuard([&] {
            if (writer.joinable())
                writer.join();
        });
        // This thread runs no events until setValue has returned over there,
        // so the write cannot have been stored yet.
        returned.get_future().wait();
        QVERIFY(!finishedAtReturn);
        QCOMPARE(TarvValue(CMRoot()->getValue(CMPath("/r/remote")).toHash()), i32(1));
        QTRY_COMPARE_WITH_TIMEOUT(listener.count(), 1, 5000);
        writer.join();
        QVERIFY(finished);
        QCOMPARE(listener.threads.first(), QThread::currentThreadId());
        QCOMPARE(TarvValue(CMRoot()->getValue(CMPath("/r/remote")).toHash()), i32(5));
    }

    // A module may write a path before anyone defined it (its first write
    // defines it) and it is notified like any change.
    void setValueOnAnUndefinedPathDefinesIt()
    {
        QSignalSpy changes(CMRoot(), &CMRootWorker::valueChanged);
        const CMReply<QVariant> reply;
        CMRoot()->setValue(CMPath("/r/none"), i32(1), reply);
        QVERIFY(reply.isFinished());
        QVERIFY(!reply.hasError());
        QVERIFY(CMRoot()->hasValue(CMPath("/r/none")));
        QCOMPARE(TarvValue(CMRoot()->getValue(CMPath("/r/none")).toHash()), i32(1));
        QCOMPARE(changes.count(), 1);
        CMRoot()->undefineValue(CMPath("/r/none"));
    }

    void setValueOnANodeFails()
    {
        CMNodes nodes;
        CMListRowsNode::create(&nodes, CMPath("/r/node"));
        LogCapture log;
        const CMReply<QVariant> reply;
        CMRoot()->setValue(CMPath("/r/node"), i32(1), reply);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Not a value: /r/node"));
        QCOMPARE(log.messages(log4cplus::WARN_LOG_LEVEL, QStringLiteral("CMRootWorker")),
                 QStringList{QStringLiteral("Refused a value for /r/node: Not a value: /r/node")});
    }

    void validatorRefusesWithItsReasonAndChangesNothing()
    {
        CMRoot()->defineValue(CMPath("/r/checked"), i32(10), [](const QVariant& value) {
            return TarvValue(value.toHash()).i32_() < 0 ? QStringLiteral("Must not be negative") : QString();
        });
        QSignalSpy changed(CMRoot(), &CMRootWorker::valueChanged);
        const CMReply<QVariant> refused;
        CMRoot()->setValue(CMPath("/r/checked"), i32(-1), refused);
        QVERIFY(refused.hasError());
        QCOMPARE(refused.error().message(), QStringLiteral("Must not be negative"));
        QCOMPARE(refused.error().name(), CMError::DefaultName());
        QCOMPARE(TarvValue(CMRoot()->getValue(CMPath("/r/checked")).toHash()), i32(10));
        QCOMPARE(changed.count(), 0);
        QCOMPARE(CMRoot()->storeValue(CMPath("/r/checked"), i32(-5).toVariant()), QStringLiteral("Must not be negative"));
        const CMReply<QVariant> accepted;
        CMRoot()->setValue(CMPath("/r/checked"), i32(3), accepted);
        QVERIFY(!accepted.hasError());
        QCOMPARE(changed.count(), 1);
    }

    void redefiningWithoutValidatorDropsTheValidator()
    {
        const auto never = [](const QVariant&) { return QStringLiteral("never"); };
        CMRoot()->defineValue(CMPath("/r/v"), i32(1), never);
        QCOMPARE(CMRoot()->storeValue(CMPath("/r/v"), i32(2).toVariant()), QStringLiteral("never"));
        CMRoot()->defineValue(CMPath("/r/v"), i32(1));
        QCOMPARE(CMRoot()->storeValue(CMPath("/r/v"), i32(2).toVariant()), QString());
    }

    void anEqualWriteCompletesAndNotifiesNobody()
    {
        CMRoot()->defineValue(CMPath("/r/same"), i32(4));
        ValueListener listener;
        CMRoot()->connectValueChange(CMPath("/r/same"), &listener, &ValueListener::on_value_changed);
        QSignalSpy changed(CMRoot(), &CMRootWorker::valueChanged);
        const CMReply<QVariant> reply;
        CMRoot()->setValue(CMPath("/r/same"), i32(4), reply);
        QVERIFY(reply.isFinished());
        QVERIFY(!reply.hasError());
        QCOMPARE(changed.count(), 0);
        QCOMPARE(listener.count(), 0);
    }

    void connectValueChangeReportsPathAndValueOnEveryChange()
    {
        CMRoot()->defineValue(CMPath("/r/watched"), i32(0));
        CMRoot()->defineValue(CMPath("/r/other"), i32(0));
        ValueListener listener;
        const QMetaObject::Connection connection
            = CMRoot()->connectValueChange(CMPath("/r/watched"), &listener, &ValueListener::on_value_changed);
        QVERIFY(bool(connection));
        CMRoot()->setValue(CMPath("/r/watched"), i32(1), CMReply<QVariant>());
        CMRoot()->setValue(CMPath("/r/other"), i32(1), CMReply<QVariant>());
        CMRoot()->setValue(CMPath("/r/watched"), i32(2), CMReply<QVariant>());
        CMRoot()->setValue(CMPath("/r/watched"), i32(2), CMReply<QVariant>());
        QCOMPARE(listener.count(), 2);
        QCOMPARE(listener.changes.at(0).first, CMPath("/r/watched"));
        QCOMPARE(TarvValue(listener.changes.at(0).second.toHash()), i32(1));
        QCOMPARE(TarvValue(listener.changes.at(1).second.toHash()), i32(2));
        // Defining the value is a change too.
        CMRoot()->defineValue(CMPath("/r/watched"), i32(9));
        QCOMPARE(listener.count(), 3);
    }

    void connectValueChangeReachesAReceiverInAnotherThread()
    {
        CMRoot()->defineValue(CMPath("/r/far"), i32(0));
        QThread thread;
        thread.start();
        const auto stopThread = qScopeGuard([&] {
            thread.quit();
            thread.wait();
        });
        auto* listener = new ValueListener;
        listener->moveToThread(&thread);
        tarvConnect(&thread, &QThread::finished, listener, &QObject::deleteLater);
        CMRoot()->connectValueChange(CMPath("/r/far"), listener, &ValueListener::on_value_changed);
        CMRoot()->setValue(CMPath("/r/far"), i32(3), CMReply<QVariant>());
        QTRY_COMPARE_WITH_TIMEOUT(listener->count(), 1, 5000);
        QMutexLocker locker(&listener->mutex);
        QVERIFY(listener->threads.first() != QThread::currentThreadId());
        QCOMPARE(listener->changes.first().first, CMPath("/r/far"));
        QCOMPARE(TarvValue(listener->changes.first().second.toHash()), i32(3));
    }

    void changedValueIsLoggedAtDebugLevel()
    {
        LogCapture log;
        CMRoot()->defineValue(CMPath("/r/logged"), i32(1));
        CMRoot()->setValue(CMPath("/r/logged"), i32(5000), CMReply<QVariant>());
        QCOMPARE(log.count(log4cplus::DEBUG_LOG_LEVEL, QStringLiteral("Value changed: /r/logged = {\"i32_\":5000}"),
                           QStringLiteral("CMRootWorker")),
                 1);
    }

    void nodeAddedAndRemovedAreReportedWithThePath()
    {
        QSignalSpy added(CMRoot(), &CMRootWorker::nodeAdded);
        QSignalSpy removed(CMRoot(), &CMRootWorker::nodeRemoved);
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/r/action"));
        QCOMPARE(added.count(), 1);
        QCOMPARE(added.at(0).at(0).value<CMPath>(), CMPath("/r/action"));
        QCOMPARE(CMRoot()->findNode(CMPath("/r/action")), static_cast<CMNode*>(action));
        QVERIFY(CMRoot()->allNodes().contains(action));
        delete action;
        QCOMPARE(removed.count(), 1);
        QCOMPARE(removed.at(0).at(0).value<CMPath>(), CMPath("/r/action"));
        QCOMPARE(CMRoot()->findNode(CMPath("/r/action")), nullptr);
    }

    void rowsChangedReportsEveryListRowChange()
    {
        CMNodes nodes;
        CMListRowsNode* list = CMListRowsNode::create(&nodes, CMPath("/r/list"));
        QSignalSpy rows(CMRoot(), &CMRootWorker::rowsChanged);
        const TarvRoles a = TarvRoles().setId(QStringLiteral("a"));
        list->rowsAppend(a);
        list->rowsSetById(TarvRoles(a).setTitle(TrString("A")));
        list->rowsRemoveById(QStringLiteral("a"));
        QCOMPARE(rows.count(), 3);
        QCOMPARE(rows.at(0).at(0).value<CMPath>(), CMPath("/r/list"));
        QCOMPARE(rows.at(1).at(1).value<TarvRoles>().title().toString(), QStringLiteral("A"));
        QCOMPARE(rows.at(1).at(2).value<TarvRoles>(), a);
        QVERIFY(rows.at(2).at(1).value<TarvRoles>().isEmpty());
    }
};

QTEST_GUILESS_MAIN(tst_CMRootWorker)
#include "tst_CMRootWorker.moc"
