#include "SimpleGroupingObserver.h"

#include <QDateTime>

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("SimpleGroupingObserver");
}

// The observer's trace entries carry the worker's tag, as they always have:
// log filters and readers of the module's traces know them by it.
const char traceTag[] = "SimpleGroupingWorker";

QSet<QString> idSet(const TarvList<QString>& ids)
{
    return QSet<QString>(ids.cbegin(), ids.cend());
}

// Fails a request with `text` on its reply, then logs the same text.
void refuse(const CMSetDataRequest& request, const QString& text)
{
    request.voidReply().setError(CMError(TrString(text)));
    LOG4CPLUS_ERROR(logger(), text);
}
} // namespace

SimpleGroupingObserver::SimpleGroupingObserver(CMNodes* nodes, CMListRowsNode* list)
    : QObject(nullptr)
{
    Q_UNUSED(list);

    // Queued, so that a save never runs inside the host's own call.
    CMActivateNode* saveNode = CMActivateNode::create(nodes, TarvGroupingPersistentGroupSavePath());
    saveNode->setInvoke(this, &SimpleGroupingObserver::on_groupingSave_activated, Qt::QueuedConnection);

    m_systemMember = new CMValueItem(this, TarvSystemMemberIdPath());
    tarvConnect(m_systemMember, &CMValueItem::changed, this, &SimpleGroupingObserver::on_systemMember_itemChanged,
                Qt::AutoConnection);

    m_groupingMembers = new CMRowsClone(this, TarvGroupingMembersPath(), -1);
    tarvConnect(m_groupingMembers, &CMRowsClone::itemChanged, this,
                &SimpleGroupingObserver::on_groupingMembers_itemChanged, Qt::AutoConnection);
    tarvConnect(m_groupingMembers, &CMRowsClone::loadingChanged, this,
                &SimpleGroupingObserver::on_groupingMembers_loadingChanged, Qt::AutoConnection);

    m_systemMembers = new CMRowsClone(this, TarvSystemMembersPath(), -1);
    tarvConnect(m_systemMembers, &CMRowsClone::itemChanged, this,
                &SimpleGroupingObserver::on_systemMembers_itemChanged, Qt::AutoConnection);
    tarvConnect(m_systemMembers, &CMRowsClone::loadingChanged, this,
                &SimpleGroupingObserver::on_systemMembers_loadingChanged, Qt::AutoConnection);

    CMRoot()->connectValueChange(PlayLogicInterface::playerInstance()->dataPath(), this,
                                 &SimpleGroupingObserver::on_playerData_changed, Qt::AutoConnection);
}

bool SimpleGroupingObserver::loadingComplete() const
{
    return !m_selfId.isEmpty() && m_groupingMembersLoaded && m_systemMembersLoaded;
}

void SimpleGroupingObserver::on_groupingMembers_loadingChanged(bool loading)
{
    if (loading || loadingComplete())
        return;
    m_groupingMembersLoaded = true;
    if (loadingComplete())
        startProcessing();
}

void SimpleGroupingObserver::on_systemMembers_loadingChanged(bool loading)
{
    if (loading || loadingComplete())
        return;
    m_systemMembersLoaded = true;
    if (loadingComplete())
        startProcessing();
}

void SimpleGroupingObserver::on_systemMember_itemChanged(const TarvValue& newValue, const TarvValue& oldValue)
{
    Q_UNUSED(oldValue);
    const QString id = newValue.string_();
    // The first id is this device for the observer's whole life.
    if (id.isEmpty() || !m_selfId.isEmpty())
        return;
    m_selfId = id;
    m_currentMasterId = m_selfId;
    m_groupMembers.insert(m_selfId);
    LOG4CPLUS_DEBUG(logger(), "Self ID is " << id);
    if (loadingComplete())
        startProcessing();
}

void SimpleGroupingObserver::startProcessing()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, traceTag);
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": ");

    // Whom this device follows must be settled before the saved groups are
    // weighed against it. Copies: a replay may change the lists.
    const QList<TarvRoles> groupingRows = m_groupingMembers->rows();
    for (const TarvRoles& row : groupingRows)
        on_groupingMembers_itemChanged(row, TarvRoles());
    const QList<TarvRoles> systemRows = m_systemMembers->rows();
    for (const TarvRoles& row : systemRows)
        on_systemMembers_itemChanged(row, TarvRoles());

    tryProcessSaveRequest();
}

