#include <algorithm>
#include <chrono>
#include <memory>

#include <QTimer>
#include <QtTest>

#include <log4cplus/spi/loggingevent.h>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "GroupingTestHost.h"
#include "LogCapture.h"
#include "ReplyWaiter.h"
#include "SimpleGroupingUI.h"

using namespace log4cplus;
using Clock = std::chrono::steady_clock;

namespace {
const QString UI = QStringLiteral("SimpleGroupingUI");
const CMPath ListPath("/ui/grouping");
const CMPath LeavePath("/ui/grouping/leave");
const CMPath GroupingNodePath("/modules/simpleGrouping");
const QString NoticeTitle = QStringLiteral("Can't join playback while having followers!");
const QString Refusal = QStringLiteral("Previous grouping request not finished, reject request.");

CMPath joinPath(const QString& id)
{
    return CMPath(QStringLiteral("/ui/grouping/joinTranscoder/") + id);
}

qint64 msBetween(Clock::time_point from, Clock::time_point to)
{
    return std::chrono::duration_cast<std::chrono::milliseconds>(to - from).count();
}

TarvRoles transcoderRow(const QString& id, const QString& title, const CMPath& path)
{
    TarvRoles row;
    row.setType(TarvRolesType::GroupingTranscoder).setId(id).setTitle(TrString(title)).setPath(path);
    return row;
}

TarvRoles followerRow(const QString& id, const QString& title)
{
    TarvRoles row;
    row.setType(TarvRolesType::Follower).setId(id).setTitle(TrString(title));
    return row;
}

TarvRoles noticeRow()
{
    return followerRow(QStringLiteral("0-followers-list"), NoticeTitle);
}

// A row of the grouping members as the controller writes it.
TarvRoles groupingRow(const TarvSystemMember& follower, const TarvSystemMember& master)
{
    TarvGroupingMember member;
    member.setFollower(follower).setMaster(master);
    TarvRoles row;
    row.setType(TarvRolesType::GroupingMember).setId(follower.id()).setTitle(TrString(follower.name()));
    row.setValue(TarvValue().setGroupingMember(member));
    return row;
}

// Rows in id order, for views whose order is that of a hash.
QList<TarvRoles> byId(QList<TarvRoles> rows)
{
    std::sort(rows.begin(), rows.end(), [](const TarvRoles& a, const TarvRoles& b) { return a.id() < b.id(); });
    return rows;
}

TarvHash leaveRequest()
{
    return groupingRequest(TarvGroupingRequestCommand::Leave);
}

// The UI names the master by id, name and host only.
TarvHash joinRequest(const QString& id, const QString& name, const QString& host)
{
    TarvSystemMember master;
    master.setId(id).setName(name).setHost(host);
    return groupingRequest(TarvGroupingRequestCommand::Join, master, true);
}

TarvHash completionReply()
{
    return TarvHash(QVariantHash{
        {QStringLiteral("xclass"), QStringLiteral("TarvActionReply")},
        {QStringLiteral("result"), QVariantHash{{QStringLiteral("path"), QStringLiteral("/ui/grouping")}}},
        {QStringLiteral("events"),
         QVariantList{QVariantHash{{QStringLiteral("path"), QStringLiteral("/ui/grouping")},
                                   {QStringLiteral("rowsType"), 1}}}},
    });
}
} // namespace

// The UI on the host's real data model: the system members in the host's
// registry, and in a registry of the test the module's list node, the
// grouping members (written here as the controller would) and a stand-in
// grouping-request node that records what the UI writes there.
class tst_SimpleGroupingUI : public QObject
{
    Q_OBJECT

private:
    struct Written
    {
        TarvHash value;
        Clock::time_point at;
    };

    TarvSystemMember m_self = makeMember("A", "Alpha", "alpha.local", "10.0.0.1");
    TarvSystemMember m_bravo = makeMember("B", "Bravo", "bravo.local", "10.0.0.2");
    TarvSystemMember m_charlie = makeMember("C", "Charlie", "charlie.local", "10.0.0.3");

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<LogHook> m_clickHook;
    std::unique_ptr<GroupingTestHost> m_host;
    CMNodes* m_nodes = nullptr;
    CMListRowsNode* m_groupingNode = nullptr;
    CMListRowsNode* m_groupingMembers = nullptr;
    SimpleGroupingUI* m_ui = nullptr;
    QList<Written> m_written;
    // The moments the UI took up an activation (its "Requested to ..."
    // line), in order.
    QList<Clock::time_point> m_clicks;

