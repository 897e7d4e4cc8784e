#include "CtlWatchCommand.h"

#include "TarvJson.h"

#include "CtlFormatter.h"

namespace {

// Segment-wise: "/grouping" covers "/grouping/members" but not "/groupings".
bool underPrefix(const QString& path, const QString& prefix)
{
    if (prefix.isEmpty() || prefix == QLatin1String("/"))
        return true;
    if (prefix.endsWith(QLatin1Char('/')))
        return path.startsWith(prefix);
    return path == prefix || path.startsWith(prefix + QLatin1Char('/'));
}

} // namespace

CtlWatchCommand::CtlWatchCommand(CtlContext& context)
    : m_context(context)
{
}

CtlExitCode::Enum CtlWatchCommand::run()
{
    const QString prefix = m_context.arguments().arguments().value(0);
    const int wanted = m_context.arguments().count();
    int seen = 0;
    const auto onEvent = [&](const CtlEvent& event) {
        bool wellFormed = false;
        const QString line = CtlFormatter::event(event, &wellFormed);
        if (!wellFormed) {
            m_context.err() << "tarvctl: ignored an event with malformed data: " << CtlFormatter::printable(line) << '\n';
            m_context.err().flush();
            return true;
        }
        if (!prefix.isEmpty() && !underPrefix(CtlFormatter::eventPath(event), prefix))
            return true;
        if (m_context.arguments().json()) {
            QJsonValue data;
            TarvJson::parseValue(event.data, &data, nullptr);
            QJsonObject object;
            object.insert(QStringLiteral("event"), event.name);
            object.insert(QStringLiteral("data"), data);
            m_context.out() << TarvJson::toText(object) << '\n';
        } else {
            m_context.out() << CtlFormatter::printable(line) << '\n';
        }
        // Each event is visible at once, also through a pipe.
        m_context.out().flush();
        ++seen;
        return wanted < 0 || seen < wanted;
    };
    const CtlReply reply = m_context.client().watch(onEvent, m_context.arguments().timeoutMs());
    return m_context.endWatch(reply, seen, QStringLiteral("events"));
}
