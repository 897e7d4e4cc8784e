#include "CtlUiCommands.h"

#include <QJsonArray>

#include "TarvEnums.h"
#include "TarvJson.h"
#include "TarvPaths.h"

#include "CtlChangeRequest.h"
#include "CtlFormatter.h"

CtlUiCommands::CtlUiCommands(CtlContext& context)
    : m_context(context)
{
}

CtlExitCode::Enum CtlUiCommands::run()
{
    const QStringList& arguments = m_context.arguments().arguments();
    if (arguments.isEmpty()) {
        if (m_context.arguments().hasOption(QStringLiteral("watch")))
            return runWatch();
        return m_context.finish(m_context.client().rows(TarvGroupingUIPath().toString()), &CtlFormatter::groupingView);
    }
    if (arguments.first() == QLatin1String("leave")) {
        const QString path = TarvGroupingUILeavePath().toString();
        return CtlChangeRequest(m_context).run([this, path]() { return activateAction(path); }, CtlChangeRequest::leaving(),
                             [](const QJsonObject&) { return QStringLiteral("leave: done"); });
    }
    return runJoin(arguments.at(1));
}

CtlExitCode::Enum CtlUiCommands::runJoin(const QString& nameOrId)
{
    // The user picks a transcoder as the list shows it: by id, or else by
    // its name when exactly one transcoder has it.
    const CtlReply list = m_context.client().rows(TarvGroupingUIPath().toString());
    if (!list.isOk())
        return m_context.fail(list);
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
        m_context.err() << "tarvctl: " << CtlFormatter::printable(problem) << '\n';
        m_context.err().flush();
        return CtlExitCode::ApiError;
    }

    const QJsonObject row = found.first();
    const QString target = QStringLiteral("%1 [%2]").arg(CtlFormatter::transcoderName(row),
                                                          row.value(QStringLiteral("id")).toString());
    // Its row leads to the leave action: activating it would end the very
    // following that was asked for.
    if (CtlFormatter::isFollowedTranscoder(row)) {
        m_context.out() << CtlFormatter::printable(QStringLiteral("ui join: already following %1").arg(target)) << '\n';
        m_context.out().flush();
        return CtlExitCode::Ok;
    }
    const QString path = row.value(QStringLiteral("path")).toString();
    const QString done = QStringLiteral("join %1: done").arg(target);
    return CtlChangeRequest(m_context).run([this, path]() { return activateAction(path); },
                         CtlChangeRequest::joining(row.value(QStringLiteral("id")).toString(), CtlFormatter::transcoderName(row)),
                         [done](const QJsonObject&) { return done; });
}

CtlReply CtlUiCommands::activateAction(const QString& path)
{
    return m_context.client().invoke(path, QJsonObject(), m_context.arguments().timeoutMs());
}

CtlExitCode::Enum CtlUiCommands::runWatch()
{
    const int wanted = m_context.arguments().count();
    int shown = 0;
    QJsonObject lastShown;
    CtlReply failure;
    // Draws the list when it differs from what was drawn last; false ends
    // the watch (enough lists, or the list could not be read).
    const auto draw = [&]() {
        const CtlReply list = m_context.client().rows(TarvGroupingUIPath().toString());
        if (!list.isOk()) {
            failure = list;
            return false;
        }
        // One change of view comes as many row events; the list read after
        // the first of them is usually already the final one.
        if (shown > 0 && list.body() == lastShown)
            return true;
        lastShown = list.body();
        if (m_context.arguments().json())
            m_context.out() << TarvJson::toText(list.body()) << '\n';
        else
            m_context.out() << (shown > 0 ? QStringLiteral("\n") : QString())
                  << CtlFormatter::printable(CtlFormatter::groupingView(list.body())) << '\n';
        m_context.out().flush();
        ++shown;
        return wanted < 0 || shown < wanted;
    };
    const auto onEvent = [&](const CtlEvent& event) {
        QJsonObject data;
        if (!CtlContext::eventAbout(event, "rows", TarvGroupingUIPath(), &data))
            return true;
        return draw();
    };
    const CtlReply reply = m_context.client().watch(onEvent, m_context.arguments().timeoutMs(), draw);
    if (!failure.isOk())
        return m_context.fail(failure);
    return m_context.endWatch(reply, shown, QStringLiteral("lists"));
}
