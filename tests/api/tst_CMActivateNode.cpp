#include <atomic>
#include <climits>
#include <thread>

#include <QPointer>
#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "RecordChecks.h"

// An action handler: records what arrives and answers as told.
class Handler : public QObject
{
    Q_OBJECT

public:
    enum Answer { Result, Error, Nothing, Keep };
    Answer answer = Result;
    QList<CMSetDataRequest> received;
    QList<Qt::HANDLE> threads;

public Q_SLOTS:
    void on_action_invoked(const CMSetDataRequest& request)
    {
        received << request;
        threads << QThread::currentThreadId();
        if (answer == Result)
            request.setResult(true);
        else if (answer == Error)
            request.setError(CMError(TrString("Refused by handler")));
        if (answer != Keep)
            received.last() = CMSetDataRequest();
    }
};

class tst_CMActivateNode : public QObject
{
    Q_OBJECT

private Q_SLOTS:
    void setInvokeBindsTheHandlerThroughTheCheckedConnect()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/bind"));
        Handler handler;
        const QMetaObject::Connection connection
            = action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        QVERIFY(bool(connection));
        const CMReply<QVariant> reply;
        action->activate(CMSetDataRequest(CMPath("/a/bind"), QVariant(), reply));
        QVERIFY(handler.received.isEmpty());
        QTRY_COMPARE_WITH_TIMEOUT(handler.threads.size(), 1, 2000);
        QCOMPARE(reply.result(), QVariant(true));
    }

    void invokeIsDeliveredThroughTheEventLoop()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/loop"));
        Handler handler;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        const CMReply<QVariant> reply;
        const TarvGroupingRequest value = TarvGroupingRequest().setCommand(TarvGroupingRequestCommand::Leave);
        const CMVoidReply view = CMRoot()->invoke(CMPath("/a/loop"), value, reply);
        QVERIFY(!view.isNull());
        QVERIFY(!view.isFinished());
        QCOMPARE(handler.threads.size(), 0);
        QTRY_COMPARE_WITH_TIMEOUT(handler.threads.size(), 1, 2000);
        QCOMPARE(handler.threads.first(), QThread::currentThreadId());
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.result(), QVariant(true));
        QVERIFY(view.isFinished());
    }

    void handlerReceivesPathAndValue()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/value"));
        Handler handler;
        handler.answer = Handler::Keep;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        const TarvSystemMember member = TarvSystemMember().setId(QStringLiteral("r")).setHost(QStringLiteral("r.local"));
        CMRoot()->invoke(CMPath("/a/value"), member, CMReply<QVariant>());
        QTRY_COMPARE_WITH_TIMEOUT(handler.received.size(), 1, 2000);
        QCOMPARE(handler.received.first().path(), CMPath("/a/value"));
        QCOMPARE(TarvSystemMember(handler.received.first().value().toHash()), member);
    }

    void replyFailsWhenTheHandlerFails()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/fail"));
        Handler handler;
        handler.answer = Handler::Error;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        const CMReply<QVariant> reply;
        CMRoot()->invoke(CMPath("/a/fail"), TarvHash(), reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Refused by handler"));
        QCOMPARE(reply.error().name(), CMError::DefaultName());
    }

    void replyFinishesWithoutResultWhenTheHandlerDoesNotAnswer()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/silent"));
        Handler handler;
        handler.answer = Handler::Nothing;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        const CMReply<QVariant> reply;
        CMRoot()->invoke(CMPath("/a/silent"), TarvHash(), reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(handler.threads.size(), 1);
        QVERIFY(!reply.hasError());
        QVERIFY(!reply.result().isValid());
    }

    void replyCompletesWhenAHandlerAnswersLater()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/later"));
        Handler handler;
        handler.answer = Handler::Keep;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        const CMReply<QVariant> reply;
        CMRoot()->invoke(CMPath("/a/later"), TarvHash(), reply);
        QTRY_COMPARE_WITH_TIMEOUT(handler.received.size(), 1, 2000);
        QVERIFY(!reply.isFinished());
        handler.received.first().setResult(QStringLiteral("answered"));
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.result(), QVariant(QStringLiteral("answered")));
    }

    void invokeFromAThreadWithoutEventLoopWaitsForTheReply()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/thread"));
        Handler handler;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        std::atomic<bool> done{false};
        bool finished = false;
        QVariant result;
        Qt::HANDLE callerThread = nullptr;
        std::thread caller([&] {
            callerThread = QThread::currentThreadId();
            const CMReply<QVariant> reply;
            const CMVoidReply view = CMRoot()->invoke(CMPath("/a/thread"), TarvHash(), reply);
            finished = view.waitForFinished(ULONG_MAX);
            result = reply.result();
            done = true;
        });
        const auto joinCaller = qScopeGuard([&] {
            if (caller.joinable())
                caller.join();
        });
        // This thread runs the event loop the activation travels through.
        QTRY_VERIFY_WITH_TIMEOUT(done.load(), 5000);
        caller.join();
        QVERIFY(finished);
        QCOMPARE(result, QVariant(true));
        QCOMPARE(handler.threads.size(), 1);
        QCOMPARE(handler.threads.first(), QThread::currentThreadId());
        QVERIFY(handler.threads.first() != callerThread);
    }

    void invokeFromAQThreadWithoutEventLoopSeesTheHandlersError()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/qthread"));
        Handler handler;
        handler.answer = Handler::Error;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        CMError error;
        QThread* caller = QThread::create([&error] {
            const CMReply<QVariant> reply;
            CMRoot()->invoke(CMPath("/a/qthread"), TarvHash(), reply).waitForFinished();
            error = reply.error();
        });
        caller->start();
        QTRY_VERIFY_WITH_TIMEOUT(caller->isFinished(), 5000);
        caller->wait();
        delete caller;
        QCOMPARE(error.message(), QStringLiteral("Refused by handler"));
    }

    void invokeOnAnUnknownPathFailsAtOnce()
    {
        const CMReply<QVariant> reply;
        const CMVoidReply view = CMRoot()->invoke(CMPath("/a/unknown"), TarvHash(), reply);
        QVERIFY(view.isFinished());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("No such action: /a/unknown"));
    }

    void invokeOnANodeThatIsNoActionFailsAtOnce()
    {
        CMNodes nodes;
        CMListRowsNode::create(&nodes, CMPath("/a/list"));
        const CMReply<QVariant> reply;
        CMRoot()->invoke(CMPath("/a/list"), TarvHash(), reply);
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.error().message(), QStringLiteral("Not an action: /a/list"));
    }

    void invokeWithoutAHandlerFails()
    {
        CMNodes nodes;
        CMActivateNode::create(&nodes, CMPath("/a/nohandler"));
        const CMReply<QVariant> reply;
        CMRoot()->invoke(CMPath("/a/nohandler"), TarvHash(), reply);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("No handler for /a/nohandler"));
    }

    void actionRemovedBeforeDeliveryFailsTheReply()
    {
        auto* nodes = new CMNodes;
        CMActivateNode* action = CMActivateNode::create(nodes, CMPath("/a/removed"));
        Handler handler;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::QueuedConnection);
        const CMReply<QVariant> reply;
        CMRoot()->invoke(CMPath("/a/removed"), TarvHash(), reply);
        delete nodes;
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(handler.threads.isEmpty());
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Action removed: /a/removed"));
    }

    void activateDeliversARequestToTheHandler()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/direct"));
        Handler handler;
        handler.answer = Handler::Keep;
        action->setInvoke(&handler, &Handler::on_action_invoked, Qt::DirectConnection);
        const CMReply<QVariant> reply;
        action->activate(CMSetDataRequest(CMPath("/a/direct"), QStringLiteral("not a hash"), reply));
        QCOMPARE(handler.received.size(), 1);
        QCOMPARE(handler.received.first().value(), QVariant(QStringLiteral("not a hash")));
    }

    void activateWithoutAHandlerFailsAtOnce()
    {
        CMNodes nodes;
        CMActivateNode* action = CMActivateNode::create(&nodes, CMPath("/a/direct2"));
        const CMReply<QVariant> reply;
        action->activate(CMSetDataRequest(CMPath("/a/direct2"), QVariant(), reply));
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("No handler for /a/direct2"));
    }
};

QTEST_GUILESS_MAIN(tst_CMActivateNode)
#include "tst_CMActivateNode.moc"
