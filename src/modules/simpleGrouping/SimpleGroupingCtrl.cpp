#include "SimpleGroupingCtrl.h"

#include <climits>

#include <QJsonArray>
#include <QJsonDocument>

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("SimpleGroupingCtrl");
}

// The members node's rows as one compact JSON array, for the log.
QByteArray rowsText(const QList<QVariant>& rows)
{
    return QJsonDocument(QJsonArray::fromVariantList(rows)).toJson(QJsonDocument::Compact);
}
} // namespace

SimpleGroupingCtrl::SimpleGroupingCtrl(CMNodes* nodes, CMListRowsNode* parentList)
    : QObject(nullptr)
{
    m_membersNode = CMListRowsNode::create(nodes, TarvGroupingMembersPath());
    m_membersNode->setTitle(TrString("members"));
    parentList->rowsAppend(m_membersNode->path());
    LOG4CPLUS_DEBUG(logger(), "ListRowsNode path: " << m_membersNode->path());

    m_systemMember = new CMValueItem(this, TarvSystemMemberPath());
    m_systemMembers = new CMRowsClone(this, TarvSystemMembersPath(), -1);

    tarvConnect(m_systemMember, &CMValueItem::changed, this, &SimpleGroupingCtrl::on_systemMember_itemChanged,
                Qt::AutoConnection);
    tarvConnect(m_systemMembers, &CMRowsClone::itemChanged, this, &SimpleGroupingCtrl::on_systemMembers_itemChanged,
                Qt::AutoConnection);
}

TarvSystemMember SimpleGroupingCtrl::readMySystemMemberData()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    const TarvSystemMember member = m_systemMember->value().systemMember();
    LOG4CPLUS_TRACE(logger(), "Leave " << scope << ": " << member);
    return member;
}

QString SimpleGroupingCtrl::readMyId()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    const QString id = readMySystemMemberData().id();
    LOG4CPLUS_TRACE(logger(), "Leave " << scope << ": " << id);
    return id;
}

QString SimpleGroupingCtrl::readMyName()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    const QString name = readMySystemMemberData().name();
    LOG4CPLUS_TRACE(logger(), "Leave " << scope << ": " << name);
    return name;
}

TarvTranscoderState::Enum SimpleGroupingCtrl::getCurrentDeviceState()
{
    const TarvValue value(CMRoot()->getValue(TarvDeviceStatePath()).toHash());
    return value.systemMemberTranscoderState().type();
}

void SimpleGroupingCtrl::changeDeviceState(TarvTranscoderState::Enum state)
{
    TarvSystemMemberTranscoderState record;
    record.setId(readMyId()).setType(state);
    TarvValue value;
    value.setSystemMemberTranscoderState(record);

    // The host must hold the new state before anything that depends on it
    // (the first announcement of a join) happens; its verdict is not ours to
    // judge, the debug line below shows what it now holds.
    const CMReply<QVariant> reply;
    CMRoot()->setValue(TarvDeviceStatePath(), value, reply).waitForFinished(ULONG_MAX);

    LOG4CPLUS_DEBUG(logger(), "current SystemMemberTranscoderState changed to  "
                                  << TarvValue(CMRoot()->getValue(TarvDeviceStatePath()).toHash()));
}

bool SimpleGroupingCtrl::isMasterFollowed(QString masterId)
{
    if (getCurrentDeviceState() != TarvTranscoderState::Transcoder)
        return false;
    for (int i = 0; i < m_membersNode->rowsSize(); ++i) {
        const TarvGroupingMember member = m_membersNode->getRowRoles(i).value().groupingMember();
        if (member.master().id() == masterId && member.follower().id() != masterId)
            return true;
    }
    return false;
}

