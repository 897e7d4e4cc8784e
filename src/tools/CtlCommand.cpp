#include "CtlCommand.h"

#include <QDateTime>
#include <QJsonArray>
#include <QSet>

#include "TarvEnums.h"
#include "TarvJson.h"
#include "TarvLog.h"
#include "TarvPaths.h"
#include "TarvValue.h"

#include "CtlFormatter.h"

#ifndef TARVCTL_VERSION
#define TARVCTL_VERSION "unknown"
#endif

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("CtlCommand");
}

// Segment-wise: "/grouping" covers "/grouping/members" but not "/groupings".
bool underPrefix(const QString& path, const QString& prefix)
{
    if (prefix.isEmpty() || prefix == QLatin1String("/"))
        return true;
    if (prefix.endsWith(QLatin1Char('/')))
        return path.startsWith(prefix);
    return path == prefix || path.startsWith(prefix + QLatin1Char('/'));
}

QJsonObject toJsonObject(const TarvHash& record)
{
    return TarvJson::fromVariant(record.toVariant()).toObject();
}

// The data of an event called `name` about `path`, parsed once; false for
// any other event.
bool eventAbout(const CtlEvent& event, const char* name, const CMPath& path, QJsonObject* data)
{
    if (event.name != QLatin1String(name))
        return false;
    QJsonValue parsed;
    if (!TarvJson::parseValue(event.data, &parsed, nullptr))
        return false;
    *data = parsed.toObject();
    return data->value(QStringLiteral("path")).toString() == path.toString();
}

// True for a rows event of /grouping/members whose new row is `ownId`'s
// and names `masterId` as its master.
bool ownMasterIs(const CtlEvent& event, const QString& ownId, const QString& masterId)
{
    QJsonObject data;
    if (!eventAbout(event, "rows", TarvGroupingMembersPath(), &data))
        return false;
    const QJsonObject row = data.value(QStringLiteral("new")).toObject();
    if (row.value(QStringLiteral("id")).toString() != ownId)
        return false;
    const TarvValue value(TarvJson::toVariant(row.value(QStringLiteral("value"))).toHash());
    return value.groupingMember().master().id() == masterId;
}

// True for a value event of the saved-group setting that holds a group
// named `name` whose members are exactly `members` (in any order).
bool savedGroupIs(const CtlEvent& event, const QString& name, const QSet<QString>& members)
{
    QJsonObject data;
    if (!eventAbout(event, "value", TarvGroupingPersistentGroupSettingsPath(), &data))
        return false;
    const TarvValue value(TarvJson::toVariant(data.value(QStringLiteral("value"))).toHash());
    const TarvGroupingPersistentGroup group = value.groupingPersistentGroup();
    const QStringList saved = group.members();
    return group.name() == name && QSet<QString>(saved.begin(), saved.end()) == members;
}

QString nameOf(const TarvSystemMember& member)
{
    return member.name().isEmpty() ? member.id() : member.name();
}

} // namespace

CtlCommand::CtlCommand(QTextStream& out, QTextStream& err)
    : m_out(out)
    , m_err(err)
{
}

QString CtlCommand::version()
{
    return QStringLiteral(TARVCTL_VERSION);
}

bool CtlCommand::parse(const QStringList& arguments, const QString& apiFromEnvironment)
{
    m_parsed = m_arguments.parse(arguments, apiFromEnvironment);
    if (!m_parsed)
        usageError(m_arguments.error());
    return m_parsed;
}

CtlExitCode::Enum CtlCommand::run(const QStringList& arguments, const QString& apiFromEnvironment)
{
    if (!parse(arguments, apiFromEnvironment))
        return CtlExitCode::Usage;
    return execute();
}

CtlExitCode::Enum CtlCommand::usageError(const QString& message)
{
    m_err << "tarvctl: " << message << '\n';
    m_err.flush();
    return CtlExitCode::Usage;
}

CtlExitCode::Enum CtlCommand::fail(const CtlReply& reply)
{
    if (m_arguments.json() && !reply.rawBody().isEmpty()) {
        // Scripts asking for JSON get the host's error object as well.
        QJsonValue body;
        if (TarvJson::parseValue(reply.rawBody(), &body, nullptr))
            m_out << TarvJson::toText(body, true) << '\n';
    }
    m_out.flush();
    m_err << "tarvctl: " << CtlFormatter::printable(CtlFormatter::toolHints(reply.describe())) << '\n';
    m_err.flush();
    return reply.exitCode();
}

