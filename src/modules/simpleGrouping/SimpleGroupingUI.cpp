#include "SimpleGroupingUI.h"

namespace {
log4cplus::Logger logger()
{
    return TarvLog::logger("SimpleGroupingUI");
}

// Translatable texts with their translation context, gettext style.
const char followersNoticeText[] = "void SimpleGroupingUI::showFollowers()\004Can't join playback while having followers!";
const char followerText[] = "void SimpleGroupingUI::showFollowers()\004Follower: %1";
const char invalidDeviceText[] = "void SimpleGroupingUI::on_timeout()\004Invalid device ID, reject request.";

const QString followerSuffix = QStringLiteral("-follower");
const QString followersNoticeId = QStringLiteral("0-followers-list");
const QString followedPrefix = QStringLiteral("   >   ");

// Both delays are promised to the user as "answered 200 ms after the click";
// a coarse timer may fire up to 5 % early.
constexpr int actionDelayMs = 200;

TrString translated(const char* literal, const QList<TrArg>& args)
{
    return TrString(TrCharData{trExtractContext(literal), TrString(literal).sourceText()}, args);
}

QString readMyId()
{
    return TarvValue(CMRoot()->getValue(TarvSystemMemberIdPath()).toHash()).string_();
}

// The UI's only way to join or leave: a request to the grouping-request
// node, whose answer is not read; the lists show the outcome.
void writeGroupingRequest(const TarvGroupingRequest& request)
{
    TarvValue value;
    value.setGroupingRequest(request);
    CMRoot()->invoke(TarvGroupingRequestPath(), value, CMReply<QVariant>());
}

void writeLeaveRequest()
{
    TarvGroupingRequest request;
    request.setCommand(TarvGroupingRequestCommand::Leave);
    writeGroupingRequest(request);
}

// One activation at a time: the new one becomes `pending`, or is refused
// while another is still being carried out (false).
bool passRequestGate(CMSetDataRequest& pending, const CMSetDataRequest& request)
{
    if (!pending.isEmpty()) {
        LOG4CPLUS_TRACE(logger(), "Reject request. Previous grouping request not finished yet.");
        CMError error(TrString("Previous grouping request not finished, reject request."));
        error.setName(QStringLiteral("Simple Grouping")).setTitle(CMError::DefaultTitle());
        request.voidReply().setError(error);
        // A refused request's text is logged at error level, as everywhere.
        LOG4CPLUS_ERROR(logger(), "Previous grouping request not finished, reject request.");
        return false;
    }
    pending = request;
    return true;
}

// Answers an accepted activation; the event asks the client to reload the
// list, whose rows the action has changed or is about to change.
void finishRequest(CMSetDataRequest& pending)
{
    TarvEvent event;
    event.setRowsType(TarvEventRowsType::Changed).setPath(TarvGroupingUIPath());
    TarvRoles result;
    result.setPath(TarvGroupingUIPath());
    TarvActionReply reply;
    reply.setXclass(QStringLiteral("TarvActionReply")).setResult(result).setEvents({event});
    pending.setResult(reply.toVariant());
    pending = CMSetDataRequest();
}
} // namespace

SimpleGroupingUI::SimpleGroupingUI(CMNodes* nodes, CMListRowsNode* groupingNode)
    : QObject(nullptr), delayTimer(new QTimer(this)), leaveTimer(new QTimer(this))
{
    LOG4CPLUS_DEBUG(logger(), "Create listRowsNode on path: " << TarvGroupingUIPath());
    listRowsNode = CMListRowsNode::create(nodes, TarvGroupingUIPath());
    listRowsNode->setTitle(TrString("Transcoders"));
    groupingNode->rowsAppend(listRowsNode->path());
    LOG4CPLUS_TRACE(logger(), "Transcoder list created");

    leaveGroup = CMActivateNode::create(nodes, TarvGroupingUILeavePath());
    leaveGroup->setInvoke(this, &SimpleGroupingUI::on_leaveGroup_selected, Qt::QueuedConnection);

    delayTimer->setInterval(actionDelayMs);
    delayTimer->setSingleShot(true);
    delayTimer->setTimerType(Qt::PreciseTimer);
    tarvConnect(delayTimer, &QTimer::timeout, this, &SimpleGroupingUI::on_timeout, Qt::AutoConnection);
    leaveTimer->setInterval(actionDelayMs);
    leaveTimer->setSingleShot(true);
    leaveTimer->setTimerType(Qt::PreciseTimer);
    tarvConnect(leaveTimer, &QTimer::timeout, this, &SimpleGroupingUI::on_leaveTimer_timeout, Qt::AutoConnection);

    // The clones report the rows they find at once; by then the event loop
    // runs and everything they lead to (the request node) exists.
    QTimer::singleShot(0, this, &SimpleGroupingUI::on_init);

    LOG4CPLUS_TRACE(logger(), "Finished constructor of SimpleGroupingUI");
}

