#include "CtlGroupingCommands.h"

#include <QDateTime>
#include <QJsonArray>

#include "TarvEnums.h"
#include "TarvJson.h"
#include "TarvPaths.h"
#include "TarvValue.h"

#include "CtlChangeRequest.h"
#include "CtlFormatter.h"

CtlGroupingCommands::CtlGroupingCommands(CtlContext& context)
    : m_context(context)
{
}

CtlReply CtlGroupingCommands::invokeGrouping(const TarvGroupingRequest& request)
{
    const QJsonObject value = CtlContext::toJsonObject(TarvValue().setGroupingRequest(request));
    return m_context.client().invoke(TarvGroupingRequestPath().toString(), value, m_context.arguments().timeoutMs());
}

CtlExitCode::Enum CtlGroupingCommands::runStatus()
{
    const CtlReply host = m_context.client().host();
    if (!host.isOk())
        return m_context.fail(host);
    const CtlReply members = m_context.client().rows(TarvSystemMembersPath().toString());
    if (!members.isOk())
        return m_context.fail(members);
    const CtlReply grouping = m_context.client().rows(TarvGroupingMembersPath().toString());
    if (!grouping.isOk())
        return m_context.fail(grouping);
    // The device's record lists its saved group's members only; the name
    // is in the setting.
    const CtlReply saved = m_context.client().value(TarvGroupingPersistentGroupSettingsPath().toString());
    if (!saved.isOk())
        return m_context.fail(saved);
    QJsonObject status = CtlFormatter::statusOf(host.body(), members.body(), grouping.body());
    const TarvValue savedValue(TarvJson::toVariant(saved.body().value(QStringLiteral("value"))).toHash());
    status.insert(QStringLiteral("savedGroupName"), savedValue.groupingPersistentGroup().name());
    m_context.out() << (m_context.arguments().json() ? TarvJson::toText(status, true) : CtlFormatter::printable(CtlFormatter::status(status)))
          << '\n';
    m_context.out().flush();
    return CtlExitCode::Ok;
}

CtlExitCode::Enum CtlGroupingCommands::runJoin()
{
    const QString nameOrId = m_context.arguments().arguments().at(0);
    TarvSystemMember master;
    master.setId(nameOrId);
    const bool named = m_context.arguments().hasOption(QStringLiteral("name"));
    const bool hosted = m_context.arguments().hasOption(QStringLiteral("host"));
    if (!named || !hosted) {
        // The transcoder's name and host name come from the device list,
        // as the module's own join action takes them; the user may name it
        // by its id or, when no other device has that name, by its name.
        const CtlReply members = m_context.client().rows(TarvSystemMembersPath().toString());
        if (!members.isOk())
            return m_context.fail(members);
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
            m_context.err() << "tarvctl: " << CtlFormatter::printable(problem) << '\n';
            m_context.err().flush();
            return CtlExitCode::ApiError;
        }
        if (!found.isEmpty())
            master.setId(found.first().id()).setName(found.first().name()).setHost(found.first().host());
    }
    if (named)
        master.setName(m_context.arguments().option(QStringLiteral("name")));
    if (hosted)
        master.setHost(m_context.arguments().option(QStringLiteral("host")));
    TarvGroupingRequest request;
    request.setCommand(TarvGroupingRequestCommand::Join).setMaster(master);
    return CtlChangeRequest(m_context).run([this, request]() { return invokeGrouping(request); }, CtlChangeRequest::joining(master.id(), CtlChangeRequest::nameOf(master)),
                         [](const QJsonObject& answer) {
                             return CtlFormatter::value(answer.value(QStringLiteral("result")));
                         });
}

CtlExitCode::Enum CtlGroupingCommands::runLeave()
{
    TarvGroupingRequest request;
    request.setCommand(TarvGroupingRequestCommand::Leave);
    return CtlChangeRequest(m_context).run([this, request]() { return invokeGrouping(request); }, CtlChangeRequest::leaving(),
                         [](const QJsonObject& answer) {
                             return CtlFormatter::value(answer.value(QStringLiteral("result")));
                         });
}