void SimpleGroupingCtrl::on_joinTranscoder(const TarvSystemMember& transcoder)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": "
                                       << "transcoder name = " << transcoder.name() << " id = " << transcoder.id()
                                       << " host = " << transcoder.host());

    // Followers of a transcoder would be left without a source.
    if (isMasterFollowed(readMyId())) {
        LOG4CPLUS_ERROR(logger(), "Transcoder has followers, can not change state to receiver! Discarding...");
        return;
    }
    if (readMyId() == transcoder.id()) {
        LOG4CPLUS_ERROR(logger(), "Cannot join transcoder: " << transcoder << ", as it is this device!");
        return;
    }

    TarvSystemMember member = transcoder;
    if (member.host().isEmpty()) {
        const TarvRoles row = m_systemMembers->rowById(member.id());
        if (row.isEmpty()) {
            LOG4CPLUS_ERROR(logger(), "Transcoder is not online, cannot resolve name");
            return;
        }
        member = row.value().systemMember();
    }

    LOG4CPLUS_INFO(logger(), "joinTranscoder: " << member.name() << " id: " << member.id() << " host name: '"
                                                << member.host() << "' ip address: '" << member.ipAddress() << "'");

    // The own row names the new master before the state says receiver, and
    // the first announcement leaves only after both are written.
    changeGroupMaster(member);
    changeDeviceState(TarvTranscoderState::Receiver);
    m_adder.start(readMySystemMemberData().toJsonString(), member.host());

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingCtrl::changeGroupMaster(TarvSystemMember master)
{
    LOG4CPLUS_INFO(logger(), "Update group master: name " << master.name() << " masterId = " << master.id()
                                                          << "; groupId = " << master.id());
    LOG4CPLUS_TRACE(logger(), "changeGroupMaster"
                                  << "::Before update: MembersNode: " << rowsText(m_membersNode->rows()));

    TarvRoles row = m_membersNode->rowsGetById(readMyId());
    if (row.isEmpty()) {
        TarvGroupingMember member;
        member.setFollower(readMySystemMemberData()).setMaster(master);
        TarvValue value;
        value.setGroupingMember(member);
        row.setType(TarvRolesType::GroupingMember)
            .setId(readMyId())
            .setTitle(TrString(readMyName()))
            .setValue(value);
    } else {
        // Keep whatever else the row carries; only master and follower move.
        TarvGroupingMember member = row.value().groupingMember();
        member.setMaster(master).setFollower(readMySystemMemberData());
        TarvValue value = row.value();
        value.setGroupingMember(member);
        row.setValue(value);
    }
    m_membersNode->rowsSetById(row);

    LOG4CPLUS_TRACE(logger(), "changeGroupMaster"
                                  << "::After update: MembersNode: " << rowsText(m_membersNode->rows()));
}

void SimpleGroupingCtrl::on_leaveTranscoder()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    if (getCurrentDeviceState() == TarvTranscoderState::Receiver) {
        m_adder.stop();
        LOG4CPLUS_INFO(logger(), "leaveTranscoder: resetting to transcoder state");
        changeGroupMaster(readMySystemMemberData());
        changeDeviceState(TarvTranscoderState::Transcoder);
    } else {
        LOG4CPLUS_DEBUG(logger(), "Device not a receiver, no need to ungroup.");
    }

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingCtrl::on_requestAddReceiver(const TarvSystemMember& receiver)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": "
                                       << "receiver: " << receiver);

    // A device's own row is written only by changeGroupMaster.
    if (readMyId() == receiver.id()) {
        LOG4CPLUS_ERROR(logger(), "Cannot add device " << receiver.id() << ", as it is this device!");
        return;
    }
    if (getCurrentDeviceState() != TarvTranscoderState::Transcoder) {
        LOG4CPLUS_ERROR(logger(), "AddReceiver request only valid for transcoder devices! Discarding...");
        return;
    }

    LOG4CPLUS_TRACE(logger(), "MembersNode BEFORE update: " << rowsText(m_membersNode->rows()));

    TarvGroupingMember member;
    member.setMaster(readMySystemMemberData()).setFollower(receiver);
    TarvValue value;
    value.setGroupingMember(member);
    TarvRoles row;
    row.setType(TarvRolesType::GroupingMember).setId(receiver.id()).setTitle(TrString(receiver.name())).setValue(value);
    m_membersNode->rowsSetById(row);

    LOG4CPLUS_DEBUG(logger(), "Added to membersNode: " << m_membersNode->rowsGetById(receiver.id()).toJson(false));
    LOG4CPLUS_DEBUG(logger(), "MembersNode AFTER update: " << rowsText(m_membersNode->rows()));
    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingCtrl::on_requestRemoveReceiver(const TarvSystemMember& receiver)
{
    if (getCurrentDeviceState() != TarvTranscoderState::Transcoder) {
        LOG4CPLUS_ERROR(logger(), "RemoveReceiver request only valid for transcoder devices!");
        return;
    }
    LOG4CPLUS_INFO(logger(), "SimpleGroupingCtrl::on_requestRemoveReceiver removeReceiver: " << receiver.id());
    // No own-id test: a remove for this device's own id drops its own row,
    // which the next change of group master writes again.
    m_membersNode->rowsRemoveById(receiver.id());
    LOG4CPLUS_DEBUG(logger(), "MembersNode: " << rowsText(m_membersNode->rows()));
}

