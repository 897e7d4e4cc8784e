#pragma once

#include <functional>

#include <QJsonObject>
#include <QString>
#include <QTextStream>

#include "CtlArguments.h"
#include "CtlClient.h"
#include "CtlEvent.h"
#include "CtlExitCode.h"
#include "CMPath.h"
#include "TarvHash.h"

// What every command of one tarvctl run shares: the parsed command line,
// the client that talks to the host, and the streams for the answer (`out`)
// and for what went wrong (`err`), with the ways a command ends.
class CtlContext
{
public:
    CtlContext(QTextStream& out, QTextStream& err, const CtlArguments& arguments, CtlClient& client);

    QTextStream& out() { return m_out; }
    QTextStream& err() { return m_err; }
    const CtlArguments& arguments() const { return m_arguments; }
    CtlClient& client() { return m_client; }

    // Prints "tarvctl: MESSAGE" on err; exit 2.
    CtlExitCode::Enum usageError(const QString& message);
    // Prints a failed reply (and, with --json, the host's error object).
    CtlExitCode::Enum fail(const CtlReply& reply);
    // Prints a successful answer readably (or as JSON with --json), or the failure.
    CtlExitCode::Enum finish(const CtlReply& reply, const std::function<QString(const QJsonObject&)>& readable);
    // Prints a failure that is not the host's ("tarvctl: MESSAGE"), exit 1.
    CtlExitCode::Enum apiError(const QString& message);
    // How a watch that saw `seen` events (or lists) of --count ends.
    CtlExitCode::Enum endWatch(const CtlReply& reply, int seen, const QString& what);

    // A record as the JSON the API takes.
    static QJsonObject toJsonObject(const TarvHash& record);
    // The data of an event called `name` about `path`, parsed once; false
    // for any other event.
    static bool eventAbout(const CtlEvent& event, const char* name, const CMPath& path, QJsonObject* data);

private:
    QTextStream& m_out;
    QTextStream& m_err;
    const CtlArguments& m_arguments;
    CtlClient& m_client;
};
