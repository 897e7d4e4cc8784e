#pragma once

#include <QString>

#include "CtlContext.h"
#include "CtlExitCode.h"

// The grouping list (/ui/grouping) as a user sees and uses it: ui, ui
// --watch, ui join NAME|ID, ui leave. Join and leave go through the list's
// own actions and wait for the change (see CtlChangeRequest).
class CtlUiCommands
{
public:
    explicit CtlUiCommands(CtlContext& context);

    CtlExitCode::Enum run();

private:
    CtlExitCode::Enum runJoin(const QString& nameOrId);
    CtlExitCode::Enum runWatch();
    // Activates one of the grouping list's actions.
    CtlReply activateAction(const QString& path);

    CtlContext& m_context;
};
