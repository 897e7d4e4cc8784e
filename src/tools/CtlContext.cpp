#include "CtlContext.h"

#include "TarvJson.h"

#include "CtlFormatter.h"

CtlContext::CtlContext(QTextStream& out, QTextStream& err, const CtlArguments& arguments, CtlClient& client)
    : m_out(out)
    , m_err(err)
    , m_arguments(arguments)
    , m_client(client)
{
}

CtlExitCode::Enum CtlContext::usageError(const QString& message)
{
    m_err << "tarvctl: " << message << '\n';
    m_err.flush();
    return CtlExitCode::Usage;
}

CtlExitCode::Enum CtlContext::fail(const CtlReply& reply)
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

CtlExitCode::Enum CtlContext::finish(const CtlReply& reply,
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

CtlExitCode::Enum CtlContext::apiError(const QString& message)
{
    m_err << "tarvctl: " << CtlFormatter::printable(message) << '\n';
    m_err.flush();
    return CtlExitCode::ApiError;
}

CtlExitCode::Enum CtlContext::endWatch(const CtlReply& reply, int seen, const QString& what)
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

QJsonObject CtlContext::toJsonObject(const TarvHash& record)
{
    return TarvJson::fromVariant(record.toVariant()).toObject();
}

bool CtlContext::eventAbout(const CtlEvent& event, const char* name, const CMPath& path, QJsonObject* data)
{
    if (event.name != QLatin1String(name))
        return false;
    QJsonValue parsed;
    if (!TarvJson::parseValue(event.data, &parsed, nullptr))
        return false;
    *data = parsed.toObject();
    return data->value(QStringLiteral("path")).toString() == path.toString();
}