CtlExitCode::Enum CtlCommand::finish(const CtlReply& reply,
                                     const std::function<QString(const QJsonObject&)>& readable)
{
    if (!reply.isOk())
        return fail(reply);
    if (m_arguments.json())
        m_out << TarvJson::toText(reply.body(), true) << '\n';
    else
        m_out << CtlFormatter::printable(readable(reply.body())) << '\n';
    m_out.flush();
    return CtlExitCode::Ok;
}

CtlExitCode::Enum CtlCommand::execute()
{
    if (!m_parsed)
        return CtlExitCode::Usage;
    if (m_arguments.help()) {
        m_out << CtlArguments::usage();
        m_out.flush();
        return CtlExitCode::Ok;
    }
    if (m_arguments.version()) {
        m_out << "tarvctl " << version() << '\n';
        m_out.flush();
        return CtlExitCode::Ok;
    }
    QString error;
    if (!m_client.setApi(m_arguments.api(), &error))
        return usageError(QStringLiteral("bad API URL (from %1): %2").arg(m_arguments.apiSource(), error));

    const QString& command = m_arguments.command();
    LOG4CPLUS_DEBUG(logger(), "Running " << command << " against " << m_client.api());
    const bool isUi = command == QLatin1String("ui");
    const bool invokes = command == QLatin1String("invoke") || command == QLatin1String("join")
        || command == QLatin1String("leave") || command == QLatin1String("save")
        || (isUi && !m_arguments.arguments().isEmpty());
    const bool watches = command == QLatin1String("watch") || (isUi && m_arguments.hasOption(QStringLiteral("watch")));
    if (m_arguments.timeoutMs() > 0 && !invokes && !watches)
        m_client.setTimeoutMs(m_arguments.timeoutMs());

    const QString path = m_arguments.arguments().value(0);
    if (command == QLatin1String("host"))
        return finish(m_client.host(), &CtlFormatter::host);
    if (command == QLatin1String("status"))
        return runStatus();
    if (command == QLatin1String("get")) {
        return finish(m_client.value(path), [](const QJsonObject& answer) {
            return CtlFormatter::value(answer.value(QStringLiteral("value")));
        });
    }
    if (command == QLatin1String("set"))
        return runSet();
    if (command == QLatin1String("invoke"))
        return runInvoke();
    if (command == QLatin1String("join"))
        return runJoin();
    if (command == QLatin1String("leave"))
        return runLeave();
    if (command == QLatin1String("save"))
        return runSave();
    if (command == QLatin1String("group"))
        return runGroup();
    if (command == QLatin1String("rows"))
        return finish(m_client.rows(path), &CtlFormatter::rows);
    if (command == QLatin1String("tree"))
        return finish(m_client.tree(), &CtlFormatter::tree);
    if (command == QLatin1String("watch"))
        return runWatch();
    if (isUi)
        return runUi();
    return usageError(QStringLiteral("unknown command '%1'").arg(command));
}

CtlExitCode::Enum CtlCommand::runSet()
{
    const QString path = m_arguments.arguments().at(0);
    QJsonValue value;
    if (m_arguments.hasOption(QStringLiteral("string"))) {
        value = toJsonObject(TarvValue().setString_(m_arguments.option(QStringLiteral("string"))));
    } else if (m_arguments.hasOption(QStringLiteral("int"))) {
        value = toJsonObject(TarvValue().setI32_(m_arguments.option(QStringLiteral("int")).toInt()));
    } else {
        QString error;
        if (!TarvJson::parseValue(m_arguments.arguments().at(1).toUtf8(), &value, &error)) {
            return usageError(QStringLiteral("set: VALUE is not valid JSON (%1): %2; for a plain text use --string")
                                  .arg(error, m_arguments.arguments().at(1)));
        }
    }
    return finish(m_client.setValue(path, value), [](const QJsonObject& answer) {
        return QStringLiteral("%1 = %2").arg(answer.value(QStringLiteral("path")).toString(),
                                             CtlFormatter::summary(answer.value(QStringLiteral("value")), 200));
    });
}

