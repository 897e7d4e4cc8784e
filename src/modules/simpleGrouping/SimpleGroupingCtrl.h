#pragma once

#include <QObject>
#include <QString>

#include <model/cmrequest>
#include <model/cmrowsclone>
#include <tarv>

#include "SimpleGroupingAdder.h"

// Keeps this device's grouping state: who it is (its own system-member
// record), whether it is a transcoder (2) or a receiver (1) at
// TarvDeviceStatePath(), and the grouping-members node at
// TarvGroupingMembersPath(): one own row (id = own id) naming the master
// this device follows, and on a transcoder one row per remote receiver.
// Only this object writes the device state and the members node.
//
// Everything is read fresh on every call; nothing is cached here. All calls
// come from the event-loop thread that owns the object.
class SimpleGroupingCtrl : public QObject
{
    Q_OBJECT

public:
    // `parentList` (the module's list node) gets the members node's path as
    // a row. No Qt parent: the module keeps the controller for the process.
    SimpleGroupingCtrl(CMNodes* nodes, CMListRowsNode* parentList);

    TarvSystemMember readMySystemMemberData();
    QString readMyId();
    QString readMyName();
    // Any value other than Receiver/Transcoder (e.g. before the host holds a
    // state) counts as neither.
    TarvTranscoderState::Enum getCurrentDeviceState();
    // Writes {id: own id, type: state} and blocks until the host has stored
    // it. Writing the current state again is allowed and goes through.
    void changeDeviceState(TarvTranscoderState::Enum state);
    // True when this device is a transcoder and some other device's row
    // names `masterId` as its master (the own-master row never counts).
    bool isMasterFollowed(QString masterId);

public Q_SLOTS:
    // Becomes a receiver of `transcoder` and starts announcing itself to it.
    // Refused (error log, nothing changes) when this device is a followed
    // transcoder, when `transcoder` is this device, or when it has no host
    // and is not among the system members.
    void on_joinTranscoder(const TarvSystemMember& transcoder);
    // A receiver stops announcing, becomes its own master and a transcoder;
    // anything else only logs.
    void on_leaveTranscoder();
    // Transcoder only: lists / unlists a remote receiver. Only the id of a
    // removed member is used.
    void on_requestAddReceiver(const TarvSystemMember& receiver);
    void on_requestRemoveReceiver(const TarvSystemMember& receiver);
    // The own record arrived or changed id: become a transcoder that is its
    // own master. Losing the own id ends the process on purpose.
    void on_systemMember_itemChanged(const TarvValue& newValue, const TarvValue& oldValue);
    // A receiver leaves when its master disappears or stops being a
    // transcoder; renamed devices are renamed in the members node.
    void on_systemMembers_itemChanged(const TarvRoles& newRoles, const TarvRoles& oldRoles);

private:
    // Writes the own row (created if missing) with `master` as master and
    // the current own record as follower.
    void changeGroupMaster(TarvSystemMember master);

    CMListRowsNode* m_membersNode = nullptr;
    CMValueItem* m_systemMember = nullptr;
    CMRowsClone* m_systemMembers = nullptr;
    SimpleGroupingAdder m_adder;
};
