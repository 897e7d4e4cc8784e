#include "CtlChangeRequest.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QSet>
#include <QThread>

#include "TarvJson.h"
#include "TarvLog.h"
#include "TarvPaths.h"
#include "TarvValue.h"

namespace {

log4cplus::Logger logger()
{
    return TarvLog::logger("CtlChangeRequest");
}

// True for a row of /grouping/members that is `ownId`'s and names
// `masterId` as its master.
bool rowNamesMaster(const QJsonObject& row, const QString& ownId, const QString& masterId)
{
    if (row.value(QStringLiteral("id")).toString() != ownId)
        return false;
    const TarvValue value(TarvJson::toVariant(row.value(QStringLiteral("value"))).toHash());
    return value.groupingMember().master().id() == masterId;
}

// True for a rows event of /grouping/members whose new row is `ownId`'s
// and names `masterId` as its master.
bool ownMasterIs(const CtlEvent& event, const QString& ownId, const QString& masterId)
{
    QJsonObject data;
    if (!CtlContext::eventAbout(event, "rows", TarvGroupingMembersPath(), &data))
        return false;
    return rowNamesMaster(data.value(QStringLiteral("new")).toObject(), ownId, masterId);
}

// True for a saved-group value that holds a group named `name` whose
// members are exactly `members` (in any order).
bool groupIs(const QJsonValue& json, const QString& name, const QSet<QString>& members)
{
    const TarvValue value(TarvJson::toVariant(json).toHash());
    const TarvGroupingPersistentGroup group = value.groupingPersistentGroup();
    const QStringList saved = group.members();
    return group.name() == name && QSet<QString>(saved.begin(), saved.end()) == members;
}

// True for a value event of the saved-group setting that holds a group
// named `name` whose members are exactly `members` (in any order).
bool savedGroupIs(const CtlEvent& event, const QString& name, const QSet<QString>& members)
{
    QJsonObject data;
    if (!CtlContext::eventAbout(event, "value", TarvGroupingPersistentGroupSettingsPath(), &data))
        return false;
    return groupIs(data.value(QStringLiteral("value")), name, members);
}

// Reading /grouping/members, the part that shows a join or leave: the
// device's own row.
CtlChangeRequest::Expectation ownRowComesToName(const QString& ownId, const QString& masterId, const QString& done)
{
    CtlChangeRequest::Expectation expectation;
    expectation.arrived = [ownId, masterId](const CtlEvent& event) { return ownMasterIs(event, ownId, masterId); };
    expectation.read = [](CtlClient& client) { return client.rows(TarvGroupingMembersPath().toString()); };
    expectation.part = [ownId](const QJsonObject& answer) {
        for (const QJsonValue& row : answer.value(QStringLiteral("rows")).toArray()) {
            if (row.toObject().value(QStringLiteral("id")).toString() == ownId)
                return row;
        }
        return QJsonValue();
    };
    expectation.holds = [ownId, masterId](const QJsonValue& row) {
        return rowNamesMaster(row.toObject(), ownId, masterId);
    };
    expectation.done = done;
    return expectation;
}

// Reading the saved-group setting, its value shows a save.
CtlChangeRequest::Expectation settingComesToHold(const QString& name, const QSet<QString>& members,
                                                 const QString& done)
{
    CtlChangeRequest::Expectation expectation;
    expectation.arrived = [name, members](const CtlEvent& event) { return savedGroupIs(event, name, members); };
    expectation.read = [](CtlClient& client) {
        return client.value(TarvGroupingPersistentGroupSettingsPath().toString());
    };
    expectation.part = [](const QJsonObject& answer) { return answer.value(QStringLiteral("value")); };
    expectation.holds = [name, members](const QJsonValue& value) { return groupIs(value, name, members); };
    expectation.done = done;
    return expectation;
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
    if (!m_context.client().device().isEmpty())
        return pollFor(act, expected, waitMs);
    CtlReply answer;
    const CtlReply outcome = m_context.client().actAndAwait(act, expected.arrived, waitMs, &answer);
    if (!answer.isOk())
        return m_context.fail(answer);
    if (outcome.kind() == CtlReply::Timeout && outcome.httpStatus() == 0)
        return noChange(waitMs);
    if (!outcome.isOk())
        return m_context.fail(outcome);
    const QString done = expected.done;
    return m_context.finish(answer, [done](const QJsonObject&) { return done; });
}

CtlExitCode::Enum CtlChangeRequest::noChange(int waitMs)
{
    // The request was taken, but the module checks it later and only
    // logs a refusal; the missing change is all a client can see.
    LOG4CPLUS_DEBUG(logger(), "No change within " << waitMs << " ms");
    m_context.err() << "tarvctl: no change: the device refused (see its log)\n";
    m_context.err().flush();
    return CtlExitCode::ApiError;
}

CtlExitCode::Enum CtlChangeRequest::pollFor(const std::function<CtlReply()>& act, const Expectation& expected,
                                            int waitMs)
{
    CtlClient& client = m_context.client();
    QElapsedTimer elapsed;
    elapsed.start();
    // Read before the request, so that only a change it brought counts,
    // as only a change brings an event.
    const CtlReply before = expected.read(client);
    if (!before.isOk())
        return m_context.fail(before);
    const QJsonValue baseline = expected.part(before.body());
    const CtlReply answer = act();
    if (!answer.isOk())
        return m_context.fail(answer);
    int reads = 0;
    do {
        const qint64 left = waitMs - elapsed.elapsed();
        QThread::msleep(ulong(qBound<qint64>(0, left, pollIntervalMs())));
        // A slow read must not stretch the wait much beyond --timeout-ms.
        client.setTimeoutMs(int(qMax<qint64>(waitMs - elapsed.elapsed(), 500)));
        const CtlReply now = expected.read(client);
        ++reads;
        if (!now.isOk())
            return m_context.fail(now);
        const QJsonValue part = expected.part(now.body());
        if (part != baseline && expected.holds(part)) {
            LOG4CPLUS_DEBUG(logger(), "Change seen after " << reads << " reads");
            const QString done = expected.done;
            return m_context.finish(answer, [done](const QJsonObject&) { return done; });
        }
    } while (elapsed.elapsed() < waitMs);
    return noChange(waitMs);
}

CtlChangeRequest::Expect CtlChangeRequest::joining(const QString& masterId, const QString& name)
{
    return [masterId, name](const QString& ownId, const TarvSystemMember&) {
        return ownRowComesToName(ownId, masterId, QStringLiteral("joined ") + name);
    };
}

CtlChangeRequest::Expect CtlChangeRequest::leaving()
{
    // A device that follows nobody has nothing to leave: the module does
    // nothing, and the wait ends in "no change".
    return [](const QString& ownId, const TarvSystemMember& master) {
        return ownRowComesToName(ownId, ownId, QStringLiteral("left ") + nameOf(master));
    };
}

CtlChangeRequest::Expect CtlChangeRequest::saving(const QString& name, const QStringList& ids)
{
    return [name, ids](const QString& ownId, const TarvSystemMember&) {
        // The module always lists the saving device; a save naming nobody
        // else clears the saved group, name and all.
        QSet<QString> members(ids.begin(), ids.end());
        members.remove(ownId);
        if (members.isEmpty())
            return settingComesToHold(QString(), {}, QStringLiteral("cleared the saved group"));
        members.insert(ownId);
        return settingComesToHold(name, members, QStringLiteral("saved ") + name);
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