CtlExitCode::Enum CtlCommand::runInvoke()
{
    QJsonValue value = QJsonObject();
    if (m_arguments.arguments().size() > 1) {
        QString error;
        if (!TarvJson::parseValue(m_arguments.arguments().at(1).toUtf8(), &value, &error)) {
            return usageError(
                QStringLiteral("invoke: VALUE is not valid JSON (%1): %2").arg(error, m_arguments.arguments().at(1)));
        }
    }
    return finish(m_client.invoke(m_arguments.arguments().at(0), value, m_arguments.timeoutMs()),
                  [](const QJsonObject& answer) { return CtlFormatter::value(answer.value(QStringLiteral("result"))); });
}

CtlReply CtlCommand::invokeGrouping(const TarvGroupingRequest& request)
{
    const QJsonObject value = toJsonObject(TarvValue().setGroupingRequest(request));
    return m_client.invoke(TarvGroupingRequestPath().toString(), value, m_arguments.timeoutMs());
}

CtlExitCode::Enum CtlCommand::requestChange(const std::function<CtlReply()>& act, const Expect& expect,
                                            const std::function<QString(const QJsonObject&)>& readable)
{
    if (m_arguments.hasOption(QStringLiteral("no-wait")))
        return finish(act(), readable);
    QString ownId;
    TarvSystemMember master;
    CtlExitCode::Enum code = CtlExitCode::Ok;
    if (!readOwnGrouping(&ownId, &master, &code))
        return code;
    const Expectation expected = expect(ownId, master);
    const int waitMs = m_arguments.timeoutMs() > 0 ? m_arguments.timeoutMs() : CtlClient::defaultInvokeTimeoutMs();
    CtlReply answer;
    const CtlReply outcome = m_client.actAndAwait(act, expected.arrived, waitMs, &answer);
    if (!answer.isOk())
        return fail(answer);
    if (outcome.kind() == CtlReply::Timeout && outcome.httpStatus() == 0) {
        // The request was taken, but the module checks it later and only
        // logs a refusal; the missing change is all a client can see.
        LOG4CPLUS_DEBUG(logger(), "No change within " << waitMs << " ms");
        m_err << "tarvctl: no change: the device refused (see its log)\n";
        m_err.flush();
        return CtlExitCode::ApiError;
    }
    if (!outcome.isOk())
        return fail(outcome);
    const QString done = expected.done;
    return finish(answer, [done](const QJsonObject&) { return done; });
}

CtlCommand::Expect CtlCommand::joining(const QString& masterId, const QString& name)
{
    return [masterId, name](const QString& ownId, const TarvSystemMember&) {
        return Expectation{[ownId, masterId](const CtlEvent& event) { return ownMasterIs(event, ownId, masterId); },
                           QStringLiteral("joined ") + name};
    };
}

CtlCommand::Expect CtlCommand::leaving()
{
    // A device that follows nobody has nothing to leave: the module does
    // nothing, and the wait ends in "no change".
    return [](const QString& ownId, const TarvSystemMember& master) {
        return Expectation{[ownId](const CtlEvent& event) { return ownMasterIs(event, ownId, ownId); },
                           QStringLiteral("left ") + nameOf(master)};
    };
}

CtlCommand::Expect CtlCommand::saving(const QString& name, const QStringList& ids)
{
    return [name, ids](const QString& ownId, const TarvSystemMember&) {
        // The module always lists the saving device; a save naming nobody
        // else clears the saved group, name and all.
        QSet<QString> members(ids.begin(), ids.end());
        members.remove(ownId);
        if (members.isEmpty()) {
            return Expectation{[](const CtlEvent& event) { return savedGroupIs(event, QString(), {}); },
                               QStringLiteral("cleared the saved group")};
        }
        members.insert(ownId);
        return Expectation{[name, members](const CtlEvent& event) { return savedGroupIs(event, name, members); },
                           QStringLiteral("saved ") + name};
    };
}

bool CtlCommand::readOwnGrouping(QString* ownId, TarvSystemMember* master, CtlExitCode::Enum* exitCode)
{
    const CtlReply host = m_client.host();
    const QString id = host.body().value(QStringLiteral("id")).toString();
    if (host.isOk() && id.isEmpty()) {
        m_err << "tarvctl: the host did not say its id\n";
        m_err.flush();
        *exitCode = CtlExitCode::ApiError;
        return false;
    }
    if (!host.isOk()) {
        *exitCode = fail(host);
        return false;
    }
    const CtlReply members = m_client.rows(TarvGroupingMembersPath().toString());
    if (!members.isOk()) {
        *exitCode = fail(members);
        return false;
    }
    *ownId = id;
    *master = TarvSystemMember();
    for (const QJsonValue& row : members.body().value(QStringLiteral("rows")).toArray()) {
        const QJsonObject object = row.toObject();
        if (object.value(QStringLiteral("id")).toString() != id)
            continue;
        const TarvValue value(TarvJson::toVariant(object.value(QStringLiteral("value"))).toHash());
        *master = value.groupingMember().master();
    }
    return true;
}

