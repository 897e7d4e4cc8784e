#pragma once

#include "TarvEnums.h"
#include "TarvHash.h"
#include "TarvSystemMember.h"

// A join (command 1, with the master to follow) or leave (command -1).
class TarvGroupingRequest : public TarvHash
{
    TARV_RECORD(TarvGroupingRequest)
    TARV_FIELD(TarvGroupingRequest, TarvGroupingRequestCommand::Enum, command, setCommand, Command)
    TARV_FIELD(TarvGroupingRequest, TarvSystemMember, master, setMaster, Master)
};

Q_DECLARE_METATYPE(TarvGroupingRequest)
