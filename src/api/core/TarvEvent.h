#pragma once

#include "CMPath.h"
#include "TarvEnums.h"
#include "TarvHash.h"

// One event inside an action reply: which node's rows changed.
class TarvEvent : public TarvHash
{
    TARV_RECORD(TarvEvent)
    TARV_FIELD(TarvEvent, CMPath, path, setPath, Path)
    TARV_FIELD(TarvEvent, TarvEventRowsType::Enum, rowsType, setRowsType, RowsType)
};

Q_DECLARE_METATYPE(TarvEvent)
