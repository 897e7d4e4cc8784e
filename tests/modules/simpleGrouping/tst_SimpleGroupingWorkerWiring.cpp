#include <memory>

#include <QHostAddress>
#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>

#include <model/cmrequest>
#include <tarv>

#include "GroupingTestHost.h"
#include "LogCapture.h"
#include "SimpleGroupingWorker.h"

using namespace log4cplus;

namespace {
const QString Ctrl = QStringLiteral("SimpleGroupingCtrl");
const QString Request = QStringLiteral("SimpleGroupingRequest");
const QString Socket = QStringLiteral("SimpleGroupingSocket");
const QString Worker = QStringLiteral("SimpleGroupingWorker");
const QString Observer = QStringLiteral("SimpleGroupingObserver");

TarvHash joinRequest(const TarvSystemMember& master)
{
    return groupingRequest(TarvGroupingRequestCommand::Join, master, true);
}

TarvHash leaveRequest()
{
    return groupingRequest(TarvGroupingRequestCommand::Leave);
}
} // namespace

// The module as a whole: the worker's components, its wiring in init(), and
// two devices' worth of traffic on the receiver link over loopback.
class tst_SimpleGroupingWorkerWiring : public QObject
{
    Q_OBJECT

private:
    TarvSystemMember m_self = makeMember("A", "Alpha", "alpha.local", "10.0.0.1");
    // A join request names the master by id, name and host only.
    TarvSystemMember m_tango = makeMember("T", "Tango", "127.0.0.1");

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<QUdpSocket> m_sink;
    std::unique_ptr<GroupingTestHost> m_host;
    SimpleGroupingWorker* m_worker = nullptr;

    QByteArray ownJson() const { return m_self.toJson(false); }
    TarvGroupingMember ownGroupingMember() const { return membersRow("A").value().groupingMember(); }
    int initRuns() const { return m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::init", Worker); }

    // The receiver link port: free for the module's listener, or held by
    // the test socket `m_sink` (bound first, so the module's own listener
    // stays deaf) to catch what this device sends to a transcoder here.
    void useFreePort() { TarvSetRequestPort(freeUdpPort()); }
    bool useSink()
    {
        m_sink = std::make_unique<QUdpSocket>();
        if (!m_sink->bind(QHostAddress(QHostAddress::LocalHost), 0))
            return false;
        TarvSetRequestPort(m_sink->localPort());
        return true;
    }

    void createWorker(int receiverTimeoutMs)
    {
        m_host = std::make_unique<GroupingTestHost>(m_self, receiverTimeoutMs, 200);
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_tango);
        m_worker = new SimpleGroupingWorker(QVariantHash());
    }
    // A started module: wired, and the device its own-master transcoder.
    bool startWorker(int receiverTimeoutMs)
    {
        createWorker(receiverTimeoutMs);
        return QTest::qWaitFor(
            [this] {
                return initRuns() == 1
                    && GroupingTestHost::deviceState().type() == TarvTranscoderState::Transcoder;
            },
            2000);
    }

    static CMReply<QVariant> invoke(const CMPath& path, const TarvHash& value)
    {
        CMReply<QVariant> reply;
        CMRoot()->invoke(path, value, reply);
        static_cast<void>(QTest::qWaitFor([&] { return reply.isFinished(); }, 2000)); // callers check
        return reply;
    }

private Q_SLOTS:
    void init() { m_log = std::make_unique<LogCapture>(); }

    void cleanup()
    {
        // The worker never deletes its components; a test must.
        if (m_worker) {
            delete m_worker->controller();
            if (SimpleGroupingUI* ui = m_worker->ui()) {
                delete ui->systemMembersClone();
                delete ui->groupingMembersClone();
                delete ui;
            }
            delete m_worker->request();
            delete m_worker->observer();
        }
        delete m_worker;
        m_worker = nullptr;
        m_host.reset();
        m_sink.reset();
        m_log.reset();
    }

