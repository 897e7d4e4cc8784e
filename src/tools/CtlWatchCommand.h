#pragma once

#include "CtlContext.h"
#include "CtlExitCode.h"

// watch [PREFIX]: prints the host's value and rows events (of paths under
// PREFIX), one per line, up to --count or for --timeout-ms.
class CtlWatchCommand
{
public:
    explicit CtlWatchCommand(CtlContext& context);

    CtlExitCode::Enum run();

private:
    CtlContext& m_context;
};
