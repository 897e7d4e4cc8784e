#pragma once

#include "TarvHash.h"
#include "TarvSystemMember.h"

// A row of the grouping-members node: a follower and the master it follows.
class TarvGroupingMember : public TarvHash
{
    TARV_RECORD(TarvGroupingMember)
    TARV_FIELD(TarvGroupingMember, TarvSystemMember, master, setMaster, Master)
    TARV_FIELD(TarvGroupingMember, TarvSystemMember, follower, setFollower, Follower)
};

Q_DECLARE_METATYPE(TarvGroupingMember)
