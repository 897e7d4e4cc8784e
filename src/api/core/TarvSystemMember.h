#pragma once

#include "TarvHash.h"
#include "TarvList.h"

// One device of the system, as it announces itself.
class TarvSystemMember : public TarvHash
{
    TARV_RECORD(TarvSystemMember)
    TARV_FIELD(TarvSystemMember, QString, id, setId, Id)
    TARV_FIELD(TarvSystemMember, QString, name, setName, Name)
    TARV_FIELD(TarvSystemMember, QString, host, setHost, Host)
    TARV_FIELD(TarvSystemMember, QString, ipAddress, setIpAddress, IpAddress)
    TARV_FIELD(TarvSystemMember, bool, transcoder, setTranscoder, Transcoder)
    TARV_FIELD(TarvSystemMember, qint64, persistentGroupTimestamp, setPersistentGroupTimestamp,
               PersistentGroupTimestamp)
    TARV_FIELD(TarvSystemMember, TarvList<QString>, persistentGroupMembers, setPersistentGroupMembers,
               PersistentGroupMembers)
};

Q_DECLARE_METATYPE(TarvSystemMember)
