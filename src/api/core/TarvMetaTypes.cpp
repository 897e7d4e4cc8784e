#include "TarvMetaTypes.h"

#include <QMetaType>

#include "CMError.h"
#include "CMPath.h"
#include "CMSetDataRequest.h"
#include "TarvActionReply.h"
#include "TarvPlayLogicData.h"
#include "TarvRoles.h"
#include "TrString.h"

void tarvRegisterMetaTypes()
{
    qRegisterMetaType<TarvHash>("TarvHash");
    qRegisterMetaType<CMPath>("CMPath");
    qRegisterMetaType<TrString>("TrString");
    qRegisterMetaType<CMError>("CMError");
    qRegisterMetaType<TarvSystemMember>("TarvSystemMember");
    qRegisterMetaType<TarvSystemMemberTranscoderState>("TarvSystemMemberTranscoderState");
    qRegisterMetaType<TarvGroupingMember>("TarvGroupingMember");
    qRegisterMetaType<TarvGroupingRequest>("TarvGroupingRequest");
    qRegisterMetaType<TarvGroupingPersistentGroup>("TarvGroupingPersistentGroup");
    qRegisterMetaType<TarvValue>("TarvValue");
    qRegisterMetaType<TarvRoles>("TarvRoles");
    qRegisterMetaType<TarvEvent>("TarvEvent");
    qRegisterMetaType<TarvActionReply>("TarvActionReply");
    qRegisterMetaType<TarvPlayLogicData>("TarvPlayLogicData");
    qRegisterMetaType<CMSetDataRequest>("CMSetDataRequest");
}

Q_CONSTRUCTOR_FUNCTION(tarvRegisterMetaTypes)
