#include "CtlArguments.h"

#include <QRegularExpression>

namespace {

struct OptionInfo
{
    QString name;
    bool takesValue;
    QStringList commands; // empty: every command
};

const QList<OptionInfo>& optionInfos()
{
    static const QList<OptionInfo> infos{
        {QStringLiteral("api"), true, {}},
        {QStringLiteral("device"), true, {}},
        {QStringLiteral("json"), false, {}},
        {QStringLiteral("verbose"), false, {}},
        {QStringLiteral("help"), false, {}},
        {QStringLiteral("version"), false, {}},
        {QStringLiteral("timeout-ms"), true, {}},
        {QStringLiteral("count"), true, {QStringLiteral("watch"), QStringLiteral("ui")}},
        {QStringLiteral("watch"), false, {QStringLiteral("ui")}},
        {QStringLiteral("string"), true, {QStringLiteral("set")}},
        {QStringLiteral("int"), true, {QStringLiteral("set")}},
        {QStringLiteral("name"), true, {QStringLiteral("join")}},
        {QStringLiteral("host"), true, {QStringLiteral("join")}},
        {QStringLiteral("no-wait"), false,
         {QStringLiteral("join"), QStringLiteral("leave"), QStringLiteral("save"), QStringLiteral("ui")}},
    };
    return infos;
}

const OptionInfo* findOption(const QString& name)
{
    for (const OptionInfo& info : optionInfos()) {
        if (info.name == name)
            return &info;
    }
    return nullptr;
}

// A leading dash that starts a number is a value (a negative JSON number),
// not an option.
bool looksLikeNumber(const QString& token)
{
    static const QRegularExpression number(QStringLiteral("^-[0-9]"));
    return number.match(token).hasMatch();
}

} // namespace