CtlExitCode::Enum CtlCommand::runStatus()
{
    const CtlReply host = m_client.host();
    if (!host.isOk())
        return fail(host);
    const CtlReply members = m_client.rows(TarvSystemMembersPath().toString());
    if (!members.isOk())
        return fail(members);
    const CtlReply grouping = m_client.rows(TarvGroupingMembersPath().toString());
    if (!grouping.isOk())
        return fail(grouping);
    const QJsonObject status = CtlFormatter::statusOf(host.body(), members.body(), grouping.body());
    m_out << (m_arguments.json() ? TarvJson::toText(status, true) : CtlFormatter::printable(CtlFormatter::status(status)))
          << '\n';
    m_out.flush();
    return CtlExitCode::Ok;
}

CtlExitCode::Enum CtlCommand::runJoin()
{
    const QString nameOrId = m_arguments.arguments().at(0);
    TarvSystemMember master;
    master.setId(nameOrId);
    const bool named = m_arguments.hasOption(QStringLiteral("name"));
    const bool hosted = m_arguments.hasOption(QStringLiteral("host"));
    if (!named || !hosted) {
        // The transcoder's name and host name come from the device list,
        // as the module's own join action takes them; the user may name it
        // by its id or, when no other device has that name, by its name.
        const CtlReply members = m_client.rows(TarvSystemMembersPath().toString());
        if (!members.isOk())
            return fail(members);
        QList<TarvSystemMember> byId;
        QList<TarvSystemMember> byName;
        for (const QJsonValue& row : members.body().value(QStringLiteral("rows")).toArray()) {
            const QJsonObject object = row.toObject();
            const TarvSystemMember known =
                TarvValue(TarvJson::toVariant(object.value(QStringLiteral("value"))).toHash()).systemMember();
            if (object.value(QStringLiteral("id")).toString() == nameOrId)
                byId.append(known.id().isEmpty() ? TarvSystemMember(known).setId(nameOrId) : known);
            else if (known.name() == nameOrId && !known.id().isEmpty())
                byName.append(known);
        }
        const QList<TarvSystemMember> found = byId.isEmpty() ? byName : byId;
        QString problem;
        if (found.size() > 1) {
            QStringList ids;
            for (const TarvSystemMember& member : found)
                ids.append(member.id());
            problem = QStringLiteral("join: %1 devices are named '%2'; give the id: %3")
                          .arg(found.size())
                          .arg(nameOrId, ids.join(QStringLiteral(", ")));
        } else if (found.isEmpty() && !hosted) {
            problem = QStringLiteral("join: no device with the id or name '%1' in %2 (tarvctl status lists them); "
                                     "give --name and --host to join it anyway")
                          .arg(nameOrId, TarvSystemMembersPath().toString());
        }
        if (!problem.isEmpty()) {
            m_err << "tarvctl: " << CtlFormatter::printable(problem) << '\n';
            m_err.flush();
            return CtlExitCode::ApiError;
        }
        if (!found.isEmpty())
            master.setId(found.first().id()).setName(found.first().name()).setHost(found.first().host());
    }
    if (named)
        master.setName(m_arguments.option(QStringLiteral("name")));
    if (hosted)
        master.setHost(m_arguments.option(QStringLiteral("host")));
    TarvGroupingRequest request;
    request.setCommand(TarvGroupingRequestCommand::Join).setMaster(master);
    return requestChange([this, request]() { return invokeGrouping(request); }, joining(master.id(), nameOf(master)),
                         [](const QJsonObject& answer) {
                             return CtlFormatter::value(answer.value(QStringLiteral("result")));
                         });
}

CtlExitCode::Enum CtlCommand::runLeave()
{
    TarvGroupingRequest request;
    request.setCommand(TarvGroupingRequestCommand::Leave);
    return requestChange([this, request]() { return invokeGrouping(request); }, leaving(),
                         [](const QJsonObject& answer) {
                             return CtlFormatter::value(answer.value(QStringLiteral("result")));
                         });
}

