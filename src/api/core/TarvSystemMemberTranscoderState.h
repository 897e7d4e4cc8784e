#pragma once

#include "TarvEnums.h"
#include "TarvHash.h"

// The device-state value: which device, and whether it is a receiver or a
// transcoder.
class TarvSystemMemberTranscoderState : public TarvHash
{
    TARV_RECORD(TarvSystemMemberTranscoderState)
    TARV_FIELD(TarvSystemMemberTranscoderState, QString, id, setId, Id)
    TARV_FIELD(TarvSystemMemberTranscoderState, TarvTranscoderState::Enum, type, setType, Type)
};

Q_DECLARE_METATYPE(TarvSystemMemberTranscoderState)
