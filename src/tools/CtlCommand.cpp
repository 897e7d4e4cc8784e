#include "CtlCommand.h"

#include "TarvLog.h"

#include "CtlGroupingCommands.h"
#include "CtlHouse.h"
#include "CtlHouseCommand.h"
#include "CtlUiCommands.h"
#include "CtlValueCommands.h"
#include "CtlWatchCommand.h"

#ifndef TARVCTL_VERSION
#define TARVCTL_VERSION "unknown"
#endif

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("CtlCommand");
}

} // namespace

CtlCommand::CtlCommand(QTextStream& out, QTextStream& err)
    : m_context(out, err, m_arguments, m_client)
{
}

QString CtlCommand::version()
{
    return QStringLiteral(TARVCTL_VERSION);
}

bool CtlCommand::parse(const QStringList& arguments, const QString& apiFromEnvironment,
                       const QString& deviceFromEnvironment)
{
    m_parsed = m_arguments.parse(arguments, apiFromEnvironment, deviceFromEnvironment);
    if (!m_parsed)
        m_context.usageError(m_arguments.error());
    return m_parsed;
}

CtlExitCode::Enum CtlCommand::run(const QStringList& arguments, const QString& apiFromEnvironment,
                                   const QString& deviceFromEnvironment)
{
    if (!parse(arguments, apiFromEnvironment, deviceFromEnvironment))
        return CtlExitCode::Usage;
    return execute();
}

CtlExitCode::Enum CtlCommand::execute()
{
    if (!m_parsed)
        return CtlExitCode::Usage;
    QTextStream& out = m_context.out();
    if (m_arguments.help()) {
        out << CtlArguments::usage();
        out.flush();
        return CtlExitCode::Ok;
    }
    if (m_arguments.version()) {
        out << "tarvctl " << version() << '\n';
        out.flush();
        return CtlExitCode::Ok;
    }
    QString error;
    if (!m_client.setApi(m_arguments.api(), &error))
        return m_context.usageError(
            QStringLiteral("bad API URL (from %1): %2").arg(m_arguments.apiSource(), error));

    const QString& command = m_arguments.command();
    LOG4CPLUS_DEBUG(logger(), "Running " << command << " against " << m_client.api());
    const bool isUi = command == QLatin1String("ui");
    const bool invokes = command == QLatin1String("invoke") || command == QLatin1String("join")
        || command == QLatin1String("leave") || command == QLatin1String("save")
        || (isUi && !m_arguments.arguments().isEmpty());
    const bool watches =
        command == QLatin1String("watch") || (isUi && m_arguments.hasOption(QStringLiteral("watch")));
    if (m_arguments.timeoutMs() > 0 && !invokes && !watches)
        m_client.setTimeoutMs(m_arguments.timeoutMs());

    CtlExitCode::Enum code = CtlExitCode::Ok;
    if (!m_arguments.device().isEmpty() && !aimAtDevice(&code))
        return code;

    CtlValueCommands values(m_context);
    CtlGroupingCommands grouping(m_context);
    if (command == QLatin1String("host"))
        return values.runHost();
    if (command == QLatin1String("status"))
        return grouping.runStatus();
    if (command == QLatin1String("get"))
        return values.runGet();
    if (command == QLatin1String("set"))
        return values.runSet();
    if (command == QLatin1String("invoke"))
        return values.runInvoke();
    if (command == QLatin1String("join"))
        return grouping.runJoin();
    if (command == QLatin1String("leave"))
        return grouping.runLeave();
    if (command == QLatin1String("save"))
        return grouping.runSave();
    if (command == QLatin1String("group"))
        return grouping.runGroup();
    if (command == QLatin1String("house"))
        return CtlHouseCommand(m_context).run();
    if (command == QLatin1String("rows"))
        return values.runRows();
    if (command == QLatin1String("tree"))
        return values.runTree();
    if (command == QLatin1String("watch"))
        return CtlWatchCommand(m_context).run();
    if (isUi)
        return CtlUiCommands(m_context).run();
    return m_context.usageError(QStringLiteral("unknown command '%1'").arg(command));
}

bool CtlCommand::aimAtDevice(CtlExitCode::Enum* exitCode)
{
    const QString& wanted = m_arguments.device();
    const CtlReply host = m_client.host();
    if (!host.isOk()) {
        *exitCode = m_context.fail(host);
        return false;
    }
    const QString ownId = host.body().value(QStringLiteral("id")).toString();
    if (!ownId.isEmpty() && wanted == ownId) {
        LOG4CPLUS_DEBUG(logger(), "Device " << wanted << " is the host itself");
        return true;
    }
    const CtlReply rows = m_client.rows(CtlHouse::path());
    if (!rows.isOk()) {
        *exitCode = m_context.fail(rows);
        return false;
    }
    QString id;
    QStringList candidates;
    switch (CtlHouse::fromRows(rows.body()).find(wanted, &id, &candidates)) {
    case CtlHouse::Found:
        break;
    case CtlHouse::Unknown:
        *exitCode = m_context.apiError(
            QStringLiteral("%1: no device with the id or name '%2' in %3; known: %4")
                .arg(m_arguments.deviceSource(), wanted, CtlHouse::path(),
                     candidates.isEmpty() ? QStringLiteral("none") : candidates.join(QStringLiteral(", "))));
        return false;
    case CtlHouse::Ambiguous:
        *exitCode = m_context.apiError(QStringLiteral("%1: %2 devices are named '%3'; give the id: %4")
                                           .arg(m_arguments.deviceSource())
                                           .arg(candidates.size())
                                           .arg(wanted, candidates.join(QStringLiteral(", "))));
        return false;
    }
    if (id == ownId) {
        LOG4CPLUS_DEBUG(logger(), "Device " << wanted << " is the host itself");
        return true;
    }
    LOG4CPLUS_DEBUG(logger(), "Aiming at device " << id << " through " << m_client.api());
    m_client.setDevice(id);
    return true;
}