QString CtlArguments::usage()
{
    return QStringLiteral(
        "Usage: tarvctl [options] COMMAND [arguments]\n"
        "\n"
        "Talks to a device's tarv-host over its HTTP/JSON control API.\n"
        "\n"
        "Commands:\n"
        "  host                          this device: id, name, host, address, request port, version\n"
        "  get PATH                      the value at PATH\n"
        "  set PATH VALUE                write VALUE (JSON, e.g. '{\"i32_\": 5000}') to PATH\n"
        "  set PATH --string S           write {\"string_\": S}\n"
        "  set PATH --int N              write {\"i32_\": N}\n"
        "  invoke PATH [VALUE]           invoke the action at PATH with VALUE (JSON, default {})\n"
        "  status                        this device's role, master, followers and saved group, then every\n"
        "                                device of the LAN with its role and saved group\n"
        "  join NAME|ID [--name N] [--host H]\n"
        "                                make this device join transcoder NAME or ID (invokes\n"
        "                                /grouping/request) and wait until it follows it\n"
        "  leave                         make this device leave its group and wait until it follows\n"
        "                                nobody\n"
        "  save NAME [DEVICE...]         save the group NAME of this device and DEVICEs (ids or names from\n"
        "                                /system/members) and wait until it is saved; no DEVICE clears\n"
        "                                the saved group\n"
        "  group                         the saved group (members, time) and whom this device follows\n"
        "  house                         every device of the LAN by group, from the host's /system/house:\n"
        "                                  House: N devices, M groups; tarvctl talks to NAME [ID]\n"
        "                                  Group of NAME [ID]        one per transcoder with followers\n"
        "                                    NAME [ID]  transcoder\n"
        "                                    NAME [ID]  follower     its followers, by name\n"
        "                                  On their own              devices in no group, by name:\n"
        "                                    NAME [ID]  transcoder | follows nobody | master unknown |\n"
        "                                               follows NAME [ID] | follows ID, not in the house\n"
        "                                  Saved groups              devices with a saved group, by name:\n"
        "                                    NAME [ID]: \"GROUP\": MEMBER, ... (saved YYYY-MM-DD HH:MM:SS)\n"
        "                                a device line ends in \"(this device)\" for the host tarvctl talks\n"
        "                                to and \"(not reachable)\" for one other devices cannot reach;\n"
        "                                an empty section reads \"On their own: none\", \"Saved groups: none\";\n"
        "                                --json: {\"self\", \"groups\": [{\"transcoder\", \"followers\"}],\n"
        "                                \"alone\", \"devices\": [the rows' houseMember records]}\n"
        "  rows PATH                     the rows of the list at PATH\n"
        "  tree                          every node with its kind, title and rows, and the value paths\n"
        "  watch [PREFIX]                print value and rows events (of paths under PREFIX), one per line,\n"
        "                                until interrupted\n"
        "  ui                            the device's grouping list (/ui/grouping) as a user sees it\n"
        "  ui --watch                    print it, then again at every change, until interrupted\n"
        "  ui join NAME|ID               join a transcoder of the list through its join action and wait\n"
        "                                until this device follows it\n"
        "  ui leave                      leave the group through the list's leave action and wait until\n"
        "                                this device follows nobody\n"
        "\n"
        "Options:\n"
        "  --api URL          the host's control API (default: $TARV_API, else http://127.0.0.1:8080)\n"
        "  --device NAME|ID   aim the command at another device of the LAN through the host (default:\n"
        "                     $TARV_DEVICE): its id, else its name (case ignored) from /system/house;\n"
        "                     the host's own id or name talks to the host itself. join, leave, save,\n"
        "                     ui join, ui leave then wait by reading the device every 100 ms instead of\n"
        "                     following events; watch, ui --watch and tree cannot be aimed (exit 2)\n"
        "  --json             print the API's JSON instead of readable text (watch: one object per line)\n"
        "  --timeout-ms N     invoke, join, leave, save, ui join, ui leave: the host's bound for the reply\n"
        "                     (default 5000); watch, ui --watch: stop after N ms; other commands: how\n"
        "                     long to wait for the answer (default 10000)\n"
        "                     join, leave, save, ui join, ui leave: also how long to wait for the change\n"
        "  --no-wait          join, leave, save, ui join, ui leave: print the host's answer at once, without\n"
        "                     waiting for the change\n"
        "  --count N          watch: stop after N events; ui --watch: after N lists\n"
        "  --verbose          log each request and answer on stderr\n"
        "  -h, --help         show this help\n"
        "  --version          show tarvctl's version\n"
        "  Options take their value as the next argument or after '='; '--' ends the options.\n"
        "\n"
        "Exit codes:\n"
        "  0  success\n"
        "  1  the host refused the request (its error is printed) or answered with something unusable;\n"
        "     join, leave, save, ui join, ui leave: the device did not change within --timeout-ms\n"
        "  2  usage error: unknown command or option, missing argument, bad JSON value\n"
        "  3  cannot connect to the host (or the connection broke); with --device also: the host cannot\n"
        "     reach that device\n"
        "  4  timeout: no answer, no reply within the bound, or fewer events than --count; with --device\n"
        "     also: that device did not answer the host in time\n"
        "\n"
        "Examples:\n"
        "  tarvctl host\n"
        "  tarvctl set /settings/device/name --string kitchen\n"
        "  tarvctl get /system/member\n"
        "  tarvctl rows /grouping/members\n"
        "  tarvctl status\n"
        "  tarvctl join kitchen\n"
        "  tarvctl ui join kitchen\n"
        "  tarvctl invoke /grouping/request '{\"groupingRequest\": {\"command\": -1}}'\n"
        "  tarvctl save Home kitchen 3f2c...\n"
        "  tarvctl house\n"
        "  tarvctl --device kitchen leave\n"
        "  tarvctl --api http://10.0.0.7:8080 watch /grouping --count 1 --timeout-ms 3000\n");
}

bool CtlArguments::fail(const QString& error)
{
    m_error = error;
    return false;
}