CtlReply CtlCommand::readSystemMembers(QList<TarvSystemMember>* members)
{
    const CtlReply reply = m_client.rows(TarvSystemMembersPath().toString());
    if (reply.isOk()) {
        const QJsonArray rows = reply.body().value(QStringLiteral("rows")).toArray();
        for (const QJsonValue& row : rows) {
            const QJsonValue value = row.toObject().value(QStringLiteral("value"));
            members->append(TarvValue(TarvJson::toVariant(value).toHash()).systemMember());
        }
    }
    return reply;
}

CtlExitCode::Enum CtlCommand::apiError(const QString& message)
{
    m_err << "tarvctl: " << CtlFormatter::printable(message) << '\n';
    m_err.flush();
    return CtlExitCode::ApiError;
}

CtlExitCode::Enum CtlCommand::runSave()
{
    const QStringList arguments = m_arguments.arguments();
    TarvList<QString> ids;
    if (arguments.size() > 1) {
        QList<TarvSystemMember> members;
        const CtlReply read = readSystemMembers(&members);
        if (!read.isOk())
            return fail(read);
        for (const QString& device : arguments.mid(1)) {
            // An id names one device; a name may be shared, and then it
            // names none.
            QStringList matches;
            for (const TarvSystemMember& member : qAsConst(members)) {
                if (member.id() == device) {
                    matches = QStringList{member.id()};
                    break;
                }
                if (member.name() == device)
                    matches.append(member.id());
            }
            if (matches.isEmpty()) {
                return apiError(QStringLiteral("save: no device with id or name '%1' in %2")
                                    .arg(device, TarvSystemMembersPath().toString()));
            }
            if (matches.size() > 1) {
                return apiError(QStringLiteral("save: %1 devices are named '%2' (%3); give the id")
                                    .arg(matches.size())
                                    .arg(device, matches.join(QStringLiteral(", "))));
            }
            ids.append(matches.first());
        }
    }
    TarvGroupingPersistentGroup group;
    group.setName(arguments.at(0)).setMembers(ids);
    const QJsonObject value = toJsonObject(TarvValue().setGroupingPersistentGroup(group));
    // The module answers a save once it is written; whether the host kept
    // it shows only in the setting, so that is what is waited for.
    return requestChange(
        [this, value]() {
            return m_client.invoke(TarvGroupingPersistentGroupSavePath().toString(), value, m_arguments.timeoutMs());
        },
        saving(arguments.at(0), ids),
        [](const QJsonObject& answer) { return CtlFormatter::value(answer.value(QStringLiteral("result"))); });
}

CtlExitCode::Enum CtlCommand::runGroup()
{
    const CtlReply saved = m_client.value(TarvGroupingPersistentGroupSettingsPath().toString());
    if (!saved.isOk())
        return fail(saved);
    const CtlReply self = m_client.value(TarvSystemMemberIdPath().toString());
    if (!self.isOk())
        return fail(self);
    const CtlReply grouping = m_client.rows(TarvGroupingMembersPath().toString());
    if (!grouping.isOk())
        return fail(grouping);
    QList<TarvSystemMember> members;
    const CtlReply read = readSystemMembers(&members);
    if (!read.isOk())
        return fail(read);

    const auto valueOf = [](const CtlReply& reply) {
        return TarvValue(TarvJson::toVariant(reply.body().value(QStringLiteral("value"))).toHash());
    };
    const TarvGroupingPersistentGroup group = valueOf(saved).groupingPersistentGroup();
    const QString selfId = valueOf(self).string_();
    TarvSystemMember master;
    bool known = false;
    for (const QJsonValue& row : grouping.body().value(QStringLiteral("rows")).toArray()) {
        if (row.toObject().value(QStringLiteral("id")).toString() == selfId) {
            const QJsonValue value = row.toObject().value(QStringLiteral("value"));
            master = TarvValue(TarvJson::toVariant(value).toHash()).groupingMember().master();
            known = true;
        }
    }
    const auto nameOf = [&members](const QString& id) {
        for (const TarvSystemMember& member : members) {
            if (member.id() == id)
                return member.name();
        }
        return QString();
    };

    if (m_arguments.json()) {
        QJsonArray named;
        for (const QString& id : group.members())
            named.append(QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("name"), nameOf(id)}});
        QJsonObject answer{{QStringLiteral("self"), selfId},
                           {QStringLiteral("savedGroup"), toJsonObject(group)},
                           {QStringLiteral("members"), named}};
        if (known) {
            answer.insert(QStringLiteral("master"), QJsonObject{{QStringLiteral("id"), master.id()},
                                                                {QStringLiteral("name"), nameOf(master.id())}});
        }
        m_out << TarvJson::toText(answer, true) << '\n';
        m_out.flush();
        return CtlExitCode::Ok;
    }

    QString text;
    const QString time = group.timestamp() > 0
        ? QDateTime::fromMSecsSinceEpoch(group.timestamp(), Qt::UTC).toString(Qt::ISODateWithMs)
        : QString();
    if (group.members().isEmpty()) {
        text += time.isEmpty() ? QStringLiteral("saved group: none\n")
                               : QStringLiteral("saved group: none (cleared %1)\n").arg(time);
    } else {
        text += QStringLiteral("saved group: %1, saved %2\n").arg(group.name(), time);
        for (const QString& id : group.members()) {
            const QString name = nameOf(id);
            text += QStringLiteral("  %1  %2%3\n")
                        .arg(id, name.isEmpty() ? QStringLiteral("(not online)") : name,
                             id == selfId ? QStringLiteral(" (this device)") : QString());
        }
    }
    if (!known)
        text += QStringLiteral("follows: unknown (no own row in %1)").arg(TarvGroupingMembersPath().toString());
    else if (master.id() == selfId)
        text += QStringLiteral("follows: nobody, this device is its own master");
    else
        text += QStringLiteral("follows: %1 (%2)").arg(nameOf(master.id()).isEmpty() ? master.name() : nameOf(master.id()),
                                                    master.id());
    m_out << CtlFormatter::printable(text) << '\n';
    m_out.flush();
    return CtlExitCode::Ok;
}