void SimpleGroupingCtrl::on_systemMember_itemChanged(const TarvValue& newValue, const TarvValue& oldValue)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": "
                                       << "newValue: " << newValue << " oldValue: " << oldValue);

    const QString newId = newValue.systemMember().id();
    const QString oldId = oldValue.systemMember().id();
    if (!newId.isEmpty()) {
        // First sight of the own record (start-up) or a new identity: start
        // over as a transcoder that is its own master.
        if (newId != oldId) {
            m_adder.stop();
            changeGroupMaster(readMySystemMemberData());
            changeDeviceState(TarvTranscoderState::Transcoder);
        }
        LOG4CPLUS_TRACE(logger(), "Leave " << scope);
        return;
    }
    if (oldId.isEmpty())
        return;

    // Without its own identity the module cannot take part in any group.
    LOG4CPLUS_FATAL(logger(), "SelfId was deleted shutdown the module!");
    qt_assert("false", __FILE__, __LINE__);
}

void SimpleGroupingCtrl::on_systemMembers_itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingCtrl");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": "
                                       << " SystemMember changed. oldRole: " << oldRoles << "; newRole: " << newRoles);

    const QString masterId = m_membersNode->rowsGetById(readMyId()).value().groupingMember().master().id();
    if (masterId.isEmpty())
        return;

    const TarvSystemMember newMember = newRoles.value().systemMember();
    const TarvSystemMember oldMember = oldRoles.value().systemMember();

    if (newRoles.isEmpty() && oldMember.id() == masterId) {
        LOG4CPLUS_INFO(logger(), "Master disappeared, leaving group");
        on_leaveTranscoder();
    }
    if (masterId != readMyId() && newMember.id() == masterId && !newMember.transcoder()) {
        LOG4CPLUS_INFO(logger(), "Master is not transcoder anymore, leaving group");
        on_leaveTranscoder();
    }
    if (newMember.id() == oldMember.id() && newMember.name() != oldMember.name()) {
        const QList<QVariant> rows = m_membersNode->rows();
        for (const QVariant& stored : rows) {
            TarvRoles row(stored.toHash());
            const TarvGroupingMember member = row.value().groupingMember();
            TarvSystemMember master = member.master();
            TarvSystemMember follower = member.follower();
            if (master.id() == newMember.id())
                master.setName(newMember.name());
            if (follower.id() == newMember.id()) {
                follower.setName(newMember.name());
                row.setTitle(TrString(newMember.name()));
            }
            TarvGroupingMember renamed;
            renamed.setMaster(master).setFollower(follower);
            TarvValue value;
            value.setGroupingMember(renamed);
            row.setValue(value);
            if (row != TarvRoles(stored.toHash()))
                m_membersNode->rowsSetById(row);
        }
    }
}
