#pragma once

#include <QList>

#include "CtlContext.h"
#include "CtlExitCode.h"
#include "TarvGroupingRequest.h"
#include "TarvSystemMember.h"

// The commands about this device's group: status, join, leave, save and
// group. Join, leave and save wait for the change (see CtlChangeRequest).
class CtlGroupingCommands
{
public:
    explicit CtlGroupingCommands(CtlContext& context);

    // This device (role, master, followers, saved group) and the LAN.
    CtlExitCode::Enum runStatus();
    // Joins a transcoder named by id or name from /system/members.
    CtlExitCode::Enum runJoin();
    CtlExitCode::Enum runLeave();
    // Saves a group on the device: NAME, then devices by id or by name
    // (from /system/members); no device clears the saved group.
    CtlExitCode::Enum runSave();
    // The saved group with its members' names and time, and whom this
    // device follows.
    CtlExitCode::Enum runGroup();

private:
    // The devices of /system/members in list order; the reply says whether
    // they could be read.
    CtlReply readSystemMembers(QList<TarvSystemMember>* members);
    // Invokes the grouping-request action with `request` in a value union
    // ({"groupingRequest": {"command": 1, "master": {...}}}, the form the
    // module writes and reads).
    CtlReply invokeGrouping(const TarvGroupingRequest& request);

    CtlContext& m_context;
};
