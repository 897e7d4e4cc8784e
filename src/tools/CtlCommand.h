#pragma once

#include <QString>
#include <QStringList>
#include <QTextStream>

#include "CtlArguments.h"
#include "CtlClient.h"
#include "CtlContext.h"
#include "CtlExitCode.h"

// One run of tarvctl: parses the command line, hands the command to the
// class that runs it (CtlValueCommands, CtlGroupingCommands, CtlUiCommands,
// CtlWatchCommand, CtlHouseCommand), which prints the answer (readable or JSON) on `out` and
// what went wrong on `err`, and says which exit code the process ends with.
class CtlCommand
{
public:
    CtlCommand(QTextStream& out, QTextStream& err);

    // Parses the arguments after the program name; a usage error is printed
    // and returns false (the run then ends with CtlExitCode::Usage).
    bool parse(const QStringList& arguments, const QString& apiFromEnvironment = QString(),
               const QString& deviceFromEnvironment = QString());
    const CtlArguments& arguments() const { return m_arguments; }
    // Runs the parsed command; returns the exit code.
    CtlExitCode::Enum execute();
    // parse() and execute() in one.
    CtlExitCode::Enum run(const QStringList& arguments, const QString& apiFromEnvironment = QString(),
                          const QString& deviceFromEnvironment = QString());

    static QString version();

private:
    // Aims the client at --device: by its id, else by its name (ignoring
    // case) in the host's /system/house; the host's own id or name leaves
    // the client talking to the host. False when the device cannot be
    // named; the reason is printed and its exit code put in `exitCode`.
    bool aimAtDevice(CtlExitCode::Enum* exitCode);

    CtlArguments m_arguments;
    bool m_parsed = false;
    CtlClient m_client;
    CtlContext m_context;
};
