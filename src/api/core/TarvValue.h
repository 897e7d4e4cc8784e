#pragma once

#include "TarvGroupingMember.h"
#include "TarvGroupingPersistentGroup.h"
#include "TarvGroupingRequest.h"
#include "TarvHash.h"
#include "TarvSystemMember.h"
#include "TarvSystemMemberTranscoderState.h"

// The typed value of a row or a path: a union, so the hash holds exactly
// one of the views below under its name ({"i32_": 5000},
// {"systemMember": {...}}). Setting a view replaces the previous one.
class TarvValue : public TarvHash
{
    TARV_RECORD(TarvValue)
    TARV_UNION_FIELD(TarvValue, TarvSystemMember, systemMember, setSystemMember, SystemMember)
    TARV_UNION_FIELD(TarvValue, TarvGroupingMember, groupingMember, setGroupingMember, GroupingMember)
    TARV_UNION_FIELD(TarvValue, TarvGroupingRequest, groupingRequest, setGroupingRequest, GroupingRequest)
    TARV_UNION_FIELD(TarvValue, TarvGroupingPersistentGroup, groupingPersistentGroup, setGroupingPersistentGroup,
                     GroupingPersistentGroup)
    TARV_UNION_FIELD(TarvValue, TarvSystemMemberTranscoderState, systemMemberTranscoderState,
                     setSystemMemberTranscoderState, SystemMemberTranscoderState)
    TARV_UNION_FIELD(TarvValue, QString, string_, setString_, String_)
    TARV_UNION_FIELD(TarvValue, qint32, i32_, setI32_, I32_)

public:
    // The same view as i32_().
    qint32 i32() const { return i32_(); }
};

Q_DECLARE_METATYPE(TarvValue)