    CMListRowsNode* list() const { return qobject_cast<CMListRowsNode*>(CMRoot()->findNode(ListPath)); }
    QList<TarvRoles> rows() const { return list() ? list()->rolesList() : QList<TarvRoles>(); }
    QString title() const { return list() ? list()->title().toString() : QString(); }
    static CMActivateNode* actionAt(const CMPath& path)
    {
        return qobject_cast<CMActivateNode*>(CMRoot()->findNode(path));
    }
    QList<TarvHash> written() const
    {
        QList<TarvHash> values;
        for (const Written& w : m_written)
            values.append(w.value);
        return values;
    }
    int traced(const QString& message) const { return m_log->count(TRACE_LOG_LEVEL, message, UI); }

    // Writes to the request node travel through the event loop; once a
    // marker sent after them has arrived, everything written before it has.
    void flushWrites()
    {
        const int before = m_written.size();
        CMRoot()->invoke(TarvGroupingRequestPath(), TarvHash(QVariantHash{{QStringLiteral("marker"), true}}),
                         CMReply<QVariant>());
        QVERIFY(QTest::qWaitFor([&] { return m_written.size() > before && m_written.last().value.contains("marker"); },
                                2000));
        m_written.removeLast();
    }

    // Creates the UI and waits until both clones have reported the rows the
    // lists hold (the lists are given at least one row each to see it).
    void startUi()
    {
        m_ui = new SimpleGroupingUI(m_nodes, m_groupingNode);
        QVERIFY(QTest::qWaitFor(
            [&] {
                return m_ui->systemMembersClone() && m_ui->groupingMembersClone()
                    && m_ui->systemMembersClone()->size() == m_host->systemMembers()->rowsSize()
                    && m_ui->groupingMembersClone()->size() == m_groupingMembers->rowsSize();
            },
            2000));
    }

    // The usual device: itself and Bravo on the network, on its own.
    void startAlone()
    {
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_bravo);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        startUi();
        QCOMPARE(rows(), QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B"))});
    }

    // A device that Charlie follows: two grouping rows.
    void startFollowedByCharlie()
    {
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_bravo);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        startUi();
        m_groupingMembers->rowsSetById(groupingRow(m_charlie, m_self));
        QCOMPARE(title(), QStringLiteral("List of followers"));
    }

    CMReply<QVariant> activate(const CMPath& path)
    {
        CMReply<QVariant> reply;
        CMRoot()->invoke(path, TarvHash(), reply);
        return reply;
    }

    // Nothing is pending any more: the next activation is taken up.
    void expectTheNextActivationTaken()
    {
        const CMReply<QVariant> next = activate(LeavePath);
        QTRY_VERIFY_WITH_TIMEOUT(next.isFinished(), 2000);
        QVERIFY(!next.hasError());
    }

    // Activates `path` and waits for the answer as a client waiting on the
    // reply from another thread sees it; returns how long after the UI took
    // the activation up the answer came, -1 when it did not come.
    qint64 activateAndTimeTheAnswer(const CMPath& path, CMReply<QVariant>* reply)
    {
        *reply = activate(path);
        const CMReply<QVariant> waited = *reply;
        ReplyWaiter waiter(waited.data(), [waited] { return waited.waitForFinished(); });
        if (!QTest::qWaitFor([&] { return waiter.returned(); }, 2000) || m_clicks.size() != 1)
            return -1;
        const qint64 answeredAfter = msBetween(m_clicks.at(0), waiter.returnedAt());
        qInfo("%s answered %lld ms after the click", qPrintable(path.toString()),
              static_cast<long long>(answeredAfter));
        return answeredAfter;
    }