CtlExitCode::Enum CtlCommand::runWatch()
{
    const QString prefix = m_arguments.arguments().value(0);
    const int wanted = m_arguments.count();
    int seen = 0;
    const auto onEvent = [&](const CtlEvent& event) {
        bool wellFormed = false;
        const QString line = CtlFormatter::event(event, &wellFormed);
        if (!wellFormed) {
            m_err << "tarvctl: ignored an event with malformed data: " << CtlFormatter::printable(line) << '\n';
            m_err.flush();
            return true;
        }
        if (!prefix.isEmpty() && !underPrefix(CtlFormatter::eventPath(event), prefix))
            return true;
        if (m_arguments.json()) {
            QJsonValue data;
            TarvJson::parseValue(event.data, &data, nullptr);
            QJsonObject object;
            object.insert(QStringLiteral("event"), event.name);
            object.insert(QStringLiteral("data"), data);
            m_out << TarvJson::toText(object) << '\n';
        } else {
            m_out << CtlFormatter::printable(line) << '\n';
        }
        // Each event is visible at once, also through a pipe.
        m_out.flush();
        ++seen;
        return wanted < 0 || seen < wanted;
    };
    const CtlReply reply = m_client.watch(onEvent, m_arguments.timeoutMs());
    return endWatch(reply, seen, QStringLiteral("events"));
}

CtlExitCode::Enum CtlCommand::endWatch(const CtlReply& reply, int seen, const QString& what)
{
    const int wanted = m_arguments.count();
    if (reply.isOk())
        return CtlExitCode::Ok;
    if (reply.kind() == CtlReply::Timeout && reply.httpStatus() == 0) {
        if (wanted < 0)
            return CtlExitCode::Ok; // the duration was all that was asked for
        m_err << "tarvctl: timeout: " << seen << " of " << wanted << " " << what << " within "
              << m_arguments.timeoutMs() << " ms\n";
        m_err.flush();
        return CtlExitCode::Timeout;
    }
    return fail(reply);
}

CtlExitCode::Enum CtlCommand::runUi()
{
    const QStringList& arguments = m_arguments.arguments();
    if (arguments.isEmpty()) {
        if (m_arguments.hasOption(QStringLiteral("watch")))
            return runUiWatch();
        return finish(m_client.rows(TarvGroupingUIPath().toString()), &CtlFormatter::groupingView);
    }
    if (arguments.first() == QLatin1String("leave")) {
        const QString path = TarvGroupingUILeavePath().toString();
        return requestChange([this, path]() { return activateUiAction(path); }, leaving(),
                             [](const QJsonObject&) { return QStringLiteral("leave: done"); });
    }
    return runUiJoin(arguments.at(1));
}

