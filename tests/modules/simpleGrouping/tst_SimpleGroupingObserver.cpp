#include <algorithm>
#include <memory>

#include <QDateTime>
#include <QSignalSpy>
#include <QtTest>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "GroupingTestHost.h"
#include "LogCapture.h"
#include "SimpleGroupingObserver.h"
#include "SimpleGroupingRequest.h"

using namespace log4cplus;

namespace {
const QString Observer = QStringLiteral("SimpleGroupingObserver");

// A device that publishes a saved group.
TarvSystemMember announcing(const QString& id, const QStringList& group, qint64 timestamp)
{
    TarvSystemMember member = makeMember(id, id.toLower(), id.toLower() + ".local");
    member.setPersistentGroupMembers(TarvList<QString>(group)).setPersistentGroupTimestamp(timestamp);
    return member;
}

TarvGroupingPersistentGroup savedGroup(const QString& name, const QStringList& members, qint64 timestamp)
{
    TarvGroupingPersistentGroup group;
    group.setName(name).setMembers(TarvList<QString>(members)).setTimestamp(timestamp);
    return group;
}

QStringList sorted(QStringList list)
{
    std::sort(list.begin(), list.end());
    return list;
}
} // namespace

// The observer with the real host data model and the real request node:
// its joins and leaves are seen as the request node's signals, so they are
// checked in the form the request node reads.
class tst_SimpleGroupingObserver : public QObject
{
    Q_OBJECT

private:
    TarvSystemMember m_self = makeMember("A", "Alpha", "alpha.local", "10.0.0.1");

    std::unique_ptr<LogCapture> m_log;
    std::unique_ptr<GroupingTestHost> m_host;
    // The module's registry: the grouping-members node as the controller
    // keeps it, the request node and the observer's save node.
    CMNodes* m_moduleNodes = nullptr;
    CMListRowsNode* m_moduleList = nullptr;
    CMListRowsNode* m_groupingMembers = nullptr;
    SimpleGroupingRequest* m_request = nullptr;
    SimpleGroupingObserver* m_observer = nullptr;
    std::unique_ptr<QSignalSpy> m_joins;
    std::unique_ptr<QSignalSpy> m_leaves;

