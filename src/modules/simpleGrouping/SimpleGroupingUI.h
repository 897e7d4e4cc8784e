#pragma once

#include <QHash>
#include <QObject>
#include <QString>
#include <QTimer>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

// What the user sees of grouping: the list node at TarvGroupingUIPath()
// ("Transcoders" or "List of followers"), the leave node at
// TarvGroupingUILeavePath() and one join node per transcoder ever shown at
// <list path>/joinTranscoder/<device id>.
//
// The list shows the transcoders this device may join (rows of type 102; the
// one it follows as "   >   " + name, leading to the leave node) while the
// grouping members hold exactly one row, and otherwise a notice and one row
// (type 6) per follower. It is drawn only in answer to changes reported by
// the two row clones that on_init() makes on the first pass of the event
// loop.
//
// Joining and leaving are not done here: an accepted activation writes
// grouping requests to TarvGroupingRequestPath() (a join is a leave, then
// 200 ms later the join) and is answered 200 ms after the click with a
// TarvActionReply that asks the client to refresh the list. One activation
// at a time: another one meanwhile is refused ("Simple Grouping").
//
// No Qt parent: the module keeps the UI for the process. Nodes belong to the
// registry, and the clones, like the UI, are never deleted.
class SimpleGroupingUI : public QObject
{
    Q_OBJECT

public:
    // `groupingNode` (the module's list node) gets the list node's path as
    // a row.
    SimpleGroupingUI(CMNodes* nodes, CMListRowsNode* groupingNode);

    // Removes every row of the list node; nodes stay.
    void clearView();
    // True for any non-empty id, blanks included.
    bool isValid(const QString& id) const;

    // Redraws the transcoders view from the transcoders map.
    void showTranscoders();
    // Draws one transcoder row and creates its join node the first time;
    // an existing join node is kept as it is (title included).
    void addTranscoderEntry(const QString& deviceId, const TarvSystemMember& member);
    // Redraws the followers view from the followers map.
    void showFollowers();

    // The two row clones, for inspection; null before on_init().
    CMRowsClone* systemMembersClone() const { return systemMembers; }
    CMRowsClone* groupingMembersClone() const { return groupingMembers; }

public Q_SLOTS:
    void on_init();
    void on_systemMembers_itemChanged(const TarvRoles& newRow, const TarvRoles& oldRow);
    void on_groupingMembers_itemChanged(const TarvRoles& newRow, const TarvRoles& oldRow);
    void on_transcoderClick(const CMSetDataRequest& request);
    void on_leaveGroup_selected(const CMSetDataRequest& request);
    // The join's delay is over: write the join, answer the click.
    void on_timeout();
    // The leave's delay is over: answer the click.
    void on_leaveTimer_timeout();

private:
    CMListRowsNode* listRowsNode = nullptr;
    CMActivateNode* leaveGroup = nullptr;
    CMRowsClone* systemMembers = nullptr;
    CMRowsClone* groupingMembers = nullptr;
    bool transcodersShown = true;
    QHash<QString, TarvSystemMember> transcoders;
    // Key: follower's device id + "-follower"; value: its title.
    QHash<QString, QString> followers;
    QTimer* delayTimer = nullptr;
    QTimer* leaveTimer = nullptr;
    CMSetDataRequest pendingRequest;
};