CtlExitCode::Enum CtlCommand::runUiJoin(const QString& nameOrId)
{
    // The user picks a transcoder as the list shows it: by id, or else by
    // its name when exactly one transcoder has it.
    const CtlReply list = m_client.rows(TarvGroupingUIPath().toString());
    if (!list.isOk())
        return fail(list);
    QList<QJsonObject> byId;
    QList<QJsonObject> byName;
    const QJsonArray rows = list.body().value(QStringLiteral("rows")).toArray();
    for (const QJsonValue& value : rows) {
        const QJsonObject row = value.toObject();
        if (row.value(QStringLiteral("type")).toInt() != TarvRolesType::GroupingTranscoder)
            continue;
        if (row.value(QStringLiteral("id")).toString() == nameOrId)
            byId.append(row);
        else if (CtlFormatter::transcoderName(row) == nameOrId)
            byName.append(row);
    }
    const QList<QJsonObject> found = byId.isEmpty() ? byName : byId;
    QString problem;
    if (found.isEmpty()) {
        problem = QStringLiteral("ui join: no transcoder '%1' in %2 (\"%3\"); tarvctl ui shows the list")
                      .arg(nameOrId, TarvGroupingUIPath().toString(),
                           list.body().value(QStringLiteral("title")).toString());
    } else if (found.size() > 1) {
        QStringList ids;
        for (const QJsonObject& row : found)
            ids.append(row.value(QStringLiteral("id")).toString());
        problem = QStringLiteral("ui join: %1 transcoders are named '%2'; give the id: %3")
                      .arg(found.size())
                      .arg(nameOrId, ids.join(QStringLiteral(", ")));
    }
    if (!problem.isEmpty()) {
        m_err << "tarvctl: " << CtlFormatter::printable(problem) << '\n';
        m_err.flush();
        return CtlExitCode::ApiError;
    }

    const QJsonObject row = found.first();
    const QString target = QStringLiteral("%1 [%2]").arg(CtlFormatter::transcoderName(row),
                                                          row.value(QStringLiteral("id")).toString());
    // Its row leads to the leave action: activating it would end the very
    // following that was asked for.
    if (CtlFormatter::isFollowedTranscoder(row)) {
        m_out << CtlFormatter::printable(QStringLiteral("ui join: already following %1").arg(target)) << '\n';
        m_out.flush();
        return CtlExitCode::Ok;
    }
    const QString path = row.value(QStringLiteral("path")).toString();
    const QString done = QStringLiteral("join %1: done").arg(target);
    return requestChange([this, path]() { return activateUiAction(path); },
                         joining(row.value(QStringLiteral("id")).toString(), CtlFormatter::transcoderName(row)),
                         [done](const QJsonObject&) { return done; });
}

CtlReply CtlCommand::activateUiAction(const QString& path)
{
    return m_client.invoke(path, QJsonObject(), m_arguments.timeoutMs());
}

CtlExitCode::Enum CtlCommand::runUiWatch()
{
    const int wanted = m_arguments.count();
    int shown = 0;
    QJsonObject lastShown;
    CtlReply failure;
    // Draws the list when it differs from what was drawn last; false ends
    // the watch (enough lists, or the list could not be read).
    const auto draw = [&]() {
        const CtlReply list = m_client.rows(TarvGroupingUIPath().toString());
        if (!list.isOk()) {
            failure = list;
            return false;
        }
        // One change of view comes as many row events; the list read after
        // the first of them is usually already the final one.
        if (shown > 0 && list.body() == lastShown)
            return true;
        lastShown = list.body();
        if (m_arguments.json())
            m_out << TarvJson::toText(list.body()) << '\n';
        else
            m_out << (shown > 0 ? QStringLiteral("\n") : QString())
                  << CtlFormatter::printable(CtlFormatter::groupingView(list.body())) << '\n';
        m_out.flush();
        ++shown;
        return wanted < 0 || shown < wanted;
    };
    const auto onEvent = [&](const CtlEvent& event) {
        QJsonObject data;
        if (!eventAbout(event, "rows", TarvGroupingUIPath(), &data))
            return true;
        return draw();
    };
    const CtlReply reply = m_client.watch(onEvent, m_arguments.timeoutMs(), draw);
    if (!failure.isOk())
        return fail(failure);
    return endWatch(reply, shown, QStringLiteral("lists"));
}