    int startRuns() const
    {
        return m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::startProcessing: ", Observer);
    }
    void createObserver()
    {
        m_observer = new SimpleGroupingObserver(m_moduleNodes, m_moduleList);
    }
    // A started observer: loading done and the lists replayed.
    bool startObserver()
    {
        createObserver();
        return QTest::qWaitFor([this] { return startRuns() == 1; }, 2000);
    }
    // The members row of `follower`, following `master`.
    void setFollowing(const QString& follower, const QString& master)
    {
        TarvGroupingMember member;
        member.setFollower(makeMember(follower, follower)).setMaster(makeMember(master, master));
        TarvRoles row;
        row.setId(follower).setType(TarvRolesType::GroupingMember).setTitle(TrString(follower));
        row.setValue(TarvValue().setGroupingMember(member));
        m_groupingMembers->rowsSetById(row);
    }
    static TarvGroupingPersistentGroup saved()
    {
        return TarvValue(CMRoot()->getValue(TarvGroupingPersistentGroupSettingsPath()).toHash())
            .groupingPersistentGroup();
    }
    static void setSaved(const TarvGroupingPersistentGroup& group)
    {
        CMRoot()->setValue(TarvGroupingPersistentGroupSettingsPath(), TarvValue().setGroupingPersistentGroup(group),
                           CMReply<QVariant>());
    }
    static void setPlayerState(int state)
    {
        CMRoot()->setValue(TarvPlayerDataPath(), TarvValue(TarvPlayLogicData().setState(state).hash()),
                           CMReply<QVariant>());
    }
    static CMReply<QVariant> save(const TarvHash& value)
    {
        const CMReply<QVariant> reply;
        CMRoot()->invoke(TarvGroupingPersistentGroupSavePath(), value, reply);
        return reply;
    }
    static CMReply<QVariant> save(const QString& name, const QStringList& members)
    {
        TarvGroupingPersistentGroup group;
        group.setName(name).setMembers(TarvList<QString>(members));
        return save(TarvValue().setGroupingPersistentGroup(group));
    }
    // Waits until every grouping request sent so far has reached the request
    // node: a refused request sent now is answered after all of them.
    static bool requestsDelivered()
    {
        const CMReply<QVariant> marker;
        CMRoot()->invoke(TarvGroupingRequestPath(), groupingRequest(2), marker);
        return QTest::qWaitFor([&] { return marker.isFinished(); }, 2000);
    }
    QString joinedMasterId(int index) const { return m_joins->at(index).at(0).value<TarvSystemMember>().id(); }
    // The observer's two mirrors, grouping members first.
    QList<CMRowsClone*> mirrors() const { return m_observer->findChildren<CMRowsClone*>(); }
    // Both mirrors have loaded, with these many rows (a mirror that has not
    // started loading yet is not loading either, but holds no rows).
    bool mirrorsLoaded(int groupingRows, int systemRows) const
    {
        const QList<CMRowsClone*> both = mirrors();
        return !both.at(0)->isLoading() && !both.at(1)->isLoading() && both.at(0)->size() == groupingRows
            && both.at(1)->size() == systemRows;
    }

private Q_SLOTS:
    void init()
    {
        m_log = std::make_unique<LogCapture>();
        TarvSetRequestPort(freeUdpPort());
        m_host = std::make_unique<GroupingTestHost>(m_self, 3000, 200);
        m_host->setSystemMember(m_self);
        m_moduleNodes = new CMNodes;
        m_moduleList = CMListRowsNode::create(m_moduleNodes, CMPath("/modules/simpleGrouping"));
        m_groupingMembers = CMListRowsNode::create(m_moduleNodes, TarvGroupingMembersPath());
        setFollowing("A", "A");
        m_request = new SimpleGroupingRequest(m_moduleNodes, m_moduleList);
        m_joins = std::make_unique<QSignalSpy>(m_request, &SimpleGroupingRequest::requestJoinTranscoder);
        m_leaves = std::make_unique<QSignalSpy>(m_request, &SimpleGroupingRequest::requestLeaveTranscoder);
    }

    void cleanup()
    {
        m_joins.reset();
        m_leaves.reset();
        delete m_observer;
        m_observer = nullptr;
        delete m_request;
        m_request = nullptr;
        delete m_moduleNodes;
        m_moduleNodes = nullptr;
        m_host.reset();
        m_log.reset();
    }

    // --- construction and the loading gate ---

    void metaObjectDeclaresSlotsInOrderAndNoSignal()
    {
        QCOMPARE(declaredMethods(SimpleGroupingObserver::staticMetaObject),
                 (QStringList{"slot on_groupingSave_activated(CMSetDataRequest)",
                              "slot on_systemMember_itemChanged(TarvValue,TarvValue)",
                              "slot on_groupingMembers_itemChanged(TarvRoles,TarvRoles)",
                              "slot on_groupingMembers_loadingChanged(bool)",
                              "slot on_systemMembers_itemChanged(TarvRoles,TarvRoles)",
                              "slot on_systemMembers_loadingChanged(bool)",
                              "slot on_playerData_changed(CMPath,QVariant)"}));
    }

    void constructionPublishesSaveNodeAndDoesNothingElse()
    {
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        createObserver();
        QVERIFY(qobject_cast<CMActivateNode*>(CMRoot()->findNode(TarvGroupingPersistentGroupSavePath())));
        // The list node is not used.
        QCOMPARE(m_moduleList->rowsSize(), 0);
        QCOMPARE(mirrors().size(), 2);
        QVERIFY(m_log->messages(DEBUG_LOG_LEVEL, Observer).isEmpty());
        QVERIFY(m_log->messages(TRACE_LOG_LEVEL, Observer).isEmpty());
        QVERIFY(saved().isEmpty());
    }