void SimpleGroupingUI::clearView()
{
    listRowsNode->rowsClear();
}

bool SimpleGroupingUI::isValid(const QString& id) const
{
    return !id.isEmpty();
}

void SimpleGroupingUI::on_init()
{
    LOG4CPLUS_TRACE(logger(), "groupingMembersClone created");
    groupingMembers = new CMRowsClone(nullptr, TarvGroupingMembersPath(), -1);
    tarvConnect(groupingMembers, &CMRowsClone::itemChanged, this, &SimpleGroupingUI::on_groupingMembers_itemChanged,
                Qt::AutoConnection);

    LOG4CPLUS_TRACE(logger(), "systemMembersClone created");
    systemMembers = new CMRowsClone(nullptr, TarvSystemMembersPath(), -1);
    tarvConnect(systemMembers, &CMRowsClone::itemChanged, this, &SimpleGroupingUI::on_systemMembers_itemChanged,
                Qt::AutoConnection);
}

void SimpleGroupingUI::showTranscoders()
{
    LOG4CPLUS_TRACE(logger(), "Show transcoders in the UI");
    clearView();
    listRowsNode->setTitle(TrString("Transcoders"));
    for (auto it = transcoders.constBegin(); it != transcoders.constEnd(); ++it)
        addTranscoderEntry(it.value().id(), it.value());
}

void SimpleGroupingUI::addTranscoderEntry(const QString& deviceId, const TarvSystemMember& member)
{
    LOG4CPLUS_DEBUG(logger(), "Show device: " << member.id() << " name: " << member.name() << " " << member.host()
                                              << " in transcoders list");
    const QString myId = readMyId();
    // Drawn before on_init() (no clone yet), nothing is followed.
    const TarvRoles ownRow = groupingMembers ? groupingMembers->rowById(myId) : TarvRoles();
    const QString masterId = ownRow.value().groupingMember().master().id();
    LOG4CPLUS_TRACE(logger(), "SimpleGroupingUI::showEntry :: deviceId: " << deviceId
                                                                          << " deviceName: " << member.name());

    TarvRoles row;
    row.setType(TarvRolesType::GroupingTranscoder).setId(deviceId);
    if (deviceId == masterId) {
        // The followed transcoder leads to the leave node: clicking it again
        // means "stop following".
        const QString title = followedPrefix + member.name();
        LOG4CPLUS_TRACE(logger(), "Append info: " << title);
        row.setTitle(TrString(title)).setPath(leaveGroup->path());
        listRowsNode->rowsAppend(row);
        return;
    }

    const CMPath joinPath = listRowsNode->path() + (QStringLiteral("/joinTranscoder/") + deviceId);
    // A join node is made once and then kept as it is, even when the
    // transcoder is renamed or gone: clients may still hold its path.
    if (!listRowsNode->nodes()->isNodeAtPath(joinPath)) {
        LOG4CPLUS_TRACE(logger(), "Path: " << joinPath << " not in: ADD");
        CMActivateNode* joinNode = CMActivateNode::create(listRowsNode->nodes(), joinPath);
        joinNode->setInvoke(this, &SimpleGroupingUI::on_transcoderClick, Qt::QueuedConnection);
        joinNode->setTitle(TrString(member.name()));
        joinNode->setId(deviceId);
    }
    row.setTitle(TrString(member.name())).setPath(joinPath);
    listRowsNode->rowsSetById(row);
}

void SimpleGroupingUI::showFollowers()
{
    LOG4CPLUS_TRACE(logger(), "Removing Transcoders from Multiroom list");
    clearView();
    listRowsNode->setTitle(TrString("List of followers"));

    TarvRoles notice;
    notice.setType(TarvRolesType::Follower).setId(followersNoticeId).setTitle(TrString(followersNoticeText));
    listRowsNode->rowsAppend(notice);

    const QList<QString> keys = followers.keys();
    for (const QString& key : keys) {
        TarvRoles row;
        row.setType(TarvRolesType::Follower)
            .setId(key)
            .setTitle(translated(followerText, {TrArg(followers.value(key), 0, QLatin1Char(' '))}));
        listRowsNode->rowsSetById(row);
    }
}

