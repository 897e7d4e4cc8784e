#pragma once

#include <functional>

#include <QJsonObject>
#include <QString>
#include <QStringList>
#include <QTextStream>

#include "CtlArguments.h"
#include "CtlClient.h"
#include "CtlEvent.h"
#include "CtlExitCode.h"
#include "TarvGroupingRequest.h"
#include "TarvSystemMember.h"

// One run of tarvctl: parses the command line, talks to the host, prints
// the answer (readable or JSON) on `out` and what went wrong on `err`, and
// says which exit code the process ends with.
class CtlCommand
{
public:
    CtlCommand(QTextStream& out, QTextStream& err);

    // Parses the arguments after the program name; a usage error is printed
    // and returns false (the run then ends with CtlExitCode::Usage).
    bool parse(const QStringList& arguments, const QString& apiFromEnvironment = QString());
    const CtlArguments& arguments() const { return m_arguments; }
    // Runs the parsed command; returns the exit code.
    CtlExitCode::Enum execute();
    // parse() and execute() in one.
    CtlExitCode::Enum run(const QStringList& arguments, const QString& apiFromEnvironment = QString());

    static QString version();

private:
    CtlExitCode::Enum usageError(const QString& message);
    CtlExitCode::Enum fail(const CtlReply& reply);
    // Prints a successful answer readably (or as JSON with --json), or the failure.
    CtlExitCode::Enum finish(const CtlReply& reply, const std::function<QString(const QJsonObject&)>& readable);

    CtlExitCode::Enum runSet();
    CtlExitCode::Enum runInvoke();
    CtlExitCode::Enum runStatus();
    CtlExitCode::Enum runJoin();
    CtlExitCode::Enum runLeave();
    // Saves a group on the device: NAME, then devices by id or by name
    // (from /system/members); no device clears the saved group.
    CtlExitCode::Enum runSave();
    // The saved group with its members' names and time, and whom this
    // device follows.
    CtlExitCode::Enum runGroup();
    // The devices of /system/members in list order; the reply says whether
    // they could be read.
    CtlReply readSystemMembers(QList<TarvSystemMember>* members);
    // Prints a failure that is not the host's ("tarvctl: MESSAGE"), exit 1.
    CtlExitCode::Enum apiError(const QString& message);
    CtlExitCode::Enum runWatch();
    // How a watch that saw `seen` events (or lists) of --count ends.
    CtlExitCode::Enum endWatch(const CtlReply& reply, int seen, const QString& what);
    CtlExitCode::Enum runUi();
    CtlExitCode::Enum runUiJoin(const QString& nameOrId);
    CtlExitCode::Enum runUiWatch();
    // Activates one of the grouping list's actions.
    CtlReply activateUiAction(const QString& path);
    // Invokes the grouping-request action with `request` in a value union
    // ({"groupingRequest": {"command": 1, "master": {...}}}, the form the
    // module writes and reads).
    CtlReply invokeGrouping(const TarvGroupingRequest& request);

    // What a request asking the device for a change should bring: the
    // event that shows it, and the line printed when it came.
    struct Expectation
    {
        std::function<bool(const CtlEvent&)> arrived;
        QString done;
    };
    // Given this device's id and the master it follows now (empty when its
    // own row names none), what to wait for.
    using Expect = std::function<Expectation(const QString& ownId, const TarvSystemMember& master)>;

    // Runs `act`, a request asking the device for a change. With --no-wait
    // its answer is printed at once through `readable`. Otherwise the host's
    // events are followed, up to --timeout-ms, until the expected change
    // shows: then its `done` line is printed (the answer's JSON with
    // --json); without it the run ends with "no change: the device refused
    // (see its log)" (exit 1), because the host's answer only says that the
    // request was taken.
    CtlExitCode::Enum requestChange(const std::function<CtlReply()>& act, const Expect& expect,
                                    const std::function<QString(const QJsonObject&)>& readable);
    // This device's id, and the master its own row of /grouping/members
    // names. False when the host could not tell; the failure is printed and
    // its exit code put in `exitCode`.
    bool readOwnGrouping(QString* ownId, TarvSystemMember* master, CtlExitCode::Enum* exitCode);
    // A join: this device's own row of /grouping/members comes to name
    // `masterId` as its master ("joined NAME").
    static Expect joining(const QString& masterId, const QString& name);
    // A leave: the own row comes to name the device itself ("left NAME" of
    // the master it followed).
    static Expect leaving();
    // A save: this device's saved group comes to be `name` with `ids` and
    // the device itself ("saved NAME"), or, when `ids` names nobody else,
    // comes to be cleared ("cleared the saved group").
    static Expect saving(const QString& name, const QStringList& ids);

    QTextStream& m_out;
    QTextStream& m_err;
    CtlArguments m_arguments;
    bool m_parsed = false;
    CtlClient m_client;
};