void SimpleGroupingObserver::on_groupingSave_activated(const CMSetDataRequest& request)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, traceTag);
    const TarvValue value(request.value().toHash());
    TarvGroupingPersistentGroup group = value.groupingPersistentGroup();
    QSet<QString> members = idSet(group.members());
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": " << group);

    // A value without a saved group reads as an empty one: it clears.
    if (!loadingComplete()) {
        queueSaveRequest(request);
        return;
    }

    members.remove(m_selfId);
    if (members.isEmpty()) {
        // Naming only this device, or nobody, clears the saved group.
        group = TarvGroupingPersistentGroup();
        LOG4CPLUS_DEBUG(logger(), "Save request with 0 members: clearing saved group");
    } else {
        if (group.name().isEmpty()) {
            refuse(request, QStringLiteral("Missing name in save request"));
            return;
        }
        if (m_selfId != m_currentMasterId) {
            // Only a device that is its own master can save a group; the
            // request runs again when it is (on_groupingMembers_itemChanged).
            sendGroupingRequest(TarvGroupingRequestCommand::Leave);
            queueSaveRequest(request);
            return;
        }
        // A saved group always lists the device that saved it.
        members.insert(m_selfId);
        group.setMembers(TarvList<QString>(members.values()));
    }

    // A cleared group carries the time it was cleared too.
    group.setTimestamp(QDateTime::currentMSecsSinceEpoch());
    // Answered once the write is issued; its outcome is the host's (a host
    // that refuses the value logs why and keeps the old group).
    writeSavedGroup(group);
    request.setResult(true);
}

void SimpleGroupingObserver::queueSaveRequest(const CMSetDataRequest& request)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, traceTag);
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": ");
    // Only the newest request survives.
    if (!m_pendingSaveRequest.isEmpty())
        refuse(m_pendingSaveRequest, QStringLiteral("Operation overriden"));
    m_pendingSaveRequest = request;
}

void SimpleGroupingObserver::tryProcessSaveRequest()
{
    if (m_pendingSaveRequest.isEmpty())
        return;
    // Cleared first: a request held again (this device still follows another
    // master) must not override itself.
    const CMSetDataRequest request = m_pendingSaveRequest;
    m_pendingSaveRequest = CMSetDataRequest();
    on_groupingSave_activated(request);
}

void SimpleGroupingObserver::on_systemMembers_itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles)
{
    if (!loadingComplete())
        return;

    const TarvSystemMember member = newRoles.value().systemMember();
    const QSet<QString> newGroup = idSet(member.persistentGroupMembers());
    const QSet<QString> oldGroup = idSet(oldRoles.value().systemMember().persistentGroupMembers());
    TarvGroupingPersistentGroup saved = readSavedGroup();
    const QSet<QString> savedMembers = idSet(saved.members());

    if (member.id() == m_selfId)
        return;

    // Only a group at least as new as this device's own, as the master it
    // last joined and as anything this member announced before is weighed;
    // so the newest group wins. Equal times count: a replay is honoured.
    const qint64 timestamp = member.persistentGroupTimestamp();
    if (saved.timestamp() > timestamp || m_lastJoinTimestamp > timestamp
        || m_memberTimestamps.value(member.id(), 0) > timestamp)
        return;
    m_memberTimestamps.insert(member.id(), timestamp);

    if (newGroup.contains(m_selfId)) {
        if (member.id() == m_currentMasterId)
            return;
        // Joining another device's group gives up this device's own.
        writeSavedGroup(TarvGroupingPersistentGroup());
        queueNewMaster(member);
        tryJoinNewMaster();
        return;
    }

    if (oldGroup.contains(m_selfId) && member.id() == m_currentMasterId) {
        LOG4CPLUS_DEBUG(logger(), "Leaving current master: " << m_currentMasterId);
        sendGroupingRequest(TarvGroupingRequestCommand::Leave);
        return;
    }

    if (member.id() != m_currentMasterId) {
        // Members of this device's group that a newer group has taken.
        const QSet<QString> moved = savedMembers & newGroup;
        if (moved.isEmpty())
            return;
        TarvList<QString> kept = saved.members();
        for (const QString& id : moved) {
            LOG4CPLUS_DEBUG(logger(), "Moved to a different group: " << id);
            kept.removeAll(id);
        }
        saved.setMembers(kept);
        writeSavedGroup(saved);
    }
}