private Q_SLOTS:
    void init()
    {
        m_log = std::make_unique<LogCapture>();
        m_clickHook = std::make_unique<LogHook>([this](const spi::InternalLoggingEvent& event) {
            const QString message = QString::fromStdString(event.getMessage());
            if (event.getLoggerName() == "SimpleGroupingUI"
                && (message.startsWith("Requested to join: ") || message.contains(": Requested to leave: ")))
                m_clicks.append(Clock::now());
        });
        m_host = std::make_unique<GroupingTestHost>(m_self, 3000, 200);
        m_nodes = new CMNodes;
        m_groupingNode = CMListRowsNode::create(m_nodes, GroupingNodePath);
        m_groupingMembers = CMListRowsNode::create(m_nodes, TarvGroupingMembersPath());
        CMActivateNode* request = CMActivateNode::create(m_nodes, TarvGroupingRequestPath());
        request->setInvoke(this, [this](const CMSetDataRequest& r) {
            m_written.append({TarvHash(r.value().toHash()), Clock::now()});
            r.setResult(true);
        });
    }

    void cleanup()
    {
        if (m_ui) {
            // The UI never deletes its clones; the module keeps both for the
            // process.
            delete m_ui->systemMembersClone();
            delete m_ui->groupingMembersClone();
        }
        delete m_ui;
        m_ui = nullptr;
        delete m_nodes;
        m_nodes = nullptr;
        m_host.reset();
        m_clickHook.reset();
        m_log.reset();
        m_written.clear();
        m_clicks.clear();
    }

    // --- node tree ---

    void metaObjectDeclaresSlotsInOrderAndNoSignals()
    {
        QCOMPARE(declaredMethods(SimpleGroupingUI::staticMetaObject),
                 (QStringList{"slot on_init()", "slot on_systemMembers_itemChanged(TarvRoles,TarvRoles)",
                              "slot on_groupingMembers_itemChanged(TarvRoles,TarvRoles)",
                              "slot on_transcoderClick(CMSetDataRequest)",
                              "slot on_leaveGroup_selected(CMSetDataRequest)", "slot on_timeout()",
                              "slot on_leaveTimer_timeout()"}));
    }

    void beforeTheEventLoopRunsTheListIsEmptyTranscodersAndTheLeaveNodeExists()
    {
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_bravo);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        m_ui = new SimpleGroupingUI(m_nodes, m_groupingNode);

        QVERIFY(list());
        QCOMPARE(list()->nodes(), m_nodes);
        QCOMPARE(title(), QStringLiteral("Transcoders"));
        QCOMPARE(list()->rowsSize(), 0);
        CMActivateNode* leave = actionAt(LeavePath);
        QVERIFY(leave);
        QCOMPARE(leave->nodes(), m_nodes);
        QVERIFY(leave->title().isEmpty());
        QVERIFY(leave->id().isEmpty());
        QVERIFY(!m_ui->systemMembersClone());
        QVERIFY(!m_ui->groupingMembersClone());
        QVERIFY(m_ui->parent() == nullptr);

        // The module's list links to the list node.
        TarvRoles link;
        link.setId("/ui/grouping").setType(TarvRolesType::Path).setPath(ListPath).setTitle(TrString("Transcoders"));
        QCOMPARE(m_groupingNode->rolesList(), QList<TarvRoles>{link});

        QCOMPARE(m_log->messages(DEBUG_LOG_LEVEL, UI), QStringList{"Create listRowsNode on path: /ui/grouping"});
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, UI),
                 (QStringList{"Transcoder list created", "Finished constructor of SimpleGroupingUI"}));
    }

    void onInitMakesTheGroupingCloneThenTheSystemClone()
    {
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        m_host->setSystemMember(m_self);
        startUi();
        QCOMPARE(m_ui->groupingMembersClone()->path(), TarvGroupingMembersPath());
        QCOMPARE(m_ui->systemMembersClone()->path(), TarvSystemMembersPath());
        QVERIFY(m_ui->groupingMembersClone()->parent() == nullptr);
        QVERIFY(m_ui->systemMembersClone()->parent() == nullptr);
        const QStringList trace = m_log->messages(TRACE_LOG_LEVEL, UI);
        QCOMPARE(trace.count("groupingMembersClone created"), 1);
        QCOMPARE(trace.count("systemMembersClone created"), 1);
        QVERIFY(trace.indexOf("groupingMembersClone created") < trace.indexOf("systemMembersClone created"));
        // Drawn only in answer to the clones: the own row came first.
        QVERIFY(trace.indexOf("systemMembersClone created") < trace.indexOf("Showing available transcoders"));
    }

    void isValid_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<bool>("valid");
        QTest::newRow("empty") << QString() << false;
        QTest::newRow("empty string") << QStringLiteral("") << false;
        QTest::newRow("one blank") << QStringLiteral(" ") << true;
        QTest::newRow("blanks") << QStringLiteral("   ") << true;
        QTest::newRow("id") << QStringLiteral("B") << true;
    }
    void isValid()
    {
        QFETCH(QString, id);
        QFETCH(bool, valid);
        m_ui = new SimpleGroupingUI(m_nodes, m_groupingNode);
        QCOMPARE(m_ui->isValid(id), valid);
    }

    void clearViewRemovesRowsButNotNodes()
    {
        startAlone();
        m_ui->clearView();
        QCOMPARE(list()->rowsSize(), 0);
        QVERIFY(actionAt(joinPath("B")));
        QVERIFY(actionAt(LeavePath));
    }

    // --- the request gate and the completion reply ---

    void secondActivationWhilePendingIsRefusedAndTheFirstCompletes_data()
    {
        QTest::addColumn<bool>("firstIsJoin");
        QTest::addColumn<bool>("secondIsJoin");
        QTest::newRow("join, join") << true << true;
        QTest::newRow("join, leave") << true << false;
        QTest::newRow("leave, leave") << false << false;
        QTest::newRow("leave, join") << false << true;
    }
    void secondActivationWhilePendingIsRefusedAndTheFirstCompletes()
    {
        QFETCH(bool, firstIsJoin);
        QFETCH(bool, secondIsJoin);
        startAlone();
        const CMPath first = firstIsJoin ? joinPath("B") : LeavePath;
        const CMPath second = secondIsJoin ? joinPath("B") : LeavePath;

        const CMReply<QVariant> firstReply = activate(first);
        ReplyWaiter firstWaiter(firstReply.data(), [firstReply] { return firstReply.waitForFinished(); });
        QTRY_COMPARE_WITH_TIMEOUT(m_clicks.size(), 1, 2000);
        // The second comes 100 ms into the first's delay.
        CMReply<QVariant> secondReply;
        QTimer::singleShot(100, this, [&] { CMRoot()->invoke(second, TarvHash(), secondReply); });
        QTRY_VERIFY_WITH_TIMEOUT(secondReply.isFinished(), 2000);
        QVERIFY(!firstReply.isFinished());
        QCOMPARE(m_clicks.size(), 2);

        QVERIFY(secondReply.hasError());
        QCOMPARE(secondReply.error().name(), QStringLiteral("Simple Grouping"));
        QCOMPARE(secondReply.error().message(), Refusal);
        QCOMPARE(secondReply.error().title(), CMError::DefaultTitle());
        QCOMPARE(secondReply.result(), QVariant());
        QCOMPARE(traced("Reject request. Previous grouping request not finished yet."), 1);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, UI), QStringList{Refusal});

        QTRY_VERIFY_WITH_TIMEOUT(firstWaiter.returned(), 2000);
        QVERIFY(!firstReply.hasError());
        QCOMPARE(TarvHash(firstReply.result().toHash()), completionReply());
        // The refusal did not restart the first one's delay.
        const qint64 afterFirst = msBetween(m_clicks.at(0), firstWaiter.returnedAt());
        const qint64 afterSecond = msBetween(m_clicks.at(1), firstWaiter.returnedAt());
        qInfo("first answered %lld ms after its click, %lld ms after the refused one", static_cast<long long>(afterFirst),
              static_cast<long long>(afterSecond));
        QVERIFY(afterFirst >= 200);
        QVERIFY(afterSecond < 200);

        // Only the first wrote: a join its leave and join, a leave its leave.
        flushWrites();
        QCOMPARE(written(), firstIsJoin ? (QList<TarvHash>{leaveRequest(), joinRequest("B", "Bravo", "bravo.local")})
                                        : QList<TarvHash>{leaveRequest()});
        // Nothing pending any more: a new activation is taken.
        expectTheNextActivationTaken();
    }

    // --- transcoders view and join ---

    void transcoderRowLeadsToItsJoinNode()
    {
        startAlone();
        CMActivateNode* join = actionAt(joinPath("B"));
        QVERIFY(join);
        QCOMPARE(join->nodes(), m_nodes);
        QCOMPARE(join->title().toString(), QStringLiteral("Bravo"));
        QCOMPARE(join->id(), QStringLiteral("B"));
        QCOMPARE(title(), QStringLiteral("Transcoders"));
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Show device: B name: Bravo bravo.local in transcoders list", UI), 1);
        QCOMPARE(traced("SimpleGroupingUI::showEntry :: deviceId: B deviceName: Bravo"), 1);
        QCOMPARE(traced("Path: /ui/grouping/joinTranscoder/B not in: ADD"), 1);
    }

    void severalTranscodersEachGetARow()
    {
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_bravo);
        m_host->setSystemMember(m_charlie);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        startUi();
        QCOMPARE(byId(rows()), (QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B")),
                                                 transcoderRow("C", "Charlie", joinPath("C"))}));
    }

    void followedTranscoderIsMarkedAndLeadsToTheLeaveNode()
    {
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_bravo);
        m_host->setSystemMember(m_charlie);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_bravo));
        startUi();
        QCOMPARE(byId(rows()), (QList<TarvRoles>{transcoderRow("B", "   >   Bravo", LeavePath),
                                                 transcoderRow("C", "Charlie", joinPath("C"))}));
        // Every drawing of Bravo (one per redraw) marks it.
        QVERIFY(traced("Append info:    >   Bravo") > 0);
        QCOMPARE(traced("Append info:    >   Bravo"), traced("SimpleGroupingUI::showEntry :: deviceId: B deviceName: Bravo"));
        // The followed transcoder gets no join node.
        QVERIFY(!actionAt(joinPath("B")));

        // Its row leads to a leave, not a join.
        const CMReply<QVariant> reply = activate(list()->rowsGetById("B").path());
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(TarvHash(reply.result().toHash()), completionReply());
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, UI), (QStringList{"Leaving the group!", "Left the group!"}));
        QCOMPARE(traced("Requested to join: /ui/grouping/leave"), 0);
        flushWrites();
        QCOMPARE(written(), QList<TarvHash>{leaveRequest()});
    }

    void followingAnotherTranscoderMovesTheMark()
    {
        startAlone();
        m_host->setSystemMember(m_charlie);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_charlie));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B")),
                                                 transcoderRow("C", "   >   Charlie", LeavePath)}));
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B")),
                                                 transcoderRow("C", "Charlie", joinPath("C"))}));
    }

    void transcoderDrawnAgainKeepsItsJoinNodeAndItsOldTitle()
    {
        startAlone();
        CMActivateNode* join = actionAt(joinPath("B"));
        QVERIFY(join);
        TarvSystemMember renamed = m_bravo;
        renamed.setName("Bravissimo");
        m_host->setSystemMember(renamed);
        QCOMPARE(rows(), QList<TarvRoles>{transcoderRow("B", "Bravissimo", joinPath("B"))});
        QCOMPARE(actionAt(joinPath("B")), join);
        QCOMPARE(join->title().toString(), QStringLiteral("Bravo"));
        QCOMPARE(traced("Path: /ui/grouping/joinTranscoder/B not in: ADD"), 1);
    }

    void joinWritesALeaveThenTheJoinAndAnswersAfter200ms()
    {
        startAlone();
        CMReply<QVariant> reply;
        const qint64 answeredAfter = activateAndTimeTheAnswer(joinPath("B"), &reply);
        QVERIFY(answeredAfter >= 200);
        QVERIFY(answeredAfter < 1000);
        QVERIFY(!reply.hasError());
        QCOMPARE(TarvHash(reply.result().toHash()), completionReply());

        // The leave at once, the join (id, name and host only) after the
        // delay.
        flushWrites();
        QCOMPARE(written(), (QList<TarvHash>{leaveRequest(), joinRequest("B", "Bravo", "bravo.local")}));
        QVERIFY(msBetween(m_clicks.at(0), m_written.at(0).at) < 200);
        QVERIFY(msBetween(m_clicks.at(0), m_written.at(1).at) >= 200);

        const QStringList trace = m_log->messages(TRACE_LOG_LEVEL, UI);
        const QStringList expected{
            "Enter SimpleGroupingUI::on_transcoderClick: request: /ui/grouping/joinTranscoder/B",
            "Requested to join: /ui/grouping/joinTranscoder/B",
            "Ungroup first and delay grouping for 1 second",
            "Leave SimpleGroupingUI::on_transcoderClick",
            "Enter SimpleGroupingUI::on_timeout",
            "deviceId: B fullDataSet: " + m_bravo.toJsonString(),
            "Finish request and refresh TarvGroupingUIPath()",
            "Leave SimpleGroupingUI::on_timeout",
        };
        QCOMPARE(trace.mid(trace.indexOf(expected.first()), expected.size()), expected);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Delayed group: master: Bravo @ bravo.local", UI), 1);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, UI), QStringList());
    }

    void transcoderGoneDuringTheDelayFailsTheJoinAfterTheLeave()
    {
        startAlone();
        const CMReply<QVariant> reply = activate(joinPath("B"));
        ReplyWaiter waiter(reply.data(), [reply] { return reply.waitForFinished(); });
        QTRY_COMPARE_WITH_TIMEOUT(m_clicks.size(), 1, 2000);
        m_host->removeSystemMember("B");
        QVERIFY(!reply.isFinished());

        QTRY_VERIFY_WITH_TIMEOUT(waiter.returned(), 2000);
        QVERIFY(msBetween(m_clicks.at(0), waiter.returnedAt()) >= 200);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().name(), CMError::DefaultName());
        QCOMPARE(reply.error().title(), CMError::DefaultTitle());
        QCOMPARE(reply.error().message(), QStringLiteral("Invalid device ID, reject request."));
        QCOMPARE(reply.result(), QVariant());
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, UI), QStringList{"Invalid device ID, reject request."});
        flushWrites();
        QCOMPARE(written(), QList<TarvHash>{leaveRequest()});
        QCOMPARE(traced("Finish request and refresh TarvGroupingUIPath()"), 0);

        // The refusal ended the pending activation.
        expectTheNextActivationTaken();
    }

    // The join node outlives its transcoder; a click on it still goes the
    // whole way and is refused at the end.
    void joinNodeOfAnUnknownTranscoderIsRefusedAfterTheDelay()
    {
        startAlone();
        m_host->removeSystemMember("B");
        const CMReply<QVariant> reply = activate(joinPath("B"));
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(reply.error().message(), QStringLiteral("Invalid device ID, reject request."));
        flushWrites();
        QCOMPARE(written(), QList<TarvHash>{leaveRequest()});
    }

    // --- followers view and leave ---

    void noFollowersGiveTheTitleAndTheNoticeOnly()
    {
        m_host->setSystemMember(m_self);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        startUi();
        m_groupingMembers->rowsRemoveById("A");
        QCOMPARE(title(), QStringLiteral("List of followers"));
        QCOMPARE(rows(), QList<TarvRoles>{noticeRow()});
        QCOMPARE(traced("Removing Transcoders from Multiroom list"), 1);
        QCOMPARE(traced("newDeviceId:  oldDeviceId: A"), 1);
    }

    void followersAreListedAfterTheNotice()
    {
        startFollowedByCharlie();
        TarvSystemMember delta = makeMember("D", "Delta", "delta.local");
        m_groupingMembers->rowsSetById(groupingRow(delta, m_self));
        QCOMPARE(rows().first(), noticeRow());
        QCOMPARE(byId(rows().mid(1)), (QList<TarvRoles>{followerRow("C-follower", "Follower: Charlie"),
                                                        followerRow("D-follower", "Follower: Delta")}));
        QCOMPARE(traced("newDeviceId: D oldDeviceId: "), 1);
    }

    void followerWithAnEmptyTitleGetsAnEmptyArgument()
    {
        startFollowedByCharlie();
        m_groupingMembers->rowsSetById(groupingRow(makeMember("E", ""), m_self));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{noticeRow(), followerRow("C-follower", "Follower: Charlie"),
                                                 followerRow("E-follower", "Follower: ")}));
    }

    void leaveOnADeviceThatFollowsNoOneIsWrittenAndAnsweredAfter200ms()
    {
        startAlone();
        CMReply<QVariant> reply;
        const qint64 answeredAfter = activateAndTimeTheAnswer(LeavePath, &reply);
        QVERIFY(answeredAfter >= 200);
        QVERIFY(answeredAfter < 1000);
        QVERIFY(!reply.hasError());
        QCOMPARE(TarvHash(reply.result().toHash()), completionReply());
        flushWrites();
        QCOMPARE(written(), QList<TarvHash>{leaveRequest()});
        QCOMPARE(m_log->messages(INFO_LOG_LEVEL, UI), (QStringList{"Leaving the group!", "Left the group!"}));
        QCOMPARE(traced("Enter SimpleGroupingUI::on_leaveGroup_selected: Requested to leave: /ui/grouping/leave"), 1);
        QCOMPARE(traced("Leave SimpleGroupingUI::on_leaveGroup_selected"), 1);
        QCOMPARE(m_log->countContaining(TRACE_LOG_LEVEL, "on_leaveTimer_timeout", UI), 0);
        // The leave does not redraw the view.
        QCOMPARE(rows(), QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B"))});
    }

    // --- reactions to member changes ---

    void firstOneRowChangeDrawsTranscodersEvenWithoutSystemMembers()
    {
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        m_ui = new SimpleGroupingUI(m_nodes, m_groupingNode);
        QTRY_COMPARE_WITH_TIMEOUT(traced("Showing available transcoders"), 1, 2000);
        QCOMPARE(traced("Show transcoders in the UI"), 1);
        QCOMPARE(title(), QStringLiteral("Transcoders"));
        QCOMPARE(list()->rowsSize(), 0);
    }

    void systemMemberThatStopsBeingATranscoderDisappears()
    {
        startAlone();
        TarvSystemMember receiver = m_bravo;
        receiver.setTranscoder(false);
        m_host->setSystemMember(receiver);
        QCOMPARE(rows(), QList<TarvRoles>());
        m_host->setSystemMember(m_bravo);
        QCOMPARE(rows(), QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B"))});
    }

    void ownSystemMemberIsNeverOffered_data()
    {
        QTest::addColumn<bool>("transcoder");
        QTest::newRow("own row a transcoder") << true;
        QTest::newRow("own row a receiver") << false;
    }
    void ownSystemMemberIsNeverOffered()
    {
        QFETCH(bool, transcoder);
        TarvSystemMember self = m_self;
        self.setTranscoder(transcoder);
        m_host->setSystemMember(self);
        m_host->setSystemMember(m_bravo);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        startUi();
        m_host->setSystemMember(self.setName("Alpha renamed"));
        QCOMPARE(rows(), QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B"))});
        QVERIFY(!actionAt(joinPath("A")));
    }

    void lastFollowerGoneDrawsTheTranscodersKeptMeanwhile()
    {
        startFollowedByCharlie();
        const int redraws = traced("Show transcoders in the UI");
        // Kept while followers are shown, but not drawn.
        m_host->setSystemMember(m_charlie);
        m_host->removeSystemMember("B");
        m_host->setSystemMember(makeMember("D", "Delta", "delta.local"));
        QCOMPARE(title(), QStringLiteral("List of followers"));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{noticeRow(), followerRow("C-follower", "Follower: Charlie")}));
        QCOMPARE(traced("Show transcoders in the UI"), redraws);

        m_groupingMembers->rowsRemoveById("C");
        QCOMPARE(title(), QStringLiteral("Transcoders"));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{transcoderRow("C", "Charlie", joinPath("C")),
                                                 transcoderRow("D", "Delta", joinPath("D"))}));
        // The followers are forgotten: a new follower is listed alone.
        m_groupingMembers->rowsSetById(groupingRow(makeMember("E", "Echo"), m_self));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{noticeRow(), followerRow("E-follower", "Follower: Echo")}));
    }

    void followerGoneWhileOthersRemainIsRemovedAndTheInfoRepeated()
    {
        startFollowedByCharlie();
        m_groupingMembers->rowsSetById(groupingRow(makeMember("D", "Delta"), m_self));
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Device became MASTER & FOLLOWED", UI), 2);
        m_groupingMembers->rowsRemoveById("C");
        QCOMPARE(rows(), (QList<TarvRoles>{noticeRow(), followerRow("D-follower", "Follower: Delta")}));
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Device became MASTER & FOLLOWED", UI), 3);
        QCOMPARE(traced("newDeviceId:  oldDeviceId: C"), 1);
    }

    void countDroppingToZeroKeepsTheFollowersViewAndRepeatsTheInfo()
    {
        startFollowedByCharlie();
        m_groupingMembers->rowsRemoveById("A");
        QCOMPARE(title(), QStringLiteral("Transcoders"));
        m_groupingMembers->rowsRemoveById("C");
        QCOMPARE(m_groupingMembers->rowsSize(), 0);
        QCOMPARE(title(), QStringLiteral("List of followers"));
        QCOMPARE(rows(), QList<TarvRoles>{noticeRow()});
        QCOMPARE(m_log->count(INFO_LOG_LEVEL, "Device became MASTER & FOLLOWED", UI), 2);
    }

    // The own grouping row is not told apart from followers' rows.
    void ownGroupingRowChangedWhileFollowedEntersTheFollowers()
    {
        startFollowedByCharlie();
        TarvSystemMember renamed = m_self;
        renamed.setName("Alpha renamed");
        m_groupingMembers->rowsSetById(groupingRow(renamed, m_self));
        QCOMPARE(byId(rows()), (QList<TarvRoles>{noticeRow(), followerRow("A-follower", "Follower: Alpha renamed"),
                                                 followerRow("C-follower", "Follower: Charlie")}));
    }

    void followerRenamedReplacesItsEntry()
    {
        startFollowedByCharlie();
        TarvSystemMember renamed = m_charlie;
        renamed.setName("Charles");
        m_groupingMembers->rowsSetById(groupingRow(renamed, m_self));
        QCOMPARE(rows(), (QList<TarvRoles>{noticeRow(), followerRow("C-follower", "Follower: Charles")}));
        QCOMPARE(traced("newDeviceId: C oldDeviceId: C"), 1);
    }

    void systemMemberRemovalAloneDoesNotRedraw()
    {
        m_host->setSystemMember(m_self);
        m_host->setSystemMember(m_bravo);
        m_host->setSystemMember(m_charlie);
        m_groupingMembers->rowsSetById(groupingRow(m_self, m_self));
        startUi();
        const int redraws = traced("Show transcoders in the UI");
        m_host->removeSystemMember("C");
        QCOMPARE(traced("Show transcoders in the UI"), redraws);
        QCOMPARE(byId(rows()), (QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B")),
                                                 transcoderRow("C", "Charlie", joinPath("C"))}));
        // The next change that carries a member drops it.
        m_host->setSystemMember(makeMember("D", "Delta", "delta.local", QString(), false));
        QCOMPARE(traced("Show transcoders in the UI"), redraws + 1);
        QCOMPARE(rows(), QList<TarvRoles>{transcoderRow("B", "Bravo", joinPath("B"))});
    }

    void systemMemberChangeThatLeavesTheMapAsItWasDoesNotRedraw()
    {
        startAlone();
        const int redraws = traced("Show transcoders in the UI");
        m_host->setSystemMember(makeMember("R", "Receiver", "r.local", QString(), false));
        QCOMPARE(traced("Show transcoders in the UI"), redraws);
        const QString entry = "Enter SimpleGroupingUI::on_systemMembers_itemChanged: newRole: "
            + QString::fromUtf8(GroupingTestHost::row(makeMember("R", "Receiver", "r.local", QString(), false)).toJson())
            + " oldRole: {}";
        QCOMPARE(traced(entry), 1);
    }

    void everyOneRowChangeRedrawsTheTranscoders()
    {
        startAlone();
        const int redraws = traced("Show transcoders in the UI");
        TarvSystemMember renamed = m_self;
        m_groupingMembers->rowsSetById(groupingRow(renamed.setName("Alpha again"), m_self));
        QCOMPARE(traced("Show transcoders in the UI"), redraws + 1);
        QCOMPARE(traced("Showing available transcoders"), 2);
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingUI)
#include "tst_SimpleGroupingUI.moc"
