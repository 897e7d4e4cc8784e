#pragma once

#include "TarvHash.h"
#include "TrString.h"

// An error on a reply: a machine name, a title and a message for people.
class CMError : public TarvHash
{
    TARV_RECORD(CMError)
    TARV_FIELD(CMError, QString, name, setName, Name)
    TARV_FIELD(CMError, QString, title, setTitle, Title)
    TARV_FIELD(CMError, QString, message, setMessage, Message)

public:
    // An error with the default name and title and the given message.
    CMError(const TrString& message); // NOLINT: texts become errors where requests are refused

    static QString DefaultName() { return QStringLiteral("Error"); }
    static QString DefaultTitle() { return QStringLiteral("Error"); }
};

Q_DECLARE_METATYPE(CMError)
