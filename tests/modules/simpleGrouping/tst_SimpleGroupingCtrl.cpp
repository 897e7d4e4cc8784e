#include <memory>

#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QUdpSocket>
#include <QtTest>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "GroupingTestHost.h"
#include "LogCapture.h"
#include "SimpleGroupingCtrl.h"

using namespace log4cplus;

namespace {
const QString Ctrl = QStringLiteral("SimpleGroupingCtrl");
} // namespace

class tst_SimpleGroupingCtrl : public QObject
{
    Q_OBJECT

private:
    // This device: "A" ("Alpha"); joinable transcoders "T" and "U" answer on
    // this machine, where the test socket `m_sink` listens on the receiver
    // link port.
    TarvSystemMember m_self = makeMember("A", "Alpha", "alpha.local", "10.0.0.1");
    TarvSystemMember m_tango = makeMember("T", "Tango", "127.0.0.1", "127.0.0.1");
    TarvSystemMember m_uniform = makeMember("U", "Uniform", "127.0.0.1", "127.0.0.1");

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<QUdpSocket> m_sink;
    std::unique_ptr<GroupingTestHost> m_host;
    CMNodes* m_moduleNodes = nullptr;
    CMListRowsNode* m_moduleList = nullptr;
    SimpleGroupingCtrl* m_ctrl = nullptr;