void SimpleGroupingObserver::on_groupingMembers_itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles)
{
    if (!loadingComplete())
        return;

    const TarvGroupingMember newMember = newRoles.value().groupingMember();
    const TarvGroupingMember oldMember = oldRoles.value().groupingMember();
    const QString newMasterId = newMember.master().id();
    const QString oldMasterId = oldMember.master().id();

    if (newMasterId != oldMasterId) {
        removeGroupMember(oldMasterId);
        if (!newMasterId.isEmpty()) {
            insertGroupMember(newMasterId);
            m_currentMasterId = newMasterId;
            if (m_currentMasterId == m_selfId) {
                // Its own master again: older groups count again, a held
                // save can run, and an old master may be waiting.
                m_lastJoinTimestamp = 0;
                tryProcessSaveRequest();
                lookForAnOldMaster();
            }
        }
    }

    const QString newFollowerId = newMember.follower().id();
    const QString oldFollowerId = oldMember.follower().id();
    if (newFollowerId != oldFollowerId) {
        removeGroupMember(oldFollowerId);
        insertGroupMember(newFollowerId);
    }

    tryJoinNewMaster();

    LOG4CPLUS_DEBUG(logger(), "Current master ID is " << m_currentMasterId);
    if (m_selfId == m_currentMasterId && m_groupMembers.size() >= 2) {
        for (const QString& id : qAsConst(m_groupMembers))
            LOG4CPLUS_DEBUG(logger(), "Group member " << id);
    }
}

void SimpleGroupingObserver::insertGroupMember(const QString& id)
{
    if (id.isEmpty())
        return;
    m_groupMembers.insert(id);
    LOG4CPLUS_TRACE(logger(), "Inserting " << id);
}

void SimpleGroupingObserver::removeGroupMember(const QString& id)
{
    if (id.isEmpty() || id == m_selfId)
        return;
    m_groupMembers.remove(id);
    LOG4CPLUS_TRACE(logger(), "Removing " << id);
}

void SimpleGroupingObserver::queueNewMaster(const TarvSystemMember& member)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, traceTag);
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": " << member.id());
    m_queuedMaster = member;
}

void SimpleGroupingObserver::tryJoinNewMaster()
{
    if (m_queuedMaster.isEmpty())
        return;
    // A master with followers keeps its group; the choice stays queued.
    if (m_selfId == m_currentMasterId && m_groupMembers.size() >= 2)
        return;

    const TarvSystemMember master = m_queuedMaster;
    m_queuedMaster = TarvSystemMember();
    LOG4CPLUS_DEBUG(logger(), "Joining new master: " << master.id());
    sendGroupingRequest(TarvGroupingRequestCommand::Join, master);
    // From now on only groups at least as new as this one are weighed.
    m_lastJoinTimestamp = master.persistentGroupTimestamp();
}

void SimpleGroupingObserver::on_playerData_changed(const CMPath& path, const QVariant& value)
{
    Q_UNUSED(path);
    m_playerData = TarvPlayLogicData(value.toHash());
    if (!loadingComplete())
        return;
    // A device with a saved group of its own, or following another master,
    // has no old master to look for.
    if (readSavedGroup().members().size() < 2 && m_selfId == m_currentMasterId)
        lookForAnOldMaster();
}

void SimpleGroupingObserver::lookForAnOldMaster()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, traceTag);
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": "
                                       << "player state: " << m_playerData.state());
    // Joining a group would take over what the player is doing.
    if (m_playerData.state() != 0)
        return;
    const QList<TarvRoles> rows = m_systemMembers->rows();
    for (const TarvRoles& row : rows)
        on_systemMembers_itemChanged(row, TarvRoles());
}

void SimpleGroupingObserver::sendGroupingRequest(TarvGroupingRequestCommand::Enum command,
                                                 const TarvSystemMember& master)
{
    TarvGroupingRequest request;
    request.setCommand(command);
    if (command == TarvGroupingRequestCommand::Join)
        request.setMaster(master);
    // The outcome shows in the grouping-members list.
    CMRoot()->invoke(TarvGroupingRequestPath(), TarvValue().setGroupingRequest(request), CMReply<QVariant>());
}

TarvGroupingPersistentGroup SimpleGroupingObserver::readSavedGroup()
{
    return TarvValue(CMRoot()->getValue(TarvGroupingPersistentGroupSettingsPath()).toHash()).groupingPersistentGroup();
}

void SimpleGroupingObserver::writeSavedGroup(const TarvGroupingPersistentGroup& group)
{
    CMRoot()->setValue(TarvGroupingPersistentGroupSettingsPath(), TarvValue().setGroupingPersistentGroup(group),
                       CMReply<QVariant>());
}
