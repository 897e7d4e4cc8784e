#include "CtlChangeRequest.h"

#include <QJsonArray>
#include <QSet>

#include "TarvJson.h"
#include "TarvLog.h"
#include "TarvPaths.h"
#include "TarvValue.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("CtlChangeRequest");
}

// True for a rows event of /grouping/members whose new row is `ownId`'s
// and names `masterId` as its master.
bool ownMasterIs(const CtlEvent& event, const QString& ownId, const QString& masterId)
{
    QJsonObject data;
    if (!CtlContext::eventAbout(event, "rows", TarvGroupingMembersPath(), &data))
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
    if (!CtlContext::eventAbout(event, "value", TarvGroupingPersistentGroupSettingsPath(), &data))
        return false;
    const TarvValue value(TarvJson::toVariant(data.value(QStringLiteral("value"))).toHash());
    const TarvGroupingPersistentGroup group = value.groupingPersistentGroup();
    const QStringList saved = group.members();
    return group.name() == name && QSet<QString>(saved.begin(), saved.end()) == members;
}

} // namespace

CtlChangeRequest::CtlChangeRequest(CtlContext& context)
    : m_context(context)
{
}

QString CtlChangeRequest::nameOf(const TarvSystemMember& member)
{
    return member.name().isEmpty() ? member.id() : member.name();
}

CtlExitCode::Enum CtlChangeRequest::run(const std::function<CtlReply()>& act, const Expect& expect,
                                        const std::function<QString(const QJsonObject&)>& readable)
{
    const CtlArguments& arguments = m_context.arguments();
    if (arguments.hasOption(QStringLiteral("no-wait")))
        return m_context.finish(act(), readable);
    QString ownId;
    TarvSystemMember master;
    CtlExitCode::Enum code = CtlExitCode::Ok;
    if (!readOwnGrouping(&ownId, &master, &code))
        return code;
    const Expectation expected = expect(ownId, master);
    const int waitMs = arguments.timeoutMs() > 0 ? arguments.timeoutMs() : CtlClient::defaultInvokeTimeoutMs();
    CtlReply answer;
    const CtlReply outcome = m_context.client().actAndAwait(act, expected.arrived, waitMs, &answer);
    if (!answer.isOk())
        return m_context.fail(answer);
    if (outcome.kind() == CtlReply::Timeout && outcome.httpStatus() == 0) {
        // The request was taken, but the module checks it later and only
        // logs a refusal; the missing change is all a client can see.
        LOG4CPLUS_DEBUG(logger(), "No change within " << waitMs << " ms");
        m_context.err() << "tarvctl: no change: the device refused (see its log)\n";
        m_context.err().flush();
        return CtlExitCode::ApiError;
    }
    if (!outcome.isOk())
        return m_context.fail(outcome);
    const QString done = expected.done;
    return m_context.finish(answer, [done](const QJsonObject&) { return done; });
}

CtlChangeRequest::Expect CtlChangeRequest::joining(const QString& masterId, const QString& name)
{
    return [masterId, name](const QString& ownId, const TarvSystemMember&) {
        return Expectation{[ownId, masterId](const CtlEvent& event) { return ownMasterIs(event, ownId, masterId); },
                           QStringLiteral("joined ") + name};
    };
}

CtlChangeRequest::Expect CtlChangeRequest::leaving()
{
    // A device that follows nobody has nothing to leave: the module does
    // nothing, and the wait ends in "no change".
    return [](const QString& ownId, const TarvSystemMember& master) {
        return Expectation{[ownId](const CtlEvent& event) { return ownMasterIs(event, ownId, ownId); },
                           QStringLiteral("left ") + nameOf(master)};
    };
}

CtlChangeRequest::Expect CtlChangeRequest::saving(const QString& name, const QStringList& ids)
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

bool CtlChangeRequest::readOwnGrouping(QString* ownId, TarvSystemMember* master, CtlExitCode::Enum* exitCode)
{
    const CtlReply host = m_context.client().host();
    const QString id = host.body().value(QStringLiteral("id")).toString();
    if (host.isOk() && id.isEmpty()) {
        m_context.err() << "tarvctl: the host did not say its id\n";
        m_context.err().flush();
        *exitCode = CtlExitCode::ApiError;
        return false;
    }
    if (!host.isOk()) {
        *exitCode = m_context.fail(host);
        return false;
    }
    const CtlReply members = m_context.client().rows(TarvGroupingMembersPath().toString());
    if (!members.isOk()) {
        *exitCode = m_context.fail(members);
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