bool CtlArguments::parse(const QStringList& arguments, const QString& apiFromEnvironment,
                         const QString& deviceFromEnvironment)
{
    QStringList positional;
    bool optionsEnded = false;
    for (int i = 0; i < arguments.size(); ++i) {
        const QString& token = arguments.at(i);
        if (optionsEnded || !token.startsWith(QLatin1Char('-')) || token == QLatin1String("-")
            || looksLikeNumber(token)) {
            positional.append(token);
            continue;
        }
        if (token == QLatin1String("--")) {
            optionsEnded = true;
            continue;
        }
        if (token == QLatin1String("-h")) {
            m_help = true;
            continue;
        }
        if (!token.startsWith(QLatin1String("--")))
            return fail(QStringLiteral("unknown option '%1' (see tarvctl --help)").arg(token));
        const int equals = token.indexOf(QLatin1Char('='));
        const QString name = token.mid(2, equals < 0 ? -1 : equals - 2);
        const OptionInfo* info = findOption(name);
        if (!info)
            return fail(QStringLiteral("unknown option '--%1' (see tarvctl --help)").arg(name));
        QString value;
        if (info->takesValue) {
            if (equals >= 0) {
                value = token.mid(equals + 1);
            } else if (i + 1 < arguments.size()) {
                value = arguments.at(++i);
            } else {
                return fail(QStringLiteral("option --%1 needs a value").arg(name));
            }
        } else if (equals >= 0) {
            return fail(QStringLiteral("option --%1 takes no value").arg(name));
        }
        m_options.insert(name, value);
    }

    m_help = m_help || m_options.contains(QStringLiteral("help"));
    m_version = m_options.contains(QStringLiteral("version"));
    m_json = m_options.contains(QStringLiteral("json"));
    m_verbose = m_options.contains(QStringLiteral("verbose"));
    if (m_options.contains(QStringLiteral("api"))) {
        m_api = m_options.value(QStringLiteral("api"));
        m_apiSource = QStringLiteral("--api");
    } else if (!apiFromEnvironment.isEmpty()) {
        m_api = apiFromEnvironment;
        m_apiSource = QStringLiteral("TARV_API");
    } else {
        m_api = QStringLiteral("http://127.0.0.1:8080");
        m_apiSource = QStringLiteral("default");
    }

    if (m_options.contains(QStringLiteral("device"))) {
        m_device = m_options.value(QStringLiteral("device"));
        m_deviceSource = QStringLiteral("--device");
    } else if (!deviceFromEnvironment.isEmpty()) {
        m_device = deviceFromEnvironment;
        m_deviceSource = QStringLiteral("TARV_DEVICE");
    }

    if (!positional.isEmpty()) {
        m_command = positional.takeFirst();
        m_arguments = positional;
    }
    if (m_command == QLatin1String("help")) {
        m_help = true;
        m_command.clear();
    }
    if (m_help || m_version)
        return true;
    return checkCommand();
}

bool CtlArguments::checkUi()
{
    const QString usage = QStringLiteral("usage: tarvctl ui [--watch] | ui join NAME|ID | ui leave");
    const QString action = m_arguments.value(0);
    const int wanted = action.isEmpty() ? 0 : action == QLatin1String("leave") ? 1 : 2;
    if (!action.isEmpty() && action != QLatin1String("join") && action != QLatin1String("leave"))
        return fail(QStringLiteral("ui: unknown action '%1'; %2").arg(action, usage));
    if (m_arguments.size() < wanted)
        return fail(QStringLiteral("ui join: missing NAME or ID; %1").arg(usage));
    if (m_arguments.size() > wanted)
        return fail(QStringLiteral("ui %1: unexpected argument '%2'; %3").arg(action, m_arguments.at(wanted), usage));
    if (action == QLatin1String("join") && m_arguments.at(1).isEmpty())
        return fail(QStringLiteral("ui join: the transcoder's NAME or ID is empty"));
    if (!action.isEmpty() && m_options.contains(QStringLiteral("watch")))
        return fail(QStringLiteral("ui %1: --watch is only for the list itself; %2").arg(action, usage));
    if (m_options.contains(QStringLiteral("count")) && !m_options.contains(QStringLiteral("watch")))
        return fail(QStringLiteral("ui: --count needs --watch"));
    if (action.isEmpty() && m_options.contains(QStringLiteral("no-wait")))
        return fail(QStringLiteral("ui: --no-wait is only for ui join and ui leave; %1").arg(usage));
    return true;
}

bool CtlArguments::checkDevice()
{
    if (m_deviceSource == QLatin1String("--device") && m_device.trimmed().isEmpty())
        return fail(QStringLiteral("--device needs a device's name or id"));
    if (m_device.isEmpty())
        return true;
    // Events and the tree stay with the host that has them: a host
    // forwards only single reads, writes and invokes.
    const bool watches = m_command == QLatin1String("watch")
        || (m_command == QLatin1String("ui") && m_options.contains(QStringLiteral("watch")));
    const QString command = m_command == QLatin1String("ui") ? QStringLiteral("ui --watch") : m_command;
    if (watches || m_command == QLatin1String("tree")) {
        return fail(QStringLiteral("%1 cannot be aimed at another device (%2 %3): a host does not forward %4; "
                                   "give that device's own API with --api")
                        .arg(command, m_deviceSource, m_device,
                             watches ? QStringLiteral("events") : QStringLiteral("the tree")));
    }
    return true;
}

