#pragma once

// What tarvctl's exit status tells a script.
namespace CtlExitCode {
enum Enum {
    Ok = 0,
    ApiError = 1,      // the host refused the request or answered with something unusable
    Usage = 2,         // unknown command or option, bad value on the command line
    CannotConnect = 3, // no connection to the host, or it went away
    Timeout = 4,       // no answer, reply or event within the bound
};
}