    void componentsCreatedControllerRowFirstThenUi()
    {
        useFreePort();
        createWorker(3000);
        QVERIFY(m_worker->controller());
        QVERIFY(m_worker->ui());
        QVERIFY(m_worker->request());
        auto* list = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(CMPath("/modules/simpleGrouping")));
        QVERIFY(list);
        QCOMPARE(list->rowsSize(), 2);
        QCOMPARE(list->getRowRoles(0).path(), TarvGroupingMembersPath());
        QCOMPARE(list->getRowRoles(1).path(), TarvGroupingUIPath());
        QCOMPARE(list->getRowRoles(1).title().toString(), QStringLiteral("Transcoders"));
        QVERIFY(membersNode());
        QVERIFY(qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingRequestPath())));
        QVERIFY(qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingMembersRemoveReceiverPath())));
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Created SimpleGroupingRequest", Request), 1);
    }

    // The module reads none of its settings; the base worker keeps them
    // as the host gave them.
    void settingsReachTheBaseWorkerUnchanged()
    {
        useFreePort();
        m_host = std::make_unique<GroupingTestHost>(m_self, 3000, 200);
        const QVariantHash settings{{QStringLiteral("anything"), 42}, {QStringLiteral("nested"), QVariantHash()}};
        m_worker = new SimpleGroupingWorker(settings);
        QCOMPARE(m_worker->settings(), settings);
        QCOMPARE(m_worker->name(), QStringLiteral("SimpleGroupingWorker"));
    }

    void componentsUnconnectedBeforeInit()
    {
        QVERIFY(useSink());
        createWorker(3000);
        // No event has been handled yet: init() cannot have run.
        Q_EMIT m_worker->request()->requestJoinTranscoder(m_tango);
        Q_EMIT m_worker->request()->requestLeaveTranscoder();
        Q_EMIT m_worker->request()->requestAddReceiver(makeMember("R", "Romeo"));
        Q_EMIT m_worker->request()->requestRemoveReceiver(makeMember("R", "Romeo"));
        Q_EMIT m_worker->requestRemoveReceiver(makeMember("R", "Romeo"));
        QCOMPARE(initRuns(), 0);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_", Ctrl), 0);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(m_log->messages(DEBUG_LOG_LEVEL, Ctrl), QStringList{"ListRowsNode path: /grouping/members"});
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Unknown);
    }

    void initConnectsEachSignalOnce()
    {
        QVERIFY(useSink());
        QVERIFY(startWorker(3000));
        SimpleGroupingRequest* request = m_worker->request();

        // 1: requestAddReceiver -> on_requestAddReceiver
        Q_EMIT request->requestAddReceiver(makeMember("R", "Romeo"));
        QVERIFY(!membersRow("R").isEmpty());
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Added to membersNode: ", Ctrl), 1);
        // 2: requestRemoveReceiver -> on_requestRemoveReceiver
        Q_EMIT request->requestRemoveReceiver(makeMember("R", "Romeo"));
        QVERIFY(membersRow("R").isEmpty());
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: R", Ctrl), 1);
        // 5: the worker's requestRemoveReceiver -> on_requestRemoveReceiver
        Q_EMIT request->requestAddReceiver(makeMember("R2", "Roberta"));
        Q_EMIT m_worker->requestRemoveReceiver(makeMember("R2", "Roberta"));
        QVERIFY(membersRow("R2").isEmpty());
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: R2", Ctrl),
                 1);
        // 3: requestJoinTranscoder -> on_joinTranscoder
        Q_EMIT request->requestJoinTranscoder(m_tango);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        QCOMPARE(m_log->countStartingWith(INFO_LOG_LEVEL, "joinTranscoder: ", Ctrl), 1);
        // 4: requestLeaveTranscoder -> on_leaveTranscoder
        Q_EMIT request->requestLeaveTranscoder();
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "leaveTranscoder: resetting to transcoder state", Ctrl), 1);
    }

    void requestsBeforeInitAnsweredTrueAndChangeNothing()
    {
        QVERIFY(useSink());
        createWorker(3000);
        const CMReply<QVariant> join = invoke(TarvGroupingRequestPath(), joinRequest(m_tango));
        QVERIFY(join.isFinished());
        QCOMPARE(initRuns(), 0);
        QCOMPARE(join.result(), QVariant(true));
        const CMReply<QVariant> leave = invoke(TarvGroupingRequestPath(), leaveRequest());
        QCOMPARE(initRuns(), 0);
        QCOMPARE(leave.result(), QVariant(true));
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "emit requestJoinTranscoder(" + m_tango.toJson(false) + ")", Request), 1);

        QTRY_COMPARE_WITH_TIMEOUT(initRuns(), 1, 2000);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_joinTranscoder", Ctrl), 0);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Starting to send new message", "SimpleGroupingAdder"), 0);
    }

    void startUpMakesOwnMasterTranscoder()
    {
        useFreePort();
        QVERIFY(startWorker(3000));
        QCOMPARE(GroupingTestHost::deviceState().id(), QStringLiteral("A"));
        QCOMPARE(membersNode()->rowsSize(), 1);
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(ownGroupingMember().follower(), m_self);
    }

    void joinLeaveCycleThroughRequestPath()
    {
        QVERIFY(useSink());
        QVERIFY(startWorker(3000));

        const CMReply<QVariant> join = invoke(TarvGroupingRequestPath(), joinRequest(m_tango));
        QVERIFY(!join.hasError());
        QCOMPARE(join.result(), QVariant(true));
        QCOMPARE(ownGroupingMember().master(), m_tango);
        QCOMPARE(ownGroupingMember().follower(), m_self);
        QCOMPARE(membersNode()->rowsSize(), 1);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        QCOMPARE(GroupingTestHost::deviceState().id(), QStringLiteral("A"));
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());
        // ...and again once per resend period.
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());

        // A refused request changes nothing.
        TarvSystemMember noId = m_tango;
        noId.setId(QString());
        const CMReply<QVariant> refused = invoke(TarvGroupingRequestPath(), joinRequest(noId));
        QVERIFY(refused.hasError());
        QCOMPARE(refused.error().message(), QStringLiteral("Missing grouping master id"));
        QCOMPARE(ownGroupingMember().master(), m_tango);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);

        const CMReply<QVariant> leave = invoke(TarvGroupingRequestPath(), leaveRequest());
        QCOMPARE(leave.result(), QVariant(true));
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(nextDatagramStartingWith(*m_sink, "remove", "add" + ownJson()), "remove" + ownJson());

        const CMReply<QVariant> again = invoke(TarvGroupingRequestPath(), leaveRequest());
        QCOMPARE(again.result(), QVariant(true));
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Device not a receiver, no need to ungroup.", Ctrl), 1);
        // The module's own listener never heard this device's datagrams.
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Received packet ", Socket), 0);
    }

    // The UI's own requests, in the form it writes them, reach the request
    // node and the controller.
    void uiJoinAndLeaveReachTheControllerThroughTheRequestNode()
    {
        QVERIFY(useSink());
        QVERIFY(startWorker(3000));
        auto* list = qobject_cast<CMListRowsNode*>(CMRoot()->findNode(TarvGroupingUIPath()));
        QVERIFY(list);
        const CMPath joinTango("/ui/grouping/joinTranscoder/T");
        QTRY_COMPARE_WITH_TIMEOUT(list->rowsSize(), 1, 2000);
        QCOMPARE(list->getRowRoles(0).path(), joinTango);

        const CMReply<QVariant> join = invoke(joinTango, TarvHash());
        QVERIFY(join.isFinished());
        QVERIFY(!join.hasError());
        QCOMPARE(TarvActionReply(join.result().toHash()).xclass(), QStringLiteral("TarvActionReply"));
        // The join request was written just before the answer and travels
        // through the event loop.
        QTRY_COMPARE_WITH_TIMEOUT(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver, 2000);
        const TarvSystemMember master = ownGroupingMember().master();
        QCOMPARE(master.id(), QStringLiteral("T"));
        QCOMPARE(master.name(), QStringLiteral("Tango"));
        QCOMPARE(master.host(), QStringLiteral("127.0.0.1"));
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());
        // The first leave of the join found nothing to leave.
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Device not a receiver, no need to ungroup.", Ctrl), 1);
        // The followed transcoder now leads to the leave node.
        QCOMPARE(list->rowsGetById("T").title().toString(), QStringLiteral("   >   Tango"));
        QCOMPARE(list->rowsGetById("T").path(), TarvGroupingUILeavePath());

        const CMReply<QVariant> leave = invoke(list->rowsGetById("T").path(), TarvHash());
        QVERIFY(leave.isFinished());
        QVERIFY(!leave.hasError());
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(nextDatagramStartingWith(*m_sink, "remove", "add" + ownJson()), "remove" + ownJson());
        QCOMPARE(list->rowsGetById("T").path(), joinTango);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Request), QStringList());
    }

    // A saved group brings the device to its master; when that master
    // disappears the controller leaves it, and the search for an old master
    // that follows must not find it in the observer's own mirror again.
    void aMasterThatDisappearsIsLeftAndNotJoinedAgain()
    {
        QVERIFY(useSink());
        TarvSystemMember tango = m_tango;
        tango.setPersistentGroupMembers(TarvList<QString>({"T", "A"})).setPersistentGroupTimestamp(1000);
        // After init(): joins sent before it reach no controller.
        QVERIFY(startWorker(3000));
        m_host->setSystemMember(tango);
        QTRY_COMPARE_WITH_TIMEOUT(ownGroupingMember().master().id(), QStringLiteral("T"), 2000);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());
        const int joins = m_log->count(DEBUG_LOG_LEVEL, "Joining new master: T", Observer);
        QVERIFY(joins >= 1);

        m_host->removeSystemMember("T");
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Master disappeared, leaving group", Ctrl), 1);
        QCOMPARE(ownGroupingMember().master(), m_self);
        // Every request sent so far has been handled once a refused one
        // sent now is answered.
        QVERIFY(invoke(TarvGroupingRequestPath(), groupingRequest(2)).hasError());
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Joining new master: T", Observer), joins);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(nextDatagramStartingWith(*m_sink, "remove", "add" + ownJson()), "remove" + ownJson());
    }

    void transcoderFedRealDatagrams()
    {
        useFreePort();
        QVERIFY(startWorker(3000));
        QSignalSpy rows(membersNode(), &CMListRowsNode::rowChanged);
        QSignalSpy added(m_worker->request(), &SimpleGroupingRequest::requestAddReceiver);
        const TarvSystemMember romeo = makeMember("R", "Romeo", "romeo.local", "10.9.9.9", false);

        sendToListener("add" + romeo.toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(rows.count(), 1, 2000);
        const TarvRoles row = membersRow("R");
        QCOMPARE(row.type(), TarvRolesType::GroupingMember);
        QCOMPARE(row.title().toString(), QStringLiteral("Romeo"));
        QCOMPARE(row.value().groupingMember().master(), m_self);
        TarvSystemMember announced = romeo;
        announced.setIpAddress("127.0.0.1");
        QCOMPARE(row.value().groupingMember().follower(), announced);
        QVERIFY(m_worker->controller()->isMasterFollowed("A"));

        // A repeated announcement only refreshes the deadline.
        sendToListener("add" + romeo.toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(m_log->countStartingWith(TRACE_LOG_LEVEL, "Received packet add", Socket), 2, 2000);
        QCOMPARE(added.count(), 1);
        QCOMPARE(rows.count(), 1);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Added to membersNode: ", Ctrl), 1);

        // Goodbye removes the row long before the 3 s deadline.
        sendToListener("remove" + romeo.toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(rows.count(), 2, 500);
        QVERIFY(membersRow("R").isEmpty());
        QVERIFY(!m_worker->controller()->isMasterFollowed("A"));
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Request), QStringList{"Created SimpleGroupingRequest"});
    }

    void transcoderDropsSilentReceiver()
    {
        useFreePort();
        QVERIFY(startWorker(999));
        QSignalSpy rows(membersNode(), &CMListRowsNode::rowChanged);

        sendToListener("add" + makeMember("R", "Romeo").toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(rows.count(), 2, 2000);
        QVERIFY(membersRow("R").isEmpty());
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Remove remote receiver due to timeout: R", Request), 1);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: R", Ctrl), 1);
    }

    void datagramWithoutIdDoesNotStopTheTranscoder()
    {
        useFreePort();
        QVERIFY(startWorker(999));
        QObject context;
        int removals = 0;
        tarvConnect(m_worker->request(), &SimpleGroupingRequest::requestRemoveReceiver, &context,
                    [&removals](const TarvSystemMember&) {
                        if (++removals > 100)
                            qFatal("the expiry loop does not end");
                    });
        QSignalSpy rows(membersNode(), &CMListRowsNode::rowChanged);

        sendToListener(R"(add{"name":"Nameless"})");
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->count(ERROR_LOG_LEVEL, R"(Ignoring receiver without id, it could never expire: {"name":"Nameless"})",
                         Request),
            1, 2000);
        QVERIFY(membersRow(QString()).isEmpty());

        // Later datagrams are handled and later deadlines still expire.
        sendToListener("add" + makeMember("R", "Romeo").toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(rows.count(), 2, 2000);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Remove remote receiver due to timeout: R", Request), 1);
        sendToListener("add" + makeMember("R2", "Roberta").toJson(false));
        QTRY_COMPARE_WITH_TIMEOUT(rows.count(), 4, 2000);
        QCOMPARE(removals, 2);
    }

    void removeReceiverActionOnTranscoder()
    {
        useFreePort();
        QVERIFY(startWorker(3000));
        sendToListener("add" + makeMember("R", "Romeo").toJson(false));
        QTRY_VERIFY_WITH_TIMEOUT(!membersRow("R").isEmpty(), 2000);

        TarvSystemMember romeo;
        romeo.setId("R");
        invoke(TarvGroupingMembersRemoveReceiverPath(), romeo);
        QTRY_VERIFY_WITH_TIMEOUT(membersRow("R").isEmpty(), 1000);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: R", Ctrl), 1);
        QCOMPARE(membersNode()->rowsSize(), 1);
    }

    // A value that is no hash names nobody: the controller is asked to
    // remove the row with the empty id, and there is none.
    void removeReceiverActionWithValueThatIsNoHashRemovesNothing()
    {
        useFreePort();
        QVERIFY(startWorker(3000));
        sendToListener("add" + makeMember("R", "Romeo").toJson(false));
        QTRY_VERIFY_WITH_TIMEOUT(!membersRow("R").isEmpty(), 2000);
        const QList<TarvRoles> before = membersNode()->rolesList();
        QSignalSpy rows(membersNode(), &CMListRowsNode::rowChanged);
        auto* action = qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingMembersRemoveReceiverPath()));
        QVERIFY(action);

        const CMReply<QVariant> reply;
        action->activate(CMSetDataRequest(TarvGroupingMembersRemoveReceiverPath(), QVariant(QStringLiteral("R")), reply));
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->count(INFO_LOG_LEVEL, "SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: ", Ctrl), 1, 1000);
        QCOMPARE(membersNode()->rolesList(), before);
        QCOMPARE(rows.count(), 0);
        QCOMPARE(membersNode()->rowsSize(), 2);
    }

    void removeReceiverActionOnReceiver()
    {
        QVERIFY(useSink());
        QVERIFY(startWorker(3000));
        QCOMPARE(invoke(TarvGroupingRequestPath(), joinRequest(m_tango)).result(), QVariant(true));
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        const TarvRoles own = membersRow("A");

        TarvSystemMember self;
        self.setId("A");
        invoke(TarvGroupingMembersRemoveReceiverPath(), self);
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->count(ERROR_LOG_LEVEL, "RemoveReceiver request only valid for transcoder devices!", Ctrl), 1, 1000);
        QCOMPARE(membersRow("A"), own);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingWorkerWiring)
#include "tst_SimpleGroupingWorkerWiring.moc"
