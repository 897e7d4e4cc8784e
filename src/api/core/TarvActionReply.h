#pragma once

#include "TarvEvent.h"
#include "TarvHash.h"
#include "TarvList.h"
#include "TarvRoles.h"

// What an action node answers: a class name, a result row and events.
class TarvActionReply : public TarvHash
{
    TARV_RECORD(TarvActionReply)
    TARV_FIELD(TarvActionReply, QString, xclass, setXclass, Xclass)
    TARV_FIELD(TarvActionReply, TarvRoles, result, setResult, Result)
    TARV_FIELD(TarvActionReply, TarvList<TarvEvent>, events, setEvents, Events)
};

Q_DECLARE_METATYPE(TarvActionReply)