    // Processing waits for the id; its arrival then starts it at once.
    void listsLoadedBeforeTheIdWaitForTheId()
    {
        CMRoot()->undefineValue(TarvSystemMemberIdPath());
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        createObserver();
        QTRY_VERIFY_WITH_TIMEOUT(mirrors().size() == 2 && mirrorsLoaded(1, 2), 2000);
        QCOMPARE(startRuns(), 0);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);

        CMRoot()->defineValue(TarvSystemMemberIdPath(), TarvValue().setString_("A").toVariant());
        QCOMPARE(m_log->messages(DEBUG_LOG_LEVEL, Observer).value(0), QStringLiteral("Self ID is A"));
        QCOMPARE(startRuns(), 1);
        // B's group is weighed twice: by the search that the replay of the
        // own row (its own master) starts, then by the replay of B's row.
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 2, 2000);
        QCOMPARE(joinedMasterId(0), QStringLiteral("B"));
        QCOMPARE(joinedMasterId(1), QStringLiteral("B"));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 2);
    }

    // The id first, then the lists: processing starts at the second
    // loading-finished notification, once; later notifications are ignored.
    void idFirstThenListsStartAtTheSecondLoadedListOnce()
    {
        m_host->systemMembers()->setLoading(true);
        m_groupingMembers->setLoading(true);
        createObserver();
        QTRY_COMPARE_WITH_TIMEOUT(m_log->count(DEBUG_LOG_LEVEL, "Self ID is A", Observer), 1, 2000);
        QTRY_VERIFY_WITH_TIMEOUT(mirrors().at(0)->isLoading() && mirrors().at(1)->isLoading(), 2000);

        m_host->systemMembers()->setLoading(false);
        QCOMPARE(startRuns(), 0);
        m_groupingMembers->setLoading(false);
        QCOMPARE(startRuns(), 1);

        for (bool loading : {true, false, true, false}) {
            m_host->systemMembers()->setLoading(loading);
            m_groupingMembers->setLoading(loading);
        }
        QCOMPARE(startRuns(), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Self ID is A", Observer), 1);
    }

    void anEmptyIdIsIgnoredAndProcessingKeepsWaiting()
    {
        CMRoot()->setValue(TarvSystemMemberIdPath(), TarvValue().setString_(QString()), CMReply<QVariant>());
        createObserver();
        QTRY_VERIFY_WITH_TIMEOUT(mirrors().size() == 2 && mirrorsLoaded(1, 1), 2000);
        QCOMPARE(startRuns(), 0);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Self ID is", Observer), 0);

        CMRoot()->setValue(TarvSystemMemberIdPath(), TarvValue().setString_("A"), CMReply<QVariant>());
        QCOMPARE(startRuns(), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Self ID is A", Observer), 1);
    }

    // The first id counts: a later one is ignored, so B's record is still
    // another device's and its group (which lists A) is joined.
    void aChangedIdIsIgnored()
    {
        QVERIFY(startObserver());
        CMRoot()->setValue(TarvSystemMemberIdPath(), TarvValue().setString_("B"), CMReply<QVariant>());
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Self ID is", Observer), 1);
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 1, 2000);
        QCOMPARE(joinedMasterId(0), QStringLiteral("B"));
        QCOMPARE(startRuns(), 1);
    }

    // Entry traces carry the worker's tag; the lines are the observer's own.
    void traceEntriesCarryTheWorkersTag()
    {
        QVERIFY(startObserver());
        const QList<CapturedLog> events = m_log->events();
        const auto entry = std::find_if(events.cbegin(), events.cend(), [](const CapturedLog& event) {
            return event.message == QLatin1String("Enter SimpleGroupingWorker::startProcessing: ");
        });
        QVERIFY(entry != events.cend());
        QCOMPARE(entry->logger, Observer);
        QCOMPARE(entry->level, TRACE_LOG_LEVEL);
        QVERIFY2(entry->file.endsWith(QLatin1String("SimpleGroupingObserver.cpp")), qPrintable(entry->file));
        QVERIFY2(entry->function.contains(QLatin1String("SimpleGroupingObserver::startProcessing")),
                 qPrintable(entry->function));
    }

    // Empty lists replay nothing; a save held until then still runs.
    void emptyListsReplayNothingAndStillRunAHeldSave()
    {
        m_groupingMembers->rowsClear();
        m_host->removeSystemMember("A");
        m_host->systemMembers()->setLoading(true);
        createObserver();
        const CMReply<QVariant> reply = save("Home", {"B"});
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::queueSaveRequest", Observer), 1,
            2000);
        QVERIFY(!reply.isFinished());
        QVERIFY(saved().isEmpty());

        m_host->systemMembers()->setLoading(false);
        QCOMPARE(startRuns(), 1);
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(sorted(saved().members()), (QStringList{"A", "B"}));
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Current master ID is", Observer), 0);
    }

    // --- save requests ---

    void savingOnlyThisDeviceOrNobodyClears_data()
    {
        QTest::addColumn<QStringList>("members");
        QTest::addColumn<QString>("name");
        QTest::newRow("nobody, no name") << QStringList() << QString();
        QTest::newRow("only this device, no name") << QStringList{"A"} << QString();
        QTest::newRow("this device twice, a name") << QStringList{"A", "A"} << QStringLiteral("Solo");
    }

    void savingOnlyThisDeviceOrNobodyClears()
    {
        QFETCH(QStringList, members);
        QFETCH(QString, name);
        setSaved(savedGroup("Home", {"A", "B"}, 1000));
        QVERIFY(startObserver());
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const CMReply<QVariant> reply = save(name, members);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        const qint64 after = QDateTime::currentMSecsSinceEpoch();
        QVERIFY(!reply.hasError());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(saved().name(), QString());
        QCOMPARE(saved().members(), TarvList<QString>());
        QVERIFY2(saved().timestamp() >= before && saved().timestamp() <= after,
                 qPrintable(QString::number(saved().timestamp())));
        QCOMPARE(saved().keys(), QStringList{"timestamp"});
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Save request with 0 members: clearing saved group", Observer), 1);
    }

    void otherMembersWithoutANameAreRefused()
    {
        const TarvGroupingPersistentGroup home = savedGroup("Home", {"A", "B"}, 1000);
        setSaved(home);
        QVERIFY(startObserver());
        const CMReply<QVariant> reply = save(QString(), {"C"});
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(reply.hasError());
        QCOMPARE(reply.error().message(), QStringLiteral("Missing name in save request"));
        QCOMPARE(reply.result(), QVariant());
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Observer), QStringList{"Missing name in save request"});
        QCOMPARE(saved(), home);
    }

    void aSavedGroupAlwaysListsThisDevice_data()
    {
        QTest::addColumn<QStringList>("members");
        QTest::addColumn<QStringList>("written");
        QTest::newRow("without this device") << QStringList{"B", "C"} << QStringList{"A", "B", "C"};
        QTest::newRow("with this device") << QStringList{"C", "A"} << QStringList{"A", "C"};
        QTest::newRow("duplicates once") << QStringList{"B", "C", "B", "A", "C", "A"} << QStringList{"A", "B", "C"};
    }

    void aSavedGroupAlwaysListsThisDevice()
    {
        QFETCH(QStringList, members);
        QFETCH(QStringList, written);
        QVERIFY(startObserver());
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const CMReply<QVariant> reply = save("Home", members);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(saved().name(), QStringLiteral("Home"));
        QCOMPARE(saved().members().size(), written.size());
        QCOMPARE(sorted(saved().members()), written);
        QVERIFY(saved().timestamp() >= before && saved().timestamp() <= QDateTime::currentMSecsSinceEpoch());
        TarvGroupingPersistentGroup requested;
        requested.setName("Home").setMembers(TarvList<QString>(members));
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL,
                              "Enter SimpleGroupingWorker::on_groupingSave_activated: " + requested.toJson(false),
                              Observer),
                 1);
    }

    // A receiver leaves first; the save runs once it is its own master.
    void saveOnAReceiverLeavesFirstAndSavesWhenItsOwnMaster()
    {
        setFollowing("A", "T");
        QVERIFY(startObserver());
        const CMReply<QVariant> reply = save("Home", {"B"});
        QTRY_COMPARE_WITH_TIMEOUT(m_leaves->count(), 1, 2000);
        QVERIFY(requestsDelivered());
        QVERIFY(!reply.isFinished());
        QVERIFY(saved().isEmpty());
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::queueSaveRequest", Observer),
                 1);

        setFollowing("A", "A");
        QVERIFY(reply.isFinished());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(saved().name(), QStringLiteral("Home"));
        QCOMPARE(sorted(saved().members()), (QStringList{"A", "B"}));
        QCOMPARE(m_leaves->count(), 1);
        QVERIFY(m_log->messages(ERROR_LOG_LEVEL, Observer).isEmpty());
    }

    // A held request that is held again (still following) does not override
    // itself; a newer one does override it.
    void aHeldSaveIsOverriddenOnlyByANewerOne()
    {
        setFollowing("A", "T");
        m_host->systemMembers()->setLoading(true);
        createObserver();
        const CMReply<QVariant> first = save("One", {"B"});
        QTRY_COMPARE_WITH_TIMEOUT(
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::queueSaveRequest", Observer), 1,
            2000);
        // Start-up runs it, it still follows T: it leaves and holds it again.
        m_host->systemMembers()->setLoading(false);
        QCOMPARE(startRuns(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_leaves->count(), 1, 2000);
        QVERIFY(!first.isFinished());
        QVERIFY(m_log->messages(ERROR_LOG_LEVEL, Observer).isEmpty());

        const CMReply<QVariant> second = save("Two", {"C"});
        QTRY_VERIFY_WITH_TIMEOUT(first.isFinished(), 2000);
        QCOMPARE(first.error().message(), QStringLiteral("Operation overriden"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Observer), QStringList{"Operation overriden"});
        QTRY_COMPARE_WITH_TIMEOUT(m_leaves->count(), 2, 2000);
        QVERIFY(!second.isFinished());
        setFollowing("A", "A");
        QCOMPARE(second.result(), QVariant(true));
        QCOMPARE(saved().name(), QStringLiteral("Two"));
    }

    void twoSavesBeforeLoadingTheSecondWins()
    {
        m_host->systemMembers()->setLoading(true);
        createObserver();
        const CMReply<QVariant> first = save("One", {"B"});
        const CMReply<QVariant> second = save("Two", {"C"});
        QTRY_VERIFY_WITH_TIMEOUT(first.isFinished(), 2000);
        QVERIFY(first.hasError());
        QCOMPARE(first.error().message(), QStringLiteral("Operation overriden"));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Observer), QStringList{"Operation overriden"});
        QVERIFY(!second.isFinished());
        QVERIFY(saved().isEmpty());

        m_host->systemMembers()->setLoading(false);
        QCOMPARE(startRuns(), 1);
        QCOMPARE(second.result(), QVariant(true));
        QCOMPARE(saved().name(), QStringLiteral("Two"));
        QCOMPARE(sorted(saved().members()), (QStringList{"A", "C"}));
    }

    // A value that holds no saved group reads as an empty one: it clears the
    // saved group like a request naming nobody, and is answered true.
    void aValueWithoutASavedGroupClears_data()
    {
        QTest::addColumn<TarvHash>("value");
        TarvHash bare;
        bare.insert("name", "Home");
        bare.insert("members", QVariantList{"B"});
        QTest::newRow("the record itself") << bare;
        QTest::newRow("empty") << TarvHash();
        QTest::newRow("another view") << TarvHash(TarvValue().setString_("Home"));
    }

    void aValueWithoutASavedGroupClears()
    {
        QFETCH(TarvHash, value);
        setSaved(savedGroup("Home", {"A", "B"}, 1000));
        QVERIFY(startObserver());
        const qint64 before = QDateTime::currentMSecsSinceEpoch();
        const CMReply<QVariant> reply = save(value);
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(!reply.hasError());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(saved().keys(), QStringList{"timestamp"});
        QVERIFY(saved().timestamp() >= before);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Save request with 0 members: clearing saved group", Observer), 1);
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Observer), QStringList());
    }

    // The save is answered true once the write is issued; whether the host
    // stores the value is the host's business (it keeps the old group and
    // says why in its own reply, which the module does not read).
    void aSaveIsAnsweredTrueWhateverTheHostDoesWithTheWrite()
    {
        CMRoot()->defineValue(
            TarvGroupingPersistentGroupSettingsPath(),
            TarvValue().setGroupingPersistentGroup(TarvGroupingPersistentGroup()).toVariant(),
            [](const QVariant& value) {
                return TarvValue(value.toHash()).groupingPersistentGroup().members().size() > 2
                    ? QStringLiteral("a group has at most 2 members")
                    : QString();
            });
        QVERIFY(startObserver());
        const CMReply<QVariant> reply = save("Big", {"B", "C"});
        QTRY_VERIFY_WITH_TIMEOUT(reply.isFinished(), 2000);
        QVERIFY(!reply.hasError());
        QCOMPARE(reply.result(), QVariant(true));
        QCOMPARE(m_log->messages(ERROR_LOG_LEVEL, Observer), QStringList());
        QVERIFY(saved().isEmpty());
    }

    // --- following and rejoining ---

    void aGroupAsNewAsTheSavedOneIsJoined()
    {
        setSaved(savedGroup("Mine", {"A", "C"}, 1000));
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 1, 2000);
        QCOMPARE(joinedMasterId(0), QStringLiteral("B"));
        // The join carries B's whole record.
        QCOMPARE(m_joins->at(0).at(0).value<TarvSystemMember>(), announcing("B", {"B", "A"}, 1000));
        QCOMPARE(saved(), TarvGroupingPersistentGroup());
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::queueNewMaster: B", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Joining new master: B", Observer), 1);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 1);
        QCOMPARE(m_leaves->count(), 0);
    }

    void aGroupOlderThanTheSavedOneIsIgnored()
    {
        const TarvGroupingPersistentGroup mine = savedGroup("Mine", {"A", "C"}, 1000);
        setSaved(mine);
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "A"}, 999));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);
        QCOMPARE(saved(), mine);
    }

    void anOlderAnnouncementFromTheSameDeviceIsIgnored()
    {
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B"}, 2000));
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1500));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::queueNewMaster", Observer), 0);
        // As new as the newest seen counts again.
        m_host->setSystemMember(announcing("B", {"B", "A"}, 2000));
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 1, 2000);
    }

    void theOwnRecordIsNeverActedOn()
    {
        QVERIFY(startObserver());
        TarvSystemMember self = m_self;
        self.setPersistentGroupMembers(TarvList<QString>({"A", "B"})).setPersistentGroupTimestamp(5000);
        m_host->setSystemMember(self);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);
        QCOMPARE(m_leaves->count(), 0);
        QVERIFY(saved().isEmpty());
    }

    void theGroupOfTheCurrentMasterIsNotJoinedAgain()
    {
        setFollowing("A", "B");
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "A", "C"}, 2000));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);
        QCOMPARE(m_leaves->count(), 0);
    }

    // A master with a follower keeps its group: the join waits until the
    // follower has gone.
    void aFollowedMasterQueuesTheJoinUntilItIsAlone()
    {
        setSaved(savedGroup("Mine", {"A", "F"}, 500));
        setFollowing("F", "A");
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        QCOMPARE(saved(), TarvGroupingPersistentGroup());
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::queueNewMaster: B", Observer), 1);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);

        // Any change that leaves the group as it is keeps the join queued.
        setFollowing("F", "A");
        m_groupingMembers->rowsSetById(m_groupingMembers->rowsGetById("F").setTitle(TrString("Foxtrot")));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);

        m_groupingMembers->rowsRemoveById("F");
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 1, 2000);
        QCOMPARE(joinedMasterId(0), QStringLiteral("B"));
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Removing F", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Joining new master: B", Observer), 1);
    }

    void theMasterDroppingThisDeviceIsLeft()
    {
        setFollowing("A", "B");
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "C"}, 2000));
        QTRY_COMPARE_WITH_TIMEOUT(m_leaves->count(), 1, 2000);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Leaving current master: B", Observer), 1);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_leaves->count(), 1);
        QCOMPARE(m_joins->count(), 0);
    }

    // Another device that is not this one's master dropping it is nothing
    // to leave.
    void anotherDeviceDroppingThisDeviceIsNotLeft()
    {
        // C's group, older than the saved one, was never acted on.
        setSaved(savedGroup("Mine", {"A"}, 1000));
        setFollowing("A", "B");
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        m_host->setSystemMember(announcing("C", {"C", "A"}, 900));
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("C", {"C"}, 2000));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_leaves->count(), 0);
        QCOMPARE(m_joins->count(), 0);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Leaving current master", Observer), 0);
    }

    void membersTakenByANewerGroupArePruned()
    {
        setSaved(savedGroup("Home", {"A", "C", "D", "E"}, 1000));
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "C", "D"}, 2000));
        QCOMPARE(saved().name(), QStringLiteral("Home"));
        QCOMPARE(saved().timestamp(), qint64(1000));
        QCOMPARE(saved().members(), TarvList<QString>({"A", "E"}));
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Moved to a different group: C", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Moved to a different group: D", Observer), 1);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);
        QCOMPARE(m_leaves->count(), 0);
    }

    void aGroupWithoutSavedMembersPrunesNothing()
    {
        const TarvGroupingPersistentGroup home = savedGroup("Home", {"A", "C"}, 1000);
        setSaved(home);
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "D"}, 2000));
        QCOMPARE(saved(), home);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Moved to a different group", Observer), 0);
    }

    // After a join only groups at least as new as the joined one count,
    // until this device is its own master again.
    void afterAJoinOlderGroupsWaitUntilItsOwnMasterAgain()
    {
        QVERIFY(startObserver());
        m_host->setSystemMember(announcing("B", {"B", "A"}, 2000));
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 1, 2000);
        setFollowing("A", "B");

        m_host->setSystemMember(announcing("C", {"C", "A"}, 1500));
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 1);

        // B drops this device: it leaves, and once its own master the older
        // group of C is weighed again and joined.
        m_host->setSystemMember(announcing("B", {"B"}, 3000));
        QTRY_COMPARE_WITH_TIMEOUT(m_leaves->count(), 1, 2000);
        setFollowing("A", "A");
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 2, 2000);
        QCOMPARE(joinedMasterId(1), QStringLiteral("C"));
    }

    // The player's state gates the search for an old master.
    void theSearchForAnOldMasterWaitsForPlayerStateZero()
    {
        setFollowing("A", "B");
        m_host->setSystemMember(announcing("B", {"B", "A"}, 1000));
        QVERIFY(startObserver());
        // Following B: a change of the player starts no search.
        setPlayerState(1);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::lookForAnOldMaster", Observer),
                 0);
        setFollowing("A", "A");
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::lookForAnOldMaster: player state: 1",
                              Observer),
                 1);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);

        setPlayerState(2);
        QVERIFY(requestsDelivered());
        QCOMPARE(m_joins->count(), 0);
        setPlayerState(0);
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::lookForAnOldMaster: player state: 0",
                              Observer),
                 1);
        QTRY_COMPARE_WITH_TIMEOUT(m_joins->count(), 1, 2000);
        QCOMPARE(joinedMasterId(0), QStringLiteral("B"));
    }

    // State 0 does not search when there is a saved group of two or more,
    // or when this device follows somebody.
    void playerStateZeroSearchesOnlyWhenAloneWithoutASavedGroup_data()
    {
        QTest::addColumn<QStringList>("savedMembers");
        QTest::addColumn<QString>("master");
        QTest::addColumn<int>("searches");
        QTest::newRow("no saved group, own master") << QStringList() << "A" << 1;
        QTest::newRow("saved group of one, own master") << QStringList{"A"} << "A" << 1;
        QTest::newRow("saved group of two") << QStringList{"A", "C"} << "A" << 0;
        QTest::newRow("following T") << QStringList() << "T" << 0;
    }

    void playerStateZeroSearchesOnlyWhenAloneWithoutASavedGroup()
    {
        QFETCH(QStringList, savedMembers);
        QFETCH(QString, master);
        QFETCH(int, searches);
        setSaved(savedGroup(savedMembers.isEmpty() ? QString() : "Home", savedMembers, 0));
        setFollowing("A", master);
        QVERIFY(startObserver());
        setPlayerState(1);
        const int before =
            m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::lookForAnOldMaster", Observer);
        setPlayerState(0);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::lookForAnOldMaster", Observer)
                     - before,
                 searches);
    }

    // Player data is kept while loading, so the first search sees it.
    void playerDataIsKeptBeforeLoadingCompletes()
    {
        m_host->systemMembers()->setLoading(true);
        createObserver();
        QTRY_VERIFY_WITH_TIMEOUT(mirrors().at(1)->isLoading(), 2000);
        setPlayerState(3);
        QCOMPARE(m_log->countStartingWith(TRACE_LOG_LEVEL, "Enter SimpleGroupingWorker::lookForAnOldMaster", Observer),
                 0);
        // The replay of the own row (its own master) searches, and sees it.
        m_host->systemMembers()->setLoading(false);
        QCOMPARE(startRuns(), 1);
        QCOMPARE(m_log->messages(TRACE_LOG_LEVEL, Observer)
                     .filter(QStringLiteral("Enter SimpleGroupingWorker::lookForAnOldMaster")),
                 QStringList{"Enter SimpleGroupingWorker::lookForAnOldMaster: player state: 3"});
    }

    // Whom this device follows and who is in its group, from the rows.
    void groupingMembersAreTrackedAndLogged()
    {
        QVERIFY(startObserver());
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Inserting A", Observer), 2);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Current master ID is A", Observer), 1);
        QCOMPARE(m_log->countStartingWith(DEBUG_LOG_LEVEL, "Group member", Observer), 0);

        setFollowing("F", "A");
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Inserting F", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Current master ID is A", Observer), 2);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Group member A", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Group member F", Observer), 1);

        m_groupingMembers->rowsRemoveById("F");
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Removing F", Observer), 1);
        // The own id is never removed.
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Removing A", Observer), 0);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Group member A", Observer), 1);

        setFollowing("A", "T");
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Inserting T", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Current master ID is T", Observer), 1);
        setFollowing("A", "A");
        QCOMPARE(m_log->count(TRACE_LOG_LEVEL, "Removing T", Observer), 1);
        QCOMPARE(m_log->count(DEBUG_LOG_LEVEL, "Current master ID is A", Observer), 4);
    }
};

QTEST_GUILESS_MAIN(tst_SimpleGroupingObserver)
#include "tst_SimpleGroupingObserver.moc"