void SimpleGroupingUI::on_systemMembers_itemChanged(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingUI");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": newRole: " << newRow << " oldRole: " << oldRow);

    // A removal carries no member: the map is rebuilt at the next change
    // that does.
    if (!isValid(newRow.value().systemMember().id()))
        return;

    const QHash<QString, TarvSystemMember> previous = transcoders;
    transcoders.clear();
    const QString myId = readMyId();
    for (const TarvRoles& row : systemMembers->rows()) {
        const TarvSystemMember member = row.value().systemMember();
        if (member.id() != myId && member.transcoder())
            transcoders.insert(member.id(), member);
    }

    // While followers are shown the map is kept current for the switch back.
    if (transcodersShown && transcoders != previous)
        showTranscoders();

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingUI::on_groupingMembers_itemChanged(const TarvRoles& newRow, const TarvRoles& oldRow)
{
    if (groupingMembers->size() == 1) {
        transcodersShown = true;
        followers.clear();
        LOG4CPLUS_TRACE(logger(), "Showing available transcoders");
        showTranscoders();
        return;
    }

    transcodersShown = false;
    LOG4CPLUS_INFO(logger(), "Device became MASTER & FOLLOWED");
    const QString newId = newRow.id();
    const QString oldId = oldRow.id();
    LOG4CPLUS_TRACE(logger(), "newDeviceId: " << newId << " oldDeviceId: " << oldId);
    // Only the reported row moves; the own row is not filtered out.
    if (isValid(oldId))
        followers.remove(oldId + followerSuffix);
    if (isValid(newId))
        followers.insert(newId + followerSuffix, newRow.title().toString());
    showFollowers();
}

void SimpleGroupingUI::on_transcoderClick(const CMSetDataRequest& request)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingUI");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": request: " << request.path());
    LOG4CPLUS_TRACE(logger(), "Requested to join: " << request.path());

    if (!passRequestGate(pendingRequest, request))
        return;

    // Every join starts with a leave, and the join itself waits until the
    // leave has been carried out.
    LOG4CPLUS_TRACE(logger(), "Ungroup first and delay grouping for 1 second");
    writeLeaveRequest();
    delayTimer->start();

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingUI::on_leaveGroup_selected(const CMSetDataRequest& request)
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingUI");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope << ": Requested to leave: " << request.path());

    if (!passRequestGate(pendingRequest, request))
        return;

    LOG4CPLUS_INFO(logger(), "Leaving the group!");
    writeLeaveRequest();
    leaveTimer->start();

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingUI::on_timeout()
{
    const DbgLogScopedFunction scope = dbglog_scopedFunction(Q_FUNC_INFO, "SimpleGroupingUI");
    LOG4CPLUS_TRACE(logger(), "Enter " << scope);

    const QString deviceId = pendingRequest.path().splitBase().second;
    const TarvRoles row = systemMembers->rowById(deviceId);
    if (row.isEmpty()) {
        // Gone during the delay: the leave already written stands.
        pendingRequest.voidReply().setError(CMError(TrString(invalidDeviceText)));
        LOG4CPLUS_ERROR(logger(), "Invalid device ID, reject request.");
        pendingRequest = CMSetDataRequest();
        return;
    }

    const TarvSystemMember member = row.value().systemMember();
    LOG4CPLUS_TRACE(logger(), "deviceId: " << deviceId << " fullDataSet: " << member);
    LOG4CPLUS_DEBUG(logger(), "Delayed group: master: " << member.name() << " @ " << member.host());

    TarvSystemMember master;
    master.setId(deviceId).setName(member.name()).setHost(member.host());
    TarvGroupingRequest request;
    request.setMaster(master).setCommand(TarvGroupingRequestCommand::Join);
    writeGroupingRequest(request);

    LOG4CPLUS_TRACE(logger(), "Finish request and refresh TarvGroupingUIPath()");
    finishRequest(pendingRequest);

    LOG4CPLUS_TRACE(logger(), "Leave " << scope);
}

void SimpleGroupingUI::on_leaveTimer_timeout()
{
    LOG4CPLUS_INFO(logger(), "Left the group!");
    finishRequest(pendingRequest);
}
