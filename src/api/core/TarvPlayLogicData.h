#pragma once

#include "TarvHash.h"

// What the player publishes about itself; `state` 0 means idle.
class TarvPlayLogicData : public TarvHash
{
    TARV_RECORD(TarvPlayLogicData)
    TARV_FIELD(TarvPlayLogicData, qint32, state, setState, State)
};

Q_DECLARE_METATYPE(TarvPlayLogicData)
