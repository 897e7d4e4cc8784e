#pragma once

#include <QJsonObject>
#include <QString>

#include "CtlContext.h"
#include "CtlExitCode.h"
#include "CtlHouse.h"

// house: every device of the LAN arranged by group, as the host tarvctl
// talks to sees it (its /system/house list and its own id).
class CtlHouseCommand
{
public:
    explicit CtlHouseCommand(CtlContext& context);

    CtlExitCode::Enum run();

    // `house --json`: {"self": ID, "groups": [{"transcoder": D, "followers":
    // [D...]}], "alone": [D...], "devices": [raw houseMember records]}, with
    // D = {"id", "name", "self", "reachable", "master", "savedGroup": null |
    // {"name", "members": [{"id", "name"}], "timestamp"}}. Groups, followers
    // and lone devices are sorted by name (ignoring case), then id.
    static QJsonObject houseOf(const QString& selfId, const CtlHouse& house);
    // `house`: the same, readable (see the help text for its form).
    static QString text(const QJsonObject& house);

private:
    CtlContext& m_context;
};
