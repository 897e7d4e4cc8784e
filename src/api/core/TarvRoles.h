#pragma once

#include "CMPath.h"
#include "TarvEnums.h"
#include "TarvHash.h"
#include "TarvValue.h"
#include "TrString.h"

// One row of a list node, keyed by `id`.
class TarvRoles : public TarvHash
{
    TARV_RECORD(TarvRoles)
    TARV_FIELD(TarvRoles, QString, id, setId, Id)
    TARV_FIELD(TarvRoles, TarvRolesType::Enum, type, setType, Type)
    TARV_FIELD(TarvRoles, TrString, title, setTitle, Title)
    TARV_FIELD(TarvRoles, CMPath, path, setPath, Path)
    TARV_FIELD(TarvRoles, TarvValue, value, setValue, Value)
};

Q_DECLARE_METATYPE(TarvRoles)
