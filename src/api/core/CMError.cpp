#include "CMError.h"

CMError::CMError(const TrString& message)
{
    setName(DefaultName()).setTitle(DefaultTitle()).setMessage(message.toString());
}