    void createCtrl() { m_ctrl = new SimpleGroupingCtrl(m_moduleNodes, m_moduleList); }
    // Creates the controller and waits until start-up made it a transcoder.
    bool startCtrl()
    {
        createCtrl();
        return QTest::qWaitFor([] { return GroupingTestHost::deviceState().type() == TarvTranscoderState::Transcoder; },
                               2000);
    }
    QByteArray ownJson() const { return m_self.toJson(false); }
    TarvGroupingMember ownGroupingMember() const { return membersRow("A").value().groupingMember(); }
    int adderStarts() const
    {
        return m_log->countStartingWith(TRACE_LOG_LEVEL, "Starting to send new message", "SimpleGroupingAdder");
    }
    // The goodbye, after any number of the periodic "add"s still under way.
    QByteArray nextRemove() { return nextDatagramStartingWith(*m_sink, "remove", "add" + ownJson()); }
    // Makes this device a receiver of T and takes T's first "add".
    bool joinTango()
    {
        m_ctrl->on_joinTranscoder(m_tango);
        return GroupingTestHost::deviceState().type() == TarvTranscoderState::Receiver
            && nextDatagram(*m_sink) == "add" + ownJson();
    }

private Q_SLOTS:
    void init()
    {
        if (!isChildRun())
            m_log = std::make_unique<LogCapture>();
        m_sink = std::make_unique<QUdpSocket>();
        QVERIFY(m_sink->bind(QHostAddress(QHostAddress::LocalHost), 0));
        TarvSetRequestPort(m_sink->localPort());
        m_host = std::make_unique<GroupingTestHost>(m_self, 3000, 200);
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_tango);
        m_host->setSystemMember(m_uniform);
        m_moduleNodes = new CMNodes;
        m_moduleList = CMListRowsNode::create(m_moduleNodes, CMPath("/modules/simpleGrouping"));
    }

    void cleanup()
    {
        delete m_ctrl;
        m_ctrl = nullptr;
        delete m_moduleNodes;
        m_moduleNodes = nullptr;
        m_host.reset();
        m_sink.reset();
        m_log.reset();
    }

    // --- construction and start-up ---

    void metaObjectDeclaresSlotsInOrderAndNoSignal()
    {
        QCOMPARE(declaredMethods(SimpleGroupingCtrl::staticMetaObject),
                 (QStringList{"slot on_joinTranscoder(TarvSystemMember)", "slot on_leaveTranscoder()",
                              "slot on_requestAddReceiver(TarvSystemMember)",
                              "slot on_requestRemoveReceiver(TarvSystemMember)",
                              "slot on_systemMember_itemChanged(TarvValue,TarvValue)",
                              "slot on_systemMembers_itemChanged(TarvRoles,TarvRoles)"}));
    }

    void constructorPublishesMembersNodeInParentList()
    {
        createCtrl();
        CMListRowsNode* node = membersNode();
        QVERIFY(node);
        QCOMPARE(node->title().toString(), QStringLiteral("members"));
        QCOMPARE(m_moduleList->rowsSize(), 1);
        QCOMPARE(m_moduleList->getRowRoles(0).path(), TarvGroupingMembersPath());
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "ListRowsNode path: /grouping/members", Ctrl), 1);
    }

    void startUpMakesOwnMasterTranscoder()
    {
        createCtrl();
        // Nothing is written before the own record has been loaded.
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Unknown);
        QCOMPARE(membersNode()->rowsSize(), 0);

        QTRY_COMPARE_WITH_TIMEOUT(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder, 2000);
        QCOMPARE(GroupingTestHost::deviceState().id(), QStringLiteral("A"));
        QCOMPARE(membersNode()->rowsSize(), 1);
        const TarvRoles own = membersRow("A");
        QCOMPARE(own.type(), TarvRolesType::GroupingMember);
        QCOMPARE(own.title().toString(), QStringLiteral("Alpha"));
        QCOMPARE(own.value().groupingMember().master(), m_self);
        QCOMPARE(own.value().groupingMember().follower(), m_self);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Update group master: name Alpha masterId = A; groupId = A", Ctrl), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL,
                              "current SystemMemberTranscoderState changed to  "
                              "{\"systemMemberTranscoderState\":{\"id\":\"A\",\"type\":2}}",
                              Ctrl),
                 1);
        // The system-members rows arrive after the own row; none of them is a
        // reason to leave or rename anything.
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMembers_itemChanged", Ctrl), 3,
            2000);
        QCOMPARE(m_log->countContaining(INFO_LOG_LEVEL, "leaving group", Ctrl), 0);
        QCOMPARE(membersNode()->rowsSize(), 1);
        QCOMPARE(adderStarts(), 0);
    }

    void systemMembersChangeIgnoredWithoutOwnRow()
    {
        createCtrl();
        // Before the own record arrived there is no own row: a vanished or
        // renamed member cannot concern this device yet.
        m_ctrl->on_systemMembers_itemChanged(TarvRoles(), GroupingTestHost::row(m_tango));
        m_ctrl->on_systemMembers_itemChanged(GroupingTestHost::row(makeMember("T", "Renamed")),
                                             GroupingTestHost::row(m_tango));
        QCOMPARE(membersNode()->rowsSize(), 0);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(m_log->messages(DEBUG_LOG_LEVEL, Ctrl).filter("Device not a receiver"), QStringList());
    }

    // --- identity and state ---

    void readsOwnIdentityFresh()
    {
        QVERIFY(startCtrl());
        QCOMPARE(m_ctrl->readMySystemMemberData(), m_self);
        QCOMPARE(m_ctrl->readMyId(), QStringLiteral("A"));
        QCOMPARE(m_ctrl->readMyName(), QStringLiteral("Alpha"));
        QVERIFY(m_log->count(TRACE_LOG_LEVEL, "Leave SimpleGroupingCtrl::readMyId: A", Ctrl) >= 1);
        QVERIFY(m_log->count(TRACE_LOG_LEVEL, "Leave SimpleGroupingCtrl::readMyName: Alpha", Ctrl) >= 1);
        QVERIFY(m_log->count(TRACE_LOG_LEVEL, "Leave SimpleGroupingCtrl::readMySystemMemberData: " + ownJson(), Ctrl)
                >= 1);

        // One call, one record read: its trace and the caller's.
        m_log->clear();
        QCOMPARE(m_ctrl->readMyId(), QStringLiteral("A"));
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Ctrl),
                 (QStringList{"Leave SimpleGroupingCtrl::readMySystemMemberData: " + ownJson(),
                              "Leave SimpleGroupingCtrl::readMyId: A"}));

        GroupingTestHost::setOwnRecord(makeMember("A", "Alpha Two"));
        QCOMPARE(m_ctrl->readMyName(), QStringLiteral("Alpha Two"));
    }

    void getCurrentDeviceStateReadsHost()
    {
        createCtrl();
        QCOMPARE(m_ctrl->getCurrentDeviceState(), TarvTranscoderState::Unknown);
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Receiver);
        QCOMPARE(m_ctrl->getCurrentDeviceState(), TarvTranscoderState::Receiver);
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Transcoder);
        QCOMPARE(m_ctrl->getCurrentDeviceState(), TarvTranscoderState::Transcoder);
    }

    void changeDeviceStateWritesSameStateAgain()
    {
        int writes = 0;
        CMRoot()->defineValue(TarvDeviceStatePath(), TarvValue().toVariant(), [&writes](const QVariant&) {
            ++writes;
            return QString();
        });
        QVERIFY(startCtrl());
        QCOMPARE(writes, 1);
        m_log->clear();

        m_ctrl->changeDeviceState(TarvTranscoderState::Transcoder);
        QCOMPARE(writes, 2);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL,
                              "current SystemMemberTranscoderState changed to  "
                              "{\"systemMemberTranscoderState\":{\"id\":\"A\",\"type\":2}}",
                              Ctrl),
                 1);
    }

    void changeDeviceStateIgnoresRefusalAndLogsWhatHostHolds()
    {
        CMRoot()->defineValue(TarvDeviceStatePath(), TarvValue().toVariant(), [](const QVariant& value) {
            const int type = TarvValue(value.toHash()).systemMemberTranscoderState().type();
            return type == TarvTranscoderState::Receiver ? QStringLiteral("no receivers here") : QString();
        });
        QVERIFY(startCtrl());
        m_log->clear();

        m_ctrl->changeDeviceState(TarvTranscoderState::Receiver);
        QCOMPARE(m_ctrl->getCurrentDeviceState(), TarvTranscoderState::Transcoder);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL,
                              "current SystemMemberTranscoderState changed to  "
                              "{\"systemMemberTranscoderState\":{\"id\":\"A\",\"type\":2}}",
                              Ctrl),
                 1);
    }

    void changeDeviceStateWithoutOwnRecordWritesEmptyId()
    {
        CMRoot()->undefineValue(TarvSystemMemberPath());
        createCtrl();
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMember_itemChanged", Ctrl), 1,
            1000);
        m_ctrl->changeDeviceState(TarvTranscoderState::Transcoder);
        QCOMPARE(GroupingTestHost::deviceState().id(), QString());
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(m_ctrl->readMyName(), QString());
    }

    void isMasterFollowedOnReceiverIsFalse()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        QVERIFY(m_ctrl->isMasterFollowed("A"));
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Receiver);
        QCOMPARE(membersNode()->rowsSize(), 2);
        QVERIFY(!m_ctrl->isMasterFollowed("A"));
    }

    void isMasterFollowedIgnoresOwnMasterRow()
    {
        QVERIFY(startCtrl());
        QCOMPARE(membersNode()->rowsSize(), 1);
        QVERIFY(!m_ctrl->isMasterFollowed("A"));

        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        QVERIFY(m_ctrl->isMasterFollowed("A"));
        QVERIFY(!m_ctrl->isMasterFollowed("R"));
    }

    void stateNeitherReceiverNorTranscoder()
    {
        QVERIFY(startCtrl());
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Unknown);
        m_log->clear();

        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        QCOMPARE(m_log->count(ERROR_LOG_LEVEL, "AddReceiver request only valid for transcoder devices! Discarding...",
                              Ctrl),
                 1);
        m_ctrl->on_requestRemoveReceiver(makeMember("A", "Alpha"));
        QCOMPARE(m_log->count(ERROR_LOG_LEVEL, "RemoveReceiver request only valid for transcoder devices!", Ctrl), 1);
        QCOMPARE(membersNode()->rowsSize(), 1);

        m_ctrl->on_leaveTranscoder();
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Device not a receiver, no need to ungroup.", Ctrl), 1);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Unknown);

        QVERIFY(joinTango());
        QCOMPARE(ownGroupingMember().master(), m_tango);
    }

    // --- joining and leaving ---

    void joinSetsMasterThenStateThenAnnounces()
    {
        QVERIFY(startCtrl());
        m_log->clear();
        // What the host holds at each step of the join.
        QList<int> stateWhenRowChanged;
        QStringList masterWhenStateChanged;
        QObject watcher;
        tarvConnect(membersNode(), &CMListRowsNode::rowChanged, &watcher, [&](const TarvRoles&, const TarvRoles&) {
            stateWhenRowChanged.append(GroupingTestHost::deviceState().type());
        });
        tarvConnect(CMRoot(), &CMRootWorker::valueChanged, &watcher, [&](const CMPath& path, const QVariant&) {
            if (path == TarvDeviceStatePath())
                masterWhenStateChanged.append(ownGroupingMember().master().id());
        });

        m_ctrl->on_joinTranscoder(m_tango);
        QCOMPARE(stateWhenRowChanged, QList<int>{TarvTranscoderState::Transcoder});
        QCOMPARE(masterWhenStateChanged, QStringList{"T"});
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        QCOMPARE(GroupingTestHost::deviceState().id(), QStringLiteral("A"));
        QCOMPARE(membersNode()->rowsSize(), 1);
        QCOMPARE(ownGroupingMember().master(), m_tango);
        QCOMPARE(ownGroupingMember().follower(), m_self);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL,
                              "Enter SimpleGroupingCtrl::on_joinTranscoder: transcoder name = Tango id = T host = "
                              "127.0.0.1",
                              Ctrl),
                 1);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL,
                              "joinTranscoder: Tango id: T host name: '127.0.0.1' ip address: '127.0.0.1'", Ctrl),
                 1);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Update group master: name Tango masterId = T; groupId = T", Ctrl), 1);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "changeGroupMaster::Before update: MembersNode: [", Ctrl),
                 1);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "changeGroupMaster::After update: MembersNode: [", Ctrl), 1);
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());
    }

    void joinOwnDeviceRefused()
    {
        QVERIFY(startCtrl());
        const TarvRoles before = membersRow("A");
        m_log->clear();

        m_ctrl->on_joinTranscoder(m_self);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl),
                 QStringList{"Cannot join transcoder: " + ownJson() + ", as it is this device!"});
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(membersRow("A"), before);
        QCOMPARE(adderStarts(), 0);
    }

    void joinWhileFollowedRefused()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        m_log->clear();

        m_ctrl->on_joinTranscoder(m_tango);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl),
                 QStringList{"Transcoder has followers, can not change state to receiver! Discarding..."});
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(membersNode()->rowsSize(), 2);
        QCOMPARE(membersRow("R").value().groupingMember().master().id(), QStringLiteral("A"));
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(adderStarts(), 0);
    }

    void joinUnknownMemberWithoutHostRefused()
    {
        QVERIFY(startCtrl());
        m_log->clear();

        m_ctrl->on_joinTranscoder(makeMember("X", "Xray"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl),
                 QStringList{"Transcoder is not online, cannot resolve name"});
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(adderStarts(), 0);
    }

    void joinWithoutHostTakesSystemMembersRecord_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("ipAddress");
        QTest::newRow("host and address alike") << "T" << "Tango" << "127.0.0.1";
        // The sender gets the row's host, never its address.
        QTest::newRow("host and address apart") << "V" << "Victor" << "10.0.0.99";
    }

    void joinWithoutHostTakesSystemMembersRecord()
    {
        QFETCH(QString, id);
        QFETCH(QString, name);
        QFETCH(QString, ipAddress);
        const TarvSystemMember known = makeMember(id, name, "127.0.0.1", ipAddress);
        m_host->setSystemMember(known);
        QVERIFY(startCtrl());
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMembers_itemChanged", Ctrl),
            m_host->systemMembers()->rowsSize(), 2000);
        m_log->clear();

        TarvSystemMember idOnly;
        idOnly.setId(id);
        m_ctrl->on_joinTranscoder(idOnly);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL,
                              "joinTranscoder: " + name + " id: " + id + " host name: '127.0.0.1' ip address: '"
                                  + ipAddress + "'",
                              Ctrl),
                 1);
        QCOMPARE(ownGroupingMember().master(), known);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Starting to send new message '" + ownJson() + "' to 127.0.0.1",
                              "SimpleGroupingAdder"),
                 1);
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());
    }

    // A host name that does not resolve is no reason to refuse: the device
    // becomes a receiver and the sender keeps trying to resolve it.
    void joinWithUnresolvableHostAccepted()
    {
        QVERIFY(startCtrl());
        m_log->clear();
        const TarvSystemMember whiskey = makeMember("W", "Whiskey", "no-such-host.invalid", "10.0.0.5");

        m_ctrl->on_joinTranscoder(whiskey);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        QCOMPARE(ownGroupingMember().master(), whiskey);
        QCOMPARE(adderStarts(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(ERROR_LOG_LEVEL, "Address lookup failed: ", "SimpleGroupingAdder"), 1, 2000);
        QCOMPARE(nextDatagram(*m_sink, 0), QByteArray());
    }

    void secondJoinReplacesMasterInOwnRow()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());

        m_ctrl->on_joinTranscoder(m_uniform);
        QCOMPARE(membersNode()->rowsSize(), 1);
        QCOMPARE(ownGroupingMember().master(), m_uniform);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        // The old transcoder hears goodbye before the new one hears hello.
        QCOMPARE(nextRemove(), "remove" + ownJson());
        QCOMPARE(nextDatagram(*m_sink), "add" + ownJson());
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Starting to send new message '" + ownJson() + "' to 127.0.0.1",
                              "SimpleGroupingAdder"),
                 2);
    }

    // A new master changes only master and follower of the existing own row:
    // its title and anything else it carries stay.
    void joinKeepsOwnRowTitleAndOtherContent()
    {
        QVERIFY(startCtrl());
        TarvRoles own = membersRow("A");
        own.insert("extra", QStringLiteral("kept"));
        membersNode()->rowsSetById(own);
        const TarvSystemMember renamed = makeMember("A", "Alpha Two", "alpha.local", "10.0.0.1");
        GroupingTestHost::setOwnRecord(renamed);
        QTRY_COMPARE_WITH_TIMEOUT(m_ctrl->readMyName(), QStringLiteral("Alpha Two"), 1000);

        m_ctrl->on_joinTranscoder(m_tango);
        const TarvRoles after = membersRow("A");
        QCOMPARE(after.title().toString(), QStringLiteral("Alpha"));
        QCOMPARE(after.hash().value("extra").toString(), QStringLiteral("kept"));
        QCOMPARE(after.type(), TarvRolesType::GroupingMember);
        QCOMPARE(after.value().groupingMember().master(), m_tango);
        QCOMPARE(after.value().groupingMember().follower(), renamed);
        QCOMPARE(membersNode()->rowsSize(), 1);
    }

    void leaveWhileTranscoderOnlyLogs()
    {
        QVERIFY(startCtrl());
        const QList<TarvRoles> before = membersNode()->rolesList();
        m_log->clear();

        m_ctrl->on_leaveTranscoder();
        QCOMPARE(m_log->messages(DEBUG_LOG_LEVEL, Ctrl), QStringList{"Device not a receiver, no need to ungroup."});
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(membersNode()->rolesList(), before);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
    }

    void leaveAfterJoinMakesOwnMasterTranscoder()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());
        m_log->clear();

        m_ctrl->on_leaveTranscoder();
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "leaveTranscoder: resetting to transcoder state", Ctrl), 1);
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(ownGroupingMember().follower(), m_self);
        QCOMPARE(membersNode()->rowsSize(), 1);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(nextRemove(), "remove" + ownJson());
    }

    // --- remote receivers ---

    void addReceiverWritesFollowerRow()
    {
        QVERIFY(startCtrl());
        m_log->clear();
        const TarvSystemMember romeo = makeMember("R", "Romeo", "romeo.local", "127.0.0.1", false);

        m_ctrl->on_requestAddReceiver(romeo);
        const TarvRoles row = membersRow("R");
        QCOMPARE(row.type(), TarvRolesType::GroupingMember);
        QCOMPARE(row.title().toString(), QStringLiteral("Romeo"));
        QCOMPARE(row.value().groupingMember().master(), m_self);
        QCOMPARE(row.value().groupingMember().follower(), romeo);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL,
                              "Enter SimpleGroupingCtrl::on_requestAddReceiver: receiver: " + romeo.toJson(false), Ctrl),
                 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Added to membersNode: " + row.toJson(false), Ctrl), 1);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "MembersNode BEFORE update: [", Ctrl), 1);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "MembersNode AFTER update: [", Ctrl), 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Leave SimpleGroupingCtrl::on_requestAddReceiver", Ctrl), 1);
    }

    void addReceiverWithOwnIdRefusedBeforeStateCheck()
    {
        QVERIFY(startCtrl());
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Receiver);
        m_log->clear();

        m_ctrl->on_requestAddReceiver(makeMember("A", "Impostor"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl), QStringList{"Cannot add device A, as it is this device!"});
        QCOMPARE(ownGroupingMember().follower(), m_self);
    }

    void addReceiverOnReceiverRefused()
    {
        QVERIFY(startCtrl());
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Receiver);
        m_log->clear();

        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl),
                 QStringList{"AddReceiver request only valid for transcoder devices! Discarding..."});
        QVERIFY(membersRow("R").isEmpty());
    }

    void addReceiverTwiceKeepsOneRowWithNewName()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        m_ctrl->on_requestAddReceiver(makeMember("R", "Roberta"));
        QCOMPARE(membersNode()->rowsSize(), 2);
        QCOMPARE(membersRow("R").title().toString(), QStringLiteral("Roberta"));
        QCOMPARE(membersRow("R").value().groupingMember().follower().name(), QStringLiteral("Roberta"));
    }

    void removeReceiverUnknownIdLeavesNodeUnchanged()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        const QList<TarvRoles> before = membersNode()->rolesList();
        QSignalSpy changes(membersNode(), &CMListRowsNode::rowChanged);
        m_log->clear();

        m_ctrl->on_requestRemoveReceiver(makeMember("Z", "Zulu"));
        QCOMPARE(membersNode()->rolesList(), before);
        QCOMPARE(changes.count(), 0);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl),
                 QStringList{"SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: Z"});
        QCOMPARE(m_log->messages(DEBUG_LOG_LEVEL, Ctrl),
                 QStringList{"MembersNode: " + QJsonDocument(QJsonArray::fromVariantList(membersNode()->rows()))
                                                   .toJson(QJsonDocument::Compact)});
    }

    void removeReceiverRemovesRowAndFollowing()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        QVERIFY(m_ctrl->isMasterFollowed("A"));

        TarvSystemMember idOnly;
        idOnly.setId("R");
        m_ctrl->on_requestRemoveReceiver(idOnly);
        QVERIFY(membersRow("R").isEmpty());
        QCOMPARE(membersNode()->rowsSize(), 1);
        QVERIFY(!m_ctrl->isMasterFollowed("A"));
    }

    void removeReceiverWithOwnIdRemovesOwnRow()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestRemoveReceiver(m_self);
        QVERIFY(membersRow("A").isEmpty());
        QCOMPARE(membersNode()->rowsSize(), 0);
    }

    void removeReceiverOnReceiverRefused()
    {
        QVERIFY(startCtrl());
        m_ctrl->on_requestAddReceiver(makeMember("R", "Romeo"));
        GroupingTestHost::setDeviceState("A", TarvTranscoderState::Receiver);
        m_log->clear();

        m_ctrl->on_requestRemoveReceiver(makeMember("R", "Romeo"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Ctrl),
                 QStringList{"RemoveReceiver request only valid for transcoder devices!"});
        QVERIFY(!membersRow("R").isEmpty());
    }

    // --- reactions to the own record ---

    void ownRecordNameChangeKeepsStateAndRow()
    {
        QVERIFY(startCtrl());
        QSignalSpy rows(membersNode(), &CMListRowsNode::rowChanged);
        m_log->clear();

        const TarvSystemMember renamed = makeMember("A", "Alpha Renamed", "alpha.local", "10.0.0.1");
        GroupingTestHost::setOwnRecord(renamed);
        QTRY_COMPARE_WITH_TIMEOUT(m_ctrl->readMyName(), QStringLiteral("Alpha Renamed"), 1000);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMember_itemChanged: ",
                                          Ctrl),
                 1);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL,
                              "Enter SimpleGroupingCtrl::on_systemMember_itemChanged: newValue: "
                                  + TarvValue().setSystemMember(renamed).toJson(false) + " oldValue: "
                                  + TarvValue().setSystemMember(m_self).toJson(false),
                              Ctrl),
                 1);
        QCOMPARE(rows.count(), 0);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "current SystemMemberTranscoderState", Ctrl), 0);
        QCOMPARE(ownGroupingMember().follower(), m_self);
    }

    void ownIdChangeStartsOverAsTranscoder()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());
        const TarvSystemMember bravo = makeMember("B", "Bravo");

        GroupingTestHost::setOwnRecord(bravo);
        QTRY_COMPARE_WITH_TIMEOUT(GroupingTestHost::deviceState().id(), QStringLiteral("B"), 1000);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(membersRow("B").value().groupingMember().master(), bravo);
        QCOMPARE(membersRow("B").value().groupingMember().follower(), bravo);
        // The sender is stopped: the transcoder hears goodbye.
        QCOMPARE(nextRemove(), "remove" + ownJson());
    }

    void ownRecordStayingEmptyDoesNothing()
    {
        CMRoot()->defineValue(TarvSystemMemberPath(), TarvValue().toVariant());
        createCtrl();
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMember_itemChanged", Ctrl), 1,
            1000);
        QCOMPARE(m_log->messages(FATAL_LOG_LEVEL), QStringList());
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Unknown);
        QCOMPARE(membersNode()->rowsSize(), 0);
    }

    void ownIdLossEndsProcess()
    {
        if (isChildRun()) {
            disableCoreDumps();
            TarvLog::init(); // FATAL lines go to stderr
            QVERIFY(startCtrl());
            // The own record's change reaches the controller synchronously.
            GroupingTestHost::setOwnRecord(TarvSystemMember());
            QFAIL("the process should have ended");
        }
        const ChildResult run = runChildScenario("ownIdLossEndsProcess", 10000, {"ownIdLossEndsProcess"});
        QVERIFY2(run.finished, qPrintable(run.stderrText));
        QCOMPARE(run.status, QProcess::CrashExit);
        QVERIFY2(run.stderrText.contains(
                     QRegularExpression("FATAL +SimpleGroupingCtrl .*SelfId was deleted shutdown the module!")),
                 qPrintable(run.stderrText));
        QVERIFY2(run.stdoutText.contains("ASSERT: \"false\" in file"), qPrintable(run.stdoutText));
        QVERIFY2(!run.stdoutText.contains("the process should have ended"), qPrintable(run.stdoutText));
    }

    // --- reactions to the system members ---

    void removalOfOtherMemberChangesNothing()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());
        m_log->clear();

        m_host->removeSystemMember("U");
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMembers_itemChanged", Ctrl), 1,
            1000);
        // ": " and then " SystemMember changed...": two spaces.
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL,
                              "Enter SimpleGroupingCtrl::on_systemMembers_itemChanged:  SystemMember changed. oldRole: "
                                  + GroupingTestHost::row(m_uniform).toJson(false) + "; newRole: {}",
                              Ctrl),
                 1);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
        QCOMPARE(ownGroupingMember().master(), m_tango);
    }

    void masterDisappearedLeavesGroup()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());
        m_log->clear();

        m_host->removeSystemMember("T");
        QTRY_COMPARE_WITH_TIMEOUT(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder, 1000);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl),
                 (QStringList{"Master disappeared, leaving group", "leaveTranscoder: resetting to transcoder state",
                              "Update group master: name Alpha masterId = A; groupId = A"}));
        QCOMPARE(ownGroupingMember().master(), m_self);
        QCOMPARE(nextRemove(), "remove" + ownJson());
    }

    void masterNoLongerTranscoderLeavesOnce()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());
        m_log->clear();

        TarvSystemMember demoted = m_tango;
        demoted.setTranscoder(false);
        m_host->setSystemMember(demoted);
        QTRY_COMPARE_WITH_TIMEOUT(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder, 1000);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Master is not transcoder anymore, leaving group", Ctrl), 1);
        QCOMPARE(ownGroupingMember().master(), m_self);

        demoted.setName("Tango Two");
        m_host->setSystemMember(demoted);
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMembers_itemChanged", Ctrl), 2,
            1000);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Master is not transcoder anymore, leaving group", Ctrl), 1);
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "leaveTranscoder: resetting to transcoder state", Ctrl), 1);
    }

    void transcoderOwnRowChangeNeverLeaves()
    {
        QVERIFY(startCtrl());
        m_log->clear();

        TarvSystemMember self = m_self;
        self.setTranscoder(false);
        m_host->setSystemMember(self);
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_systemMembers_itemChanged", Ctrl), 1,
            1000);
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl), QStringList());
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingCtrl::on_leaveTranscoder", Ctrl), 0);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);

        // Its own row vanishing reads as its master vanishing, and leaving is
        // nothing for a transcoder.
        m_host->removeSystemMember("A");
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, Ctrl), QStringList{"Master disappeared, leaving group"});
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Device not a receiver, no need to ungroup.", Ctrl), 1);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Transcoder);
        QCOMPARE(ownGroupingMember().master(), m_self);
    }

    void renamedFollowerRenamedInItsRowOnly()
    {
        QVERIFY(startCtrl());
        const TarvSystemMember romeo = makeMember("R", "Romeo", "127.0.0.1", "127.0.0.1", false);
        m_host->setSystemMember(romeo);
        m_ctrl->on_requestAddReceiver(romeo);
        const TarvRoles own = membersRow("A");
        QSignalSpy rows(membersNode(), &CMListRowsNode::rowChanged);

        TarvSystemMember renamed = romeo;
        renamed.setName("Roberta");
        m_host->setSystemMember(renamed);
        QTRY_COMPARE_WITH_TIMEOUT(rows.count(), 1, 1000);
        QCOMPARE(membersRow("R").title().toString(), QStringLiteral("Roberta"));
        QCOMPARE(membersRow("R").value().groupingMember().follower().name(), QStringLiteral("Roberta"));
        QCOMPARE(membersRow("R").value().groupingMember().master(), m_self);
        QCOMPARE(membersRow("A"), own);
        QCOMPARE(rows.at(0).at(0).value<TarvRoles>().id(), QStringLiteral("R"));
    }

    void renamedMasterRenamedInOwnRow()
    {
        QVERIFY(startCtrl());
        QVERIFY(joinTango());

        TarvSystemMember renamed = m_tango;
        renamed.setName("Tango Two");
        m_host->setSystemMember(renamed);
        QTRY_COMPARE_WITH_TIMEOUT(ownGroupingMember().master().name(), QStringLiteral("Tango Two"), 1000);
        QCOMPARE(membersRow("A").title().toString(), QStringLiteral("Alpha"));
        QCOMPARE(ownGroupingMember().follower(), m_self);
        QCOMPARE(GroupingTestHost::deviceState().type(), TarvTranscoderState::Receiver);
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingCtrl)
#include "tst_SimpleGroupingCtrl.moc"
