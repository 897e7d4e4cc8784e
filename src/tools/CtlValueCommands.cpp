#include "CtlValueCommands.h"

#include "TarvJson.h"
#include "TarvValue.h"

#include "CtlFormatter.h"

CtlValueCommands::CtlValueCommands(CtlContext& context)
    : m_context(context)
{
}

CtlExitCode::Enum CtlValueCommands::runHost()
{
    return m_context.finish(m_context.client().host(), &CtlFormatter::host);
}

CtlExitCode::Enum CtlValueCommands::runGet()
{
    const QString path = m_context.arguments().arguments().value(0);
    return m_context.finish(m_context.client().value(path), [](const QJsonObject& answer) {
        return CtlFormatter::value(answer.value(QStringLiteral("value")));
    });
}

CtlExitCode::Enum CtlValueCommands::runSet()
{
    const CtlArguments& arguments = m_context.arguments();
    const QString path = arguments.arguments().at(0);
    QJsonValue value;
    if (arguments.hasOption(QStringLiteral("string"))) {
        value = CtlContext::toJsonObject(TarvValue().setString_(arguments.option(QStringLiteral("string"))));
    } else if (arguments.hasOption(QStringLiteral("int"))) {
        value = CtlContext::toJsonObject(TarvValue().setI32_(arguments.option(QStringLiteral("int")).toInt()));
    } else {
        QString error;
        if (!TarvJson::parseValue(arguments.arguments().at(1).toUtf8(), &value, &error)) {
            return m_context.usageError(
                QStringLiteral("set: VALUE is not valid JSON (%1): %2; for a plain text use --string")
                    .arg(error, arguments.arguments().at(1)));
        }
    }
    return m_context.finish(m_context.client().setValue(path, value), [](const QJsonObject& answer) {
        return QStringLiteral("%1 = %2").arg(answer.value(QStringLiteral("path")).toString(),
                                             CtlFormatter::summary(answer.value(QStringLiteral("value")), 200));
    });
}

CtlExitCode::Enum CtlValueCommands::runInvoke()
{
    const CtlArguments& arguments = m_context.arguments();
    QJsonValue value = QJsonObject();
    if (arguments.arguments().size() > 1) {
        QString error;
        if (!TarvJson::parseValue(arguments.arguments().at(1).toUtf8(), &value, &error)) {
            return m_context.usageError(
                QStringLiteral("invoke: VALUE is not valid JSON (%1): %2").arg(error, arguments.arguments().at(1)));
        }
    }
    return m_context.finish(
        m_context.client().invoke(arguments.arguments().at(0), value, arguments.timeoutMs()),
        [](const QJsonObject& answer) { return CtlFormatter::value(answer.value(QStringLiteral("result"))); });
}

CtlExitCode::Enum CtlValueCommands::runRows()
{
    return m_context.finish(m_context.client().rows(m_context.arguments().arguments().value(0)), &CtlFormatter::rows);
}

CtlExitCode::Enum CtlValueCommands::runTree()
{
    return m_context.finish(m_context.client().tree(), &CtlFormatter::tree);
}
