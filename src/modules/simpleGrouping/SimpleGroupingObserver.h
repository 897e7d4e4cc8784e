#pragma once

#include <QHash>
#include <QObject>
#include <QSet>
#include <QString>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

// The saved group: answers save requests at
// TarvGroupingPersistentGroupSavePath() by writing the group to
// TarvGroupingPersistentGroupSettingsPath(), and, from the saved groups every
// device publishes in its system-member record, brings this device back into
// the newest group that lists it (after a restart too). It never calls the
// controller: joins and leaves go to TarvGroupingRequestPath(), and their
// outcome is learnt from the grouping-members list.
//
// Nothing is done until this device's id is known and both the system
// members and the grouping members have loaded; save requests that arrive
// earlier are held (only the newest one).
//
// Its trace entries carry the worker's class tag ("SimpleGroupingWorker").
class SimpleGroupingObserver : public QObject
{
    Q_OBJECT

public:
    // `list` (the module's list node) is not used. No Qt parent: the module
    // keeps the observer for the process.
    SimpleGroupingObserver(CMNodes* nodes, CMListRowsNode* list);

public Q_SLOTS:
    // A save request, always through the event loop. Answered true once the
    // group is written, refused with an error, or held (see above, and while
    // this device follows another master: it leaves first).
    void on_groupingSave_activated(const CMSetDataRequest& request);
    // The own id; the first non-empty one counts, later changes are ignored.
    void on_systemMember_itemChanged(const TarvValue& newValue, const TarvValue& oldValue);
    // Follows whom this device follows and who is in its group.
    void on_groupingMembers_itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles);
    void on_groupingMembers_loadingChanged(bool loading);
    // Weighs another device's saved group: join it, leave a master that
    // dropped this device, or prune members that moved to a newer group.
    void on_systemMembers_itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles);
    void on_systemMembers_loadingChanged(bool loading);
    // The player's data; a return to state 0 may start a search for an old
    // master.
    void on_playerData_changed(const CMPath& path, const QVariant& value);

private:
    bool loadingComplete() const;
    // Replays both lists as if every row had just arrived, grouping members
    // first, then runs a held save request.
    void startProcessing();
    void queueSaveRequest(const CMSetDataRequest& request);
    void tryProcessSaveRequest();
    void queueNewMaster(const TarvSystemMember& member);
    // Joins the queued master unless this device is a master with followers.
    void tryJoinNewMaster();
    // In player state 0 only: weighs every device's saved group again.
    void lookForAnOldMaster();

    // Sends a join (with `master`) or leave request to the request node.
    static void sendGroupingRequest(TarvGroupingRequestCommand::Enum command,
                                    const TarvSystemMember& master = TarvSystemMember());
    static TarvGroupingPersistentGroup readSavedGroup();
    // Writes the saved group; the outcome is the host's and is not read.
    static void writeSavedGroup(const TarvGroupingPersistentGroup& group);
    // Inserts / removes a group member id with its trace line; empty ids
    // and (on removal) the own id are left alone.
    void insertGroupMember(const QString& id);
    void removeGroupMember(const QString& id);

    CMValueItem* m_systemMember = nullptr;
    CMRowsClone* m_groupingMembers = nullptr;
    bool m_groupingMembersLoaded = false;
    CMRowsClone* m_systemMembers = nullptr;
    bool m_systemMembersLoaded = false;
    QString m_selfId;
    // Equals m_selfId while this device is its own master.
    QString m_currentMasterId;
    // This device, its master and its followers.
    QSet<QString> m_groupMembers;
    // The saved-group time of the master last joined; 0 while own master.
    qint64 m_lastJoinTimestamp = 0;
    CMSetDataRequest m_pendingSaveRequest;
    TarvSystemMember m_queuedMaster;
    // The newest saved-group time seen per other device; only rises.
    QHash<QString, qint64> m_memberTimestamps;
    TarvPlayLogicData m_playerData;
};
