#pragma once

#include "CtlContext.h"
#include "CtlExitCode.h"

// The commands that read or write one thing of the host's tree and print
// the answer: host, get, set, invoke, rows, tree.
class CtlValueCommands
{
public:
    explicit CtlValueCommands(CtlContext& context);

    CtlExitCode::Enum runHost();
    CtlExitCode::Enum runGet();
    // VALUE as JSON, or --string / --int; bad JSON sends nothing (exit 2).
    CtlExitCode::Enum runSet();
    // VALUE as JSON (default {}); bad JSON sends nothing (exit 2).
    CtlExitCode::Enum runInvoke();
    CtlExitCode::Enum runRows();
    CtlExitCode::Enum runTree();

private:
    CtlContext& m_context;
};