bool CtlArguments::checkCommand()
{
    struct CommandInfo
    {
        QString name;
        int minArguments;
        int maxArguments;
        QString synopsis;
    };
    static const QList<CommandInfo> commands{
        {QStringLiteral("host"), 0, 0, QStringLiteral("host")},
        {QStringLiteral("status"), 0, 0, QStringLiteral("status")},
        {QStringLiteral("get"), 1, 1, QStringLiteral("get PATH")},
        {QStringLiteral("set"), 1, 2, QStringLiteral("set PATH VALUE | set PATH --string S | set PATH --int N")},
        {QStringLiteral("invoke"), 1, 2, QStringLiteral("invoke PATH [VALUE]")},
        {QStringLiteral("join"), 1, 1, QStringLiteral("join NAME|ID [--name N] [--host H] [--no-wait]")},
        {QStringLiteral("leave"), 0, 0, QStringLiteral("leave")},
        // A saved group has at most 64 members.
        {QStringLiteral("save"), 1, 65, QStringLiteral("save NAME [DEVICE...] [--no-wait]")},
        {QStringLiteral("group"), 0, 0, QStringLiteral("group")},
        {QStringLiteral("house"), 0, 0, QStringLiteral("house")},
        {QStringLiteral("rows"), 1, 1, QStringLiteral("rows PATH")},
        {QStringLiteral("tree"), 0, 0, QStringLiteral("tree")},
        {QStringLiteral("watch"), 0, 1, QStringLiteral("watch [PREFIX]")},
        {QStringLiteral("ui"), 0, 2, QStringLiteral("ui [--watch] | ui join NAME|ID | ui leave")},
    };

    if (m_command.isEmpty())
        return fail(QStringLiteral("no command given (see tarvctl --help)"));
    const CommandInfo* command = nullptr;
    for (const CommandInfo& info : commands) {
        if (info.name == m_command)
            command = &info;
    }
    if (!command)
        return fail(QStringLiteral("unknown command '%1' (see tarvctl --help)").arg(m_command));
    if (m_arguments.size() < command->minArguments)
        return fail(QStringLiteral("%1: missing argument; usage: tarvctl %2").arg(m_command, command->synopsis));
    if (m_arguments.size() > command->maxArguments) {
        return fail(QStringLiteral("%1: unexpected argument '%2'; usage: tarvctl %3")
                        .arg(m_command, m_arguments.at(command->maxArguments), command->synopsis));
    }

    for (auto it = m_options.constBegin(); it != m_options.constEnd(); ++it) {
        const OptionInfo* info = findOption(it.key());
        if (!info->commands.isEmpty() && !info->commands.contains(m_command)) {
            return fail(QStringLiteral("option --%1 is only for %2, not for %3")
                            .arg(it.key(), info->commands.join(QStringLiteral(", ")), m_command));
        }
    }

    bool ok = true;
    if (m_options.contains(QStringLiteral("timeout-ms"))) {
        const QString text = m_options.value(QStringLiteral("timeout-ms"));
        m_timeoutMs = text.toInt(&ok);
        if (!ok || m_timeoutMs <= 0)
            return fail(QStringLiteral("--timeout-ms needs a positive whole number of milliseconds, not '%1'").arg(text));
    }
    if (m_options.contains(QStringLiteral("count"))) {
        const QString text = m_options.value(QStringLiteral("count"));
        m_count = text.toInt(&ok);
        if (!ok || m_count <= 0)
            return fail(QStringLiteral("--count needs a positive whole number, not '%1'").arg(text));
    }
    if (m_options.contains(QStringLiteral("int"))) {
        const QString text = m_options.value(QStringLiteral("int"));
        text.toInt(&ok);
        if (!ok)
            return fail(
                QStringLiteral("--int needs a whole number from -2147483648 to 2147483647, not '%1'").arg(text));
    }
    if (m_command == QLatin1String("set")) {
        const int given = (m_arguments.size() > 1 ? 1 : 0) + (m_options.contains(QStringLiteral("string")) ? 1 : 0)
            + (m_options.contains(QStringLiteral("int")) ? 1 : 0);
        if (given == 0)
            return fail(QStringLiteral("set: no value; give VALUE (JSON), --string S or --int N"));
        if (given > 1)
            return fail(QStringLiteral("set: give only one of VALUE, --string S and --int N"));
    }
    if (m_command == QLatin1String("join") && m_arguments.first().isEmpty())
        return fail(QStringLiteral("join: the transcoder's NAME or ID is empty"));
    if (m_command == QLatin1String("ui") && !checkUi())
        return false;
    if (!checkDevice())
        return false;

    const bool takesPath = m_command == QLatin1String("get") || m_command == QLatin1String("set")
        || m_command == QLatin1String("invoke") || m_command == QLatin1String("rows")
        || (m_command == QLatin1String("watch") && !m_arguments.isEmpty());
    if (takesPath && !m_arguments.first().startsWith(QLatin1Char('/')))
        return fail(QStringLiteral("%1: a path starts with '/', e.g. /system/member; got '%2'")
                        .arg(m_command, m_arguments.first()));
    return true;
}