CtlReply CtlGroupingCommands::readSystemMembers(QList<TarvSystemMember>* members)
{
    const CtlReply reply = m_context.client().rows(TarvSystemMembersPath().toString());
    if (reply.isOk()) {
        const QJsonArray rows = reply.body().value(QStringLiteral("rows")).toArray();
        for (const QJsonValue& row : rows) {
            const QJsonValue value = row.toObject().value(QStringLiteral("value"));
            members->append(TarvValue(TarvJson::toVariant(value).toHash()).systemMember());
        }
    }
    return reply;
}

CtlExitCode::Enum CtlGroupingCommands::runSave()
{
    const QStringList arguments = m_context.arguments().arguments();
    TarvList<QString> ids;
    if (arguments.size() > 1) {
        QList<TarvSystemMember> members;
        const CtlReply read = readSystemMembers(&members);
        if (!read.isOk())
            return m_context.fail(read);
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
                return m_context.apiError(QStringLiteral("save: no device with id or name '%1' in %2")
                                    .arg(device, TarvSystemMembersPath().toString()));
            }
            if (matches.size() > 1) {
                return m_context.apiError(QStringLiteral("save: %1 devices are named '%2' (%3); give the id")
                                    .arg(matches.size())
                                    .arg(device, matches.join(QStringLiteral(", "))));
            }
            ids.append(matches.first());
        }
    }
    TarvGroupingPersistentGroup group;
    group.setName(arguments.at(0)).setMembers(ids);
    const QJsonObject value = CtlContext::toJsonObject(TarvValue().setGroupingPersistentGroup(group));
    // The module answers a save once it is written; whether the host kept
    // it shows only in the setting, so that is what is waited for.
    return CtlChangeRequest(m_context).run(
        [this, value]() {
            return m_context.client().invoke(TarvGroupingPersistentGroupSavePath().toString(), value, m_context.arguments().timeoutMs());
        },
        CtlChangeRequest::saving(arguments.at(0), ids),
        [](const QJsonObject& answer) { return CtlFormatter::value(answer.value(QStringLiteral("result"))); });
}

CtlExitCode::Enum CtlGroupingCommands::runGroup()
{
    const CtlReply saved = m_context.client().value(TarvGroupingPersistentGroupSettingsPath().toString());
    if (!saved.isOk())
        return m_context.fail(saved);
    const CtlReply self = m_context.client().value(TarvSystemMemberIdPath().toString());
    if (!self.isOk())
        return m_context.fail(self);
    const CtlReply grouping = m_context.client().rows(TarvGroupingMembersPath().toString());
    if (!grouping.isOk())
        return m_context.fail(grouping);
    QList<TarvSystemMember> members;
    const CtlReply read = readSystemMembers(&members);
    if (!read.isOk())
        return m_context.fail(read);

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

    if (m_context.arguments().json()) {
        QJsonArray named;
        for (const QString& id : group.members())
            named.append(QJsonObject{{QStringLiteral("id"), id}, {QStringLiteral("name"), nameOf(id)}});
        QJsonObject answer{{QStringLiteral("self"), selfId},
                           {QStringLiteral("savedGroup"), CtlContext::toJsonObject(group)},
                           {QStringLiteral("members"), named}};
        if (known) {
            answer.insert(QStringLiteral("master"), QJsonObject{{QStringLiteral("id"), master.id()},
                                                                {QStringLiteral("name"), nameOf(master.id())}});
        }
        m_context.out() << TarvJson::toText(answer, true) << '\n';
        m_context.out().flush();
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
    m_context.out() << CtlFormatter::printable(text) << '\n';
    m_context.out().flush();
    return CtlExitCode::Ok;
}
