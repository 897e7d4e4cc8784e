#pragma once

#include "TarvHash.h"
#include "TarvList.h"

// A saved group: its name, the ids of its members and when it was saved.
class TarvGroupingPersistentGroup : public TarvHash
{
    TARV_RECORD(TarvGroupingPersistentGroup)
    TARV_FIELD(TarvGroupingPersistentGroup, QString, name, setName, Name)
    TARV_FIELD(TarvGroupingPersistentGroup, TarvList<QString>, members, setMembers, Members)
    TARV_FIELD(TarvGroupingPersistentGroup, qint64, timestamp, setTimestamp, Timestamp)
};

Q_DECLARE_METATYPE(TarvGroupingPersistentGroup)
